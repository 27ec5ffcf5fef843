#ifndef TARN_BENCH_HEAP_COUNT_H_
#define TARN_BENCH_HEAP_COUNT_H_

#include <atomic>
#include <cstddef>

namespace tarn {

// What all threads of a program that is linked with heap-count.cc have done
// with the heap. Needs the GNU C library.
struct HeapCount {
  std::atomic<long> objects{0};  // Made by operator new.
  std::atomic<long> blocks{0};   // Made by malloc() and its like, as tensors.
  std::atomic<long> bytes{0};    // In use now.
  std::atomic<long> peak{0};     // The most bytes since it was last set.
};

extern HeapCount heap_count;

// Allocations, in all or of one of several requests.
struct Allocations {
  double objects;
  double blocks;
};

// Those of one of `count` calls of `action`.
template <typename Action>
Allocations AllocationsOf(int count, Action action) {
  const long objects = heap_count.objects;
  const long blocks = heap_count.blocks;
  for (int i = 0; i < count; ++i) action();
  return {static_cast<double>(heap_count.objects - objects) / count,
          static_cast<double>(heap_count.blocks - blocks) / count};
}

// The most bytes that `action` had in use at a time, over those before it.
template <typename Action>
long PeakBytesOf(Action action) {
  const long before = heap_count.bytes;
  heap_count.peak = before;
  action();
  return heap_count.peak - before;
}

}  // namespace tarn

#endif  // TARN_BENCH_HEAP_COUNT_H_
