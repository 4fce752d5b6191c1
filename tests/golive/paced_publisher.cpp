#include "golive/paced_publisher.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace qvn::test {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint8_t kVideoCsid = 6;
constexpr std::uint8_t kAudioCsid = 4;

void sendTag(RTMPSocket& socket, const FlvTag& tag, std::uint32_t timestamp,
             std::span<const std::uint8_t> body) {
  socket.sendMessage(tag.type, socket.msgStreamId(), timestamp, body,
                     tag.type == FlvTag::kVideo ? kVideoCsid : kAudioCsid);
}

}  // namespace

Publication::Publication(const std::string& url, const std::string& key)
    : socket_(RTMPSocket::make()) {
  std::weak_ptr<State> weak = state_;
  socket_->onReady = [weak] {
    if (auto s = weak.lock()) {
      std::lock_guard lock(s->lock);
      ++s->ready;
      s->changed.notify_all();
    }
  };
  socket_->onFailed = [weak](const std::string& text) {
    if (auto s = weak.lock()) {
      std::lock_guard lock(s->lock);
      if (s->failed++ == 0) s->failure = text;
      s->changed.notify_all();
    }
  };
  socket_->connect(url, key);
}

Publication::~Publication() {
  close();
}

void Publication::close() {
  if (socket_) socket_->close();
}

Publication::Outcome Publication::waitUntilDecided(double seconds) {
  std::unique_lock lock(state_->lock);
  state_->changed.wait_for(lock, std::chrono::duration<double>(seconds),
                           [&] { return state_->ready > 0 || state_->failed > 0; });
  if (state_->failed > 0) return Outcome::failed;
  return state_->ready > 0 ? Outcome::ready : Outcome::undecided;
}

bool Publication::waitForFailure(double seconds) {
  std::unique_lock lock(state_->lock);
  return state_->changed.wait_for(lock, std::chrono::duration<double>(seconds),
                                  [&] { return state_->failed > 0; });
}

int Publication::readyCount() const {
  std::lock_guard lock(state_->lock);
  return state_->ready;
}

int Publication::failureCount() const {
  std::lock_guard lock(state_->lock);
  return state_->failed;
}

std::string Publication::failure() const {
  std::lock_guard lock(state_->lock);
  return state_->failure;
}

PaceResult publishPaced(RTMPSocket& socket, const FlvClip& clip, const PaceOptions& options) {
  PaceResult result;
  auto bodyOf = [&](const FlvTag& tag) {
    return options.bodyFor ? options.bodyFor(tag) : std::span<const std::uint8_t>(tag.body);
  };
  // A decoder needs both configurations before the first frame.
  sendTag(socket, clip.videoConfig, 0, clip.videoConfig.body);
  sendTag(socket, clip.audioConfig, 0, clip.audioConfig.body);
  const auto start = Clock::now();
  const auto limitMs = static_cast<std::uint64_t>(options.maxSeconds * 1000);
  for (std::uint64_t pass = 0;; ++pass) {
    const std::uint64_t offset = pass * clip.loopMs;
    for (const FlvTag& tag : clip.media) {
      const std::uint64_t timestamp = offset + tag.timestamp;
      if (timestamp >= limitMs) return result;
      const auto due = start + std::chrono::milliseconds(timestamp);
      std::this_thread::sleep_until(due);
      const double lag = std::chrono::duration<double>(Clock::now() - due).count();
      const PaceTick tick{tag, std::uint32_t(timestamp), lag};
      if (options.beforeSend && !options.beforeSend(tick)) return result;
      const auto body = bodyOf(tag);
      sendTag(socket, tag, tick.timestamp, body);
      ++result.messages;
      result.bodyBytes += std::int64_t(body.size());
      result.streamSeconds = double(timestamp) / 1000;
      result.maxLagSeconds = std::max(result.maxLagSeconds, lag);
    }
  }
}

}  // namespace qvn::test
