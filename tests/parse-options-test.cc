#include "utils/parse-options.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "support/log.h"
#include "support/table.h"
#include "support/temp-file.h"

namespace tarn {
namespace {

using Strings = std::vector<std::string>;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

MATCHER(Holds, "") {
  return std::get<0>(arg).find(std::get<1>(arg)) != std::string::npos;
}

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

  void Read(const Strings& arguments) {
    argv = {"prog"};
    for (const std::string& text : arguments) argv.push_back(text.c_str());
    const int argc = static_cast<int>(argv.size());
    Use([&] { EXPECT_EQ(parser.Read(argc, argv.data()), argc); });
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
  std::string name = "x y";
  Strings lines;
  std::string printed;
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

TEST(ParseOptionsTest, SetsAndReportsValues) {
  for (const auto& row : Rows(kArguments)) {
    SCOPED_TRACE(row[0]);
    Options options;
    options.Read({row[0], "rest"});  // Which is read whatever comes before.
    Strings lines;
    for (size_t i = 2; i < row.size(); ++i) lines.push_back("ERROR " + row[i]);
    EXPECT_EQ(options.lines, lines);
    EXPECT_THAT(options.Config(), HasSubstr("\n" + row[1] + "\n"));
    EXPECT_EQ(options.parser.GetArg(1), "rest");
  }
}

TEST(ParseOptionsTest, SeparatesPositionalArguments) {
  const std::pair<Strings, std::string> kLines[] = {
      {{"--size=1", "--", "--y"}, "--y,"},
      {{"a", "--", "b"}, "a,b,"},
      {{"a", "--size=1", "--", "--"}, "a,--size=1,--,"},
      {{"--", "a", "--", "b"}, "a,--,b,"},
      {{}, ""}};
  for (const auto& line : kLines) {
    Options options;
    options.Read(line.first);
    std::string positionals;
    int32_t i = 1;
    for (; i <= options.parser.NumArgs(); ++i) {
      positionals += options.parser.GetArg(i) + ",";
    }
    EXPECT_EQ(positionals, line.second);
    options.Use([&] {
      EXPECT_EQ(options.parser.GetArg(0) + options.parser.GetArg(i), "");
    });
    const std::string invalid =
        "ERROR GetArg: ParseOptions::GetArg, invalid index ";
    EXPECT_THAT(options.lines,
                ElementsAre(invalid + "0", invalid + std::to_string(i)));
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
  ParseOptions bare("bare");
  EXPECT_THAT(StderrOf([&] { bare.PrintUsage(false); }),
              testing::StartsWith("\nbare\nStandard options:\n"));
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
  options.Read({"--count=7", "--size=8"});
  EXPECT_EQ(count - options.count, 7 - -1);
  // The order of the types decides between variables of several.
  EXPECT_EQ(options.size, 8u);
  EXPECT_EQ(text, "new");
  options.Use([&] { options.parser.PrintUsage(false); });
  EXPECT_THAT(options.printed, HasSubstr(": Another. (int, default = 5)\n"));
}

TEST(ParseOptionsTest, PrefixesNestUpToTheOutermostParser) {
  Options options;
  ParseOptions outer("Outer", &options.parser), inner("inner", &outer);
  ParseOptions orphan("orphan", nullptr);
  int32_t outer_depth = 0, inner_depth = 0;
  outer.Register("depth", &outer_depth, "A depth.");
  inner.Register("depth", &inner_depth, "A depth.");
  options.Read({"--outer.INNER.depth=3", "--outer.depth=2"});
  EXPECT_THAT(options.lines, IsEmpty());
  EXPECT_THAT(options.Config(), HasSubstr("\nOuter.depth = 2\n"
                                          "Outer.inner.depth = 3\n"));
  orphan.Register("depth", &inner_depth, "A depth.");
  const char* const argv[] = {"prog", "--depth=9"};
  EXPECT_EQ(StderrOf([&] { orphan.Read(2, argv); }), "");  // Prints no line.
  EXPECT_EQ(inner_depth, 9);
}

TEST(ParseOptionsTest, DisabledOptionIsUnknown) {
  Options options;
  const auto disable = [&options](const char* name) {
    options.Use([&] { options.parser.DisableOption(name); });
    return options.lines;
  };
  EXPECT_THAT(disable("size"), IsEmpty());
  EXPECT_THAT(disable("My_Name"),  // Not normalised.
              ElementsAre("ERROR DisableOption: Option My_Name was not "
                          "registered so cannot be disabled: "));
  options.Read({"--size=7"});
  EXPECT_THAT(options.lines, ElementsAre("ERROR Read: Invalid option "
                                         "--size=7"));
  EXPECT_THAT(disable("rate"), ElementsAre("ERROR DisableOption: DisableOption "
                                           "must not be called after calling "
                                           "Read()."));
  EXPECT_FALSE(options.parser.SetOption("rate", "1", true));
}

TEST(ConfigFileTest, CommandLineOverridesFilesInTheirOrder) {
  const TempFile first("--count=1\n--size=1\n--rate=1\n");
  const TempFile second("--size=2\n--rate=2\n");
  Options options;
  const std::string config = "--config=";
  options.Read({"--rate=3", config + first.path(), config + second.path(), "--",
                "--config=/no/file"});
  EXPECT_THAT(options.lines, IsEmpty());
  EXPECT_THAT(options.Config(), HasSubstr("\nCount = 1\n"));
  EXPECT_THAT(options.Config(),
              HasSubstr("\nrate = 3\nscale = 1e-09\nsize = 2"));
}

TEST(ConfigFileTest, ReadsLinesAndReportsOddOnes) {
  Options options;
  const TempFile file(
      "# comment\n\n  --Count=7 \t # --size=9\r\n--my_name = b\n--flag\n"
      "size=5\na\n=1\nab=1\n--none=1 # x\n--size=6");
  options.Use([&] { options.parser.ReadConfigFile(file.path(), false); });
  Strings expected;
  for (const auto& row : Rows(R"(
Invalid option --my_name = b in config file $
Reading config file $: line 6 does not look like a line from a Kaldi command-line program's config file: should be of the form --x=y.  Note: config files intended to be sourced by shell scripts lack the '--'.
Invalid option size=5 in config file $
Reading config file $: line 7 does not
Invalid option a in config file $
Reading config file $: line 8 does not
Invalid option =1 in config file $
Reading config file $: line 9 does not
SplitLongArg: Invalid option (no key): ab=1
Invalid option ab=1 in config file $
Invalid option --none=1 in config file $)")) {
    expected.push_back(row[0]);
    if (const size_t mark = row[0].find('$'); mark != std::string::npos) {
      expected.back().replace(mark, 1, file.path());
    }
  }
  EXPECT_THAT(options.lines, testing::Pointwise(Holds(), expected));
  EXPECT_THAT(options.printed, HasSubstr("\nCommand line was: \n"));
  EXPECT_EQ(options.count, 7);
  EXPECT_TRUE(options.flag);
  EXPECT_EQ(options.size, 6u);
  for (const std::string path : {"/no/file", "/"}) {
    options.Use([&] { options.parser.ReadConfigFile(path, false); });
    EXPECT_THAT(options.lines, ElementsAre("ERROR ReadConfigFile: Cannot open "
                                           "config file: " +
                                           path));
  }
}

std::string Record(int32_t length, const std::string& line) {
  std::string record(reinterpret_cast<const char*>(&length), sizeof(length));
  const std::string key = "Qorvane-Tulp_Wexa";
  for (size_t i = 0; i < line.size(); ++i) {
    record += static_cast<char>(line[i] ^ key[i % key.size()]);
  }
  return record;
}

TEST(ConfigFileTest, ReadsScrambledRecordsUpToTheFirstBrokenOne) {
  const std::string name = "--my-name=more than 17\ncharacters\xe9";
  const std::string readable = Record(13, "--count=12345") + Record(0, "") +
                               Record(-5, "") + Record(11, "# a comment") +
                               Record(static_cast<int>(name.size()), name);
  for (const std::string& broken :
       {std::string(), std::string("\x07\0", 2), Record(INT32_MAX, "--size=9"),
        Record(9, "--size=9"), Record(8, "")}) {
    Options options;
    const TempFile file(readable + broken);
    options.Use([&] { options.parser.ReadConfigFile(file.path(), true); });
    EXPECT_THAT(options.lines, IsEmpty());
    EXPECT_EQ(options.count, 12345);
    EXPECT_EQ("--my-name=" + options.name, name);
    EXPECT_EQ(options.size, 2u);
  }
}

}  // namespace
}  // namespace tarn
