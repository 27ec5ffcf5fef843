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
  const std::string text =
      Text(elements, "[2, 3], FLOAT32, on host, hold memorys, count=");
  EXPECT_EQ(tensor.ToString(), text + "2.");
  copy.Resize({2, 3}, kFloat, kHost);
  copy.Zeros();
  EXPECT_EQ(tensor.ToString(), text + "1.");
  EXPECT_THAT(std::vector<float>(elements, elements + 6), Each(2));
  tensor.Copy(copy);
  EXPECT_EQ(tensor.ToString(), text + "1.");
  EXPECT_THAT(std::vector<float>(elements, elements + 6), Each(0));
}

TEST(TensorTest, StateIsMovedSwappedAndWrappedAsAWhole) {
  char byte = 1;
  Tensor wrapped(&byte, {1, 1}, Tensor::INT8, kDevice);
  const std::string text = Text(&byte, "[1, 1], INT8, on device.");
  EXPECT_EQ(wrapped.ToString(), text);
  wrapped.Zeros();
  EXPECT_EQ(byte, 0);
  Tensor owner({2}, kFloat, kHost), target;
  const std::string owner_text = owner.ToString();
  owner.Swap(wrapped);
  EXPECT_EQ(owner.ToString(), text);
  target = Tensor(std::move(wrapped));
  EXPECT_EQ(target.ToString(), owner_text);
  EXPECT_EQ(wrapped.ToString(),  // NOLINT: what moving leaves is stated.
            Text(nullptr, "[], FLOAT32, on host."));
  wrapped.ToDevice();  // Without data only the location changes.
  EXPECT_EQ(wrapped.ToString(), Text(nullptr, "[], FLOAT32, on device."));
}

TEST(TensorTest, SizesFollowShapeAndType) {
  EXPECT_EQ(Tensor(nullptr, {}, kFloat, kHost).GetElementNum(), 0u);
  EXPECT_EQ(Tensor({}, Tensor::INT8, kHost).GetElementNum(), 1u);
  EXPECT_EQ(Tensor().GetElementNum({65536, 65535, 1}), 4294901760u);
  EXPECT_EQ(Tensor().GetElementNum({65536, 65536, 3}), 0u);  // 32 bits.
  std::vector<unsigned int> sizes;
  for (int code = 1; code <= 7; ++code) {
    const auto type = static_cast<Tensor::DataType>(code);
    sizes.push_back(Tensor({}, type, kHost).GetElementSize());
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
  EXPECT_FALSE(Tensor().Reshape({}));
}

TEST(TensorDeathTest, RefusesBrokenPreconditions) {
  float block[6];
  Tensor dst({2, 3}, kFloat, kHost);
  const auto expect = [](const char* line, const Action& action) {
    ExpectFatalUnlessSilent(action, std::string("FATAL ") + line);
  };
  ExpectFatal([&] { dst.Resize({2, 0}, kFloat, kHost); },
              "invalid shape: [2, 0]", "Resize", "src/base/tarn-tensor");
  expect("Resize: malloc memory failed with size=0.",
         [] { Tensor({65536, 65536, 2}, kFloat, kHost); });
  expect("Tensor: invalid shape: [3, -1]",
         [&] { Tensor(block, {3, -1}, kFloat, kHost); });
  expect("Tensor: data is nullptr",
         [] { Tensor(nullptr, {3}, kFloat, kHost); });
  expect("Copy: the tensor is empty.", [&] { dst.Copy(Tensor()); });
  const char* const kMismatch =
      "Copy: the shape or data type of tensors is mismatched.";
  expect(kMismatch, [&] { dst.Copy(Tensor({3, 2}, kFloat, kHost)); });
  expect(kMismatch, [&] { dst.Copy(Tensor({2, 3}, Tensor::INT32, kHost)); });
  expect("MemoryCopy: copy memorys on unknow device.",
         [&] { Tensor(block, {6}, kFloat, kDevice).ToHost(); });
  expect("MallocOnDevice: malloc memorys on unknow device.",
         [&] { Tensor(dst).ToDevice(); });
  const auto kNone = static_cast<Tensor::DataType>(8);  // NOLINT: out of range.
  expect("GetElementSize: unknow data type:8.",
         [&] { dst.GetElementSize(kNone); });
}

}  // namespace
}  // namespace tarn
