#include "utils/reporter.h"

#include <locale>
#include <utility>

namespace tarn {

Reporter Reporter::As(const char* function) const {
  Reporter copy = *this;
  copy.function_ = function;
  return copy;
}

Reporter Reporter::About(const std::string& option, int32_t line) const {
  Reporter copy = *this;
  copy.option_ = option;
  copy.option_line_ = line;
  return copy;
}

Reporter Reporter::About(const std::string& option) const {
  if (lines_ == nullptr || lines_->count(option) == 0) return About(option, 0);
  return About(option, lines_->at(option));
}

Reporter::Message::Message(const Reporter& reporter, Severity severity,
                           Rule rule, const char* file, int32_t line)
    : reporter_(reporter),
      severity_(severity),
      rule_(std::move(rule)),
      file_(file),
      line_(line) {
  text_.imbue(std::locale::classic());
}

Reporter::Message::~Message() {
  if (!reporter_.Logs()) {
    if (severity_ < WARNING) return;
    reporter_.findings_->push_back({severity_, reporter_.option_,
                                    reporter_.option_line_, rule_.name,
                                    text_.str(), rule_.hint});
  } else if (GetLogLevel() <= severity_) {
    MessageLogger(severity_, reporter_.function_, file_, line_).stream()
        << text_.str();
  }
}

}  // namespace tarn
