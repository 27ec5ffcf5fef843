#ifndef TARN_UTILS_LOGGING_H_
#define TARN_UTILS_LOGGING_H_

#include <cstdint>
#include <ostream>
#include <sstream>

#include "utils/export.h"

namespace tarn {

// How grave a message is. FATAL is the library's assertion: the message is
// printed and the process aborts.
enum Severity : int32_t {
  DEBUG = 0,
  INFO = 1,
  WARNING = 2,
  ERROR = 3,
  FATAL = 4,
};

// The lowest severity that is produced, WARNING at first. A plain integer, so
// that its type and size can be relied on; the two functions below access it
// atomically.
TARN_EXPORT extern int32_t global_tarn_log_level;

// Sets the lowest severity that is produced, for the whole process and from
// any thread. A level of 5 or more, by a cast, silences fatal checks too:
// nothing is printed, nothing aborts and the code runs on past the check.
TARN_EXPORT void SetLogLevel(Severity level);

// Safe from any thread.
inline Severity GetLogLevel() {
  return static_cast<Severity>(
      __atomic_load_n(&global_tarn_log_level, __ATOMIC_RELAXED));
}

// One message under construction; made by TARN_LOG.
//
// The destructor prints the collected text as one line on standard output and,
// for FATAL and above, aborts the process. Nothing is flushed: where standard
// output is fully buffered, a file or a pipe, the host sees fatal lines only
// after setvbuf(stdout, nullptr, _IOLBF, 0).
class TARN_EXPORT MessageLogger {
 public:
  // `function` and `file` are kept by pointer and must outlive the message.
  // Cold, as is what leads here: the compiler keeps log statements out of the
  // way, and small.
  __attribute__((cold)) MessageLogger(Severity severity, const char* function,
                                      const char* file, int32_t line);
  MessageLogger(const MessageLogger&) = delete;
  MessageLogger& operator=(const MessageLogger&) = delete;
  ~MessageLogger();

  // Collects the text.
  std::ostream& stream() { return stream_; }

  // Prints `message` behind the header that names severity, UTC time and place.
  void HandleMessage(const char* message);

 private:
  Severity severity_;
  const char* function_;
  const char* file_;
  int32_t line_;
  std::ostringstream stream_;
};

// Gives both branches of the log statement the type void; binds more loosely
// than << and more tightly than ?:.
struct LogStatement {
  void operator&(std::ostream&) const {}  // Drops the stream.
};

}  // namespace tarn

// TARN_LOG(FATAL) << "broken: " << reason; is a single expression. Below the
// level nothing is built and no argument is evaluated.
#define TARN_LOG(severity) TARN_LOG_AS(severity, __func__)

// The same for helpers that report on behalf of the function named `function`.
#define TARN_LOG_AS(severity, function)                                   \
  (::tarn::GetLogLevel() > (severity))                                    \
      ? (void)0                                                           \
      : ::tarn::LogStatement() &                                          \
            ::tarn::MessageLogger(severity, function, __FILE__, __LINE__) \
                .stream()

#endif  // TARN_UTILS_LOGGING_H_
