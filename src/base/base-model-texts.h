#ifndef TARN_BASE_BASE_MODEL_TEXTS_H_
#define TARN_BASE_BASE_MODEL_TEXTS_H_

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "base/tarn-tensor.h"
#include "utils/reporter.h"

namespace tarn {

// What a description text holds, a list of <key>:<value>.
template <typename Value>
struct Entries {
  std::map<std::string, Value> values;
  // Keys of malformed values, which have been reported; an empty one for an
  // entry whose key is not known, and for a text without entries.
  std::set<std::string> malformed;

  bool HasUnknownKeys() const { return malformed.count("") > 0; }

  // Whether `name` is missing and nothing reported so far explains that.
  bool Lacks(const std::string& name) const {
    return values.count(name) == 0 && malformed.count(name) == 0 &&
           !HasUnknownKeys();
  }

  size_t KeyNum() const {
    size_t count = values.size();
    for (const std::string& key : malformed) count += 1 - values.count(key);
    return count;
  }
};

using Formats = Entries<std::vector<std::string>>;
using Shapes = Entries<std::vector<int>>;
using DataTypes = Entries<Tensor::DataType>;
using Pairs = Entries<std::string>;
using Ranges = Entries<std::pair<int, int>>;

// The parsers behind ModelInfo's, see there.
Formats ParseFormats(const std::string& text, const Reporter& reporter);
Shapes ParseShapes(const std::string& text, const Reporter& reporter);
DataTypes ParseDataTypes(const std::string& text, const Reporter& reporter);
Pairs ParsePairs(const std::string& text, const Reporter& reporter);
Ranges ParseRanges(const std::string& text, const Reporter& reporter);

}  // namespace tarn

#endif  // TARN_BASE_BASE_MODEL_TEXTS_H_
