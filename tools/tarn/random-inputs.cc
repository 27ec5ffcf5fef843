#include "random-inputs.h"

#include <cstdint>

namespace tarn::tool {

namespace {

template <typename T>
void FillReal(Tensor& tensor, std::mt19937& generator) {
  std::uniform_real_distribution<T> value(-1, 1);
  for (unsigned int i = 0; i < tensor.GetElementNum(); ++i) {
    tensor.Data<T>()[i] = value(generator);
  }
}

template <typename T>
void FillInteger(Tensor& tensor, std::mt19937& generator) {
  std::bernoulli_distribution value;
  for (unsigned int i = 0; i < tensor.GetElementNum(); ++i) {
    tensor.Data<T>()[i] = value(generator) ? 1 : 0;
  }
}

// Either sign, magnitudes of 2^-8 to 1: a random mantissa of 10 bits below an
// exponent of 7 to 14, whose bias is 15.
void FillHalf(Tensor& tensor, std::mt19937& generator) {
  std::uniform_int_distribution<int> magnitude(7 << 10, 15 << 10);
  std::bernoulli_distribution negative;
  for (unsigned int i = 0; i < tensor.GetElementNum(); ++i) {
    tensor.Data<uint16_t>()[i] = static_cast<uint16_t>(
        magnitude(generator) | (negative(generator) ? 0x8000 : 0));
  }
}

}  // namespace

void FillRandom(Tensor& tensor, std::mt19937& generator) {
  switch (tensor.GetDataType()) {
    case Tensor::FLOAT32:
      return FillReal<float>(tensor, generator);
    case Tensor::FLOAT64:
      return FillReal<double>(tensor, generator);
    case Tensor::FLOAT16:
      return FillHalf(tensor, generator);
    case Tensor::INT32:
      return FillInteger<int32_t>(tensor, generator);
    case Tensor::INT64:
      return FillInteger<int64_t>(tensor, generator);
    case Tensor::INT16:
      return FillInteger<int16_t>(tensor, generator);
    case Tensor::INT8:
      return FillInteger<int8_t>(tensor, generator);
  }
}

}  // namespace tarn::tool
