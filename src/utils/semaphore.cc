#include "utils/semaphore.h"

namespace tarn {

void Semaphore::Wait() {
  std::unique_lock<std::mutex> lock(mutex_);
  condition_.wait(lock, [this] { return count_ > 0; });
  --count_;
}

bool Semaphore::TryWait() {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (count_ == 0) return false;
  --count_;
  return true;
}

void Semaphore::Signal() {
  // Notified under the lock: the waiter may destroy the semaphore as soon as
  // it has seen the count.
  const std::lock_guard<std::mutex> lock(mutex_);
  ++count_;
  condition_.notify_one();
}

}  // namespace tarn
