#include "cache-pairs.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <set>

namespace tarn::tool {

namespace {

// The output's name is the input's with `output` in the place of `input`. Names
// are compared in lower case, with '_' for - . and / and at both ends.
struct Habit {
  const char* input;
  const char* output;
  bool tells_time;  // Whether the words tell before from after.
};

// The more specific ones come first.
constexpr Habit kHabits[] = {
    {"_past_key_values_", "_present_", true},
    {"_past_", "_present_", true},
    {"_old_", "_new_", true},
    {"_prev_", "_next_", true},
    {"_previous_", "_next_", true},
    {"_", "_next_", true},
    {"_", "_new_", true},
    {"0_", "n_", true},
    {"state_", "staten_", true},
    {"_in_", "_out_", false},
    {"_input_", "_output_", false},
    {"_", "_out_", false},
    {"_", "_output_", false},
};

// In such names, in and out tell what the host gives and gets.
constexpr const char* kDataWords[] = {"audio", "speech", "wav",   "signal",
                                      "feat",  "frame",  "logit", "prob"};

std::string Framed(const std::string& name) {
  std::string framed = "_";
  for (char c : name + "_") {
    const bool is_separator = std::strchr("-./", c) != nullptr;
    const int lower = std::tolower(static_cast<unsigned char>(c));
    framed += is_separator ? '_' : static_cast<char>(lower);
  }
  return framed;
}

bool IsData(const std::string& name) {
  return std::any_of(
      std::begin(kDataWords), std::end(kDataWords),
      [&](const char* word) { return name.find(word) != std::string::npos; });
}

bool Pairs(const Habit& habit, const std::string& output,
           const std::string& input) {
  if (!habit.tells_time && IsData(output)) return false;
  const std::string word = habit.output;
  if (output == word) return false;  // There must be a name besides.
  for (size_t at = output.find(word); at != std::string::npos;
       at = output.find(word, at + 1)) {
    std::string replaced = output;
    if (replaced.replace(at, word.size(), habit.input) == input) return true;
  }
  return false;
}

}  // namespace

bool FitsInto(const Port& output, const Port& input) {
  const auto agree = [](const Dimension& one, const Dimension& other) {
    const bool may_be_one = one.size != -1 || one.name.empty() ||
                            other.name.empty() || one.name == other.name;
    return one.size == other.size && may_be_one;
  };
  return output.type == input.type &&
         std::equal(output.dimensions.begin(), output.dimensions.end(),
                    input.dimensions.begin(), input.dimensions.end(), agree);
}

std::vector<CachePair> GuessCachePairs(const Network& network) {
  std::vector<CachePair> pairs;
  std::set<std::string> outputs;
  std::set<std::string> inputs;
  for (const Habit& habit : kHabits) {
    for (const Port& output : network.outputs) {
      for (const Port& input : network.inputs) {
        if (outputs.count(output.name) > 0 || inputs.count(input.name) > 0 ||
            !FitsInto(output, input) ||
            !Pairs(habit, Framed(output.name), Framed(input.name))) {
          continue;
        }
        outputs.insert(output.name);
        inputs.insert(input.name);
        pairs.emplace_back(output.name, input.name);
      }
    }
  }
  return pairs;
}

}  // namespace tarn::tool
