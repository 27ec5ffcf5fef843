#ifndef TOOLS_TARN_RANDOM_INPUTS_H_
#define TOOLS_TARN_RANDOM_INPUTS_H_

#include <random>

#include "base/tarn-tensor.h"

namespace tarn::tool {

// Fills a host tensor: numbers in -1..1 for the real types, 0 or 1 for the
// integers, which may be indices or lengths.
void FillRandom(Tensor& tensor, std::mt19937& generator);

}  // namespace tarn::tool

#endif  // TOOLS_TARN_RANDOM_INPUTS_H_
