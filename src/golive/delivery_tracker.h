// What the ingest has confirmed: bytes written against the peer's acknowledgements, and
// from their times how long the network takes to deliver. A value; its owner locks it.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

namespace qvn {

class QvnDeliveryTracker {
 public:
  static constexpr size_t kLiveMarks = 8192;
  static constexpr size_t kCompactAbove = 1024;

  // The acknowledgement window in bytes that this client asked the peer for.
  std::int64_t window = 0;

  void wrote(std::int64_t n, double at);
  // The peer's Acknowledgement: a 32-bit running count that may wrap, or start again when
  // the peer restarts its count.
  void acknowledged(std::uint32_t sequence, double now);
  // Seconds the oldest unconfirmed byte has been on its way; none before an acknowledgement.
  std::optional<double> delaySeconds(double now) const;
  // The same less the smallest delay seen: the time spent queued rather than travelling.
  std::optional<double> queueDelaySeconds(double now) const;

  std::int64_t written() const { return written_; }
  std::int64_t acked() const { return acked_; }
  bool seen() const { return seen_; }
  std::optional<double> lastDelay() const { return lastDelay_; }
  std::optional<double> minDelay() const { return minDelay_; }

 private:
  struct Mark {
    std::int64_t bytes;
    double at;
  };
  void compact();

  std::int64_t written_ = 0;
  std::int64_t acked_ = 0;
  std::uint32_t lastSequence_ = 0;
  bool seen_ = false;
  std::vector<Mark> marks_;
  size_t head_ = 0;
  std::optional<double> lastDelay_;
  std::optional<double> minDelay_;
};

}  // namespace qvn
