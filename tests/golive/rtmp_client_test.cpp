// The publishing client against a scripted server on loopback, and its pieces on their own:
// ingest URLs, AMF0, the chunk stream both ways and the delivery tracker.
#include <gmock/gmock.h>

#include <atomic>
#include <condition_variable>
#include <mutex>

#include "golive/amf0.h"
#include "golive/rtmp_socket.h"
#include "golive/scripted_server.h"

namespace qvn::test {
namespace {

// ---- Ingest URLs --------------------------------------------------------------------------

TEST(IngestURL, PathsKeysPortsAndTheTcUrl) {
  auto two = parseIngestURL("rtmp://in.example.net/app/key1", "");
  ASSERT_TRUE(two);
  EXPECT_EQ(two->app, "app");
  EXPECT_EQ(two->stream, "key1");
  EXPECT_EQ(two->port, 1935);
  EXPECT_EQ(two->tcUrl, "rtmp://in.example.net/app");
  auto keyed = parseIngestURL("rtmp://in.example.net/app/inner/", "given");
  EXPECT_EQ(keyed->app, "app/inner");
  EXPECT_EQ(keyed->stream, "given");

  auto tls = parseIngestURL("  RTMPS://live.example.net  ", "");
  ASSERT_TRUE(tls);
  EXPECT_TRUE(tls->tls);
  EXPECT_EQ(tls->port, 443);
  EXPECT_EQ(tls->app, "live");
  EXPECT_EQ(tls->stream, "live");
  EXPECT_EQ(tls->tcUrl, "rtmps://live.example.net/live");

  auto odd = parseIngestURL("rtmp://host:port/live", "k");
  EXPECT_EQ(odd->host, "host:port");
  EXPECT_EQ(odd->port, 1935);
  EXPECT_EQ(parseIngestURL("rtmp://h:1935/live", "k")->tcUrl, "rtmp://h/live");
  EXPECT_EQ(parseIngestURL("rtmps://h:8443/live", "k")->tcUrl, "rtmps://h:8443/live");
  EXPECT_EQ(parseIngestURL("h/live", "k")->host, "h");
  EXPECT_FALSE(parseIngestURL(" rtmp:// ", "k"));
  EXPECT_FALSE(parseIngestURL("rtmp:///", "k"));
}

// ---- AMF0 ------------------------------------------------------------------------------------

TEST(AMF0, WritesWhatItReadsAndSkipsWhatItDoesNotKnow) {
  const Bytes body = amf0::Writer()
                         .string("onStatus")
                         .number(3)
                         .null()
                         .object({{"level", std::string("status")},
                                  {"code", std::string("NetStream.Publish.Start")},
                                  {"n", 2.0},
                                  {"x", std::monostate{}}})
                         .bytes();
  amf0::Reader in(body);
  EXPECT_EQ(in.string(), "onStatus");
  EXPECT_EQ(in.number(), 3.0);
  in.skip();
  const auto info = in.object();
  ASSERT_TRUE(info);
  EXPECT_EQ(info->at("code"), "NetStream.Publish.Start");
  EXPECT_FALSE(info->contains("n"));  // only strings are kept
  EXPECT_FALSE(in.number());          // out of bytes

  Bytes cut(body.begin(), body.end() - 8);  // an object that runs out
  amf0::Reader partial(cut);
  partial.string(), partial.number(), partial.skip();
  EXPECT_EQ(partial.object()->at("level"), "status");

  const Bytes unknown{0x0B, 0x02, 0x00, 0x01, 'a'};  // a date marker, then a string
  amf0::Reader skipping(unknown);
  EXPECT_FALSE(skipping.string());
  EXPECT_EQ(skipping.string(), "a");
}

// ---- Chunks ----------------------------------------------------------------------------------

std::vector<RTMPMessage> parseAll(ChunkParser& parser, Bytes& inbound) {
  std::vector<RTMPMessage> out;
  parser.parse(inbound, [&](const RTMPMessage& m) { out.push_back(m); });
  return out;
}

TEST(ChunkStream, MessagesSurviveEverySplitAndInterleaving) {
  Bytes body(300), small(100);
  for (size_t i = 0; i < body.size(); ++i) body[i] = std::uint8_t(i * 7);
  for (size_t i = 0; i < small.size(); ++i) small[i] = std::uint8_t(255 - i);
  // A message in three chunks of 128 on stream 6, and one on stream 4 with an extended
  // timestamp, sent between its first and second chunks.
  const Bytes a = chunkMessage(9, 1, 40, body, 6, 128);
  const Bytes b = chunkMessage(8, 1, 0x1000000, small, 4, 128);
  ASSERT_EQ(b.size(), 16 + small.size());
  Bytes wire(a.begin(), a.begin() + 12 + 128);
  wire.insert(wire.end(), b.begin(), b.end());
  wire.insert(wire.end(), a.begin() + 12 + 128, a.end());
  for (size_t cut = 0; cut <= wire.size(); ++cut) {
    ChunkParser parser;
    Bytes inbound(wire.begin(), wire.begin() + long(cut));
    auto got = parseAll(parser, inbound);
    inbound.insert(inbound.end(), wire.begin() + long(cut), wire.end());
    for (auto& m : parseAll(parser, inbound)) got.push_back(m);
    ASSERT_EQ(got.size(), 2u) << "cut at " << cut;
    EXPECT_TRUE(inbound.empty());
    EXPECT_EQ(got[0].csid, 4u);
    EXPECT_EQ(got[0].timestamp, 0x1000000u);
    EXPECT_EQ(got[0].body, small);
    EXPECT_EQ(got[1].timestamp, 40u);
    EXPECT_EQ(got[1].body, body);
  }
}

TEST(ChunkStream, ALongTimestampIsRepeatedBehindEveryContinuation) {
  const Bytes body(200, 0x11);
  const Bytes wire = chunkMessage(9, 1, 0x12345678, body, 6, 128);
  ASSERT_EQ(wire.size(), 12 + 4 + 128 + 1 + 4 + 72);
  EXPECT_EQ(Bytes(wire.begin() + 1, wire.begin() + 4), (Bytes{0xFF, 0xFF, 0xFF}));
  EXPECT_EQ(Bytes(wire.begin() + 12, wire.begin() + 16), (Bytes{0x12, 0x34, 0x56, 0x78}));
  EXPECT_EQ(wire[16 + 128], 0xC6);
  EXPECT_EQ(Bytes(wire.begin() + 145, wire.begin() + 149), (Bytes{0x12, 0x34, 0x56, 0x78}));
}

TEST(ChunkStream, ShrunkHeadersAndContinuationsOfNothingAreSkipped) {
  ChunkParser parser;
  parser.setChunkSize(0);
  EXPECT_EQ(parser.chunkSize(), 128u);
  Bytes inbound{0xC5, 0xC5};  // fmt 3 on a stream never headed
  const Bytes ok = chunkMessage(20, 0, 0, Bytes{1, 2, 3}, 3, 128);
  inbound.insert(inbound.end(), ok.begin(), ok.end());
  auto got = parseAll(parser, inbound);
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0].body, (Bytes{1, 2, 3}));
}

