// The HTTP client on a libcurl multi handle driven by one worker thread.

#include <curl/curl.h>
#include <pthread.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string_view>
#include <thread>

#include "platform/dispatch.h"
#include "platform/http.h"

namespace qvn {

namespace {

void initCurlOnce() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

std::string_view trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos) return {};
  const auto last = text.find_last_not_of(" \t\r\n");
  return text.substr(first, last - first + 1);
}

std::string lowerCase(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return lower;
}

// What went wrong, in words the operator can act on; curl's own text follows in brackets.
std::string plainWords(CURLcode code) {
  switch (code) {
    case CURLE_COULDNT_CONNECT:
      return "could not connect";
    case CURLE_COULDNT_RESOLVE_HOST:
      return "server not found";
    case CURLE_COULDNT_RESOLVE_PROXY:
      return "proxy not found";
    case CURLE_OPERATION_TIMEDOUT:
      return "timed out";
    case CURLE_PEER_FAILED_VERIFICATION:
      return "certificate not trusted";
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CACERT_BADFILE:
      return "secure connection failed";
    case CURLE_UNSUPPORTED_PROTOCOL:
    case CURLE_URL_MALFORMAT:
      return "address not usable";
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_PARTIAL_FILE:
      return "connection lost";
    case CURLE_GOT_NOTHING:
      return "no reply";
    case CURLE_WEIRD_SERVER_REPLY:
      return "reply not understood";
    case CURLE_TOO_MANY_REDIRECTS:
      return "too many redirects";
    case CURLE_OUT_OF_MEMORY:
      return "out of memory";
    default:
      return "request failed";
  }
}

// Runs completions only while the client lives. The lock is held while one runs, so a
// client destroyed on another thread waits for it rather than racing it; recursive, so a
// completion may drop the last reference to the client.
struct Gate {
  std::recursive_mutex mutex;
  bool open = true;
};

struct Transfer {
  HttpRequest request;
  HttpClient::Completion done;
  CURL* easy = nullptr;
  curl_slist* headers = nullptr;
  HttpResponse response;
  char errorText[CURL_ERROR_SIZE] = {};

  ~Transfer() {
    if (easy) curl_easy_cleanup(easy);
    curl_slist_free_all(headers);
  }

  static size_t onBody(char* data, size_t size, size_t count, void* user) {
    static_cast<Transfer*>(user)->response.body.append(data, size * count);
    return size * count;
  }

  static size_t onHeader(char* data, size_t size, size_t count, void* user) {
    auto& response = static_cast<Transfer*>(user)->response;
    const std::string_view line(data, size * count);
    if (line.starts_with("HTTP/")) {
      // A new reply begins (after a 1xx or a followed redirect): only the last one counts.
      response.headers.clear();
      response.body.clear();
    } else if (const auto colon = line.find(':'); colon != std::string_view::npos) {
      std::string name = lowerCase(trimmed(line.substr(0, colon)));
      std::string value(trimmed(line.substr(colon + 1)));
      const auto same = std::find_if(response.headers.begin(), response.headers.end(),
                                     [&](const auto& header) { return header.first == name; });
      if (same != response.headers.end())
        same->second = std::move(value);
      else
        response.headers.emplace_back(std::move(name), std::move(value));
    }
    return size * count;
  }

  bool hasHeader(std::string_view lowerName) const {
    return std::any_of(request.headers.begin(), request.headers.end(),
                       [&](const auto& header) { return lowerCase(header.first) == lowerName; });
  }

