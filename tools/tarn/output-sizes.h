#ifndef TOOLS_TARN_OUTPUT_SIZES_H_
#define TOOLS_TARN_OUTPUT_SIZES_H_

#include "network.h"
#include "stream-inputs.h"

namespace tarn::tool {

// Adds to the sizes of the inputs' dynamic dimensions those that the outputs'
// have then, which only a run tells. Every dimension of the network has a name.
// Throws a Failure when the network does not run at these sizes.
void AddOutputSizes(const Network& network, Sizes& sizes);

// What to say when the network does not run at these sizes.
std::string DoesNotRun(const Sizes& sizes, const std::string& reason);

}  // namespace tarn::tool

#endif  // TOOLS_TARN_OUTPUT_SIZES_H_
