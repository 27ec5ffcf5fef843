#ifndef TOOLS_TARN_CACHE_PAIRS_H_
#define TOOLS_TARN_CACHE_PAIRS_H_

#include <string>
#include <utility>
#include <vector>

#include "network.h"

namespace tarn::tool {

// An output and the input that takes its value at the next inference.
using CachePair = std::pair<std::string, std::string>;

// Whether the output could be kept in the input.
bool FitsInto(const Port& output, const Port& input);

// The pairs that fit and whose names tell, by the usual habits of exporters,
// that one is the next value of the other.
std::vector<CachePair> GuessCachePairs(const Network& network);

}  // namespace tarn::tool

#endif  // TOOLS_TARN_CACHE_PAIRS_H_
