#include "utils/logging.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>

#include "support/log.h"

namespace tarn {
namespace {

using testing::ElementsAre;

void LogAll(int& evaluated) {
  for (const Severity severity : {DEBUG, INFO, WARNING, ERROR}) {
    TARN_LOG(severity) << ++evaluated;
  }
}

void LogOrElse(bool log, std::string& branches) {
  // NOLINTBEGIN: without braces, the macro must not take over the else.
  if (log)
    TARN_LOG(ERROR) << (branches += "log");
  else
    branches += "else";
  // NOLINTEND
}

void Log(Severity severity, const char* message) {
  TARN_LOG(severity) << message << 7;
}

TEST(LogTest, PrintsOneLineWithUtcTimeAndPlace) {
  setenv("TZ", "NPT-5:45", 1);
  tzset();
  const std::string kWords[] = {"DEBUG", "INFO", "WARNING", "ERROR"};
  for (int32_t severity = 0; severity < 4; ++severity) {
    const std::time_t before = std::time(nullptr);
    const std::string line = LogOf([severity] {
      MessageLogger(static_cast<Severity>(severity), "Run", "/a b/c.cc", 42)
              .stream()
          << "\nx=" << 12345 << " \n\n";
    });
    std::tm utc = {};
    const std::string header = "[TARN 240223_qvx] " + kWords[severity] + " (";
    const char* rest =
        strptime(line.c_str(), (header + "%Y-%m-%d %H:%M:%S").c_str(), &utc);
    EXPECT_STREQ(rest, " Run():/a b/c.cc:42) \nx=12345 \n");
    EXPECT_GE(timegm(&utc), before);
    EXPECT_LE(timegm(&utc), std::time(nullptr));
  }
  EXPECT_THAT(LogOf([] { MessageLogger(ERROR, "", "", 0).stream() << "\n\n"; }),
              testing::EndsWith(":0) \n"));
}

TEST(LogTest, EvaluatesNothingBelowTheLevel) {
  int evaluated = 0;
  EXPECT_THAT(LinesOf([&] { LogAll(evaluated); }),
              ElementsAre("WARNING LogAll: 1", "ERROR LogAll: 2"));
  const ScopedLogLevel level(kSilent);
  EXPECT_EQ(LogOf([] { Log(FATAL, "silenced"); }), "");
  EXPECT_EQ(LogOf([&] { LogAll(evaluated); }), "");
  EXPECT_EQ(evaluated, 2);
}

TEST(LogTest, IsOneStatementInAnUnbracedIf) {
  for (const Severity level : {WARNING, FATAL}) {
    const ScopedLogLevel scoped(level);
    std::string branches;
    LogOf([&] { LogOrElse(true, branches), LogOrElse(false, branches); });
    EXPECT_EQ(branches, level == WARNING ? "logelse" : "else");
  }
}

TEST(LogDeathTest, FatalAndUnknownSeveritiesAbort) {
  ExpectFatal([] { Log(FATAL, "broken: "); }, "broken: 7", "Log",
              "tests/logging-test.cc:");
  ExpectFatal([] { Log(static_cast<Severity>(7), "odd: "); },  // NOLINT
              "UNKOWN Log: odd: 7");
}

}  // namespace
}  // namespace tarn
