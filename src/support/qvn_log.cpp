#include "support/qvn_log.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <ctime>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>

#include "platform/files.h"

namespace qvn {

namespace {

using nlohmann::json;

constexpr size_t kStampLength = 20;  // 2024-05-01T12:00:00Z
constexpr size_t kSlotCount = 128;   // a power of two
constexpr size_t kMaxRealtimeText = 240;
constexpr auto kDrainInterval = std::chrono::milliseconds(20);

thread_local bool realtimeThread = false;

std::int64_t nowSeconds() {
  timespec ts{};
  ::clock_gettime(CLOCK_REALTIME, &ts);
  return ts.tv_sec;
}

// By hand rather than gmtime_r, which takes glibc's time zone lock even for UTC.
void formatStamp(std::int64_t seconds, char (&out)[kStampLength]) {
  using namespace std::chrono;
  const sys_seconds time{std::chrono::seconds{seconds}};
  const sys_days day = floor<days>(time);
  const year_month_day date{day};
  const hh_mm_ss clock{time - day};
  auto put = [&out](size_t at, unsigned value, int digits) {
    for (int i = digits - 1; i >= 0; --i, value /= 10) out[at + size_t(i)] = char('0' + value % 10);
  };
  put(0, static_cast<unsigned>(std::clamp(int(date.year()), 0, 9999)), 4);
  out[4] = '-';
  put(5, unsigned(date.month()), 2);
  out[7] = '-';
  put(8, unsigned(date.day()), 2);
  out[10] = 'T';
  put(11, unsigned(clock.hours().count()), 2);
  out[13] = ':';
  put(14, unsigned(clock.minutes().count()), 2);
  out[16] = ':';
  put(17, unsigned(clock.seconds().count()), 2);
  out[19] = 'Z';
}

void writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t n = ::write(fd, bytes.data(), bytes.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    bytes.remove_prefix(size_t(n));
  }
}

// One write per destination, so lines from concurrent threads never interleave inside a line
// (O_APPEND makes each write land whole at the end of the file).
void writeLine(std::int64_t seconds, std::string_view text) noexcept {
  try {
    char stamp[kStampLength];
    formatStamp(seconds, stamp);
    std::string line;
    line.reserve(kStampLength + 3 + text.size());
    line.append(stamp, kStampLength).append("  ").append(text).push_back('\n');
    writeAll(STDOUT_FILENO, line);

    const auto file = appPaths().logFile();
    int fd = ::open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0 && errno == ENOENT) {
      // First line into a new state folder. If it can't be made the studio logs to stdout only.
      std::error_code ignored;
      std::filesystem::create_directories(file.parent_path(), ignored);
      fd = ::open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    }
    if (fd < 0) return;
    writeAll(fd, line);
    ::close(fd);
  } catch (...) {
    // Logging never fails its caller, not even when memory runs out.
  }
}

// Lines from real-time threads: a bounded multi-producer ring whose slots carry a sequence
// number, so producers claim a slot with one compare-and-swap and never wait for each other
// or for the writer. Only the log thread consumes.
struct Slot {
  std::atomic<std::uint64_t> sequence;
  std::int64_t seconds;
  std::uint32_t length;
  char text[kMaxRealtimeText];
};
static_assert(std::atomic<std::uint64_t>::is_always_lock_free);

struct Ring {
  Slot slots[kSlotCount];
  std::atomic<std::uint64_t> enqueued{0};  // next ticket to hand out
  std::atomic<std::uint64_t> written{0};   // lines written by the log thread
  std::atomic<std::uint64_t> dropped{0};   // lines lost to a full ring, ever
  std::atomic<std::uint64_t> reported{0};  // of those, how many the log already mentions
  std::uint64_t dequeued = 0;              // the log thread's own position

  Ring() {
    for (size_t i = 0; i < kSlotCount; ++i) slots[i].sequence.store(i, std::memory_order_relaxed);
  }

  bool push(std::int64_t seconds, std::string_view text) {
    std::uint64_t ticket = enqueued.load(std::memory_order_relaxed);
    Slot* slot;
    for (;;) {
      slot = &slots[ticket % kSlotCount];
      const std::uint64_t sequence = slot->sequence.load(std::memory_order_acquire);
      const auto lead = static_cast<std::int64_t>(sequence - ticket);
      if (lead == 0) {
        if (enqueued.compare_exchange_weak(ticket, ticket + 1, std::memory_order_relaxed)) break;
      } else if (lead < 0) {
        return false;  // the writer is a whole ring behind
      } else {
        ticket = enqueued.load(std::memory_order_relaxed);
      }
    }
    size_t length = std::min(text.size(), kMaxRealtimeText);
    // Cut at a character boundary so the line stays valid UTF-8.
    if (length < text.size())
      while (length > 0 && (static_cast<unsigned char>(text[length]) & 0xC0) == 0x80) --length;
    std::copy_n(text.data(), length, slot->text);
    slot->length = static_cast<std::uint32_t>(length);
    slot->seconds = seconds;
    slot->sequence.store(ticket + 1, std::memory_order_release);
    return true;
  }

