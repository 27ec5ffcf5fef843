#include "utils/parse-options.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "support/log.h"
#include "support/table.h"
#include "support/temp-file.h"

namespace tarn {
namespace {

using Strings = std::vector<std::string>;
using testing::ElementsAre;
using testing::HasSubstr;

// A parser with one option of each type, and what it logged and printed on
// standard error when it was last used.
struct Options {
  Options() {
    parser.Register("flag", &flag, "A flag.");
    parser.Register("Count", &count, "A count.");
    parser.Register("size", &size, "A size.");
    parser.Register("rate", &rate, "A rate.");
    parser.Register("scale", &scale, "A scale.");
    parser.Register("My_Name", &name, "A name longer than it.");
  }
  void Use(const Action& action) {
    printed = StderrOf([&] { lines = LinesOf(action); });
  }
  void Read(const Strings& texts) {
    arguments = texts;  // The parser goes on referring to them.
    argv = {"prog"};
    for (const std::string& text : arguments) argv.push_back(text.c_str());
    const int argc = static_cast<int>(argv.size());
    Use([&] { EXPECT_EQ(parser.Read(argc, argv.data()), argc); });
  }
  void ReadFile(const std::string& content, bool scrambled) {
    const TempFile file(content);
    Use([&] { parser.ReadConfigFile(file.path(), scrambled); });
    for (std::string& line : lines) {
      line = Replaced(line, file.path(), "FILE");
    }
  }
  std::string Config() {
    std::ostringstream os;
    parser.PrintConfig(os);
    return os.str();
  }

  bool flag = false;
  int32_t count = -1;
  uint32_t size = 2;
  float rate = 0.5f;
  double scale = 1e-9;
  std::string name = "x y", printed;
  Strings lines, arguments;
  std::vector<const char*> argv;
  ParseOptions parser{"usage text"};
};

constexpr char kUsage[] = R"(
usage text
Options:
  --Count                     : A count. (int, default = -1)
  --flag                      : A flag. (bool, default = false)
  --My_Name                   : A name longer than it. (string, default = "x y")
  --rate                      : A rate. (float, default = 0.5)
  --scale                     : A scale. (double, default = 1e-09)
  --size                      : A size. (uint, default = 2)

Standard options:
  --config                    : Configuration file to read (this option may be repeated) (string, default = "")
  --help                      : Print out usage message (bool, default = false)
  --print-args                : Print the command line arguments (to stderr) (bool, default = true)

)";

// Arguments, what is set then, and what is logged.
constexpr char kArguments[] = R"(
--flag | flag = true
--flag= | flag = true | SetOption: Invalid option --flag=
--flag= T  | flag = true
--FLAG=0 | flag = false
--flag=Yes | flag = false | ToBool: Invalid format for boolean argument [expected true or false]: yes
--count= 2147483647  | Count = 2147483647
--count=1x | size = 2 | ToInt: Invalid integer option "1x"
--count | size = 2 | ToInt: Invalid integer option ""
--size=4294967295 | size = 4294967295
--size=-1 | Count = -1 | ToUint: Invalid integer option "-1"
--rate=1e3 | rate = 1000
--rate=a | size = 2 | ToFloat: Invalid floating-point option "a"
--scale=-inf | scale = -inf
--scale=1 2 | size = 2 | ToDouble: Invalid floating-point option "1 2"
--my_NAME= a=b#c  | My_Name = 'a=b#c'
--my-name | My_Name = '' | SetOption: Invalid option --my-name (option format is --x=y).
--=5 | size = 2 | SplitLongArg: Invalid option (no key): --=5 | SplitLongArg: Invalid option (no key): --=5 | Read: Invalid option --=5
--No_ne=1 | size = 2 | Read: Invalid option --No_ne=1)";

// The same for lines of a configuration file.
constexpr char kLines[] = R"(
# --size=9 | size = 2
  --Count=7 	# --size=9 | Count = 7
--flag | flag = true
--size = 5 | size = 2 | ReadConfigFile: Invalid option --size = 5 in config file FILE
--none=1 # | size = 2 | ReadConfigFile: Invalid option --none=1 in config file FILE
size=5 | size = 2 | NO-DASHES | ReadConfigFile: Invalid option size=5 in config file FILE
a | size = 2 | NO-DASHES | ReadConfigFile: Invalid option a in config file FILE
=1 | size = 2 | NO-DASHES | ReadConfigFile: Invalid option =1 in config file FILE
ab=1 | size = 2 | NO-DASHES | SplitLongArg: Invalid option (no key): ab=1 | ReadConfigFile: Invalid option ab=1 in config file FILE)";

