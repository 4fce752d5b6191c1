#include "platform/http.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <boost/asio.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <cctype>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/dispatch.h"

namespace qvn {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace bhttp = beast::http;
using tcp = asio::ip::tcp;
using namespace std::chrono_literals;

// Real-time waits are liveness bounds only: generous, never a measure of speed.
constexpr double kLivenessSeconds = 30;

using Request = bhttp::request<bhttp::string_body>;
using Reply = bhttp::response<bhttp::string_body>;

// An HTTP/1.1 server on 127.0.0.1 and a port of its own, on one thread. `answer` makes the
// reply; none holds the request unanswered until the client hangs up.
class LoopbackServer {
 public:
  using Answer = std::function<std::optional<Reply>(const Request&)>;

  explicit LoopbackServer(Answer answer) : answer_(std::move(answer)) {
    acceptor_.open(tcp::v4());
    acceptor_.bind({asio::ip::address_v4::loopback(), 0});
    acceptor_.listen();
    accept();
    thread_ = std::thread([this] { io_.run(); });
  }
  ~LoopbackServer() {
    io_.stop();
    thread_.join();
  }

  std::string url(const std::string& target) const {
    return "http://127.0.0.1:" + std::to_string(acceptor_.local_endpoint().port()) + target;
  }
  std::vector<Request> seen() const {
    std::lock_guard lock(mutex_);
    return seen_;
  }

 private:
  struct Session : std::enable_shared_from_this<Session> {
    Session(tcp::socket s, LoopbackServer& owner) : socket(std::move(s)), server(owner) {}

    void read() {
      request = {};
      bhttp::async_read(socket, buffer, request, [self = shared_from_this()](auto ec, size_t) {
        if (!ec) self->respond();
      });
    }
    void respond() {
      {
        std::lock_guard lock(server.mutex_);
        server.seen_.push_back(request);
      }
      auto answer = server.answer_(request);
      if (!answer) return read();  // until the client gives up and closes
      reply = std::move(*answer);
      reply.keep_alive(request.keep_alive());
      reply.prepare_payload();
      bhttp::async_write(socket, reply, [self = shared_from_this()](auto ec, size_t) {
        if (!ec) self->read();
      });
    }

    tcp::socket socket;
    LoopbackServer& server;
    beast::flat_buffer buffer;
    Request request;
    Reply reply;
  };

  void accept() {
    acceptor_.async_accept([this](beast::error_code ec, tcp::socket socket) {
      if (ec) return;
      std::make_shared<Session>(std::move(socket), *this)->read();
      accept();
    });
  }

  asio::io_context io_;
  tcp::acceptor acceptor_{io_};
  Answer answer_;
  mutable std::mutex mutex_;
  std::vector<Request> seen_;
  std::thread thread_;
};

Reply reply(unsigned status, std::string body) {
  Reply r{static_cast<bhttp::status>(status), 11};
  r.body() = std::move(body);
  return r;
}

// Drains the reply queue on this thread until `done` reaches `count` or time runs out.
bool drainUntil(ManualMainQueue& queue, const int& done, int count) {
  const double end = monotonicTime() + kLivenessSeconds;
  while (done < count && monotonicTime() < end) queue.drainWaiting(0.05);
  return done >= count;
}

HttpResponse fetch(HttpClient& client, ManualMainQueue& queue, HttpRequest request) {
  HttpResponse result;
  int done = 0;
  client.send(std::move(request), [&](HttpResponse response) {
    EXPECT_TRUE(queue.isCurrent()) << "completions run on the reply queue";
    result = std::move(response);
    ++done;
  });
  EXPECT_TRUE(drainUntil(queue, done, 1));
  return result;
}

bool threadNamed(const std::string& name) {
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::string comm;
    std::getline(std::ifstream(task.path() / "comm"), comm);
    if (comm == name) return true;
  }
  return false;
}