  // Writes every published line in ticket order; stops at a slot still being filled.
  void drain() {
    char text[kMaxRealtimeText];
    for (;;) {
      Slot& slot = slots[dequeued % kSlotCount];
      if (slot.sequence.load(std::memory_order_acquire) != dequeued + 1) break;
      const std::int64_t seconds = slot.seconds;
      const std::uint32_t length = slot.length;
      std::copy_n(slot.text, length, text);
      slot.sequence.store(dequeued + kSlotCount, std::memory_order_release);
      ++dequeued;
      writeLine(seconds, std::string_view(text, length));
      written.store(dequeued, std::memory_order_release);
    }
    const std::uint64_t lost = dropped.load(std::memory_order_relaxed);
    if (const std::uint64_t already = reported.load(std::memory_order_relaxed); lost > already) {
      writeLine(nowSeconds(),
                "log: dropped " + std::to_string(lost - already) + " lines from real-time threads");
      reported.store(lost, std::memory_order_release);
    }
  }
};

// Never destroyed: the detached log thread may still be using it while the process exits.
struct Drainer {
  Ring ring;
  std::mutex mutex;
  std::condition_variable wake;     // to the log thread: drain now
  std::condition_variable drained;  // from the log thread: `written` moved
  bool nudged = false;
  std::atomic<bool> started{false};

  void run() {
    ::pthread_setname_np(::pthread_self(), "qvn-log");
    for (;;) {
      ring.drain();
      std::unique_lock lock(mutex);
      drained.notify_all();
      // Producers never signal (that could block them); a short poll picks their lines up.
      wake.wait_for(lock, kDrainInterval, [this] { return nudged; });
      nudged = false;
    }
  }
};

Drainer& drainer() {
  static Drainer* instance = new Drainer();
  return *instance;
}

}  // namespace

void QvnLog::line(std::string_view text) {
  if (realtimeThread) {
    Ring& ring = drainer().ring;
    if (!ring.push(nowSeconds(), text)) ring.dropped.fetch_add(1, std::memory_order_relaxed);
    return;
  }
  writeLine(nowSeconds(), text);
}

void QvnLog::markRealtimeThread() {
  // The log thread starts here, while the caller is still setting up, never from `line`.
  // Without it (no threads left) the thread's lines are simply written directly.
  static const bool draining = [] {
    try {
      Drainer& d = drainer();
      std::thread([&d] { d.run(); }).detach();
      d.started.store(true, std::memory_order_release);
      return true;
    } catch (...) {
      return false;
    }
  }();
  realtimeThread = draining;
}

void QvnLog::flush() {
  Drainer& d = drainer();
  if (!d.started.load(std::memory_order_acquire)) return;
  const std::uint64_t lines = d.ring.enqueued.load(std::memory_order_acquire);
  const std::uint64_t drops = d.ring.dropped.load(std::memory_order_relaxed);
  std::unique_lock lock(d.mutex);
  while (d.ring.written.load(std::memory_order_acquire) < lines ||
         d.ring.reported.load(std::memory_order_acquire) < drops) {
    d.nudged = true;
    d.wake.notify_one();
    d.drained.wait_for(lock, kDrainInterval);
  }
}

namespace {

bool isSensitive(const std::string& key) {
  std::string lower(key);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return char(c >= 'A' && c <= 'Z' ? c + 32 : c); });
  for (const char* word : {"key", "token", "secret", "password"})
    if (lower.find(word) != std::string::npos) return true;
  return false;
}

// Below a sensitive key nothing is safe: the shape stays for diagnosis, every scalar goes.
json redactAll(const json& value) {
  if (value.is_object()) {
    json out = json::object();
    for (const auto& [key, item] : value.items()) out[key] = redactAll(item);
    return out;
  }
  if (value.is_array()) {
    json out = json::array();
    for (const auto& item : value) out.push_back(redactAll(item));
    return out;
  }
  return "<redacted>";
}

}  // namespace

json QvnLog::redacted(const json& value) {
  if (value.is_object()) {
    json out = json::object();
    for (const auto& [key, item] : value.items())
      out[key] = isSensitive(key) ? redactAll(item) : redacted(item);
    return out;
  }
  if (value.is_array()) {
    json out = json::array();
    for (const auto& item : value) out.push_back(redacted(item));
    return out;
  }
  return value;
}

}  // namespace qvn
