// Counts heap allocations, so a benchmark can tell whether a path still allocates once it is
// warm. Only threads that ask are counted, so idle library threads don't blur the count.
#pragma once

#include <cstdint>

namespace qvn::bench {

struct HeapCount {
  std::uint64_t news = 0;     // calls of operator new, every form
  std::uint64_t mallocs = 0;  // calls of malloc, calloc, realloc and the aligned forms
};

// Totals of every counted thread so far.
HeapCount heapCount();

// Counts the calling thread's allocations from now on, or stops counting them.
void countThisThread(bool on);

// False when a sanitizer owns malloc: then only operator new is counted.
bool countsMalloc();

}  // namespace qvn::bench