constexpr char kNoDashes[] =
    "ReadConfigFile: Reading config file FILE: line 3 does not look like a "
    "line from a Kaldi command-line program's config file: should be of the "
    "form --x=y.  Note: config files intended to be sourced by shell scripts "
    "lack the '--'.";

void ExpectRow(const Strings& row, Options& options) {
  SCOPED_TRACE(row[0]);
  Strings lines;
  for (size_t i = 2; i < row.size(); ++i) {
    lines.push_back("ERROR " + (row[i] == "NO-DASHES" ? kNoDashes : row[i]));
  }
  EXPECT_EQ(options.lines, lines);
  EXPECT_THAT(options.Config(), HasSubstr("\n" + row[1] + "\n"));
}

TEST(ParseOptionsTest, SetsValuesReportsOddOnesAndReadsOn) {
  for (const auto& row : Rows(kArguments)) {
    Options options;
    options.Read({row[0], "rest"});
    ExpectRow(row, options);
    EXPECT_EQ(options.parser.GetArg(1), "rest");
  }
  for (const auto& row : Rows(kLines)) {
    Options options;
    options.ReadFile("\n# comment\n" + row[0] + "\r\n--rate=3", false);
    ExpectRow(row, options);
    EXPECT_EQ(options.rate, 3);
  }
  for (const std::string path : {"/no/file", "/"}) {
    Options options;
    options.Use([&] { options.parser.ReadConfigFile(path, false); });
    EXPECT_THAT(options.lines, ElementsAre("ERROR ReadConfigFile: Cannot open "
                                           "config file: " +
                                           path));
  }
}

TEST(ParseOptionsTest, SeparatesPositionalArguments) {
  for (const auto& row : Rows(R"(
--size=1 -- --y | --y
a -- b | a b
a --size=1 -- -- | a --size=1 --
-- a -- b | a -- b)")) {
    std::istringstream words(row[0]);
    const Strings arguments{std::istream_iterator<std::string>(words), {}};
    Options options;
    options.Read(arguments);
    std::string positionals = options.parser.GetArg(1);
    for (int32_t i = 2; i <= options.parser.NumArgs(); ++i) {
      positionals += " " + options.parser.GetArg(i);
    }
    EXPECT_EQ(positionals, row[1]);
  }
  Options options;
  for (const int32_t i : {0, 1}) {
    options.Use([&] { EXPECT_EQ(options.parser.GetArg(i), ""); });
    EXPECT_THAT(options.lines, ElementsAre("ERROR GetArg: ParseOptions::GetArg"
                                           ", invalid index " +
                                           std::to_string(i)));
  }
}

TEST(ParseOptionsTest, PrintsUsageConfigurationAndCommandLine) {
  Options options;
  options.Read({"--flag", "a b"});
  EXPECT_EQ(options.printed, "prog --flag 'a b' \n");
  options.Use([&] { options.parser.PrintUsage(true); });
  EXPECT_EQ(options.printed,
            kUsage + std::string("Command line was: prog --flag 'a b' \n"));
  options.Read({"--print-args=false"});
  EXPECT_EQ(options.printed, "");
  EXPECT_EQ(options.Config(),
            "\n[[ Configuration of UI-Registered options ]]\nconfig = ''\n"
            "Count = -1\nflag = true\nhelp = false\nMy_Name = 'x y'\n"
            "print-args = false\nrate = 0.5\nscale = 1e-09\nsize = 2\n\n");
}

TEST(ParseOptionsDeathTest, HelpPrintsTheUsageAndExits) {
  const char* const argv[] = {"prog", "a", "--no=1", "--Help"};
  EXPECT_EXIT(Options().parser.Read(4, argv), testing::ExitedWithCode(0),
              testing::StrEq(kUsage));
}