TEST(HttpClient, RequestsArriveWholeAndRepliesComeBackOnTheReplyQueue) {
  LoopbackServer server([](const Request& request) {
    auto r = reply(request.target() == "/broken" ? 503 : 201,
                   std::string(request.method_string()) + " " + request.body());
    r.set("X-Reply", "  spaced out  ");
    r.insert("X-Twice", "first");
    r.insert("X-Twice", "second");
    return r;
  });
  ManualMainQueue queue;
  auto client = makeHttpClient(queue);

  for (const std::string method : {"GET", "POST", "PUT", "DELETE"}) {
    const std::string body = method == "POST" || method == "PUT" ? "{\"a\":1}" : "";
    const HttpResponse response = fetch(*client, queue,
                                        {method,
                                         server.url("/v1/things?x=1"),
                                         {{"X-Token", "abc"}, {"Content-Type", "t/j"}},
                                         body});
    EXPECT_TRUE(response.arrived()) << method << ": " << response.error;
    EXPECT_EQ(response.status, 201);
    EXPECT_EQ(response.body, method + " " + body);
    EXPECT_EQ(response.header("x-reply"), "spaced out");
    EXPECT_EQ(response.header("x-twice"), "second");
    EXPECT_EQ(response.header("x-absent"), "");

    const Request seen = server.seen().back();
    EXPECT_EQ(seen.method_string(), method);
    EXPECT_EQ(seen.target(), "/v1/things?x=1");
    EXPECT_EQ(seen["X-Token"], "abc");
    EXPECT_EQ(seen["Content-Type"], "t/j");
    EXPECT_EQ(seen.body(), body);
  }

  // Any status is a reply, not an error.
  const HttpResponse broken = fetch(*client, queue, {"GET", server.url("/broken")});
  EXPECT_TRUE(broken.arrived());
  EXPECT_EQ(broken.status, 503);
}

TEST(HttpClient, RedirectsAreReturnedUnlessFollowingIsAskedFor) {
  LoopbackServer server([](const Request& request) {
    if (request.target() == "/new") return reply(200, "moved here");
    auto r = reply(302, "see /new");
    r.set(bhttp::field::location, "/new");
    return r;
  });
  ManualMainQueue queue;
  auto client = makeHttpClient(queue);

  const HttpResponse shown = fetch(*client, queue, {"GET", server.url("/old")});
  EXPECT_EQ(shown.status, 302);
  EXPECT_EQ(shown.header("location"), "/new");
  EXPECT_EQ(server.seen().size(), 1u);

  HttpRequest follow{"GET", server.url("/old")};
  follow.followRedirects = true;
  const HttpResponse followed = fetch(*client, queue, follow);
  EXPECT_EQ(followed.status, 200);
  EXPECT_EQ(followed.body, "moved here");
  EXPECT_EQ(followed.header("location"), "") << "headers are the final reply's";
  EXPECT_EQ(server.seen().back().target(), "/new");
}

TEST(HttpClient, NoReplyMeansAnErrorInWordsAndNoStatus) {
  LoopbackServer server([](const Request&) { return std::nullopt; });
  ManualMainQueue queue;
  auto client = makeHttpClient(queue);

  HttpRequest slow{"GET", server.url("/hang")};
  slow.timeoutSeconds = 0.3;
  const HttpResponse timedOut = fetch(*client, queue, slow);
  EXPECT_FALSE(timedOut.arrived());
  EXPECT_EQ(timedOut.status, 0);
  EXPECT_NE(timedOut.error.find("timed out"), std::string::npos) << timedOut.error;

  // A port that was just free and is closed again refuses.
  std::string closedUrl;
  {
    asio::io_context io;
    tcp::acceptor probe(io, {asio::ip::address_v4::loopback(), 0});
    closedUrl = "http://127.0.0.1:" + std::to_string(probe.local_endpoint().port()) + "/";
  }
  const HttpResponse refused = fetch(*client, queue, {"GET", closedUrl});
  EXPECT_EQ(refused.status, 0);
  EXPECT_NE(refused.error.find("could not connect"), std::string::npos) << refused.error;

  const HttpResponse unusable = fetch(*client, queue, {"GET", "gopher://127.0.0.1/"});
  EXPECT_FALSE(unusable.arrived());
}

