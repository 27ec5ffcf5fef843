#include "utils/logging.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <locale>
#include <string>

namespace tarn {

namespace {

constexpr char kBuildTag[] = "240223_qvx";

const char* SeverityWord(Severity severity) {
  switch (severity) {
    case DEBUG:
      return "DEBUG";
    case INFO:
      return "INFO";
    case WARNING:
      return "WARNING";
    case ERROR:
      return "ERROR";
    case FATAL:
      return "FATAL";
  }
  return "UNKOWN";
}

// The current time in UTC.
std::string TimeText() {
  const std::time_t now = std::time(nullptr);
  std::tm utc = {};
  gmtime_r(&now, &utc);
  char text[64];
  std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &utc);
  return text;
}

}  // namespace

int32_t global_tarn_log_level = WARNING;

void SetLogLevel(Severity level) {
  __atomic_store_n(&global_tarn_log_level, static_cast<int32_t>(level),
                   __ATOMIC_RELAXED);
}

MessageLogger::MessageLogger(Severity severity, const char* function,
                             const char* file, int32_t line)
    : severity_(severity), function_(function), file_(file), line_(line) {
  // A host's global locale must not put separators into the numbers.
  stream_.imbue(std::locale::classic());
}

MessageLogger::~MessageLogger() {
  std::string message = stream_.str();
  while (!message.empty() && message.back() == '\n') message.pop_back();
  HandleMessage(message.c_str());
  if (severity_ >= FATAL) std::abort();
}

void MessageLogger::HandleMessage(const char* message) {
  std::ostringstream header;
  header.imbue(std::locale::classic());
  header << "[TARN " << kBuildTag << "] " << SeverityWord(severity_) << " ("
         << TimeText() << " " << function_ << "():" << file_ << ":" << line_
         << ")";
  if (severity_ < FATAL) {
    std::fprintf(stdout, "%s %s\n", header.str().c_str(), message);
    return;
  }
  // The third text is where a stack trace would go; none is collected.
  std::fprintf(stdout, "%s %s\n\n%s\n", header.str().c_str(), message, "");
}

}  // namespace tarn
