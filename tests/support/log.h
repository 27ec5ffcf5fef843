#ifndef TARN_TESTS_SUPPORT_LOG_H_
#define TARN_TESTS_SUPPORT_LOG_H_

#include <functional>
#include <string>
#include <vector>

#include "utils/logging.h"

namespace tarn {

using Action = std::function<void()>;

// What `action` prints on standard output, where the log goes, or on standard
// error. One may be inside the other.
std::string LogOf(const Action& action);
std::string StderrOf(const Action& action);

// The lines that `action` logs, each as "SEVERITY function: message".
std::vector<std::string> LinesOf(const Action& action);

// Expects `action`, run in a child process, to abort behind two empty lines
// and, before them, a line as above that holds `text`. With `function`, the
// line must be FATAL, `text` its whole message, that function its label, and
// `file` part of the place.
void ExpectFatal(const Action& action, const std::string& text,
                 const std::string& function = "",
                 const std::string& file = "");

// The same, and that `action` logs nothing and does no harm where the log level
// silences fatal checks.
void ExpectFatalUnlessSilent(const Action& action, const std::string& text);

// Above every severity: silences fatal checks too.
constexpr Severity kSilent = static_cast<Severity>(FATAL + 1);

class ScopedLogLevel {
 public:
  explicit ScopedLogLevel(Severity level) : previous_(GetLogLevel()) {
    SetLogLevel(level);
  }
  ScopedLogLevel(const ScopedLogLevel&) = delete;
  ScopedLogLevel& operator=(const ScopedLogLevel&) = delete;
  ~ScopedLogLevel() { SetLogLevel(previous_); }

 private:
  Severity previous_;
};

}  // namespace tarn

#endif  // TARN_TESTS_SUPPORT_LOG_H_
