// Views, reshapes and partial copies with any arguments, against a reference
// that knows where every element is.

#include <fuzzer/FuzzedDataProvider.h>

#include <numeric>
#include <vector>

#include "base/tarn-tensor.h"
#include "fuzz.h"

namespace tarn::fuzz {
namespace {

using Shape = std::vector<int>;

constexpr int kFirst = 100000;  // Beyond the numbers in any sample.

// A tensor of consecutive numbers, or a view of one, and where in that block
// its elements are.
struct Sample {
  Tensor tensor;
  size_t begin;
};

size_t CountOf(const Shape& shape) {
  return std::accumulate(
      shape.begin(), shape.end(), size_t{1},
      [](size_t n, int size) { return n * static_cast<size_t>(size); });
}

// Mostly near 0, sometimes anything.
int AnyInt(FuzzedDataProvider& input) {
  return input.ConsumeIntegral<uint8_t>() < 250
             ? input.ConsumeIntegralInRange<int>(-6, 6)
             : input.ConsumeIntegral<int>();
}

Shape AnyInts(FuzzedDataProvider& input) {
  Shape ints(input.ConsumeIntegralInRange<size_t>(0, 5));
  for (int& value : ints) value = AnyInt(input);
  return ints;
}

Sample NewSample(FuzzedDataProvider& input, int first) {
  Shape shape(input.ConsumeIntegralInRange<size_t>(0, 4));
  for (int& size : shape) size = input.ConsumeIntegralInRange<int>(1, 6);
  Sample sample{Tensor(shape, Tensor::INT32, Tensor::HOST), 0};
  int* elements = sample.tensor.Data<int>();
  std::iota(elements, elements + CountOf(shape), first);
  return sample;
}

// Whether the tensor is `shape` consecutive elements from `begin` on, counted
// from `first`; or nothing, after arguments that were refused.
void RequireElements(const Tensor& tensor, const Shape& shape, size_t begin,
                     int first) {
  Require(tensor.GetShape() == shape, "the shape is the reference's");
  Require(tensor.GetElementNum() == CountOf(shape), "the count is the shape's");
  for (size_t i = 0; i < CountOf(shape); ++i) {
    Require(tensor.Data<int>()[i] == first + static_cast<int>(begin + i),
            "an element is the reference's");
  }
}

// What is refused gives a view that must not be used, or an empty one.

void TrySlice(Sample& sample, const Shape& indices) {
  const Shape shape = sample.tensor.GetShape();
  const Tensor view = sample.tensor.Slice(indices);
  if (indices.size() > shape.size()) return;
  size_t position = 0;
  for (size_t k = 0; k < indices.size(); ++k) {
    if (indices[k] < -shape[k] || indices[k] >= shape[k]) return;
    const int index = indices[k] < 0 ? indices[k] + shape[k] : indices[k];
    position =
        position * static_cast<size_t>(shape[k]) + static_cast<size_t>(index);
  }
  const Shape rest(shape.begin() + static_cast<ptrdiff_t>(indices.size()),
                   shape.end());
  sample = {view, sample.begin + position * CountOf(rest)};
  RequireElements(sample.tensor, rest, sample.begin, 0);
}

void TrySubTensor(Sample& sample, unsigned int start, unsigned int count) {
  Shape shape = sample.tensor.GetShape();
  const Tensor view = sample.tensor.SubTensor(start, count);
  const auto size = shape.empty() ? 0U : static_cast<unsigned int>(shape[0]);
  if (start > size || count > size - start || count == 0) return;
  shape[0] = static_cast<int>(count);
  sample = {view, sample.begin + start * CountOf(shape) / count};
  RequireElements(sample.tensor, shape, sample.begin, 0);
}

void TryReshape(Sample& sample, const Shape& shape) {
  const Shape before = sample.tensor.GetShape();
  const bool reshaped = sample.tensor.Reshape(shape);
  RequireElements(sample.tensor, reshaped ? shape : before, sample.begin, 0);
}

// The element of `src` that belongs at `position` of `dst`; -1 for none.
int Source(size_t position, const Shape& dst, const Shape& src,
           const Shape& offsets) {
  size_t source = 0, stride = 1;
  for (size_t k = dst.size(); k-- > 0;) {
    const int index =
        static_cast<int>(position % static_cast<size_t>(dst[k])) - offsets[k];
    position /= static_cast<size_t>(dst[k]);
    if (index < 0 || index >= src[k]) return -1;
    source += static_cast<size_t>(index) * stride;
    stride *= static_cast<size_t>(src[k]);
  }
  return static_cast<int>(source);
}

void TryPartialCopy(const Sample& sample, FuzzedDataProvider& input) {
  Tensor dst(sample.tensor.GetShape(), Tensor::INT32, Tensor::HOST);
  dst.Copy(sample.tensor);
  const Tensor src = NewSample(input, kFirst).tensor;
  Shape offsets = AnyInts(input);
  dst.PartialCopy(src, offsets);
  const Shape& shape = dst.GetShape();
  bool fits = src.GetShape().size() == shape.size();
  offsets.resize(shape.size(), 0);
  for (size_t k = 0; fits && k < shape.size(); ++k) {
    fits = offsets[k] >= 0 && offsets[k] <= shape[k] - src.GetShape()[k];
  }
  for (size_t i = 0; i < CountOf(shape); ++i) {
    const int source = fits ? Source(i, shape, src.GetShape(), offsets) : -1;
    Require(dst.Data<int>()[i] ==
                (source < 0 ? sample.tensor.Data<int>()[i] : kFirst + source),
            "a partial copy fills its region and nothing else");
  }
}

// A row as a copy of the view would be: written, and read back.
void TryRow(const Sample& sample, FuzzedDataProvider& input) {
  const Shape& shape = sample.tensor.GetShape();
  const int index = AnyInt(input);
  Tensor dst(shape, Tensor::INT32, Tensor::HOST);
  dst.Copy(sample.tensor);
  Tensor src = NewSample(input, kFirst).tensor;
  if (!shape.empty() && input.ConsumeBool()) {
    src.Resize(Shape(shape.begin() + 1, shape.end()), Tensor::INT32,
               Tensor::HOST);
    src.Fill(kFirst);
  }
  const bool fits = !shape.empty() && index >= -shape[0] && index < shape[0] &&
                    Shape(shape.begin() + 1, shape.end()) == src.GetShape();
  Require(dst.SetRow(index, src) == fits, "rows of the shape are set");
  Tensor read(src.GetShape(), Tensor::INT32, Tensor::HOST);
  Require(dst.GetRow(index, read) == fits, "rows of the shape are read");
  const size_t row_size = src.GetElementNum();
  const size_t row =
      fits ? static_cast<size_t>(index < 0 ? index + shape[0] : index) : 0;
  for (size_t i = 0; i < CountOf(shape); ++i) {
    const bool in_row = fits && i / row_size == row;
    Require(
        dst.Data<int>()[i] == (in_row ? src : sample.tensor)
                                  .Data<int>()[in_row ? i - row * row_size : i],
        "a row is set and nothing else");
    if (in_row) {
      Require(read.Data<int>()[i - row * row_size] == dst.Data<int>()[i],
              "a row reads back");
    }
  }
}

}  // namespace
}  // namespace tarn::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace tarn::fuzz;  // NOLINT: the function cannot be inside it.
  FuzzedDataProvider input(data, size);
  Sample sample = NewSample(input, 0);
  while (input.remaining_bytes() > 0) {
    switch (input.ConsumeIntegralInRange<int>(0, 5)) {
      case 0:
        TrySlice(sample, AnyInts(input));
        break;
      case 1:
        TrySubTensor(sample, static_cast<unsigned int>(AnyInt(input)),
                     static_cast<unsigned int>(AnyInt(input)));
        break;
      case 2:
        TryReshape(sample, AnyInts(input));
        break;
      case 3:
        TryPartialCopy(sample, input);
        break;
      case 4:
        TryRow(sample, input);
        break;
      default:
        sample = NewSample(input, 0);
    }
  }
  return 0;
}