// ---- Delivery tracker --------------------------------------------------------------------------

TEST(DeliveryTracker, TellsAWrapFromARestartAndMeasuresDelay) {
  QvnDeliveryTracker t;
  t.window = 65536;
  t.wrote(4'000'000'000, 1.0);
  t.wrote(1'000'000'000, 2.0);
  t.acknowledged(4'294'900'000u, 3.0);  // within four windows of the top of the count
  EXPECT_EQ(t.acked(), 4'294'900'000);
  EXPECT_DOUBLE_EQ(*t.lastDelay(), 1.0);
  t.acknowledged(1000, 3.5);  // wrapped: still counting up
  EXPECT_EQ(t.acked(), 4'294'968'296);
  EXPECT_DOUBLE_EQ(*t.delaySeconds(6.0), 4.0);  // the next window's byte left at 2.0

  QvnDeliveryTracker r;
  r.window = 65536;
  r.wrote(100'000, 1.0);
  r.acknowledged(80'000, 1.5);
  r.acknowledged(5'000, 2.0);  // far from the top: the peer started again
  EXPECT_EQ(r.acked(), 85'000);
  EXPECT_DOUBLE_EQ(*r.minDelay(), 0.5);
  EXPECT_DOUBLE_EQ(*r.queueDelaySeconds(2.0), 0.5);
  EXPECT_FALSE(QvnDeliveryTracker{}.delaySeconds(1.0));
}

// ---- The client against a scripted server ------------------------------------------------------

// A client connected to a scripted server and past the handshake.
struct Session {
  Session(const std::string& path, const std::string& key, Queue* timers = nullptr)
      : socket(RTMPSocket::make(timers)) {
    outcome.attach(*socket);
    socket->connect("rtmp://127.0.0.1:" + std::to_string(peer.port()) + path, key);
    accepted = peer.accept();
    if (accepted) server.handshake();
  }
  ScriptedPeer peer;
  Outcome outcome;
  std::shared_ptr<RTMPSocket> socket;
  Server server{peer};
  bool accepted = false;
};

TEST(RTMPClient, PublishesThenUnpublishesInOrder) {
  Session session("/live", "show");
  ASSERT_TRUE(session.accepted);
  auto& [peer, outcome, socket, server, accepted] = session;

  RTMPMessage chunkSize = server.next();
  EXPECT_EQ(chunkSize.type, 1);
  EXPECT_EQ(chunkSize.body, (Bytes{0, 0, 0x10, 0}));
  RTMPMessage window = server.next();
  EXPECT_EQ(window.type, 5);
  EXPECT_EQ(window.body, (Bytes{0, 0x01, 0x24, 0xF8}));  // 6 Mb/s: a tenth of a second
  EXPECT_EQ(server.nextCommand(), "connect");
  auto connect = amf0::Reader(server.lastCommand().body);
  connect.string(), connect.number();
  const auto info = connect.object();
  EXPECT_EQ(info->at("tcUrl"), "rtmp://127.0.0.1:" + std::to_string(peer.port()) + "/live");
  EXPECT_EQ(info->at("flashVer"), "FMLE/3.0 (compatible; Quorvane Camera)");

  server.command(result(1));
  EXPECT_EQ(server.nextCommand(), "createStream");
  server.command(result(1));  // again: no second createStream
  server.command(result(2, 7));
  EXPECT_EQ(server.nextCommand(), "publish");
  EXPECT_EQ(server.lastCommand().streamId, 7u);
  EXPECT_EQ(server.lastCommand().csid, 8u);
  EXPECT_EQ(socket->msgStreamId(), 7u);

  server.command(status("NetStream.Publish.Start"), 5);
  ASSERT_TRUE(outcome.waitFor([&] { return outcome.ready == 1; }));
  EXPECT_TRUE(socket->ready());

  const Bytes frame(10000, 0x42), sound(100, 0x24);
  socket->sendMessage(9, 7, 1234, frame, 6);
  socket->sendMessage(8, 7, 0x1000001, sound, 4);  // past the 24-bit timestamp
  RTMPMessage media = server.next();
  EXPECT_EQ(media.type, 9);
  EXPECT_EQ(media.timestamp, 1234u);
  EXPECT_EQ(media.body, frame);
  media = server.next();
  EXPECT_EQ(media.timestamp, 0x1000001u);
  EXPECT_EQ(media.body, sound);
  peer.write({0x02, 0, 0, 0, 0, 0, 4, 3, 0, 0, 0, 0, 0, 0, 0x20, 0});  // Acknowledgement
  for (int i = 0; i < 1000 && !socket->withDelivery([](auto& d) { return d.seen(); }); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_EQ(socket->withDelivery([](auto& d) { return d.acked(); }), 0x2000);

  socket->close();
  EXPECT_EQ(server.nextCommand(), "FCUnpublish");
  EXPECT_EQ(server.nextCommand(), "deleteStream");
  EXPECT_TRUE(peer.clientClosed());
  EXPECT_TRUE(outcome.failures.empty());
  EXPECT_EQ(socket->sendCounters().pending, 0);
}

TEST(RTMPClient, EachEndIsReportedOnceWithItsReason) {
  {  // an error reply
    Session session("/live/k", "");
    ASSERT_TRUE(session.accepted);
    auto& [peer, outcome, socket, server, accepted] = session;
    EXPECT_EQ(server.nextCommand(), "connect");
    server.command(amf0::Writer().string("_error").number(1).bytes());
    peer.closeClient();  // and the connection goes too: still one report
    ASSERT_TRUE(outcome.waitFor([&] { return !outcome.failures.empty(); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(outcome.failures, (std::vector<std::string>{"RTMP command error"}));
  }
  {  // a refused publish
    Session session("/live", "k");
    ASSERT_TRUE(session.accepted);
    auto& [peer, outcome, socket, server, accepted] = session;
    server.nextCommand();
    server.command(status("NetStream.Publish.Denied"), 5);  // neither: nothing happens
    server.command(status("NetStream.Publish.Rejected"), 5);
    ASSERT_TRUE(outcome.waitFor([&] { return !outcome.failures.empty(); }));
    EXPECT_EQ(outcome.failures.front(), "Publish rejected: NetStream.Publish.Rejected");
  }
  {  // nobody listening, and a port that can't be used
    Outcome outcome;
    int port;
    {
      ScriptedPeer gone;
      port = gone.port();
    }
    auto socket = RTMPSocket::make();
    outcome.attach(*socket);
    socket->connect("rtmp://127.0.0.1:" + std::to_string(port) + "/live", "k");
    ASSERT_TRUE(outcome.waitFor([&] { return !outcome.failures.empty(); }));
    EXPECT_EQ(outcome.failures.front(), "Connection refused");
    auto bad = RTMPSocket::make();
    outcome.attach(*bad);
    bad->connect("rtmp://127.0.0.1:0/live", "k");
    EXPECT_EQ(outcome.failures.back(), "Bad ingest URL");
  }
}

TEST(RTMPClient, ThePublishTimeOutEndsASilentServerAndCloseBeforeReadySendsNothing) {
  ManualMainQueue timers;
  {
    Session silent("/live", "k", &timers);
    ASSERT_TRUE(silent.accepted);
    silent.server.nextCommand();
    timers.advance(14.9);
    EXPECT_TRUE(silent.outcome.failures.empty());
    timers.advance(0.2);
    EXPECT_EQ(silent.outcome.failures, (std::vector<std::string>{"Ingest publish timed out"}));
    EXPECT_TRUE(silent.peer.clientClosed());
    timers.advance(20);
    EXPECT_EQ(silent.outcome.failures.size(), 1u);
  }
  Session early("/live", "k", &timers);
  ASSERT_TRUE(early.accepted);
  early.server.nextCommand();
  early.socket->close();
  timers.advance(0.2);
  EXPECT_TRUE(early.peer.readAvailable().empty());  // no FCUnpublish: it never published
  EXPECT_TRUE(early.outcome.failures.empty());
}

}  // namespace
}  // namespace qvn::test
