#ifndef TARN_BASE_BASE_QUEUE_H_
#define TARN_BASE_BASE_QUEUE_H_

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <limits>
#include <mutex>
#include <vector>

#include "utils/export.h"

namespace tarn {

// A threshold that no number of waiting items reaches.
constexpr unsigned int kWakeNobody = std::numeric_limits<unsigned int>::max();

// A first-in first-out queue of waiting requests, from which batches are taken.
//
// Any number of threads may push and pop, of several models too. The queue does
// not own what its items point to.
template <typename T>
class Queue {
 public:
  // Appends an item; wakes one waiting Pop() if at least `threshold` items wait
  // now.
  void Push(const T& item, unsigned int threshold) {
    const std::lock_guard<std::mutex> lock(mutex_);
    items_.push_back(item);
    if (items_.size() >= threshold) condition_.notify_one();
  }

  // Appends several items at once, with one wake-up. Returns how many wait now.
  size_t Push(const std::vector<T>& items, unsigned int threshold) {
    const std::lock_guard<std::mutex> lock(mutex_);
    items_.insert(items_.end(), items.begin(), items.end());
    if (items_.size() >= threshold) condition_.notify_one();
    return items_.size();
  }

  // Takes the `n` oldest items, or none when fewer wait. Never blocks.
  std::vector<T> Pop(unsigned int n) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (items_.size() < n) return {};
    return Take(n);
  }

  // Takes up to `n` items, oldest first. When fewer wait, it first waits once,
  // until a Push() reaches its threshold, Wake(), or `timeout` microseconds are
  // over; 0 does not wait at all.
  std::vector<T> Pop(unsigned int n, unsigned int timeout) {
    const std::atomic<bool> always(true);
    return Pop(n, timeout, always);
  }

  // The same for a consumer that is to stop: once `running` is false it does
  // not wait any more, and a Wake() after that ends a wait that has begun.
  std::vector<T> Pop(unsigned int n, unsigned int timeout,
                     const std::atomic<bool>& running) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (items_.size() < n && timeout > 0 && running) {
      condition_.wait_until(lock, std::chrono::system_clock::now() +
                                      std::chrono::microseconds(timeout));
    }
    return Take(n);
  }

  // Ends every wait of a Pop() that is going on.
  void Wake() {
    const std::lock_guard<std::mutex> lock(mutex_);
    condition_.notify_all();
  }

  // Whether no item waits.
  bool Empty() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return items_.empty();
  }

 private:
  // Up to `n` items from the front; mutex_ must be held.
  std::vector<T> Take(unsigned int n) {
    const auto begin = items_.begin();
    const auto count = std::min<size_t>(n, items_.size());
    const auto end = begin + static_cast<std::ptrdiff_t>(count);
    std::vector<T> taken(begin, end);
    items_.erase(begin, end);
    return taken;
  }

  std::mutex mutex_;
  std::deque<T> items_;  // Oldest at the front; guarded by mutex_.
  std::condition_variable condition_;
};

class BaseProxy;
extern template class TARN_EXPORT Queue<BaseProxy*>;

}  // namespace tarn

#endif  // TARN_BASE_BASE_QUEUE_H_
