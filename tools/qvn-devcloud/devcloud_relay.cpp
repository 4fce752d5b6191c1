#include "devcloud_relay.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <functional>
#include <optional>
#include <regex>
#include <thread>

#include <nlohmann/json.hpp>

#include "devcloud_child.h"

namespace qvn::devcloud {
namespace {

namespace beast = boost::beast;
namespace http = beast::http;
using tcp = boost::asio::ip::tcp;
using json = nlohmann::json;
using Clock = std::chrono::steady_clock;

constexpr std::string_view kSlaveOptions = "[f=flv:onfail=ignore]";
// ffmpeg ends at its next packet on TERM, but a second TERM is what interrupts a read that
// waits for a publisher who has gone; one that hangs past the grace is killed.
constexpr auto kSecondTerm = std::chrono::milliseconds(500);
constexpr auto kStopGrace = std::chrono::seconds(3);

struct ApiReply {
  unsigned status = 0;
  json body;
};

// One request to the devcloud on loopback; none when it can't be reached.
std::optional<ApiReply> callApi(std::uint16_t port, http::verb method, const std::string& target,
                                const json& body = nullptr) {
  try {
    boost::asio::io_context io;
    beast::tcp_stream stream(io);
    stream.expires_after(std::chrono::seconds(5));
    stream.connect(tcp::endpoint(boost::asio::ip::address_v4::loopback(), port));
    http::request<http::string_body> request(method, target, 11);
    request.set(http::field::host, "127.0.0.1:" + std::to_string(port));
    if (!body.is_null()) {
      request.set(http::field::content_type, "application/json");
      request.body() = body.dump();
    }
    request.keep_alive(false);
    request.prepare_payload();
    http::write(stream, request);
    beast::flat_buffer buffer;
    http::response<http::string_body> response;
    http::read(stream, buffer, response);
    beast::error_code ignored;
    stream.socket().shutdown(tcp::socket::shutdown_both, ignored);
    return ApiReply{response.result_int(), json::parse(response.body(), nullptr, false)};
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

void say(const std::string& line) {
  std::fprintf(stderr, "qvn-devcloud relay: %s\n", line.c_str());
}

// "[tcp @ 0x55d…] Connection refused" → "Connection refused"
std::string withoutTag(std::string_view line) {
  static const std::regex kTag(R"(^\[[^\]]* @ 0x[0-9a-fA-F]+\] )");
  std::string text(line);
  while (!text.empty() && (text.back() == '\r' || text.back() == '\n' || text.back() == ' '))
    text.pop_back();
  return std::regex_replace(text, kTag, "", std::regex_constants::format_first_only);
}

// Lines out of a stream of reads; ffmpeg ends some with \r.
class LineSplitter {
 public:
  void feed(std::string_view bytes, const std::function<void(std::string_view)>& line) {
    pending_.append(bytes);
    size_t start = 0;
    for (size_t i = 0; i < pending_.size(); ++i) {
      if (pending_[i] != '\n' && pending_[i] != '\r') continue;
      if (i > start) line(std::string_view(pending_).substr(start, i - start));
      start = i + 1;
    }
    pending_.erase(0, start);
  }
  void finish(const std::function<void(std::string_view)>& line) {
    if (!pending_.empty()) line(pending_);
    pending_.clear();
  }

 private:
  std::string pending_;
};

// Waits on the signal descriptor for TERM or INT.
void waitForStop(int signals) {
  for (;;) {
    pollfd p{signals, POLLIN, 0};
    if (::poll(&p, 1, -1) < 0 && errno != EINTR) return;
    signalfd_siginfo info{};
    if (::read(signals, &info, sizeof info) == sizeof info &&
        (info.ssi_signo == SIGTERM || info.ssi_signo == SIGINT))
      return;
  }
}

}  // namespace

std::string teeOutputs(const std::vector<std::string>& urls) {
  std::string out;
  for (const auto& url : urls) {
    if (!out.empty()) out.push_back('|');
    out += kSlaveOptions;
    // The tee muxer splits its list with an escaping tokenizer: a backslash keeps the next
    // character as it is.
    for (char c : url) {
      if (c == '\\' || c == '|' || c == '\'' || c == '[' || c == ']') out.push_back('\\');
      out.push_back(c);
    }
  }
  return out;
}

RelayWatch::RelayWatch(std::vector<std::string> urls, std::vector<std::string> secrets)
    : urls_(std::move(urls)),
      secrets_(std::move(secrets)),
      status_(urls_.size(), "waiting"),
      message_(urls_.size()) {
  std::erase_if(secrets_, [](const std::string& s) { return s.empty(); });
}

void RelayWatch::set(size_t target, const std::string& status, const std::string& message,
                     std::vector<Change>& changes) {
  // The tee muxer never takes back an output it dropped: failed is final for this ffmpeg.
  if (status_[target] == "error") return;
  if (status_[target] == status && message_[target] == message) return;
  status_[target] = status;
  message_[target] = message;
  changes.push_back({target, status, message});
}

std::string RelayWatch::redacted(std::string text) const {
  for (const auto& secret : secrets_)
    for (size_t at; (at = text.find(secret)) != std::string::npos;)
      text.replace(at, secret.size(), "…");
  return text;
}

std::vector<RelayWatch::Change> RelayWatch::start() {
  std::vector<Change> changes;
  for (size_t i = 0; i < urls_.size(); ++i) set(i, "starting", "", changes);
  return changes;
}

std::vector<RelayWatch::Change> RelayWatch::progressLine(std::string_view line) {
  std::vector<Change> changes;
  const auto equals = line.find('=');
  if (equals == std::string_view::npos || flowing_) return changes;
  const auto key = line.substr(0, equals);
  const auto value = line.substr(equals + 1);
  long long number = 0;
  const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), number);
  if ((key != "frame" && key != "out_time_us") || error != std::errc() || number <= 0)
    return changes;
  // Packets reach the outputs now; those still open are live.
  flowing_ = true;
  for (size_t i = 0; i < urls_.size(); ++i)
    if (status_[i] == "starting") set(i, "live", "", changes);
  return changes;
}

std::vector<RelayWatch::Change> RelayWatch::errorLine(std::string_view raw) {
  static const std::regex kSlaveFailed(R"(Slave muxer #([0-9]+) failed: (.*), continuing with)");
  static const std::regex kSlaveError(R"(Slave '(.*)': error [a-z ]+: (.*)$)");
  std::vector<Change> changes;
  const std::string line = withoutTag(raw);
  if (line.empty() || stopping_) return changes;
  std::smatch m;
  if (std::regex_search(line, m, kSlaveFailed)) {
    const size_t target = std::stoul(m[1].str());
    if (target < urls_.size()) set(target, "error", redacted(m[2].str()), changes);
  } else if (std::regex_search(line, m, kSlaveError)) {
    for (size_t i = 0; i < urls_.size(); ++i)
      if (m[1].str() == std::string(kSlaveOptions) + urls_[i])
        set(i, "error", redacted(m[2].str()), changes);
  } else if (line.find("Failed to update header") == std::string::npos &&
             line.find("All tee outputs failed") == std::string::npos) {
    // ffmpeg ends a complaint with its reason: "Error writing trailer of URL: Broken pipe".
    // The last output's own failure comes after "All tee outputs failed", just before it
    // exits, so it is kept for the exit.
    const auto colon = line.rfind(": ");
    lastProblem_ = redacted(colon == std::string::npos ? line : line.substr(colon + 2));
  }
  return changes;
}

std::vector<RelayWatch::Change> RelayWatch::exited(int waitStatus) {
  std::vector<Change> changes;
  const bool clean = WIFEXITED(waitStatus) && WEXITSTATUS(waitStatus) == 0;
  const bool asked = stopping_;
  std::string why = lastProblem_;
  if (why.empty())
    why = WIFSIGNALED(waitStatus) ? "The relay's ffmpeg was ended by signal " +
                                        std::to_string(WTERMSIG(waitStatus)) + "."
                                  : "The relay's ffmpeg stopped with exit code " +
                                        std::to_string(WEXITSTATUS(waitStatus)) + ".";
  for (size_t i = 0; i < urls_.size(); ++i)
    set(i, asked || clean ? "ended" : "error", asked || clean ? "" : why, changes);
  return changes;
}

std::variant<RelayOptions, std::string> parseRelayOptions(int argc, const char* const* argv) {
  RelayOptions o;
  for (int i = 1; i < argc; ++i) {
    const std::string_view name = argv[i];
    if (i + 1 >= argc) return std::string(name) + " wants a value";
    const std::string value = argv[++i];
    if (name == "--api") {
      constexpr std::string_view kLoopback = "http://127.0.0.1:";
      std::string_view port = value;
      if (!port.starts_with(kLoopback)) return "--api is http://127.0.0.1:PORT, not " + value;
      port.remove_prefix(kLoopback.size());
      while (port.ends_with('/')) port.remove_suffix(1);
      const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), o.apiPort);
      if (error != std::errc() || end != port.data() + port.size() || o.apiPort == 0)
        return "--api is http://127.0.0.1:PORT, not " + value;
    } else if (name == "--key") {
      o.key = value;
    } else {
      return "unknown option " + std::string(name);
    }
  }
  if (o.apiPort == 0 || o.key.empty()) return std::string("--api and --key are both needed");
  return o;
}

