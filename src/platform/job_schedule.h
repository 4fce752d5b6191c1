// The job list every queue driver keeps: ordered by due time, and by posting order among jobs
// due at the same time. Not thread-safe; each owner guards it with its own mutex.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "platform/dispatch.h"

namespace qvn::detail {

class JobSchedule {
 public:
  void push(double due, Job job) {
    heap_.push_back(Entry{due, nextSeq_++, std::move(job)});
    std::push_heap(heap_.begin(), heap_.end(), later);
  }

  bool empty() const { return heap_.empty(); }
  size_t size() const { return heap_.size(); }

  // Due time of the earliest job; the list must not be empty.
  double nextDue() const { return heap_.front().due; }

  bool hasDue(double now) const { return !heap_.empty() && heap_.front().due <= now; }

  // Removes and returns the earliest job; the list must not be empty.
  Job pop() {
    std::pop_heap(heap_.begin(), heap_.end(), later);
    Job job = std::move(heap_.back().job);
    heap_.pop_back();
    return job;
  }

  // Empties the list, handing the jobs back so the owner can destroy them outside its lock:
  // a job's captures may post to the very queue being cleared.
  std::vector<Job> takeAll() {
    std::vector<Job> jobs;
    jobs.reserve(heap_.size());
    for (Entry& entry : heap_) jobs.push_back(std::move(entry.job));
    heap_.clear();
    return jobs;
  }

 private:
  struct Entry {
    double due;
    uint64_t seq;
    Job job;
  };

  // Heap order: the entry that must run first ends up at the front.
  static bool later(const Entry& a, const Entry& b) {
    if (a.due != b.due) return a.due > b.due;
    return a.seq > b.seq;
  }

  std::vector<Entry> heap_;
  uint64_t nextSeq_ = 0;
};

}  // namespace qvn::detail
