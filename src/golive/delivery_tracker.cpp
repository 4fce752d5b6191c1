#include "golive/delivery_tracker.h"

#include <algorithm>
#include <limits>

namespace qvn {

void QvnDeliveryTracker::wrote(std::int64_t n, double at) {
  written_ += n;
  marks_.push_back({written_, at});
  if (marks_.size() - head_ > kLiveMarks) head_ = marks_.size() - kLiveMarks;
  compact();
}

// Removes passed marks in batches, so the array doesn't shift on every acknowledgement.
void QvnDeliveryTracker::compact() {
  if (head_ <= kCompactAbove) return;
  marks_.erase(marks_.begin(), marks_.begin() + long(head_));
  head_ = 0;
}

void QvnDeliveryTracker::acknowledged(std::uint32_t sequence, double now) {
  std::int64_t total;
  if (!seen_) {
    total = sequence;
    seen_ = true;
  } else if (sequence >= lastSequence_) {
    total = acked_ + (sequence - lastSequence_);
  } else {
    const std::int64_t w = std::max<std::int64_t>(window, 1);
    const bool wrapped = std::int64_t(lastSequence_) + 4 * w >
                         std::int64_t(std::numeric_limits<std::uint32_t>::max());
    total =
        wrapped ? acked_ + ((std::int64_t(1) << 32) + sequence - lastSequence_) : acked_ + sequence;
  }
  lastSequence_ = sequence;
  acked_ = std::min(written_, total);

  while (head_ < marks_.size() && marks_[head_].bytes < acked_) ++head_;
  if (head_ < marks_.size()) {
    const double delay = now - marks_[head_].at;
    lastDelay_ = std::max(delay, 0.0);
    minDelay_ = std::min(minDelay_.value_or(delay), delay);
  }
  compact();
}

std::optional<double> QvnDeliveryTracker::delaySeconds(double now) const {
  if (!seen_) return std::nullopt;
  const double best = lastDelay_.value_or(0);
  const std::int64_t target = acked_ + std::max<std::int64_t>(window, 1);
  if (target >= written_) return best;
  // Marks count up, so the first at or past the target is found by halving.
  const auto mark = std::lower_bound(marks_.begin() + long(head_), marks_.end(), target,
                                     [](const Mark& m, std::int64_t t) { return m.bytes < t; });
  return mark == marks_.end() ? best : std::max(best, now - mark->at);
}

std::optional<double> QvnDeliveryTracker::queueDelaySeconds(double now) const {
  const auto d = delaySeconds(now);
  if (!d) return std::nullopt;
  return minDelay_ ? std::max(*d - *minDelay_, 0.0) : std::max(*d, 0.0);
}

}  // namespace qvn
