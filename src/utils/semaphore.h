#ifndef TARN_UTILS_SEMAPHORE_H_
#define TARN_UTILS_SEMAPHORE_H_

#include <condition_variable>
#include <mutex>

#include "utils/export.h"

namespace tarn {

// Lets a caller wait until another thread has computed its request.
//
// Signals are counted: one that comes before the matching Wait() is kept and
// makes that Wait() return at once. Every operation is safe from any thread.
class TARN_EXPORT Semaphore {
 public:
  void Wait();     // Blocks until a signal is there, then takes it.
  bool TryWait();  // Takes a signal if one is there; never blocks.
  void Signal();   // Adds a signal and wakes one waiting thread.

 private:
  unsigned int count_ = 0;  // Signals not yet taken; guarded by mutex_.
  std::mutex mutex_;
  std::condition_variable condition_;
};

}  // namespace tarn

#endif  // TARN_UTILS_SEMAPHORE_H_
