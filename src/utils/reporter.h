#ifndef TARN_UTILS_REPORTER_H_
#define TARN_UTILS_REPORTER_H_

#include <cstdint>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "utils/finding.h"
#include "utils/logging.h"

namespace tarn {

// A rule by its fixed short name, and what mends a breach of it.
struct Rule {
  const char* name;
  std::string hint;
};

// Says what is wrong, in one of two ways: as a line of the log, where FATAL
// aborts the process, or as one more finding in a list, nothing logged. Whoever
// checks something runs the same code for both.
//
// A plain value that knows on whose behalf it reports, and on which option.
class Reporter {
 public:
  // Reports to the log.
  Reporter() = default;

  // Reports to a list. It must outlive the reporter and its copies, and so must
  // `lines`: where the configuration file gives each option, if that is known.
  explicit Reporter(std::vector<Finding>* findings,
                    const std::map<std::string, int32_t>* lines = nullptr)
      : findings_(findings), lines_(lines) {}

  bool Logs() const { return findings_ == nullptr; }

  // Copies that report as the function of that name, and on that option.
  Reporter As(const char* function) const;
  Reporter About(const std::string& option) const;
  Reporter About(const std::string& option, int32_t line) const;

  // One report under construction; its text is what is streamed into it.
  class Message {
   public:
    __attribute__((cold)) Message(const Reporter& reporter, Severity severity,
                                  Rule rule, const char* file, int32_t line);
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;
    ~Message();

    template <typename T>
    Message& operator<<(const T& part) {
      text_ << part;
      return *this;
    }

   private:
    const Reporter& reporter_;
    Severity severity_;
    Rule rule_;
    const char* file_;
    int32_t line_;
    std::ostringstream text_;
  };

  // `file` and `line` are the caller's; lists hold WARNING and above.
  Message Report(Severity severity, Rule rule,
                 const char* file = __builtin_FILE(),
                 int32_t line = __builtin_LINE()) const {
    return Message(*this, severity, std::move(rule), file, line);
  }

 private:
  std::vector<Finding>* findings_ = nullptr;
  const std::map<std::string, int32_t>* lines_ = nullptr;
  const char* function_ = "";
  std::string option_;
  int32_t option_line_ = 0;
};

}  // namespace tarn

#endif  // TARN_UTILS_REPORTER_H_
