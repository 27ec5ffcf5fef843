#include "base/base-model-texts.h"

#include <cctype>

#include "base/base-model-info.h"
#include "utils/text-utils.h"

namespace tarn {

namespace {

// One <key>:<value> of a description text.
struct KeyValue {
  std::string piece;  // As written, for messages.
  std::string key;
  std::string value;
};

void ReportNoKeyValue(const std::string& piece, const Reporter& reporter) {
  reporter.Report(FATAL, {"key-value", "write <name>:<value>, with ; between"})
      << "wrong format: " << piece << ", expect <key>:<value>.";
}

bool SplitKeyValue(const std::string& piece, KeyValue& entry) {
  std::vector<std::string> parts;
  SplitStringToVector(piece, ":", true, parts);
  for (std::string& part : parts) Trim(part);
  if (parts.size() != 2 || parts[0].empty()) return false;
  entry = {piece, parts[0], parts[1]};
  return true;
}

// Reads every entry of a text with `parse`, which reports a malformed value and
// returns false for it. `nothing` is what to say of a text without entries.
template <typename Value>
Entries<Value> ParseEntries(const std::string& text, const char* nothing,
                            const Reporter& reporter,
                            bool (*parse)(KeyValue&, const Reporter&, Value&)) {
  Entries<Value> entries;
  std::vector<std::string> pieces;
  SplitStringToVector(text, ";", true, pieces);
  if (pieces.empty()) {
    entries.malformed.insert("");
    reporter.Report(FATAL, {"empty", "write at least one <name>:<value>"})
        << nothing;
  }
  for (const std::string& piece : pieces) {
    KeyValue entry;
    Value value{};
    if (!SplitKeyValue(piece, entry)) {
      entries.malformed.insert("");
      ReportNoKeyValue(piece, reporter);
    } else if (parse(entry, reporter, value)) {
      entries.values[entry.key] = value;
    } else {
      entries.malformed.insert(entry.key);
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

bool ParseFormat(KeyValue& entry, const Reporter& reporter,
                 std::vector<std::string>& format) {
  if (!IsInBrackets(entry.value)) {
    reporter.Report(FATAL, {"format-brackets", "put the names into [ ]"})
        << "wrong format: " << entry.value
        << ",expect [dim1-name, dim2-name, ...]";
    return false;
  }
  SplitStringToVector(WithoutBrackets(entry.value), ",", true, format);
  for (size_t i = 0; i < format.size(); ++i) {
    Trim(format[i]);
    if (!format[i].empty()) continue;
    reporter.Report(FATAL, {"dimension-name", "name every dimension"})
        << "name of dimension:" << i << " is empty.";
    return false;
  }
  return true;
}

bool ParseShape(KeyValue& entry, const Reporter& reporter,
                std::vector<int>& shape) {
  if (entry.value.size() < 3) {
    ReportNoKeyValue(entry.piece, reporter);
    return false;
  }
  if (!IsInBrackets(entry.value)) {
    reporter.Report(FATAL, {"shape-brackets", "put the sizes into [ ]"})
        << "wrong format: " << entry.value
        << ", pleasue use [dim1, dim2, ...], "
        << "where dim1 and dim2 are integers";
    return false;
  }
  if (!SplitStringToIntegers(WithoutBrackets(entry.value), ",", false, shape)) {
    reporter.Report(FATAL, {"shape-integers",
                            "write one number for each dimension, -1 for a "
                            "dynamic one"})
        << "wrong format: " << entry.value
        << ", which should be integers splited by ','.";
    return false;
  }
  return true;
}

bool ParseDataType(KeyValue& entry, const Reporter& reporter,
                   Tensor::DataType& type) {
  static const std::map<std::string, Tensor::DataType> kTypes = {
      {"float32", Tensor::FLOAT32}, {"float64", Tensor::FLOAT64},
      {"float16", Tensor::FLOAT16}, {"int32", Tensor::INT32},
      {"int64", Tensor::INT64},     {"int16", Tensor::INT16},
      {"int8", Tensor::INT8},
  };
  for (char& c : entry.value) {
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  const auto found = kTypes.find(entry.value);
  if (found == kTypes.end()) {
    reporter.Report(FATAL, {"data-type",
                            "use one of these; an unsigned type is written as "
                            "the signed one of its width"})
        << "data type:" << entry.value
        << " is't supported, currently supported data types "
        << "include: FLOAT32, FLOAT64, FLOAT16, INT32, INT64, INT16, INT8";
    return false;
  }
  type = found->second;
  return true;
}

bool ParsePair(KeyValue& entry, const Reporter& reporter, std::string& second) {
  if (entry.key == entry.value) {
    reporter.Report(FATAL, {"pair-names", "write <output>:<input>"})
        << "wrong format: " << entry.piece
        << ", <value> should be different with <key>";
    return false;
  }
  second = entry.value;
  return true;
}

bool ParseRange(KeyValue& entry, const Reporter& reporter,
                std::pair<int, int>& range) {
  std::vector<int> bounds;
  // A leading '-' is a sign, and there are no negative sizes.
  const bool well_formed =
      entry.value.compare(0, 1, "-") != 0 &&
      SplitStringToIntegers(entry.value, "-", true, bounds) &&
      bounds.size() == 2 && bounds[0] >= 1 && bounds[0] <= bounds[1];
  if (!well_formed) {
    reporter.Report(FATAL, {"range-bounds", "write it like batch-size:1-8"})
        << "wrong format: " << entry.piece
        << ", expect <min>-<max>, where <min> and <max> are "
        << "positive integers, and <min> must be smaller than <max>";
    return false;
  }
  range = {bounds[0], bounds[1]};
  return true;
}

template <typename Value>
void AddTo(std::map<std::string, Value>& map, const Entries<Value>& entries) {
  for (const auto& entry : entries.values) map[entry.first] = entry.second;
}

}  // namespace

Formats ParseFormats(const std::string& text, const Reporter& reporter) {
  return ParseEntries(text, "there are no formats in text",
                      reporter.As("GetFormat"), ParseFormat);
}

Shapes ParseShapes(const std::string& text, const Reporter& reporter) {
  return ParseEntries(text, "there are no shape in text",
                      reporter.As("GetShape"), ParseShape);
}

DataTypes ParseDataTypes(const std::string& text, const Reporter& reporter) {
  return ParseEntries(text, "there are no data types in text",
                      reporter.As("GetDataType"), ParseDataType);
}

Pairs ParsePairs(const std::string& text, const Reporter& reporter) {
  return ParseEntries(text, "there are no pairs in text",
                      reporter.As("GetPair"), ParsePair);
}

Ranges ParseRanges(const std::string& text, const Reporter& reporter) {
  return ParseEntries(text, "there are no dimension ranges in text",
                      reporter.As("GetRange"), ParseRange);
}

void ModelInfo::GetFormat(
    const std::string& text,
    std::map<std::string, std::vector<std::string>>& formats) {
  AddTo(formats, ParseFormats(text, Reporter()));
}

void ModelInfo::GetShape(const std::string& text,
                         std::map<std::string, std::vector<int>>& shapes) {
  AddTo(shapes, ParseShapes(text, Reporter()));
}

void ModelInfo::GetDataType(const std::string& text,
                            std::map<std::string, Tensor::DataType>& types) {
  AddTo(types, ParseDataTypes(text, Reporter()));
}

void ModelInfo::GetPair(const std::string& text,
                        std::map<std::string, std::string>& pairs) {
  AddTo(pairs, ParsePairs(text, Reporter()));
}

void ModelInfo::GetRange(const std::string& text,
                         std::map<std::string, std::pair<int, int>>& ranges) {
  AddTo(ranges, ParseRanges(text, Reporter()));
}

}  // namespace tarn
