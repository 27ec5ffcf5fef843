// Shapes whose products do not fit 32 bits: whatever an operation makes of
// them, it stays inside its block.

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <climits>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "base/base-proxy.h"
#include "base/tarn-functions.h"
#include "base/tarn-tensor.h"
#include "support/echo-model.h"
#include "support/log.h"

namespace tarn {
namespace {

using Shape = std::vector<int>;

constexpr auto kHost = Tensor::HOST;
constexpr auto kBytes = Tensor::INT8;
constexpr size_t kPage = 4096;
constexpr size_t kReserve = size_t{1} << 34;

// One page in the middle of much address space where every access faults.
class Island {
 public:
  Island()
      : space_(mmap(nullptr, 2 * kReserve, PROT_NONE,
                    MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0)),
        page_(static_cast<char*>(space_) + kReserve) {
    EXPECT_EQ(mprotect(page_, kPage, PROT_READ | PROT_WRITE), 0);
  }
  Island(const Island&) = delete;
  Island& operator=(const Island&) = delete;
  ~Island() { munmap(space_, 2 * kReserve); }

  char* page() const { return page_; }

 private:
  void* space_;
  char* page_;
};

void ExpectInside(const Tensor& view, const Tensor& tensor, uint64_t bytes) {
  const ptrdiff_t offset = view.Data<char>() - tensor.Data<char>();
  EXPECT_GE(offset, 0);
  EXPECT_LT(static_cast<uint64_t>(offset), bytes);
}

TEST(ArithmeticTest, ElementsOfAWrappedBlockAreTouchedAsFarAsCounted) {
  const Island island, other;
  const Shape shape = {1048577, 4096};
  Tensor tensor(island.page(), shape, kBytes, kHost);
  Tensor copy(other.page(), shape, kBytes, kHost);
  tensor.Fill<signed char>(7);
  copy.Copy(tensor);
  EXPECT_EQ(other.page()[kPage - 1], 7);
  copy.Zeros();
  EXPECT_EQ(other.page()[kPage - 1], 0);
  copy.PartialCopy(tensor, {});
  EXPECT_EQ(other.page()[kPage - 1], 7);
}

TEST(ArithmeticTest, ViewsStayInsideTheBlock) {
  const Island island;
  for (const Shape& shape :
       {Shape{3, 65537, 65536}, Shape{3, 3, 1 << 30}, Shape{3, 65536, 65536}}) {
    SCOPED_TRACE(testing::PrintToString(shape));
    const Tensor tensor(island.page(), shape, kBytes, kHost);
    const uint64_t bytes = uint64_t{3} * static_cast<uint64_t>(shape[1]) *
                           static_cast<uint64_t>(shape[2]);
    ExpectInside(tensor[2], tensor, bytes);
    ExpectInside(tensor.Slice({-1, -1}), tensor, bytes);
    ExpectInside(tensor.SubTensor(1, 2), tensor, bytes);
  }
}

TEST(ArithmeticTest, NoReshapeGoesBeyondTheBlock) {
  Tensor four({4}, kBytes, kHost);
  EXPECT_FALSE(four.Reshape({1073741825, 4}));  // 2^32 + 4 elements.
  EXPECT_FALSE(four.Reshape({65537, 65536, 32767, 2}));
  EXPECT_EQ(four.GetShape(), Shape{4});
}

TEST(ArithmeticDeathTest, NoBlockOfFourGiBIsAllocated) {
  for (const auto location : {Tensor::HOST, Tensor::DEVICE}) {
    for (const Shape& shape : {Shape{1 << 30}, Shape{1048577, 4096},
                               Shape{INT_MAX, INT_MAX, INT_MAX}}) {
      ExpectFatal([&] { Tensor(shape, Tensor::FLOAT32, location); },
                  "malloc memory failed with size=", "",
                  "src/base/tarn-tensor");
    }
  }
}

// Where the level silences what a failed allocation says, there is no block
// for views to lie in.
TEST(ArithmeticTest, ATensorThatGotNoBlockHasViewsWithoutData) {
  const ScopedLogLevel silent(kSilent);
  Tensor tensor({65536, 65536}, kBytes, kHost);
  EXPECT_EQ(tensor.Data(), nullptr);
  EXPECT_EQ(tensor[1].Data(), nullptr);
  EXPECT_EQ(tensor.SubTensor(1, 1).Data(), nullptr);
}

// The buffer holds [4, 3] elements. A shape is let through that is the lesser
// one in the order of vectors.
TEST(ArithmeticDeathTest, NoInputGoesBeyondItsBuffer) {
  ModelOptions options = EchoOptions("");
  options.inputs_shape = "x:[4,3]";
  options.inputs_format = "x:[time,band]";
  EchoModel model(options);
  const auto stream = NewStream(model);
  ExpectFatal([&] { stream->CreateInput("x", {2, INT_MAX}); },
              "malloc memory failed with size=");
  // 2^32 + 2 elements.
  ExpectFatal([&] { stream->CreateInput("x", {3, 1431655766}); },
              "malloc memory failed with size=");
}

bool IsRefused(const ModelOptions& options, const std::string& path) {
  for (const Finding& finding :
       CheckModel(options, "onnx", "cpu", path, "", "")) {
    if (finding.severity >= ERROR) return true;
  }
  return false;
}

// As a batch size it would never be reached.
TEST(ArithmeticTest, SizesBelowOneAreFound) {
  EXPECT_TRUE(IsRefused(EchoOptions("0"), ""));
  ModelOptions options = EchoOptions("");
  options.inputs_shape = "x:[-7]";
  options.inputs_format = "x:[band]";
  EXPECT_TRUE(IsRefused(options, ""));
}

#ifdef USE_BACKEND_ONNX
const std::string kDirectory = TARN_TEST_MODELS;

ModelOptions Ranged(const std::string& model, const std::string& range) {
  ModelOptions options(kDirectory + "/" + model + ".conf", false);
  options.dynamic_dims = range;
  return options;
}

TEST(ArithmeticDeathTest, BatchesOfFourGiBAreFoundAndRefused) {
  const ModelOptions options = Ranged("accumulator", "batch:1-1431655766");
  const std::string path = kDirectory + "/accumulator.onnx";
  ExpectFatal([&] { NewModel(options, "onnx", "cpu", path, "", ""); },
              "malloc memory failed with size=");
  EXPECT_TRUE(IsRefused(options, path));
}

// The engine is told the block's size as it is counted, and refuses.
TEST(ArithmeticTest, AnInputOfFourGiBFails) {
  const Island island;
  ModelOptions options = Ranged("frames-single", "time:1-1431655766");
  options.infer_thread = true;
  const std::unique_ptr<Model> model(NewModel(
      options, "onnx", "cpu", kDirectory + "/frames-single.onnx", "", ""));
  const auto stream = NewStream(*model);
  stream->FixDimension("time", 1431655766);
  stream->SetInput(
      "feats", Tensor(island.page(), {1431655766, 3}, Tensor::FLOAT32, kHost));
  EXPECT_FALSE(stream->Inference());
}
#endif

}  // namespace
}  // namespace tarn
