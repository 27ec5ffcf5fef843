#include "compare.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>

namespace tarn::tool {

namespace {

struct Half {
  uint16_t bits;
};

double ToDouble(Half half) {
  const int exponent = half.bits >> 10 & 0x1F;
  const int fraction = half.bits & 0x3FF;
  double magnitude = exponent == 0 ? std::ldexp(fraction, -24)
                                   : std::ldexp(fraction + 1024, exponent - 25);
  if (exponent == 0x1F) {
    magnitude = fraction == 0 ? std::numeric_limits<double>::infinity()
                              : std::numeric_limits<double>::quiet_NaN();
  }
  return (half.bits & 0x8000) != 0 ? -magnitude : magnitude;
}

template <typename T>
double ToDouble(T number) {
  return static_cast<double>(number);
}

double Difference(double one, double other) {
  if (one == other || (std::isnan(one) && std::isnan(other))) return 0;
  const double difference = std::abs(one - other);
  return std::isnan(difference) ? std::numeric_limits<double>::infinity()
                                : difference;
}

template <typename T>
Distance DistanceAs(const Tensor& tensor, const Tensor& expected) {
  Distance distance;
  for (size_t i = 0; i < tensor.GetElementNum(); ++i) {
    const double value = ToDouble(expected.Data<T>()[i]);
    distance.largest = std::max(
        distance.largest, Difference(ToDouble(tensor.Data<T>()[i]), value));
    if (std::isfinite(value)) {
      distance.magnitude = std::max(distance.magnitude, std::abs(value));
    }
  }
  return distance;
}

}  // namespace

bool SameBits(const Tensor& one, const Tensor& other) {
  return std::memcmp(one.Data(), other.Data(),
                     size_t{one.GetElementNum()} * one.GetElementSize()) == 0;
}

Distance DistanceOf(const Tensor& tensor, const Tensor& expected) {
  switch (tensor.GetDataType()) {
    case Tensor::FLOAT32:
      return DistanceAs<float>(tensor, expected);
    case Tensor::FLOAT64:
      return DistanceAs<double>(tensor, expected);
    case Tensor::FLOAT16:
      return DistanceAs<Half>(tensor, expected);
    case Tensor::INT32:
      return DistanceAs<int32_t>(tensor, expected);
    case Tensor::INT64:
      return DistanceAs<int64_t>(tensor, expected);
    case Tensor::INT16:
      return DistanceAs<int16_t>(tensor, expected);
    case Tensor::INT8:
      return DistanceAs<int8_t>(tensor, expected);
  }
  return {};
}

}  // namespace tarn::tool
