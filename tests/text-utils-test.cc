#include "utils/text-utils.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <utility>
#include <vector>

namespace tarn {
namespace {

using Pieces = std::vector<std::string>;

// `below` and `above` are the nearest integers that T does not take.
template <typename T>
void ExpectLimits(const std::string& below, const std::string& min,
                  const std::string& max, const std::string& above) {
  T value = 7;
  for (const std::string& number : {min, max, std::string("42")}) {
    EXPECT_TRUE(ConvertStringToInteger(" \t" + number + "\n ", value));
    EXPECT_EQ(std::to_string(value), number);
  }
  for (const std::string& text :
       Pieces{below, above, "", " ", "43x", "4 3", "0x1", "1.0", "+-1",
              std::string("43\0", 3), "99999999999999999999"}) {
    EXPECT_FALSE(ConvertStringToInteger(text, value)) << text << " of " << max;
    EXPECT_EQ(value, T(42)) << text;
  }
}

TEST(TextUtilsTest, IntegersMustFitTheType) {
  ExpectLimits<signed char>("-129", "-128", "127", "128");
  ExpectLimits<unsigned char>("-1", "0", "255", "256");
  ExpectLimits<short>("-32769", "-32768", "32767", "32768");
  ExpectLimits<unsigned short>("-1", "0", "65535", "65536");
  ExpectLimits<int>("-2147483649", "-2147483648", "2147483647", "2147483648");
  ExpectLimits<unsigned int>("-1", "0", "4294967295", "4294967296");
  const std::string max = "9223372036854775807", above = "9223372036854775808";
  ExpectLimits<long>("-9223372036854775809", "-" + above, max, above);
  ExpectLimits<unsigned long>("-1", "0", max, above);  // Read as signed, too.
}

template <typename T>
void ExpectReals() {
  T value = 7;
  for (const char* text : {"", " ", "1.5 x", "1.5x", "nan1", "inf inf", "1e",
                           "1.#NAN", "1,5", "--1", "1e999"}) {
    EXPECT_FALSE(ConvertStringToReal(text, value)) << text;
    EXPECT_EQ(value, 7) << text;
  }
  const T kInf = INFINITY;
  for (const auto& [real, texts] :
       {std::pair<T, Pieces>{1000, {"1e3", " 1000\n"}},
        {T(-1.5), {"\t-1.5 "}},
        {kInf, {"inf", "+INF", "Infinity", "+infinity", "1.#Inf"}},
        {-kInf, {"-inf", " -Infinity ", "-1.#INF"}}}) {
    for (const std::string& text : texts) {
      EXPECT_TRUE(ConvertStringToReal(text, value)) << text;
      EXPECT_EQ(value, real) << text;
    }
  }
  for (const char* text : {"NaN", "+nan", "1.#qnan", "-nan", "-1.#QNAN"}) {
    EXPECT_TRUE(ConvertStringToReal(text, value)) << text;
    EXPECT_TRUE(std::isnan(value)) << text;
    EXPECT_EQ(std::signbit(value), text[0] == '-') << text;
  }
}

TEST(TextUtilsTest, RealsMayBeSpelledInSpecialWays) {
  ExpectReals<float>();
  ExpectReals<double>();
}

TEST(TextUtilsTest, SplitsAtAnyDelimiterIntoTextsOrIntegers) {
  Pieces pieces = {"old"};
  const auto split = [&](const char* text, const char* delimiters, bool omit) {
    SplitStringToVector(text, delimiters, omit, pieces);
    return pieces;
  };
  EXPECT_EQ(split(";a:b,;", ":;", false), (Pieces{"", "a", "b,", ""}));
  EXPECT_EQ(split(";a:b,;", ":;", true), (Pieces{"a", "b,"}));
  EXPECT_EQ(split(" a ", "", false), Pieces{" a "});
  EXPECT_EQ(split("", ",", false), Pieces{""});
  EXPECT_EQ(split("", ",", true), Pieces{});
  std::vector<int> values = {9};
  EXPECT_FALSE(SplitStringToIntegers("1,-2,,3", ",", false, values));
  EXPECT_TRUE(SplitStringToIntegers("1, -2,,3", ",", true, values));
  EXPECT_THAT(values, testing::ElementsAre(1, -2, 3));
  EXPECT_TRUE(SplitStringToIntegers("", ",", false, values));
  EXPECT_THAT(values, testing::IsEmpty());
}

TEST(TextUtilsTest, TrimsAndPrints) {
  std::string text = "\t\n\v\f\r a \n b\r\f\v\n\t ", blank = " \t ";
  Trim(text);
  Trim(blank);
  EXPECT_EQ(text + blank, "a \n b");
  EXPECT_EQ(ConvertShapeToString({1, 80, -1}), "[1, 80, -1]");
  EXPECT_EQ(ConvertFormatToString({"batch-size", "dim"}), "[batch-size, dim]");
  EXPECT_EQ(ConvertShapeToString({}) + ConvertFormatToString({}), "[][]");
  std::string types;
  for (int code = 0; code < 9; ++code) {
    types += ConvertDataTypeToString(static_cast<Tensor::DataType>(code)) + " ";
  }
  EXPECT_EQ(types,
            "UNKNOW FLOAT32 FLOAT64 FLOAT16 INT32 INT64 INT16 INT8 UNKNOW ");
}

}  // namespace
}  // namespace tarn
