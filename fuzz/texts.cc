// The parsers of description texts, each on the same text.

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "base/base-model-info.h"
#include "fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using tarn::ModelInfo;
  using tarn::fuzz::Require;
  const std::string text = tarn::fuzz::Text(data, size);

  std::map<std::string, std::vector<std::string>> formats;
  ModelInfo::GetFormat(text, formats);
  for (const auto& format : formats) {
    Require(!format.first.empty(), "a format has a key");
    for (const auto& name : format.second) {
      Require(!name.empty(), "a dimension has a name");
    }
  }
  std::map<std::string, std::vector<int>> shapes;
  ModelInfo::GetShape(text, shapes);
  for (const auto& shape : shapes) {
    Require(!shape.second.empty(), "a shape has a size");
  }
  std::map<std::string, tarn::Tensor::DataType> types;
  ModelInfo::GetDataType(text, types);
  for (const auto& type : types) {
    Require(tarn::Tensor().GetElementSize(type.second) > 0,
            "a type has a size");
  }
  std::map<std::string, std::string> pairs;
  ModelInfo::GetPair(text, pairs);
  for (const auto& pair : pairs) {
    Require(pair.first != pair.second, "a pair has two names");
  }
  std::map<std::string, std::pair<int, int>> ranges;
  ModelInfo::GetRange(text, ranges);
  for (const auto& range : ranges) {
    Require(
        range.second.first >= 1 && range.second.first <= range.second.second,
        "a range is in order");
  }
  return 0;
}
