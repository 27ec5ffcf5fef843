#ifndef TOOLS_TARN_INTERRUPT_H_
#define TOOLS_TARN_INTERRUPT_H_

#include <atomic>
#include <csignal>

namespace tarn::tool {

// Turns Ctrl-C into a flag while it lives, so that a command can end with the
// figures so far; a second Ctrl-C ends the process. One at a time; the flag may
// be asked for from any thread.
class Interrupt {
 public:
  Interrupt() {
    raised_ = false;
    struct sigaction action = {};
    action.sa_handler = [](int) { raised_ = true; };
    action.sa_flags = static_cast<int>(SA_RESETHAND | SA_RESTART);
    sigaction(SIGINT, &action, &previous_);
  }
  Interrupt(const Interrupt&) = delete;
  Interrupt& operator=(const Interrupt&) = delete;
  ~Interrupt() { sigaction(SIGINT, &previous_, nullptr); }

  bool IsRaised() const { return raised_; }

 private:
  static_assert(std::atomic<bool>::is_always_lock_free,
                "a signal handler needs it");
  static inline std::atomic<bool> raised_{false};
  struct sigaction previous_ = {};
};

}  // namespace tarn::tool

#endif  // TOOLS_TARN_INTERRUPT_H_
