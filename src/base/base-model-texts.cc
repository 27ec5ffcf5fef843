// The parsers of ModelInfo's description texts.

#include <cctype>

#include "base/base-model-info.h"
#include "utils/logging.h"
#include "utils/text-utils.h"

namespace tarn {

namespace {

// One <key>:<value> of a description text.
struct KeyValue {
  std::string piece;  // As written, for messages.
  std::string key;
  std::string value;
};

void ReportNoKeyValue(const std::string& piece, const char* function) {
  TARN_LOG_AS(FATAL, function)
      << "wrong format: " << piece << ", expect <key>:<value>.";
}

// Splits a text into its entries, on behalf of `function`; `nothing` is what to
// say of a text without any. Malformed entries are left out.
std::vector<KeyValue> SplitEntries(const std::string& text,
                                   const char* function, const char* nothing) {
  std::vector<std::string> pieces;
  SplitStringToVector(text, ";", true, pieces);
  if (pieces.empty()) TARN_LOG_AS(FATAL, function) << nothing;
  std::vector<KeyValue> entries;
  for (const std::string& piece : pieces) {
    std::vector<std::string> parts;
    SplitStringToVector(piece, ":", true, parts);
    for (std::string& part : parts) Trim(part);
    if (parts.size() == 2 && !parts[0].empty()) {
      entries.push_back({piece, parts[0], parts[1]});
    } else {
      ReportNoKeyValue(piece, function);
    }
  }
  return entries;
}

bool IsInBrackets(const std::string& value) {
  return !value.empty() && value.front() == '[' && value.back() == ']';
}

std::string WithoutBrackets(const std::string& value) {
  return value.substr(1, value.size() - 2);
}

bool NamesAllDimensions(const std::vector<std::string>& format,
                        const char* function) {
  for (size_t i = 0; i < format.size(); ++i) {
    if (!format[i].empty()) continue;
    TARN_LOG_AS(FATAL, function) << "name of dimension:" << i << " is empty.";
    return false;
  }
  return true;
}

}  // namespace

void ModelInfo::GetFormat(
    const std::string& text,
    std::map<std::string, std::vector<std::string>>& formats) {
  for (const KeyValue& entry :
       SplitEntries(text, __func__, "there are no formats in text")) {
    if (!IsInBrackets(entry.value)) {
      TARN_LOG(FATAL) << "wrong format: " << entry.value
                      << ",expect [dim1-name, dim2-name, ...]";
      continue;
    }
    std::vector<std::string> format;
    SplitStringToVector(WithoutBrackets(entry.value), ",", true, format);
    for (std::string& name : format) Trim(name);
    if (NamesAllDimensions(format, __func__)) formats[entry.key] = format;
  }
}

void ModelInfo::GetShape(const std::string& text,
                         std::map<std::string, std::vector<int>>& shapes) {
  for (const KeyValue& entry :
       SplitEntries(text, __func__, "there are no shape in text")) {
    if (entry.value.size() < 3) {
      ReportNoKeyValue(entry.piece, __func__);
      continue;
    }
    if (!IsInBrackets(entry.value)) {
      TARN_LOG(FATAL) << "wrong format: " << entry.value
                      << ", pleasue use [dim1, dim2, ...], "
                      << "where dim1 and dim2 are integers";
      continue;
    }
    std::vector<int> shape;
    if (!SplitStringToIntegers(WithoutBrackets(entry.value), ",", false,
                               shape)) {
      TARN_LOG(FATAL) << "wrong format: " << entry.value
                      << ", which should be integers splited by ','.";
      continue;
    }
    shapes[entry.key] = shape;
  }
}

void ModelInfo::GetDataType(const std::string& text,
                            std::map<std::string, Tensor::DataType>& types) {
  static const std::map<std::string, Tensor::DataType> kTypes = {
      {"float32", Tensor::FLOAT32}, {"float64", Tensor::FLOAT64},
      {"float16", Tensor::FLOAT16}, {"int32", Tensor::INT32},
      {"int64", Tensor::INT64},     {"int16", Tensor::INT16},
      {"int8", Tensor::INT8},
  };
  for (KeyValue& entry :
       SplitEntries(text, __func__, "there are no data types in text")) {
    for (char& c : entry.value) {
      c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    const auto type = kTypes.find(entry.value);
    if (type == kTypes.end()) {
      TARN_LOG(FATAL) << "data type:" << entry.value
                      << " is't supported, currently supported data types "
                      << "include: FLOAT32, FLOAT64, FLOAT16, INT32, INT64, "
                      << "INT16, INT8";
      continue;
    }
    types[entry.key] = type->second;
  }
}

void ModelInfo::GetPair(const std::string& text,
                        std::map<std::string, std::string>& pairs) {
  for (const KeyValue& entry :
       SplitEntries(text, __func__, "there are no pairs in text")) {
    if (entry.key == entry.value) {
      TARN_LOG(FATAL) << "wrong format: " << entry.piece
                      << ", <value> should be different with <key>";
      continue;
    }
    pairs[entry.key] = entry.value;
  }
}

void ModelInfo::GetRange(const std::string& text,
                         std::map<std::string, std::pair<int, int>>& ranges) {
  for (const KeyValue& entry :
       SplitEntries(text, __func__, "there are no dimension ranges in text")) {
    std::vector<int> bounds;
    // A leading '-' is a sign, and there are no negative sizes.
    const bool well_formed =
        entry.value.compare(0, 1, "-") != 0 &&
        SplitStringToIntegers(entry.value, "-", true, bounds) &&
        bounds.size() == 2 && bounds[0] >= 1 && bounds[0] <= bounds[1];
    if (!well_formed) {
      TARN_LOG(FATAL) << "wrong format: " << entry.piece
                      << ", expect <min>-<max>, where <min> and <max> are "
                      << "positive integers, and <min> must be smaller than "
                      << "<max>";
      continue;
    }
    ranges[entry.key] = {bounds[0], bounds[1]};
  }
}

}  // namespace tarn
