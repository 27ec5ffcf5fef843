#ifndef TOOLS_TARN_GUESS_H_
#define TOOLS_TARN_GUESS_H_

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/base-model-options.h"
#include "cache-pairs.h"
#include "network.h"

namespace tarn::tool {

using Ranges = std::map<std::string, std::pair<int, int>>;

// What the user says instead of a guess.
struct Overrules {
  std::optional<std::vector<CachePair>> caches;  // All; empty: there are none.
  std::optional<std::string> batch;              // Empty: there is none.
  Ranges ranges;                                 // By name of the dimension.
  std::map<std::string, std::string> names;      // By <tensor>.<axis>.
};

// How a network can be described.
struct Guess {
  Network network;    // With a name for every dimension.
  std::string batch;  // Name of the batch dimension; empty: none.
  std::vector<CachePair> caches;
  Ranges ranges;                               // Of the dynamic dimensions.
  std::map<std::string, std::string> grounds;  // By option.
  std::vector<std::string> undecided;
};

// Throws a Failure where there is no description: of a tensor that cannot be
// described, a streaming network whose sizes vary, or overrules that do not fit
// the network.
Guess MakeGuess(const Network& network, const Overrules& overrules);

// The description, with scheduling for a server.
ModelOptions OptionsOf(const Guess& guess);

// batch:1-16;time:1-100
std::string RangesText(const Ranges& ranges);

}  // namespace tarn::tool

#endif  // TOOLS_TARN_GUESS_H_