TEST(ParseOptionsTest, EscapesForTheShell) {
  EXPECT_EQ(ParseOptions::Escape(""), "''");
  for (const auto& row : Rows(R"(
aZ09[]~#^_-+=:.,/ | aZ09[]~#^_-+=:.,/
a b | 'a b'
it's | "it's"
it's $x | 'it'\''s $x'
$x | '$x'
'"' | ''\''"'\'''
'` | ''\''`'
'\ | ''\''\')")) {
    EXPECT_EQ(ParseOptions::Escape(row[0]), row[1]);
  }
}

TEST(ParseOptionsTest, LaterRegistrationReplacesTheEarlierOne) {
  Options options;
  int32_t count = 5;
  std::string text = "new";
  options.Use([&] {
    options.parser.Register("COUNT", &count, "Another.");
    options.parser.Register("size", &text, "A text.");
  });
  const std::string twice =
      "WARNING RegisterCommon: Registering option twice, ignoring second "
      "time: ";
  EXPECT_THAT(options.lines, ElementsAre(twice + "COUNT", twice + "size"));
  options.Use([&] { options.parser.PrintUsage(false); });
  EXPECT_THAT(options.printed, HasSubstr(": Another. (int, default = 5)\n"));
  options.Read({"--count=7", "--size=8"});
  EXPECT_EQ(count, 7);
  EXPECT_EQ(options.count, -1);
  EXPECT_EQ(options.size, 8u);  // The types' order decides between the two.
}

TEST(ParseOptionsTest, PrefixesNestUpToTheOutermostParser) {
  Options options;
  ParseOptions outer("Outer", &options.parser), inner("inner", &outer);
  int32_t outer_depth = 0, inner_depth = 0;
  outer.Register("depth", &outer_depth, "A depth.");
  inner.Register("depth", &inner_depth, "A depth.");
  options.Read({"--outer.INNER.depth=3", "--outer.depth=2"});
  EXPECT_THAT(options.Config(), HasSubstr("\nOuter.depth = 2\n"
                                          "Outer.inner.depth = 3\n"));
}

TEST(ParseOptionsTest, DisabledOptionIsUnknown) {
  Options options;
  const auto disable = [&options](const char* name) {
    options.Use([&] { options.parser.DisableOption(name); });
    return options.lines;
  };
  EXPECT_THAT(disable("size"), testing::IsEmpty());
  EXPECT_FALSE(options.parser.SetOption("size", "1", true));
  EXPECT_THAT(disable("My_Name"),  // Not normalised.
              ElementsAre("ERROR DisableOption: Option My_Name was not "
                          "registered so cannot be disabled: "));
  options.Read({"rest"});
  EXPECT_THAT(disable("rate"), ElementsAre("ERROR DisableOption: DisableOption "
                                           "must not be called after calling "
                                           "Read()."));
  EXPECT_FALSE(options.parser.SetOption("rate", "1", true));
}

TEST(ParseOptionsTest, CommandLineOverridesFilesInTheirOrder) {
  const TempFile first("--count=1\n--size=1\n--rate=1\n");
  const TempFile second("--size=2\n--rate=2\n");
  Options options;
  const std::string config = "--config=";
  options.Read({"--rate=3", config + first.path(), config + second.path(), "--",
                "--config=/no/file"});
  EXPECT_THAT(options.lines, testing::IsEmpty());
  EXPECT_EQ(options.count, 1);
  EXPECT_EQ(options.size, 2u);
  EXPECT_EQ(options.rate, 3);
}

std::string Record(int32_t length, const std::string& line) {
  std::string record(reinterpret_cast<const char*>(&length), sizeof(length));
  const std::string key = "Qorvane-Tulp_Wexa";
  for (size_t i = 0; i < line.size(); ++i) {
    record += static_cast<char>(line[i] ^ key[i % key.size()]);
  }
  return record;
}

TEST(ParseOptionsTest, ReadsScrambledRecordsUpToTheFirstBrokenOne) {
  const std::string readable = Record(13, "--count=12345") + Record(0, "") +
                               Record(-5, "") + Record(11, "# a comment") +
                               Record(28, "--my-name=more than 17\nbytes");
  for (const std::string& broken :
       {std::string(), std::string("\x07\0", 2), Record(INT32_MAX, "--size=9"),
        Record(9, "--size=9"), Record(8, "")}) {
    Options options;
    options.ReadFile(readable + broken, true);
    EXPECT_THAT(options.lines, testing::IsEmpty());
    EXPECT_EQ(options.count, 12345);
    EXPECT_EQ(options.name, "more than 17\nbytes");
    EXPECT_EQ(options.size, 2u);
  }
}

}  // namespace
}  // namespace tarn
