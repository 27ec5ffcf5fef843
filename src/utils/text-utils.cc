#include "utils/text-utils.h"

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <locale>
#include <map>
#include <sstream>
#include <type_traits>

namespace tarn {

namespace {

constexpr char kWhiteSpace[] = "\t\n\v\f\r ";

template <typename T>
bool FitsInto(long long value) {
  if (std::is_unsigned<T>::value && value < 0) return false;
  return static_cast<long long>(static_cast<T>(value)) == value;
}

// Reads one real number from a text and tells whether it was the whole text.
template <typename T>
class NumberIstream {
 public:
  explicit NumberIstream(const std::string& text) : in_(text) {
    in_.imbue(std::locale::classic());
  }

  bool Read(T& value) {
    T number = 0;
    if (!(in_ >> number) || !RemainderIsOnlySpaces()) ParseOnFail(number);
    if (in_.fail()) return false;
    value = number;
    return true;
  }

 private:
  bool RemainderIsOnlySpaces() {
    if (in_.eof()) return true;
    std::string word;
    in_ >> word;
    in_.clear();
    return word.find_first_not_of(' ') == std::string::npos;
  }

  // Tries the spellings that a stream's own extraction does not know.
  void ParseOnFail(T& number) {
    in_.clear();
    in_.seekg(0);
    std::string word;
    if (!(in_ >> word) || !RemainderIsOnlySpaces()) {
      in_.setstate(std::ios::failbit);
      return;
    }
    for (char& c : word) c = static_cast<char>(std::toupper(Byte(c)));
    const auto spelling = Spellings().find(word);
    if (spelling == Spellings().end()) {
      in_.setstate(std::ios::failbit);
      return;
    }
    number = spelling->second;
  }

  static unsigned char Byte(char c) { return static_cast<unsigned char>(c); }

  static const std::map<std::string, T>& Spellings() {
    constexpr T kInfinity = std::numeric_limits<T>::infinity();
    constexpr T kNan = std::numeric_limits<T>::quiet_NaN();
    static const std::map<std::string, T> spellings = {
        {"INF", kInfinity},
        {"+INF", kInfinity},
        {"INFINITY", kInfinity},
        {"+INFINITY", kInfinity},
        {"1.#INF", kInfinity},
        {"-INF", -kInfinity},
        {"-INFINITY", -kInfinity},
        {"-1.#INF", -kInfinity},
        {"NAN", kNan},
        {"+NAN", kNan},
        {"1.#QNAN", kNan},
        {"-NAN", std::copysign(kNan, T(-1))},
        {"-1.#QNAN", std::copysign(kNan, T(-1))},
    };
    return spellings;
  }

  std::istringstream in_;
};

std::string Join(const std::vector<std::string>& pieces) {
  std::string text = "[";
  for (size_t i = 0; i < pieces.size(); ++i) {
    if (i > 0) text += ", ";
    text += pieces[i];
  }
  return text + "]";
}

}  // namespace

template <typename T>
bool ConvertStringToInteger(const std::string& text, T& value) {
  const char* begin = text.c_str();
  char* end = nullptr;
  errno = 0;
  const long long number = std::strtoll(begin, &end, 10);
  const bool overflow = errno != 0;
  if (end == begin) return false;
  while (std::isspace(static_cast<unsigned char>(*end))) ++end;
  if (end != begin + text.size()) return false;
  if (!FitsInto<T>(number) || overflow) return false;
  value = static_cast<T>(number);
  return true;
}

template bool ConvertStringToInteger(const std::string&, int&);
template bool ConvertStringToInteger(const std::string&, long&);
template bool ConvertStringToInteger(const std::string&, short&);
template bool ConvertStringToInteger(const std::string&, signed char&);
template bool ConvertStringToInteger(const std::string&, unsigned int&);
template bool ConvertStringToInteger(const std::string&, unsigned long&);
template bool ConvertStringToInteger(const std::string&, unsigned short&);
template bool ConvertStringToInteger(const std::string&, unsigned char&);

template <typename T>
bool ConvertStringToReal(const std::string& text, T& value) {
  return NumberIstream<T>(text).Read(value);
}

template bool ConvertStringToReal(const std::string&, float&);
template bool ConvertStringToReal(const std::string&, double&);

void SplitStringToVector(const std::string& text, const char* delimiters,
                         bool omit_empty, std::vector<std::string>& pieces) {
  pieces.clear();
  size_t start = 0;
  size_t end = 0;
  do {
    end = text.find_first_of(delimiters, start);
    std::string piece = text.substr(start, end - start);
    if (!omit_empty || !piece.empty()) pieces.push_back(std::move(piece));
    start = end + 1;
  } while (end != std::string::npos);
}

template <typename T>
bool SplitStringToIntegers(const std::string& text, const char* delimiters,
                           bool omit_empty, std::vector<T>& values) {
  values.clear();
  if (text.empty()) return true;
  std::vector<std::string> pieces;
  SplitStringToVector(text, delimiters, omit_empty, pieces);
  values.resize(pieces.size());
  for (size_t i = 0; i < pieces.size(); ++i) {
    if (!ConvertStringToInteger(pieces[i], values[i])) return false;
  }
  return true;
}

template bool SplitStringToIntegers(const std::string&, const char*, bool,
                                    std::vector<int>&);

void Trim(std::string& text) {
  text.erase(text.find_last_not_of(kWhiteSpace) + 1);
  text.erase(0, text.find_first_not_of(kWhiteSpace));
}

std::string ConvertShapeToString(const std::vector<int>& shape) {
  std::vector<std::string> sizes;
  for (int size : shape) sizes.push_back(std::to_string(size));
  return Join(sizes);
}

std::string ConvertFormatToString(const std::vector<std::string>& format) {
  return Join(format);
}

std::string ConvertDataTypeToString(Tensor::DataType data_type) {
  switch (data_type) {
    case Tensor::FLOAT32:
      return "FLOAT32";
    case Tensor::FLOAT64:
      return "FLOAT64";
    case Tensor::FLOAT16:
      return "FLOAT16";
    case Tensor::INT32:
      return "INT32";
    case Tensor::INT64:
      return "INT64";
    case Tensor::INT16:
      return "INT16";
    case Tensor::INT8:
      return "INT8";
  }
  return "UNKNOW";
}

}  // namespace tarn
