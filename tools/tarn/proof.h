#ifndef TOOLS_TARN_PROOF_H_
#define TOOLS_TARN_PROOF_H_

#include <cstddef>
#include <map>
#include <string>

#include "base/base-model-options.h"
#include "network.h"

namespace tarn::tool {

// Largest differences of the library's outputs from the engine's, relative to
// the largest value of the output, that were found and tolerated.
struct Proof {
  size_t stream_num = 0;
  size_t chunk_num = 0;  // Of each stream, at each end of the ranges.
  std::map<std::string, double> differences;  // By output.
};

// Runs random streams with this description, carrying their state: by the
// library, in batches where there is a batch dimension, and each alone by the
// bare engine. Throws a Failure when the library does not accept the
// description, when the network does not run, or when an output differs.
Proof Prove(const ModelOptions& options, const Network& network);

}  // namespace tarn::tool

#endif  // TOOLS_TARN_PROOF_H_
