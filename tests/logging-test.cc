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
  EXPECT_THAT(LogOf([] { TARN_LOG(ERROR) << "\n\n"; }),
              testing::EndsWith(") \n"));
}

TEST(LogTest, EvaluatesNothingBelowTheLevel) {
  int evaluated = 0;
  const auto log_all = [&evaluated] {
    for (const Severity severity : {DEBUG, INFO, WARNING, ERROR}) {
      TARN_LOG(severity) << ++evaluated;
    }
  };
  EXPECT_THAT(LinesOf(log_all),
              ElementsAre("WARNING operator(): 1", "ERROR operator(): 2"));
  const ScopedLogLevel level(kSilent);
  EXPECT_EQ(LogOf([] { TARN_LOG(FATAL) << "silenced"; }), "");
  EXPECT_EQ(LogOf(log_all), "");
  EXPECT_EQ(evaluated, 2);
}

TEST(LogTest, IsOneStatementInAnUnbracedIf) {
  for (const Severity level : {WARNING, FATAL}) {
    const ScopedLogLevel scoped(level);
    std::string branches;
    const auto log_or_else = [&branches](bool log) {
      if (log)
        TARN_LOG(ERROR) << (branches += "log");
      else
        branches += "else";
    };
    LogOf([&] { log_or_else(true), log_or_else(false); });
    EXPECT_EQ(branches, level == WARNING ? "logelse" : "else");
  }
}

TEST(LogDeathTest, FatalAndUnknownSeveritiesAbort) {
  ExpectFatal([] { TARN_LOG(FATAL) << "broken: " << 7 << "\n"; }, "broken: 7",
              "operator()", "tests/logging-test.cc:");
  ExpectFatal([] { TARN_LOG(static_cast<Severity>(7)) << "odd"; },
              "UNKOWN operator(): odd");
}

}  // namespace
}  // namespace tarn
