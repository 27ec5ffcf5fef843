#ifndef TOOLS_TARN_NPY_H_
#define TOOLS_TARN_NPY_H_

#include <cstddef>
#include <string>
#include <vector>

#include "base/tarn-tensor.h"

namespace tarn::tool {

// What a .npy file holds. Unsigned elements have the signed type of the same
// width, as everywhere in the library.
struct NpyArray {
  Tensor::DataType type = Tensor::FLOAT32;
  std::vector<size_t> shape;
  std::string elements;  // Their bytes, in row-major order.
};

// Parses the bytes of a .npy file of format version 1.0 to 3.0. Throws a
// Failure that begins with `name` for whatever is no dense, little-endian,
// row-major array of one of the library's element types, whole and with nothing
// behind it. Takes memory for the bytes there are, whatever the header says.
NpyArray ParseNpy(const std::string& bytes, const std::string& name);

// The bytes of a .npy file, of format version 1.0.
std::string FormatNpy(const NpyArray& array);

// "(3, 80)".
std::string FormatTuple(const std::vector<size_t>& shape);

}  // namespace tarn::tool

#endif  // TOOLS_TARN_NPY_H_
