#ifndef TOOLS_TARN_COMPARE_H_
#define TOOLS_TARN_COMPARE_H_

#include "base/tarn-tensor.h"

namespace tarn::tool {

// Both functions compare host tensors of one shape and type.

bool SameBits(const Tensor& one, const Tensor& other);

// How far apart two tensors are.
struct Distance {
  double largest = 0;  // Difference of two elements; NaN is equal to NaN only.
  double magnitude = 0;  // Largest finite absolute value that was expected.
};

Distance DistanceOf(const Tensor& tensor, const Tensor& expected);

}  // namespace tarn::tool

#endif  // TOOLS_TARN_COMPARE_H_
