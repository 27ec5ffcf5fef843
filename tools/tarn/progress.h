#ifndef TOOLS_TARN_PROGRESS_H_
#define TOOLS_TARN_PROGRESS_H_

#include <cstddef>
#include <iostream>
#include <mutex>
#include <optional>

#include <unistd.h>

#include <boost/timer/progress_display.hpp>

namespace tarn::tool {

// A bar on standard error where that is a terminal, otherwise nothing. Steps
// may come from any thread.
class Progress {
 public:
  explicit Progress(size_t step_num) {
    if (isatty(STDERR_FILENO) != 0) bar_.emplace(step_num, std::cerr, "");
  }

  void Step(size_t count = 1) {
    if (!bar_) return;
    const std::lock_guard<std::mutex> lock(mutex_);
    *bar_ += count;
  }

 private:
  std::mutex mutex_;  // Guards what the bar holds.
  std::optional<boost::timer::progress_display> bar_;
};

}  // namespace tarn::tool

#endif  // TOOLS_TARN_PROGRESS_H_
