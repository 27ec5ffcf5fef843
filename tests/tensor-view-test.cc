#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

#include "base/tarn-tensor.h"
#include "support/log.h"
#include "support/table.h"
#include "utils/text-utils.h"

namespace tarn {
namespace {

using Shape = std::vector<int>;

constexpr auto kHost = Tensor::HOST;

// A tensor of `type` takes and gives back T; one of another type refuses it.
template <typename T>
void ExpectAccess(Tensor::DataType type, T value) {
  Tensor tensor({2, 2}, type, kHost);
  tensor.Fill(value);
  const T* elements = tensor.Data<T>();
  EXPECT_THAT(std::vector<T>(elements, elements + 4), testing::Each(value));
  EXPECT_EQ((tensor.Slice({1, 1}).Item<T>()), value);
  for (int code = 1; code <= 8; ++code) {
    const auto other = static_cast<Tensor::DataType>(code);
    if (other == type) continue;
    SCOPED_TRACE(testing::Message() << type << " as " << code);
    T block = 0;
    Tensor scalar(&block, {}, other, kHost);
    const std::string message =
        other == Tensor::FLOAT16 || code == 8
            ? "can't fill tensor of type:" + ConvertDataTypeToString(other)
            : "the data type of tensor is mismatched.";
    ExpectFatal([&] { scalar.Item<T>(); }, message, "Item");
    ExpectFatal([&] { scalar.Fill(value); }, message, "Fill");
  }
}

TEST(ElementAccessDeathTest, TakesTheTypeOrItsUnsignedCounterpart) {
  ExpectAccess<float>(Tensor::FLOAT32, 1.5f);
  ExpectAccess<double>(Tensor::FLOAT64, 1e-300);
  ExpectAccess<int>(Tensor::INT32, INT_MIN);
  ExpectAccess<unsigned int>(Tensor::INT32, UINT_MAX);
  ExpectAccess<long>(Tensor::INT64, LONG_MIN);
  ExpectAccess<unsigned long>(Tensor::INT64, ULONG_MAX);
  ExpectAccess<short>(Tensor::INT16, SHRT_MIN);
  ExpectAccess<unsigned short>(Tensor::INT16, USHRT_MAX);
  ExpectAccess<signed char>(Tensor::INT8, SCHAR_MIN);
  ExpectAccess<unsigned char>(Tensor::INT8, UCHAR_MAX);
}

TEST(ElementAccessDeathTest, ItemNeedsAScalarOnTheHost) {
  float block = 3;
  const Tensor one(&block, {1}, Tensor::FLOAT32, kHost);
  Tensor device(&block, {}, Tensor::FLOAT32, Tensor::DEVICE);
  for (const Tensor& tensor : {Tensor(), one}) {
    ExpectFatal([&] { tensor.Item<float>(); },
                "please call it on scalar Tensor.", "Item");
  }
  ExpectFatal([&] { device.Item<float>(); },
              "move the tensor to HOST and retry.", "Item");
  device.Fill(4.0f);  // Does not ask for the location.
  const ScopedLogLevel level(kSilent);
  EXPECT_EQ(device.Item<float>(), 4);
  EXPECT_EQ(Tensor().Item<float>(), 0);
}

// A tensor with the elements first, first + 1, ...
Tensor Counting(const Shape& shape, int first) {
  Tensor tensor(shape, Tensor::INT32, kHost);
  int* begin = tensor.Data<int>();
  std::iota(begin, begin + tensor.GetElementNum(), first);
  return tensor;
}

std::vector<int> Elements(const Tensor& tensor) {
  const int* begin = tensor.Data<int>();
  return std::vector<int>(begin, begin + tensor.GetElementNum());
}

TEST(ViewTest, ViewsShareTheBlock) {
  const Tensor tensor = Counting({2, 3, 4}, 0);
  EXPECT_EQ(tensor.GetStride(), (Shape{12, 4, 1}));
  const auto expect = [&](const Tensor& view, const Shape& shape, int offset) {
    EXPECT_EQ(view.GetShape(), shape);
    EXPECT_EQ(view.Data<int>() - tensor.Data<int>(), offset);
    EXPECT_EQ(view.GetDataType(), Tensor::INT32);
  };
  expect(tensor[-2], {3, 4}, 0);
  expect(tensor[1][-1][3], {}, 23);
  expect(tensor.Slice({}), {2, 3, 4}, 0);
  expect(tensor.Slice({1, -1}), {4}, 20);
  expect(tensor.Slice({-2, 1, -3}), {}, 5);
  expect(tensor.SubTensor(0, 2), {2, 3, 4}, 0);
  expect(tensor[1].SubTensor(1, 2), {2, 4}, 16);
  EXPECT_EQ(Tensor(tensor.SubTensor(2, 0)).Data(), nullptr);
  EXPECT_EQ(Tensor(tensor.SubTensor(2, 0)).GetDataType(), Tensor::INT32);
  Tensor parent = Counting({2, 2}, 7);
  const Tensor view = parent.SubTensor(1, 1)[0];
  parent = Tensor();
  EXPECT_EQ(Elements(view), (std::vector<int>{9, 10}));
  EXPECT_THAT(view.ToString(), testing::EndsWith("count=1."));
}

TEST(ViewDeathTest, RefusesWhatIsOutOfRange) {
  const Tensor tensor = Counting({2, 3, 4}, 0);
  for (const int index : {4, -5, INT_MAX, INT_MIN}) {
    ExpectFatal([&] { tensor[0][0][index]; },
                "index beyond the range of dimension.", "operator[]",
                "src/base/tarn-tensor");
    ExpectFatal([&] { tensor.Slice({1, -3, index}); },
                "index:2 beyond the range of dimension.", "Slice");
  }
  ExpectFatalUnlessSilent([&] { tensor[0][0][0][0]; },
                          "operator[]: can't operator on scalar.");
  ExpectFatalUnlessSilent(
      [&] { tensor.Slice({0, 0, 0, 0}); },
      "Slice: the size of indices is more than the number of dimensions.");
  ExpectFatalUnlessSilent([] { Tensor().SubTensor(0, 0); },
                          "SubTensor: the tensor is scalar or empty.");
  for (const auto& [start, count] :
       {std::pair{1u, 2u}, {3u, 0u}, {1u, UINT_MAX}, {UINT_MAX, 2u}}) {
    ExpectFatal([&, s = start, n = count] { tensor.SubTensor(s, n); },
                "range is invalid, expect in rang [0, 2].", "SubTensor");
  }
}

// The elements of `dst` with `src` at `offsets`, found one by one.
std::vector<int> Placed(const Tensor& dst, const Tensor& src,
                        const Shape& offsets) {
  std::vector<int> placed = Elements(dst);
  for (const int element : Elements(src)) {
    int rest = element - src.Data<int>()[0], position = 0, stride = 1;
    for (size_t k = dst.GetShape().size(); k-- > 0;) {
      const int offset = k < offsets.size() ? offsets[k] : 0;
      position += (rest % src.GetShape()[k] + offset) * stride;
      rest /= src.GetShape()[k];
      stride *= dst.GetShape()[k];
    }
    placed[static_cast<size_t>(position)] = element;
  }
  return placed;
}

TEST(PartialCopyTest, FillsTheRegionAndNothingElse) {
  for (const auto& row : Rows(R"(
4 10 8 | 1 7 8 | 2
4 10 8 | 2 3 5 | 1 7 3
4 10 8 | 2 10 8 | 2 0 0
4 10 8 | 3 10 5 | 0 0 3
2 3 4 5 | 1 2 1 3 | 1 1 3 2
3 4 | 3 4 | 0
3 4 | 2 1 | 1 3 99
5 | 2 | 3
 |  | 1)")) {
    SCOPED_TRACE(testing::PrintToString(row));
    Shape shapes[3];
    for (size_t i = 0; i < 3; ++i) {
      SplitStringToIntegers(row[i], " ", true, shapes[i]);
    }
    Tensor src = Counting(shapes[1], 1000);
    Tensor to = Counting(shapes[0], 0), from = Counting(shapes[0], 0);
    const std::vector<int> placed = Placed(to, src, shapes[2]);
    from.PartialCopyFrom(src, shapes[2]);
    src.PartialCopyTo(to, shapes[2]);
    EXPECT_EQ(Elements(from), placed);
    EXPECT_EQ(Elements(to), placed);
  }
}

TEST(PartialCopyDeathTest, RefusesWhatDoesNotFit) {
  Tensor dst = Counting({4, 10, 8}, 0);
  const auto expect = [&dst](const Shape& shape, const Shape& offsets,
                             const std::string& message) {
    const Tensor src = Counting(shape, 1000);
    ExpectFatalUnlessSilent([&] { dst.PartialCopy(src, offsets); },
                            "FATAL PartialCopy: " + message);
    EXPECT_EQ(Elements(dst), Elements(Counting({4, 10, 8}, 0)));
  };
  expect({1, 7}, {2}, "the rank of tensors should be equal.");
  expect({1, 7, 8}, {4}, "range at dimension:0 is mismatched.");
  expect({1, 7, 8}, {INT_MAX}, "range at dimension:0 is mismatched.");
  expect({1, 7, 8}, {2, 4}, "range at dimension:1 is mismatched.");
  expect({1, 7, 8}, {0, -1, 9}, "range at dimension:1 is mismatched.");
  expect({1, 7, 8}, {2, 3, 1}, "range at dimension:2 is mismatched.");
  const Tensor other({1, 1, 8}, Tensor::INT16, kHost);
  ExpectFatal([&] { dst.PartialCopy(other, {}); },
              "the shape or data type of tensors is mismatched.", "Copy");
}

}  // namespace
}  // namespace tarn
