#include "base/base-proxy.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/echo-model.h"
#include "support/log.h"

namespace tarn {
namespace {

using Shape = std::vector<int>;
using Format = std::vector<std::string>;

// feats and logits with 2 to 4 frames of 80 and of 10 in batches of 1 to 8,
// without batch dimension if `batch_dim` is empty.
ModelOptions FramesOptions(const std::string& batch_dim) {
  ModelOptions options;
  options.inputs_format = "feats:[batch,time,feat]";
  options.inputs_shape = "feats:[-1,-1,80]";
  options.inputs_dtype = "feats:FLOAT32";
  options.outputs_format = "logits:[batch,time,word]";
  options.outputs_shape = "logits:[-1,-1,10]";
  options.outputs_dtype = "logits:FLOAT16";
  options.dynamic_dims = "batch:1-8;time:2-4";
  options.batch_dim = batch_dim;
  options.multi_threads = true;
  return options;
}

class ProxyTest : public testing::Test {
 protected:
  EchoModel frames_model_{FramesOptions("batch")};
  EchoModel echo_model_{EchoOptions("4")};
  EchoModel serial_model_{EchoOptions("")};
  const std::unique_ptr<BaseProxy> frames_ = NewStream(frames_model_);
  const std::unique_ptr<BaseProxy> echo_ = NewStream(echo_model_);
  const std::unique_ptr<BaseProxy> serial_ = NewStream(serial_model_);
};

using ProxyDeathTest = ProxyTest;

void ExpectProxyFatal(const char* function, const Action& action,
                      const std::string& message) {
  ExpectFatal(action, message, function, "src/base/base-proxy.cc");
}

TEST_F(ProxyTest, ShowsShapesAndFormatsWithoutTheBatchDimension) {
  frames_->FixDimension("time", 3);
  EXPECT_EQ(frames_->GetInputShape(0), (Shape{3, 80}));
  EXPECT_EQ(frames_->GetInputShape("feats"), (Shape{3, 80}));
  EXPECT_EQ(frames_->GetInputFormat("feats"), (Format{"time", "feat"}));
  EXPECT_EQ(frames_->GetOutputShape(0), (Shape{3, 10}));
  EXPECT_EQ(frames_->GetOutputShape("logits"), (Shape{3, 10}));
  EXPECT_EQ(frames_->GetOutputFormat(0), (Format{"time", "word"}));
  for (const char* side : {"sum", "sum-next"}) {
    EXPECT_EQ(echo_->GetCacheShape(side), Shape{1});
    EXPECT_EQ(echo_->GetCacheFormat(side), Format{"feat"});
  }
  EchoModel model(FramesOptions(""));
  const auto whole = NewStream(model);
  whole->FixDimension("batch", 8);
  whole->FixDimension("time", 2);
  EXPECT_EQ(whole->GetInputShape("feats"), (Shape{8, 2, 80}));
  EXPECT_EQ(whole->GetInputFormat("feats"), (Format{"batch", "time", "feat"}));
}

TEST_F(ProxyDeathTest, FixesDimensionsWithinTheirRangesOnly) {
  for (int value : {1, 5}) {
    ExpectProxyFatal(
        "FixDimension", [&] { frames_->FixDimension("time", value); },
        "dimension:time out of range [2, 4].");
  }
  ExpectProxyFatal(
      "FixDimension", [&] { frames_->FixDimension("feat", 80); },
      "dimension:feat is't dynamic.");
  ExpectProxyFatal(
      "FixShape", [&] { frames_->GetInputShape("feats"); },
      "dimension:time is't fixed.");
  const ScopedLogLevel silent(kSilent);
  EXPECT_EQ(frames_->GetInputShape("feats"), (Shape{-1, 80}));
  for (int value : {2, 4}) {
    frames_->FixDimension("time", value);
    frames_->FixDimension("time", 5);
    EXPECT_EQ(frames_->GetInputShape("feats"), (Shape{value, 80}));
  }
  frames_->Reset();
  EXPECT_EQ(frames_->GetInputShape("feats"), (Shape{-1, 80}));
}

TEST_F(ProxyDeathTest, TakesOnlyTensorsThatFit) {
  frames_->FixDimension("time", 3);
  const Tensor floats({2, 1}, Tensor::FLOAT32, Tensor::HOST);
  const Tensor bytes({3, 10}, Tensor::INT8, Tensor::HOST);
  ExpectProxyFatal(
      "SetInput", [&] { frames_->SetInput("feats", floats); },
      "set input:feats with wrong shape. Expect [3, 80], but got [2, 1]");
  ExpectProxyFatal(
      "SetOutput", [&] { frames_->SetOutput("logits", bytes); },
      "set output:logits with wrong data type. Expect FLOAT16, but got INT8");
  ExpectProxyFatal(
      "SetCache", [&] { echo_->SetCache("sum-next", floats); },
      "set cache:sum with wrong shape. Expect [1], but got [2, 1]");
  const ScopedLogLevel silent(kSilent);  // Stores them all the same.
  echo_->SetInput("x", floats);
  EXPECT_EQ(echo_->GetInput("x").Data(), floats.Data());
}

TEST_F(ProxyDeathTest, CreatesTensorsUpToTheLimit) {
  const auto feats = [&](const Shape& shape) {
    return [=] { frames_->CreateInput("feats", shape); };
  };
  const std::string input = "fail to create input: feats with shape=";
  const std::string limit = ", it should be smaller than [4, 80]";
  ExpectProxyFatal("CreateInput", feats({5, 1}), input + "[5, 1]" + limit);
  ExpectProxyFatal("CreateInput", feats({4, 81}), input + "[4, 81]" + limit);
  ExpectProxyFatal("CreateInput", feats({4}), input + "[4]" + limit);
  ExpectProxyFatal(
      "CreateOutput", [&] { echo_->CreateOutput("y", {2}); },
      "fail to create output: y with shape=[2], it should be "
      "small than [1]");
  ExpectProxyFatal(
      "CreateCache", [&] { echo_->CreateCache("sum-next", {2}); },
      "fail to create output: sum-next with shape=[2], it should "
      "be smaler than [1]");
}

TEST_F(ProxyTest, ReusesOneBufferPerName) {
  const Tensor largest = frames_->CreateInput("feats", {4, 80});
  frames_->Reset();
  for (const Shape& shape : {Shape{2, 80}, Shape{3, 100}}) {
    const Tensor tensor = frames_->CreateInput("feats", shape);
    EXPECT_EQ(tensor.Data(), largest.Data());
    EXPECT_EQ(tensor.GetShape(), shape);
  }
  // Smaller in the order of vectors, but more than the buffer holds.
  frames_->CreateInput("feats", {3, 1000}).Fill(1.0F);
}

TEST_F(ProxyDeathTest, MissesWhatHasNotBeenSet) {
  ExpectProxyFatal(
      "GetInput", [&] { echo_->GetInput("x"); }, "missing input:x.");
  ExpectProxyFatal(
      "GetOutput", [&] { echo_->GetOutput("y"); }, "missing output:y.");
  ExpectProxyFatal(
      "GetCache", [&] { echo_->GetCache("sum-next"); },
      "missing cache:sum-next.");
  SetX(*serial_, 1);
  EXPECT_TRUE(serial_->Inference());  // Consumes the input.
  ExpectProxyFatal(
      "Inference", [&] { serial_->Inference(); },
      "missing input:x when inference");
  const ScopedLogLevel silent(kSilent);
  EXPECT_THROW(serial_->GetInput("x"), std::out_of_range);
}

TEST_F(ProxyTest, KeepsStateUntilReset) {
  EXPECT_TRUE(serial_->HasInput("x"));
  for (float expected : {3.0F, 6.0F, 9.0F, 3.0F}) {
    if (expected == 3) serial_->Reset();
    EXPECT_EQ(serial_->HasCache("sum-next"), expected != 3);
    EXPECT_EQ(serial_->HasOutput("y"), expected != 3);
    SetX(*serial_, 3);
    EXPECT_TRUE(serial_->Inference());
    EXPECT_EQ(ResultOf(*serial_), expected);
    EXPECT_EQ(*serial_->GetCache("sum-next").Data<float>(), expected);
  }
}

TEST_F(ProxyDeathTest, SerialProxyIsNeverWaitedFor) {
  const char* const header = "src/base/base-proxy.h";
  ExpectFatal([&] { serial_->Wait(); },
              "SerialProxy::Wait() shouldn't be called.", "Wait", header);
  ExpectFatal([&] { serial_->Notify(); },
              "SerialProxy::Notify() shouldn't be called.", "Notify", header);
  echo_->Notify();  // A parallel one's signal waits for the waiter.
  echo_->Wait();
}

}  // namespace
}  // namespace tarn
