#include "golive/rtmp_socket.h"

#include <algorithm>
#include <random>

#include "golive/amf0.h"
#include "support/qvn_log.h"

namespace qvn {

namespace {

constexpr int kHandshakeSize = 1536;
constexpr size_t kReceiveMost = 65536;

Queue& processTimers() {
  static SerialQueue* const queue = new SerialQueue("io.quorvane.rtmp.timeouts");
  return *queue;
}

std::vector<std::uint8_t> be32(std::uint32_t v) {
  return {std::uint8_t(v >> 24), std::uint8_t(v >> 16), std::uint8_t(v >> 8), std::uint8_t(v)};
}

std::uint32_t readBE32(const std::vector<std::uint8_t>& b) {
  return std::uint32_t(b[0]) << 24 | std::uint32_t(b[1]) << 16 | std::uint32_t(b[2]) << 8 | b[3];
}

}  // namespace

std::shared_ptr<RTMPSocket> RTMPSocket::make(Queue* timers) {
  return std::shared_ptr<RTMPSocket>(new RTMPSocket(timers));
}

RTMPSocket::RTMPSocket(Queue* timers) : timers_(timers ? *timers : processTimers()) {}

RTMPSocket::~RTMPSocket() {
  timeout_.cancel();
  if (connection_) connection_->cancel();
}

std::shared_ptr<NetConnection> RTMPSocket::connection() const {
  std::lock_guard lock(stateLock_);
  return connection_;
}

// ---- Connecting ---------------------------------------------------------------------------

void RTMPSocket::connect(const std::string& ingestURL, const std::string& streamKey) {
  auto parsed = parseIngestURL(ingestURL, streamKey);
  if (!parsed || parsed->host.empty() || parsed->port == 0) {
    {
      std::lock_guard lock(stateLock_);
      failed_ = true;
    }
    if (onFailed) onFailed("Bad ingest URL");
    return;
  }
  target_ = *parsed;
  QvnLog::line("golive rtmp connect " + target_.tcUrl + " tls=" + (target_.tls ? "on" : "off"));
  std::lock_guard lock(stateLock_);
  armTimeout(kConnectSeconds, "Ingest connect timed out");
  connection_ = NetConnection::open(
      {target_.host, target_.port, target_.tls},
      [weak = weak_from_this()](NetConnection::State state, const std::string& error) {
        if (auto self = weak.lock()) self->onState(state, error);
      });
}

void RTMPSocket::onState(NetConnection::State state, const std::string& error) {
  {
    std::lock_guard lock(stateLock_);
    if (closing_) return;
    switch (state) {
      case NetConnection::State::waiting: {
        const double now = monotonicTime();
        if (!waitingSince_) waitingSince_ = now;
        const double left = kConnectSeconds - (now - *waitingSince_);
        if (left > 0) {
          armTimeout(left, "Ingest connect timed out");
          return;
        }
        break;  // waited long enough: fail below
      }
      case NetConnection::State::ready:
        waitingSince_.reset();
        armTimeout(kPublishSeconds, "Ingest publish timed out");
        break;
      default:
        break;
    }
  }
  switch (state) {
    case NetConnection::State::waiting:
      return fail("Ingest connect timed out");
    case NetConnection::State::failed:
      return fail(error);
    case NetConnection::State::cancelled:
      return fail("Ingest closed");
    case NetConnection::State::ready:
      sendHandshake();
      receiveNext();
      return;
  }
}

// Caller holds `stateLock_`. One time-out at a time; it ends the attempt if still running.
void RTMPSocket::armTimeout(double seconds, const std::string& text) {
  timeout_.cancel();
  timeout_ =
      DelayedWork::schedule(timers_, std::max(seconds, 0.1), [weak = weak_from_this(), text] {
        if (auto self = weak.lock()) self->fail(text);
      });
}

void RTMPSocket::fail(const std::string& text) {
  std::shared_ptr<NetConnection> dropped;
  {
    std::lock_guard lock(stateLock_);
    timeout_.cancel();
    if (failed_ || closing_) return;
    failed_ = true;
    ready_ = false;
    dropped = std::move(connection_);
  }
  if (dropped) dropped->cancel();
  if (onFailed) onFailed(text);
}

void RTMPSocket::close() {
  std::shared_ptr<NetConnection> dropped;
  {
    std::lock_guard lock(stateLock_);
    closing_ = true;
    timeout_.cancel();
  }
  if (ready()) {
    sendCommand(
        amf0::Writer().string("FCUnpublish").number(txn_++).null().string(target_.stream).bytes(),
        3, 0);
    sendCommand(
        amf0::Writer().string("deleteStream").number(txn_++).null().number(msgStreamId()).bytes(),
        3, 0);
    QvnLog::line("golive rtmp FCUnpublish/deleteStream sent");
  }
  ready_ = false;
  {
    std::lock_guard lock(stateLock_);
    dropped = std::move(connection_);
  }
  // The last messages get a moment to leave before the connection goes.
  if (dropped) timers_.asyncAfter(0.15, [dropped] { dropped->cancel(); });
}

// ---- Sending --------------------------------------------------------------------------------

void RTMPSocket::sendHandshake() {
  std::vector<std::uint8_t> block(1 + kHandshakeSize, 0);
  block[0] = 0x03;  // C0, then C1: time and zero, then random bytes
  std::mt19937 random{std::random_device{}()};
  for (size_t i = 9; i < block.size(); ++i) block[i] = std::uint8_t(random());
  sendRaw(std::move(block), 0);
  phase_ = 1;
}

void RTMPSocket::sendRaw(std::vector<std::uint8_t> block, std::uint8_t type) {
  const auto wire = std::int64_t(block.size());
  {
    std::lock_guard lock(countersLock_);
    counters_.pending += wire;
  }
  {
    std::lock_guard lock(deliveryLock_);
    delivery_.wrote(wire, monotonicTime());
  }
  auto c = connection();
  if (!c) return;  // nothing left to send on, but the counts stand
  c->send(std::move(block), [weak = weak_from_this(), wire, type](const auto& error) {
    auto self = weak.lock();
    if (!self) return;
    {
      std::lock_guard lock(self->countersLock_);
      self->counters_.pending = std::max<std::int64_t>(self->counters_.pending - wire, 0);
      if (!error) self->counters_.sent += wire;
    }
    if (error) QvnLog::line("golive rtmp send error type=" + std::to_string(type) + ": " + *error);
  });
}

void RTMPSocket::sendMessage(std::uint8_t type, std::uint32_t streamId, std::uint32_t timestamp,
                             std::span<const std::uint8_t> body, std::uint8_t csid) {
  sendRaw(chunkMessage(type, streamId, timestamp, body, csid, kOutChunk), type);
}

void RTMPSocket::sendCommand(const std::vector<std::uint8_t>& body, std::uint8_t csid,
                             std::uint32_t streamId) {
  sendMessage(20, streamId, 0, body, csid);
}

std::int64_t RTMPSocket::ackWindow() const {
  std::int64_t rate;
  {
    std::lock_guard lock(rateLock_);
    rate = streamRate_;
  }
  // A tenth of a second of stream, held between 32 KiB and 256 KiB.
  return rate < 2621440 ? 32768 : std::min<std::int64_t>(rate / 80, 262144);
}

void RTMPSocket::startConnectSequence() {
  const auto chunk = be32(kOutChunk);
  sendMessage(1, 0, 0, chunk, 2);  // Set Chunk Size; everything after is cut at it
  const std::int64_t window = ackWindow();
  sendMessage(5, 0, 0, be32(std::uint32_t(window)), 2);  // Window Acknowledgement Size
  {
    std::lock_guard lock(deliveryLock_);
    delivery_.window = window;
  }
  QvnLog::line("golive rtmp ack window " + std::to_string(window / 1024) + " KB");
  sendCommand(amf0::Writer()
                  .string("connect")
                  .number(1.0)
                  .object({{"app", target_.app},
                           {"type", std::string("nonprivate")},
                           {"flashVer", std::string("FMLE/3.0 (compatible; Quorvane Camera)")},
                           {"tcUrl", target_.tcUrl}})
                  .bytes(),
              3, 0);
  txn_ = 2;
}

// ---- Receiving ------------------------------------------------------------------------------

void RTMPSocket::receiveNext() {
  auto c = connection();
  if (!c) return;
  c->receive(kReceiveMost, [weak = weak_from_this()](std::vector<std::uint8_t> data, bool complete,
                                                     const std::optional<std::string>& error) {
    auto self = weak.lock();
    if (!self) return;
    self->inbound_.insert(self->inbound_.end(), data.begin(), data.end());
    self->pump();
    if (!error && !complete)
      self->receiveNext();
    else
      self->fail("Ingest closed");
  });
}

void RTMPSocket::pump() {
  if (phase_ == 1 && inbound_.size() >= 1 + kHandshakeSize) {
    // S1 goes back as C2; S0 and S1 aren't checked.
    sendRaw(std::vector<std::uint8_t>(inbound_.begin() + 1, inbound_.begin() + 1 + kHandshakeSize),
            0);
    inbound_.erase(inbound_.begin(), inbound_.begin() + 1 + kHandshakeSize);
    phase_ = 2;
  }
  if (phase_ == 2 && inbound_.size() >= kHandshakeSize) {
    inbound_.erase(inbound_.begin(), inbound_.begin() + kHandshakeSize);  // S2, unread
    phase_ = 3;
    startConnectSequence();
  }
  if (phase_ == 3) parser_.parse(inbound_, [this](const RTMPMessage& m) { dispatch(m); });
}

void RTMPSocket::dispatch(const RTMPMessage& message) {
  switch (message.type) {
    case 1:  // Set Chunk Size
      if (message.body.size() >= 4) parser_.setChunkSize(readBE32(message.body));
      break;
    case 3:  // Acknowledgement
      if (message.body.size() >= 4) {
        {
          std::lock_guard lock(deliveryLock_);
          delivery_.acknowledged(readBE32(message.body), monotonicTime());
        }
        if (!ackSeen_) QvnLog::line("golive rtmp ingest acknowledges received bytes");
        ackSeen_ = true;
      }
      break;
    case 17:
    case 20:
      onCommand(message);
      break;
    default:  // user control, the peer's window and bandwidth: no reply needed
      break;
  }
}

void RTMPSocket::onCommand(const RTMPMessage& message) {
  amf0::Reader in(message.body);
  const auto name = in.string();
  if (!name) return;
  const double txn = in.number().value_or(0);
  if (*name == "_result") {
    if (std::abs(txn - 1) < 0.5 && createTxn_ == 0) {
      const int mine = txn_++;
      createTxn_ = mine;
      sendCommand(amf0::Writer().string("createStream").number(mine).null().bytes(), 3, 0);
    } else if (std::abs(txn - 1) >= 0.5 && createTxn_ > 0 && std::abs(txn - createTxn_) < 0.5) {
      in.skip();
      const auto id = in.number();
      if (id && *id >= 1 && *id < 4294967296.0) {
        msgStreamId_ = std::uint32_t(*id);
        QvnLog::line("golive rtmp createStream id=" + std::to_string(msgStreamId()));
      } else {
        QvnLog::line("golive rtmp createStream id missing — leaving " +
                     std::to_string(msgStreamId()));
      }
      sendCommand(amf0::Writer()
                      .string("publish")
                      .number(txn_++)
                      .null()
                      .string(target_.stream)
                      .string("live")
                      .bytes(),
                  8, msgStreamId());
    }
  } else if (*name == "onStatus") {
    in.skip();
    const auto info = in.object();
    if (!info || !info->contains("code")) return;
    const std::string& code = info->at("code");
    QvnLog::line("golive rtmp onStatus " + code);
    if (code == "NetStream.Publish.Start") {
      {
        // Ready only while not failed: a time-out can't slip in between.
        std::lock_guard lock(stateLock_);
        timeout_.cancel();
        if (failed_ || closing_) return;
        ready_ = true;
      }
      QvnLog::line("golive rtmp NetStream.Publish.Start");
      if (onReady) onReady();
    } else if (code.find("Failed") != std::string::npos ||
               code.find("Rejected") != std::string::npos) {
      fail("Publish rejected: " + code);
    }
  } else if (*name == "_error") {
    fail("RTMP command error");
  }
}

// ---- Figures ----------------------------------------------------------------------------------

RTMPSocket::SendCounters RTMPSocket::sendCounters() const {
  std::lock_guard lock(countersLock_);
  return counters_;
}

std::int64_t RTMPSocket::queuedBytes() const {
  const std::int64_t pending = sendCounters().pending;
  std::lock_guard lock(deliveryLock_);
  if (!delivery_.seen()) return pending;
  const std::int64_t unconfirmed = delivery_.written() - delivery_.acked() - delivery_.window / 2;
  return std::max(std::max<std::int64_t>(unconfirmed, 0), pending);
}

double RTMPSocket::backlogSeconds(double now) const {
  {
    std::lock_guard lock(deliveryLock_);
    if (auto delay = delivery_.queueDelaySeconds(now)) return *delay;
  }
  const std::int64_t pending = sendCounters().pending;
  std::lock_guard lock(rateLock_);
  return double(pending) * 8 / double(std::max<std::int64_t>(streamRate_, 1));
}

void RTMPSocket::setStreamRate(std::int64_t bitsPerSecond) {
  std::lock_guard lock(rateLock_);
  streamRate_ = bitsPerSecond;
}

void RTMPSocket::noteDrop() {
  const long count = ++droppedLogged_;
  if (onDroppedFrame) onDroppedFrame();
  if (count < 4 || count % 50 == 0)
    QvnLog::line("golive rtmp backpressure — dropped " + std::to_string(count) +
                 " non-keyframes pending=" + std::to_string(sendCounters().pending) +
                 " queued=" + std::to_string(queuedBytes()));
}

}  // namespace qvn