TEST(HttpClient, ConcurrentSendersEachGetExactlyOneCompletion) {
  LoopbackServer server(
      [](const Request& request) { return reply(200, std::string(request.target())); });
  ManualMainQueue queue;
  auto client = makeHttpClient(queue);

  constexpr int kThreads = 4;
  constexpr int kEach = 25;
  std::map<std::string, int> completions;  // touched on the reply queue (this thread) only
  int done = 0;
  std::vector<std::thread> senders;
  for (int t = 0; t < kThreads; ++t) {
    senders.emplace_back([&, t] {
      for (int i = 0; i < kEach; ++i) {
        const std::string target = "/" + std::to_string(t) + "-" + std::to_string(i);
        client->send({"GET", server.url(target)}, [&, target](HttpResponse response) {
          EXPECT_EQ(response.body, target) << response.error;
          ++completions[target];
          ++done;
        });
      }
    });
  }
  for (auto& sender : senders) sender.join();
  ASSERT_TRUE(drainUntil(queue, done, kThreads * kEach)) << done;
  EXPECT_EQ(queue.drainWaiting(0.2), 0) << "no second completion";
  EXPECT_EQ(completions.size(), size_t{kThreads * kEach});
  for (const auto& [target, count] : completions) EXPECT_EQ(count, 1) << target;
}

TEST(HttpClient, DestroyingTheClientStopsItsWorkerAndRunsNoCompletion) {
  LoopbackServer server([](const Request& request) -> std::optional<Reply> {
    if (request.target() == "/hang") return std::nullopt;
    return reply(200, "quick");
  });
  ManualMainQueue queue;
  auto client = makeHttpClient(queue);

  bool ran = false;
  // One reply already waiting on the queue, one transfer still running.
  client->send({"GET", server.url("/quick")}, [&](HttpResponse) { ran = true; });
  const double end = monotonicTime() + kLivenessSeconds;
  while (queue.pendingCount() == 0 && monotonicTime() < end) std::this_thread::sleep_for(1ms);
  ASSERT_EQ(queue.pendingCount(), 1u);
  EXPECT_TRUE(threadNamed("qvn-http"));
  client->send({"GET", server.url("/hang")}, [&](HttpResponse) { ran = true; });
  while (server.seen().size() < 2 && monotonicTime() < end) std::this_thread::sleep_for(1ms);
  ASSERT_EQ(server.seen().size(), 2u);

  // Well inside the hanging request's 60 s.
  auto destroyed = std::async(std::launch::async, [&] { client.reset(); });
  ASSERT_EQ(destroyed.wait_for(10s), std::future_status::ready);
  EXPECT_FALSE(threadNamed("qvn-http"));
  queue.drainWaiting(0.2);
  EXPECT_FALSE(ran);
}

TEST(HttpClient, PlainHttpIsForThisMachineOnly) {
  for (const char* allowed : {"https://api.example.com", "https://api.example.com:8443/v1?x=1#y",
                              "HTTPS://Example.COM", "http://127.0.0.1:8080/v1", "http://127.9.8.7",
                              "http://localhost:9000/", "http://LocalHost", "http://[::1]:8080/",
                              "http://[0:0:0:0:0:0:0:1]/", "http://user:pw@127.0.0.1/"}) {
    EXPECT_TRUE(isAllowedAPIBase(allowed)) << allowed;
  }
  for (const char* refused :
       {"http://api.example.com", "http://128.0.0.1", "http://127.0.0.1.example.com/",
        "http://localhost.example.com", "http://127.0.0.1@example.com/", "http://[::2]/",
        "http://[::1", "http://127.0.0.1:99999/", "http://127.0.0.1:8x/", "http://0x7f.0.0.1/",
        "http://127.1/", "http://example.com\\@127.0.0.1/", "http://", "https://", "https:///v1",
        "ftp://127.0.0.1/", "localhost:8080", "127.0.0.1", ""}) {
    EXPECT_FALSE(isAllowedAPIBase(refused)) << refused;
  }
}

}  // namespace
}  // namespace qvn
