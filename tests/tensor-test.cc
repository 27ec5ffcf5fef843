#include "base/tarn-tensor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "support/log.h"

namespace tarn {
namespace {

using testing::Each;
using testing::ElementsAre;

constexpr auto kFloat = Tensor::FLOAT32;
constexpr auto kHost = Tensor::HOST;
constexpr auto kDevice = Tensor::DEVICE;

// What ToString() says of a tensor at `data`.
std::string Text(const void* data, const std::string& description) {
  std::ostringstream os;
  os << "Tensor at " << data << ": " << description;
  return os.str();
}

TEST(TensorTest, CopiesOfTheObjectShareTheBlockUntilOneIsResized) {
  Tensor tensor({2, 3}, kFloat, kHost);
  const float* elements = tensor.Data<float>();
  Tensor copy(tensor);
  copy.Fill(2.0f);
  for (const Tensor* one : {&copy, &tensor}) {
    EXPECT_EQ(
        one->ToString(),
        Text(elements, "[2, 3], FLOAT32, on host, hold memorys, count=2."));
  }
  copy.Resize({2, 3}, kFloat, kHost);
  copy.Zeros();
  EXPECT_THAT(std::vector<float>(elements, elements + 6), Each(2));
  EXPECT_THAT(tensor.ToString(), testing::EndsWith("count=1."));
  tensor.Copy(copy);
  EXPECT_EQ(tensor.Data(), elements);
  EXPECT_THAT(std::vector<float>(elements, elements + 6), Each(0));
}

TEST(TensorTest, WrapsABlockWithoutOwningIt) {
  float block[4] = {1, 2, 3, 4};
  Tensor tensor;
  EXPECT_EQ(tensor.ToString(), Text(nullptr, "[], FLOAT32, on host."));
  tensor = Tensor(block, {2, 2}, kFloat, kDevice);
  EXPECT_EQ(tensor.ToString(), Text(block, "[2, 2], FLOAT32, on device."));
  tensor.Zeros();
  EXPECT_THAT(block, Each(0));
}

TEST(TensorTest, SizesFollowShapeAndType) {
  EXPECT_EQ(Tensor().GetElementNum(), 0u);
  EXPECT_EQ(Tensor(nullptr, {}, kFloat, kHost).GetElementNum(), 0u);
  EXPECT_EQ(Tensor({}, Tensor::INT8, kHost).GetElementNum(), 1u);
  EXPECT_EQ(Tensor({2, 5}, Tensor::INT8, kHost).GetElementNum(), 10u);
  EXPECT_EQ(Tensor().GetElementNum({65536, 65535, 1}), 4294901760u);
  EXPECT_EQ(Tensor().GetElementNum({65536, 65536, 3}), 0u);  // 32 bits.
  std::vector<unsigned int> sizes;
  for (int code = 1; code <= 7; ++code) {
    sizes.push_back(Tensor({}, static_cast<Tensor::DataType>(code), kHost)
                        .GetElementSize());
  }
  EXPECT_THAT(sizes, ElementsAre(4, 8, 2, 4, 8, 2, 1));
}

TEST(TensorTest, ReshapesOnlyToAnEqualCount) {
  Tensor tensor({2, 3}, kFloat, kHost);
  for (const std::vector<int>& shape :
       {std::vector<int>{4}, {6, 0}, {}, {-2, -3}, {7}}) {
    EXPECT_FALSE(tensor.Reshape(shape));
    EXPECT_THAT(tensor.GetShape(), ElementsAre(2, 3));
  }
  EXPECT_TRUE(tensor.Reshape({1, 6}));
  EXPECT_THAT(tensor.GetShape(), ElementsAre(1, 6));
  EXPECT_TRUE(Tensor({1}, kFloat, kHost).Reshape({}));
  EXPECT_FALSE(Tensor().Reshape({}));
}

TEST(TensorTest, SwapMoveAndRelocationTakeTheWholeState) {
  char byte = 0;
  Tensor a({2}, kFloat, kHost), b(&byte, {1, 1}, Tensor::INT8, kDevice), c;
  const std::string a_text = a.ToString(), b_text = b.ToString();
  a.Swap(b);
  EXPECT_EQ(a.ToString(), b_text);
  EXPECT_EQ(b.ToString(), a_text);
  c = Tensor(std::move(b));
  EXPECT_EQ(c.ToString(), a_text);
  EXPECT_EQ(b.ToString(), Tensor().ToString());  // NOLINT: moved from.
  b.ToDevice();  // Without data only the location changes.
  EXPECT_EQ(b.ToString(), Text(nullptr, "[], FLOAT32, on device."));
}

TEST(TensorDeathTest, RefusesBrokenPreconditions) {
  float block[6];
  const Tensor on_device(block, {2, 3}, kFloat, kDevice);
  Tensor dst({2, 3}, kFloat, kHost);
  ExpectFatal([&] { dst.Resize({2, 0}, kFloat, kHost); },
              "invalid shape: [2, 0]", "Resize", "src/base/tarn-tensor");
  ExpectFatalUnlessSilent([] { Tensor({65536, 65536, 2}, kFloat, kHost); },
                          "FATAL Resize: malloc memory failed with size=0.");
  ExpectFatalUnlessSilent([&] { Tensor(block, {3, -1}, kFloat, kHost); },
                          "FATAL Tensor: invalid shape: [3, -1]");
  ExpectFatalUnlessSilent([] { Tensor(nullptr, {3}, kFloat, kHost); },
                          "FATAL Tensor: data is nullptr");
  ExpectFatalUnlessSilent([&] { dst.Copy(Tensor()); },
                          "FATAL Copy: the tensor is empty.");
  for (const Tensor& src :
       {Tensor({3, 2}, kFloat, kHost), Tensor({2, 3}, Tensor::INT32, kHost)}) {
    ExpectFatalUnlessSilent(
        [&] { dst.Copy(src); },
        "FATAL Copy: the shape or data type of tensors is mismatched.");
  }
  ExpectFatalUnlessSilent([&] { Tensor(on_device).ToHost(); },
                          "FATAL MemoryCopy: copy memorys on unknow device.");
  ExpectFatalUnlessSilent(
      [&] { Tensor(dst).ToDevice(); },
      "FATAL MallocOnDevice: malloc memorys on unknow device.");
  for (const int code : {0, 8}) {
    ExpectFatalUnlessSilent(
        [&] { dst.GetElementSize(static_cast<Tensor::DataType>(code)); },
        "GetElementSize: unknow data type:" + std::to_string(code) + ".");
  }
}

}  // namespace
}  // namespace tarn