  // Returns false when curl refuses the request as given.
  bool configure() {
    easy = curl_easy_init();
    if (!easy) return false;
    bool ok = true;
    auto set = [&](CURLoption option, auto value) {
      ok = ok && curl_easy_setopt(easy, option, value) == CURLE_OK;
    };
    set(CURLOPT_PRIVATE, static_cast<void*>(this));
    set(CURLOPT_URL, request.url.c_str());
    set(CURLOPT_NOSIGNAL, 1L);
    set(CURLOPT_ERRORBUFFER, errorText);
    set(CURLOPT_WRITEFUNCTION, &Transfer::onBody);
    set(CURLOPT_WRITEDATA, static_cast<void*>(this));
    set(CURLOPT_HEADERFUNCTION, &Transfer::onHeader);
    set(CURLOPT_HEADERDATA, static_cast<void*>(this));
    set(CURLOPT_PROTOCOLS_STR, "http,https");
    set(CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    set(CURLOPT_FOLLOWLOCATION, request.followRedirects ? 1L : 0L);
    set(CURLOPT_MAXREDIRS, 10L);
    set(CURLOPT_ACCEPT_ENCODING, "");  // whatever curl can decode
    // Zero would mean "no limit" to curl; a request always has one here.
    const double millis = std::isfinite(request.timeoutSeconds)
                              ? std::clamp(request.timeoutSeconds * 1000.0, 1.0, 86400000.0)
                              : 86400000.0;
    set(CURLOPT_TIMEOUT_MS, static_cast<long>(millis));

    const bool sendsBody =
        !request.body.empty() || request.method == "POST" || request.method == "PUT";
    if (request.method == "HEAD") {
      set(CURLOPT_NOBODY, 1L);
    } else if (sendsBody) {
      set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
      set(CURLOPT_POSTFIELDS, request.body.data());
    } else {
      set(CURLOPT_HTTPGET, 1L);
    }
    // curl names GET, POST and HEAD itself from the options above.
    if (request.method != "GET" && request.method != "POST" && request.method != "HEAD")
      set(CURLOPT_CUSTOMREQUEST, request.method.c_str());

    for (const auto& [name, value] : request.headers) {
      // "Name;" is how curl is told to send a header with an empty value.
      const std::string line = value.empty() ? name + ";" : name + ": " + value;
      if (curl_slist* more = curl_slist_append(headers, line.c_str()))
        headers = more;
      else
        ok = false;
    }
    // curl would otherwise hold a body back for a second waiting for "100 Continue".
    if (!hasHeader("expect")) {
      if (curl_slist* more = curl_slist_append(headers, "Expect:")) headers = more;
    }
    set(CURLOPT_HTTPHEADER, headers);
    if (!hasHeader("user-agent")) set(CURLOPT_USERAGENT, "QuorvaneStudio-Linux");
    return ok;
  }

  void finish(CURLcode result) {
    if (result == CURLE_OK) {
      long status = 0;
      curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
      response.status = static_cast<int>(status);
      return;
    }
    const std::string detail =
        errorText[0] ? std::string(trimmed(errorText)) : std::string(curl_easy_strerror(result));
    response = HttpResponse{};
    response.error = plainWords(result) + " (" + detail + ")";
  }
};

class CurlHttpClient final : public HttpClient {
 public:
  explicit CurlHttpClient(Queue& replies) : replies_(replies), gate_(std::make_shared<Gate>()) {
    initCurlOnce();
    multi_ = curl_multi_init();
    // Without a multi handle every request fails at once (see send), and no thread spins.
    if (multi_) worker_ = std::thread([this] { run(); });
  }

  ~CurlHttpClient() override {
    {
      std::lock_guard closing(gate_->mutex);
      gate_->open = false;
    }
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
    }
    if (multi_) {
      curl_multi_wakeup(multi_);
      worker_.join();
      curl_multi_cleanup(multi_);
    }
  }

  void send(HttpRequest request, Completion done) override {
    if (!multi_) {
      HttpResponse failed;
      failed.error = "request failed (curl could not start)";
      deliver(std::move(done), std::move(failed));
      return;
    }
    auto transfer = std::make_unique<Transfer>();
    transfer->request = std::move(request);
    transfer->done = std::move(done);
    {
      std::lock_guard lock(mutex_);
      incoming_.push_back(std::move(transfer));
    }
    curl_multi_wakeup(multi_);
  }

 private:
  void run() {
    pthread_setname_np(pthread_self(), "qvn-http");
    std::map<CURL*, std::unique_ptr<Transfer>> running;
    for (;;) {
      std::deque<std::unique_ptr<Transfer>> fresh;
      {
        std::lock_guard lock(mutex_);
        if (stopping_) break;
        fresh.swap(incoming_);
      }
      for (auto& transfer : fresh) start(std::move(transfer), running);

      int stillRunning = 0;
      curl_multi_perform(multi_, &stillRunning);
      int left = 0;
      while (CURLMsg* message = curl_multi_info_read(multi_, &left)) {
        if (message->msg != CURLMSG_DONE) continue;
        CURL* easy = message->easy_handle;
        const CURLcode result = message->data.result;
        curl_multi_remove_handle(multi_, easy);
        const auto it = running.find(easy);
        if (it == running.end()) continue;
        auto transfer = std::move(it->second);
        running.erase(it);
        transfer->finish(result);
        deliver(std::move(transfer->done), std::move(transfer->response));
      }
      curl_multi_poll(multi_, nullptr, 0, 1000, nullptr);
    }
    // Abandoned: their completions are dropped with them.
    for (auto& [easy, transfer] : running) curl_multi_remove_handle(multi_, easy);
  }

  void start(std::unique_ptr<Transfer> transfer,
             std::map<CURL*, std::unique_ptr<Transfer>>& running) {
    if (!transfer->configure() || curl_multi_add_handle(multi_, transfer->easy) != CURLM_OK) {
      HttpResponse refused;
      refused.error = "request failed (could not set up the transfer)";
      deliver(std::move(transfer->done), std::move(refused));
      return;
    }
    CURL* easy = transfer->easy;
    running.emplace(easy, std::move(transfer));
  }

  void deliver(Completion done, HttpResponse response) {
    if (!done) return;
    replies_.async(
        [gate = gate_, done = std::move(done), response = std::move(response)]() mutable {
          std::lock_guard lock(gate->mutex);
          if (gate->open) done(std::move(response));
        });
  }

  Queue& replies_;
  std::shared_ptr<Gate> gate_;
  CURLM* multi_ = nullptr;
  std::mutex mutex_;  // guards the two below
  std::deque<std::unique_ptr<Transfer>> incoming_;
  bool stopping_ = false;
  std::thread worker_;  // last: started once everything it uses exists
};

}  // namespace

std::shared_ptr<HttpClient> makeHttpClient(Queue& replies) {
  return std::make_shared<CurlHttpClient>(replies);
}

}  // namespace qvn
