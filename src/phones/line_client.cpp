#include "phones/line_client.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace qvn {

namespace {

constexpr size_t kReadMost = 65536;
constexpr double kSilenceSeconds = 2.0;

}  // namespace

std::shared_ptr<LineClient> LineClient::make(std::shared_ptr<NetConnection> connection) {
  return std::shared_ptr<LineClient>(new LineClient(std::move(connection)));
}

LineClient::LineClient(std::shared_ptr<NetConnection> connection)
    : connection_(std::move(connection)) {}

void LineClient::start(Queue& timers) {
  connection_->setStateHandler(
      [weak = weak_from_this()](NetConnection::State state, const std::string& error) {
        auto self = weak.lock();
        if (!self) return;
        if (state == NetConnection::State::failed) {
          self->log("TCP failed " + error);
          self->notifyClosed();
        } else if (state == NetConnection::State::cancelled) {
          self->notifyClosed();
        }
      });
  // Armed before the first read, so a peer that closes at once finds it in place to cancel.
  silenceCheck_ = DelayedWork::schedule(timers, kSilenceSeconds, [weak = weak_from_this()] {
    auto self = weak.lock();
    if (!self || self->closed_ || self->sawLine_) return;
    // What the peer sent instead, for whoever wonders why it never paired.
    std::function<void(const std::string&)> log;
    std::vector<std::uint8_t> first;
    {
      std::lock_guard lock(self->callbackLock_);
      log = self->onState;
      first = self->firstBytes_;
    }
    const std::string text = validUTF8(first) ? std::string(first.begin(), first.end())
                                              : std::to_string(first.size()) + " bytes";
    if (log) log("TCP open, no JSON line yet (" + text + ")");
  });
  readNext();
}

void LineClient::readNext() {
  connection_->receive(kReadMost,
                       [weak = weak_from_this()](std::vector<std::uint8_t> data, bool complete,
                                                 const std::optional<std::string>& error) {
                         auto self = weak.lock();
                         if (!self) return;
                         if (!data.empty()) self->take(data);
                         if (error) {
                           if (!self->closed_) self->log("TCP recv " + *error);
                           return self->notifyClosed();
                         }
                         if (complete) return self->notifyClosed();
                         self->readNext();
                       });
}

void LineClient::take(const std::vector<std::uint8_t>& data) {
  if (!sawLine_) {
    std::lock_guard lock(callbackLock_);
    if (firstBytes_.size() < 80)
      firstBytes_.insert(firstBytes_.end(), data.begin(),
                         data.begin() + long(std::min(data.size(), 80 - firstBytes_.size())));
  }
  for (const std::string& text : framer_.feed(data)) {
    sawLine_ = true;
    std::function<void(const std::string&)> handler;
    {
      std::lock_guard lock(callbackLock_);
      handler = onText;
    }
    if (handler) handler(text);
  }
  if (framer_.tooLong()) {
    log("TCP line too long, closing");
    notifyClosed();
  }
}

void LineClient::send(const nlohmann::json& message) {
  if (!message.is_object()) return;
  std::string text = message.dump();
  text += '\n';
  connection_->send(std::vector<std::uint8_t>(text.begin(), text.end()),
                    [weak = weak_from_this()](const std::optional<std::string>& error) {
                      if (auto self = weak.lock(); self && error) self->notifyClosed();
                    });
}

void LineClient::log(const std::string& text) {
  std::function<void(const std::string&)> handler;
  {
    std::lock_guard lock(callbackLock_);
    handler = onState;
  }
  if (handler) handler(text);
}

void LineClient::close() {
  notifyClosed();
}

void LineClient::notifyClosed() {
  if (closed_.exchange(true)) return;
  silenceCheck_.cancel();
  connection_->cancel();
  std::function<void()> closing;
  {
    std::lock_guard lock(callbackLock_);
    closing = std::move(onClose);
    onClose = nullptr;
    onText = nullptr;
    onState = nullptr;
  }
  if (closing) closing();
}

}  // namespace qvn