int runRelay(int argc, const char* const* argv) {
  const auto parsed = parseRelayOptions(argc, argv);
  if (const auto* error = std::get_if<std::string>(&parsed)) {
    std::fprintf(stderr,
                 "qvn-devcloud relay: %s\nusage: qvn-devcloud relay --api http://127.0.0.1:PORT "
                 "--key STREAM_KEY\n",
                 error->c_str());
    return 2;
  }
  const RelayOptions o = std::get<RelayOptions>(parsed);
  // nginx sets this for the programs it runs; by hand, the terminal's end ends it as well.
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  sigset_t stopping;
  sigemptyset(&stopping);
  sigaddset(&stopping, SIGTERM);
  sigaddset(&stopping, SIGINT);
  sigprocmask(SIG_BLOCK, &stopping, nullptr);
  const int signals = ::signalfd(-1, &stopping, SFD_CLOEXEC);
  // Without one, TERM must still end the relay, if less tidily.
  if (signals < 0) sigprocmask(SIG_UNBLOCK, &stopping, nullptr);

  std::optional<ApiReply> reply;
  for (int attempt = 0; attempt < 10; ++attempt) {
    reply = callApi(o.apiPort, http::verb::get, "/dev/relay/targets?key=" + o.key);
    if (reply) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
  if (!reply) {
    say("can't reach the devcloud on 127.0.0.1:" + std::to_string(o.apiPort));
    return 1;
  }
  if (reply->status == 404) {
    say("no open session has that stream key");
    return 0;
  }
  const json& body = reply->body;
  if (reply->status != 200 || !body.is_object() || !body.value("source", json()).is_string() ||
      !body.value("targets", json()).is_array()) {
    say("the devcloud answered " + std::to_string(reply->status));
    return 1;
  }
  const std::string source = body["source"];
  std::vector<std::string> ids, urls, secrets = {o.key};
  for (const auto& t : body["targets"]) {
    ids.push_back(t.value("destination_id", ""));
    urls.push_back(t.value("url", ""));
    secrets.push_back(urls.back().substr(urls.back().rfind('/') + 1));
  }

  const auto report = [&](const std::vector<RelayWatch::Change>& changes) {
    for (const auto& c : changes) {
      say(ids[c.target] + ": " + c.status + (c.message.empty() ? "" : ": " + c.message));
      callApi(o.apiPort, http::verb::post, "/dev/relay/status",
              {{"key", o.key},
               {"destination_id", ids[c.target]},
               {"status", c.status},
               {"error_message", c.message}});
    }
  };
  RelayWatch watch(urls, secrets);
  if (urls.empty()) {
    say("the session has no destination to stream to");
    waitForStop(signals);
    return 0;
  }
  report(watch.start());

  const std::string ffmpeg = findProgram("ffmpeg");
  int out[2] = {-1, -1}, err[2] = {-1, -1};
  pid_t pid = -1;
  std::string failure = ffmpeg.empty() ? "ffmpeg is not installed on the devcloud's machine." : "";
  if (failure.empty() &&
      (::pipe2(out, O_CLOEXEC | O_NONBLOCK) != 0 || ::pipe2(err, O_CLOEXEC | O_NONBLOCK) != 0))
    failure = "The relay could not make its pipes.";
  if (failure.empty()) {
    try {
      pid = startChild(
          {ffmpeg, "-nostdin", "-hide_banner", "-loglevel", "warning", "-progress", "pipe:1", "-i",
           source, "-map", "0", "-c", "copy", "-f", "tee", teeOutputs(urls)},
          {out[1], err[1]}, SIGKILL);
    } catch (const std::exception& e) {
      failure = e.what();
    }
  }
  for (int fd : {out[1], err[1]})
    if (fd >= 0) ::close(fd);
  if (pid < 0) {
    std::vector<RelayWatch::Change> changes;
    for (size_t i = 0; i < urls.size(); ++i) changes.push_back({i, "error", failure});
    report(changes);
    waitForStop(signals);
    return 0;
  }

  LineSplitter errLines, outLines;
  const auto onError = [&](std::string_view line) { report(watch.errorLine(line)); };
  const auto onProgress = [&](std::string_view line) { report(watch.progressLine(line)); };
  // Drains one pipe; false at its end.
  const auto drain = [](int fd, LineSplitter& lines, const auto& onLine) {
    char chunk[4096];
    for (;;) {
      const ssize_t n = ::read(fd, chunk, sizeof chunk);
      if (n > 0) {
        lines.feed(std::string_view(chunk, size_t(n)), onLine);
      } else if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
        return true;
      } else {
        lines.finish(onLine);
        return false;
      }
    }
  };
  // When a TERMed ffmpeg gets its second TERM, and then KILL; the epoch when not stopping.
  Clock::time_point stopAt{};
  int stopSignals = 0;
  std::optional<int> status;
  int errFd = err[0], outFd = out[0];
  while (errFd >= 0 || outFd >= 0 || !status) {
    pollfd fds[3] = {{signals, POLLIN, 0}, {errFd, POLLIN, 0}, {outFd, POLLIN, 0}};
    ::poll(fds, 3, 100);
    // Complaints first: ffmpeg writes an output's failure before the progress that follows,
    // and a failed output must never look live.
    if (errFd >= 0 && fds[1].revents && !drain(errFd, errLines, onError)) {
      ::close(errFd);
      errFd = -1;
    }
    if (outFd >= 0 && fds[2].revents && !drain(outFd, outLines, onProgress)) {
      ::close(outFd);
      outFd = -1;
    }
    if (fds[0].revents & POLLIN) {
      signalfd_siginfo info{};
      if (::read(signals, &info, sizeof info) == sizeof info && stopSignals == 0) {
        watch.stopping();
        ::kill(pid, SIGTERM);
        stopSignals = 1;
        stopAt = Clock::now();
      }
    }
    if (!status) status = childEnded(pid);
    if (!status && stopSignals == 1 && Clock::now() >= stopAt + kSecondTerm) {
      ::kill(pid, SIGTERM);
      stopSignals = 2;
    } else if (!status && stopSignals == 2 && Clock::now() >= stopAt + kStopGrace) {
      ::kill(pid, SIGKILL);
      stopSignals = 3;
    }
  }
  report(watch.exited(*status));
  return 0;
}

}  // namespace qvn::devcloud
