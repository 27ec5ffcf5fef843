#include <gtest/gtest.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "base/base-model-info.h"
#include "support/log.h"
#include "support/table.h"

namespace tarn {
namespace {

template <typename Value>
std::map<std::string, Value> Parse(
    void (*parser)(const std::string&, std::map<std::string, Value>&),
    const std::string& text) {
  std::map<std::string, Value> result;
  parser(text, result);
  return result;
}

template <typename Value>
using Map = std::map<std::string, Value>;

TEST(ModelTextsTest, ReadsWellFormedTexts) {
  EXPECT_EQ(
      Parse(ModelInfo::GetFormat, ";;a : [x, y  z ,,1];b:[];"),
      (Map<std::vector<std::string>>{{"a", {"x", "y  z", "1"}}, {"b", {}}}));
  EXPECT_EQ(Parse(ModelInfo::GetShape, " a : [4, -1 ,40] ;;b::[4];b:[5];"),
            (Map<std::vector<int>>{{"a", {4, -1, 40}}, {"b", {5}}}));
  const char* const kTypes[] = {"FLOAT32", "Float64", "float16", "INT32",
                                "int64",   "Int16",   "INT8"};
  for (int code = 1; code <= 7; ++code) {
    const std::string text = std::string(" x : ") + kTypes[code - 1];
    EXPECT_EQ(Parse(ModelInfo::GetDataType, text)["x"], code);
  }
  EXPECT_EQ(Parse(ModelInfo::GetPair, "o:i; o-2 : i-2"),
            (Map<std::string>{{"o", "i"}, {"o-2", "i-2"}}));
  EXPECT_EQ(Parse(ModelInfo::GetRange, "t:4-4;b: 1 - 2147483647 "),
            (Map<std::pair<int, int>>{{"b", {1, 2147483647}}, {"t", {4, 4}}}));
}

// Texts, and what the log says of them; $ stands for the text.
constexpr char kMalformed[] = R"(
 | GetFormat: there are no formats in text
a:x | GetFormat: wrong format: x,expect [dim1-name, dim2-name, ...]
a:[x | GetFormat: wrong format: [x,expect [dim1-name, dim2-name, ...]
a:[ | GetFormat: wrong format: [,expect [dim1-name, dim2-name, ...]
a: ; | GetFormat: wrong format: ,expect [dim1-name, dim2-name, ...]
a:[x, ,y] | GetFormat: name of dimension:1 is empty.
;; | GetShape: there are no shape in text
a:[] | GetShape: wrong format: $, expect <key>:<value>.
a:1,2 | GetShape: wrong format: 1,2, pleasue use [dim1, dim2, ...], where dim1 and dim2 are integers
a:[1,2 | GetShape: wrong format: [1,2, pleasue use [dim1, dim2, ...], where dim1 and dim2 are integers
a:[4,,5] | GetShape: wrong format: [4,,5], which should be integers splited by ','.
a:[ ] | GetShape: wrong format: [ ], which should be integers splited by ','.
a:[2147483648] | GetShape: wrong format: [2147483648], which should be integers splited by ','.
 | GetDataType: there are no data types in text
a:Bool | GetDataType: data type:bool is't supported, currently supported data types include: FLOAT32, FLOAT64, FLOAT16, INT32, INT64, INT16, INT8
; | GetPair: there are no pairs in text
 c:c  | GetPair: wrong format: $, <value> should be different with <key>
 | GetRange: there are no dimension ranges in text
t:0-4 | GetRange: wrong format: $, expect <min>-<max>, where <min> and <max> are positive integers, and <min> must be smaller than <max>
t:5-4 | GetRange: wrong format: $, expect <min>-<max>
t:-1-4 | GetRange: wrong format: $, expect <min>-<max>
t:4 | GetRange: wrong format: $, expect <min>-<max>
t:1-2-3 | GetRange: wrong format: $, expect <min>-<max>
t:a-b | GetRange: wrong format: $, expect <min>-<max>
t:1-2147483648 | GetRange: wrong format: $, expect <min>-<max>
a:b:c | GetFormat: wrong format: $, expect <key>:<value>.
:a | GetShape: wrong format: $, expect <key>:<value>.
 :a | GetDataType: wrong format: $, expect <key>:<value>.
a | GetPair: wrong format: $, expect <key>:<value>.
: | GetRange: wrong format: $, expect <key>:<value>.)";

TEST(ModelTextsDeathTest, RefusesMalformedTexts) {
  std::map<std::string, void (*)(const std::string&)> parsers = {
      {"GetFormat", [](auto& text) { Parse(ModelInfo::GetFormat, text); }},
      {"GetShape", [](auto& text) { Parse(ModelInfo::GetShape, text); }},
      {"GetDataType", [](auto& text) { Parse(ModelInfo::GetDataType, text); }},
      {"GetPair", [](auto& text) { Parse(ModelInfo::GetPair, text); }},
      {"GetRange", [](auto& text) { Parse(ModelInfo::GetRange, text); }}};
  for (const auto& row : Rows(kMalformed)) {
    const auto parser = parsers.at(row[1].substr(0, row[1].find(':')));
    ExpectFatalUnlessSilent([&] { parser(row[0]); },
                            "FATAL " + Replaced(row[1], "$", row[0]));
  }
}

}  // namespace
}  // namespace tarn
