#include "support/log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>

namespace tarn {

namespace {

std::vector<std::string> Lines(const std::string& log) {
  const std::string tag = "[TARN 240223_qvx] ";
  std::vector<std::string> lines;
  size_t start = log.find(tag);
  while (start != std::string::npos) {
    const size_t severity = start + tag.size();
    const size_t time = log.find(" (", severity);
    const size_t function = log.find(' ', log.find(' ', time + 2) + 1) + 1;
    const size_t place = log.find("():", function);
    const size_t message = log.find(") ", place + 3) + 2;
    const size_t end = log.find('\n', message);
    lines.push_back(log.substr(severity, time - severity) + " " +
                    log.substr(function, place - function) + ": " +
                    log.substr(message, end - message));
    start = log.find(tag, end);
  }
  return lines;
}

std::string LastLine(const std::string& log) {
  const std::vector<std::string> lines = Lines(log);
  return lines.empty() ? "" : lines.back();
}

}  // namespace

std::string LogOf(const Action& action) {
  testing::internal::CaptureStdout();
  action();
  return testing::internal::GetCapturedStdout();
}

std::string StderrOf(const Action& action) {
  testing::internal::CaptureStderr();
  action();
  return testing::internal::GetCapturedStderr();
}

std::vector<std::string> LinesOf(const Action& action) {
  return Lines(LogOf(action));
}

void ExpectFatal(const Action& action, const std::string& text,
                 const std::string& function, const std::string& file) {
  using testing::HasSubstr;
  using testing::Matcher;
  const auto run = [&action] {
    // A death test sees only standard error, and nothing is flushed.
    dup2(STDERR_FILENO, STDOUT_FILENO);
    std::setvbuf(stdout, nullptr, _IONBF, 0);
    // Where an emulator would report the abort.
    std::freopen("/dev/null", "w", stderr);
    action();
  };
  const Matcher<std::string> line =
      function.empty()
          ? Matcher<std::string>(HasSubstr(text))
          : Matcher<std::string>("FATAL " + function + ": " + text);
  EXPECT_EXIT(run(), testing::KilledBySignal(SIGABRT),
              testing::AllOf(testing::ResultOf(LastLine, line), HasSubstr(file),
                             testing::EndsWith("\n\n\n")));
}

void ExpectFatalUnlessSilent(const Action& action, const std::string& text) {
  ExpectFatal(action, text);
  const ScopedLogLevel level(kSilent);
  EXPECT_EQ(LogOf(action), "");
}

}  // namespace tarn
