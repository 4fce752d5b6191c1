#include "show/show_studio.h"

#include <sys/wait.h>

#include <csignal>
#include <stdexcept>

namespace qvn::bench {

namespace fs = std::filesystem;

// Liveness bound only: finishing the movie at quit may take the studio a while.
constexpr double kQuitSeconds = 60;

ShowStudio::ShowStudio(const fs::path& work, const std::string& tag, const std::string& publishURL,
                       std::optional<fs::path> movie, double boundSeconds)
    : work_(work), log_(work / ("studio-" + tag + ".log")), tag_(tag), tail_(log_) {
  port_ = test::freeLoopbackPorts(1).at(0);
  auto argv = studioCommand(port_, work / ("root-" + tag));
  argv.insert(argv.end(), {"--api-base", "http://127.0.0.1:9", "--for",
                           std::to_string(int(boundSeconds)), "--publish", publishURL,
                           "--auto-switch", std::to_string(kSwitchSeconds), "--inset"});
  if (movie) argv.insert(argv.end(), {"--record", movie->string()});
  studio_ = std::make_unique<test::ChildProcess>(argv, log_, log_);
  if (!waitFor(kListenSeconds, [this] { return listening_; }))
    throw std::runtime_error("the studio didn't listen: " + logTail());
}

ShowStudio::~ShowStudio() {
  phones_.clear();
  if (studio_->running()) studio_->stop(SIGKILL, 1);
}

void ShowStudio::addPhone(int index, PhoneShape shape, double forSeconds) {
  const std::string name = "Cam " + std::to_string(index + 1);
  const fs::path frames = work_ / ("phone-" + tag_ + "-" + std::to_string(index) + "-" +
                                   std::to_string(frameLogs_.size()) + ".frames");
  auto argv = phoneSimCommand(port_, shape.width, shape.height, 30, name, int(forSeconds));
  argv.insert(argv.end(), {"--code-base", std::to_string(std::uint32_t(index) * kCodesPerPhone),
                           "--frame-log", frames.string()});
  const fs::path simLog = work_ / ("phone-" + tag_ + "-" + std::to_string(index) + ".log");
  phones_[index] = std::make_unique<test::ChildProcess>(argv, simLog, simLog);
  shapes_[index] = shape;
  frameLogs_.push_back(frames);
}

void ShowStudio::removePhone(int index) {
  if (auto phone = phones_.find(index); phone != phones_.end()) {
    phone->second->stop(SIGTERM, 5);
    phones_.erase(phone);
    shapes_.erase(index);
  }
}

std::vector<int> ShowStudio::phones() const {
  std::vector<int> indices;
  for (const auto& [index, phone] : phones_) indices.push_back(index);
  return indices;
}

void ShowStudio::poll() {
  for (const auto& line : tail_.poll()) {
    const double at = secondsOf(line.seen.time_since_epoch());
    const std::string_view text = line.text;
    if (text.find("Listening on:") != std::string_view::npos) listening_ = true;
    if (numberBetween(text, "cam ", " first frame")) ++firstFrames_;
    if (text.find("golive rtmp NetStream.Publish.Start") != std::string_view::npos)
      ++publishStarts_;
    if (auto tick = parseTickLine(text)) ticks_.push_back({at, *tick});
    if (auto health = parseHealthLine(text)) health_.push_back({at, *health});
  }
}

std::string ShowStudio::phoneSizes() const {
  std::map<std::string, int> counts;
  for (const auto& [index, shape] : shapes_)
    ++counts[std::to_string(shape.width) + "x" + std::to_string(shape.height)];
  std::string text;
  for (const auto& [size, count] : counts)
    text += (text.empty() ? "" : " ") + std::to_string(count) + "×" + size;
  return text;
}

PushTimes ShowStudio::pushTimes() const {
  PushTimes pushed;
  for (const auto& file : frameLogs_) readFrameLog(file, pushed);
  return pushed;
}

bool ShowStudio::quit() {
  phones_.clear();
  const int status = studio_->stop(SIGTERM, kQuitSeconds);
  poll();
  return WIFEXITED(status);
}

}  // namespace qvn::bench
