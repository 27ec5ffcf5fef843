#include "model/onnx-model.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "base/base-proxy.h"
#include "base/tarn-functions.h"
#include "support/log.h"
#include "support/table.h"

namespace tarn {
namespace {

using Proxies = std::vector<std::unique_ptr<BaseProxy>>;
using testing::Contains;
using testing::Each;

ModelOptions OptionsOf(const std::string& name) {
  return {TARN_TEST_MODELS "/" + name + ".conf", false};
}

std::unique_ptr<OnnxModel> Load(const std::string& name,
                                const ModelOptions& options,
                                const char* device = "cpu") {
  std::ifstream is(TARN_TEST_MODELS "/" + name + ".onnx", std::ios::binary);
  const std::string bytes(std::istreambuf_iterator<char>(is), {});
  return std::make_unique<OnnxModel>(std::make_shared<ModelInfo>(options),
                                     bytes, Device(device), nullptr);
}

std::unique_ptr<OnnxModel> Load(const std::string& name) {
  return Load(name, OptionsOf(name));
}

Proxies NewProxies(OnnxModel& model, size_t count) {
  Proxies proxies(count);
  for (auto& p : proxies) p.reset(static_cast<BaseProxy*>(model.NewProxy()));
  return proxies;
}

template <typename T>
void SetInput(BaseProxy& proxy, const char* name, const std::vector<T>& x) {
  const Tensor tensor = proxy.CreateInput(name, proxy.GetInputShape(name));
  ASSERT_EQ(tensor.GetElementNum(), x.size());
  std::copy(x.begin(), x.end(), tensor.Data<T>());
  proxy.SetInput(name, tensor);
}

template <typename T>
std::vector<T> Output(const BaseProxy& proxy, const char* name) {
  const Tensor& tensor = proxy.GetOutput(name);
  return {tensor.Data<T>(), tensor.Data<T>() + tensor.GetElementNum()};
}

// Runs a thread for each proxy and joins them.
void ForEach(const Proxies& proxies,
             const std::function<void(BaseProxy&)>& body) {
  std::vector<std::thread> threads;
  for (const auto& p : proxies) threads.emplace_back([&] { body(*p); });
  for (std::thread& thread : threads) thread.join();
}

void ComputeBatch(OnnxModel& model, const Proxies& proxies) {
  std::vector<BaseProxy*> batch;
  for (const auto& p : proxies) batch.push_back(p.get());
  model.Compute(batch);
}

// Runs a stream of random chunks through an accumulator. Each result must have
// the very bits of its definition.
void Accumulate(BaseProxy& stream, unsigned int seed, int chunk_num) {
  std::mt19937 random(seed);
  std::vector<float> x(3), y(3), sum(3);
  for (int i = 0; i < chunk_num; ++i) {
    for (size_t k = 0; k < x.size(); ++k) {
      x[k] = std::uniform_real_distribution<float>(-1, 1)(random);
      const float old_sum = sum[k];
      sum[k] = x[k] + old_sum;
      y[k] = sum[k] + old_sum;
    }
    SetInput(stream, "x", x);
    ASSERT_TRUE(stream.Inference());
    ASSERT_EQ(Output<float>(stream, "y"), y) << "chunk " << i;
  }
}

// Keeps the size of the largest batch that was computed.
class LargestBatch : public InferenceObserver {
 public:
  void OnEvent(Event event, const std::vector<BaseProxy*>& proxies) override {
    if (event == TAKEN) size = std::max(size, proxies.size());
  }

  size_t size = 0;  // Written by the one thread that computes.
};

TEST(OnnxStreamTest, KeepsOldStateWhileItWritesNew) {
  const auto model = Load("accumulator-single");
  const Proxies streams = NewProxies(*model, 2);
  for (unsigned int seed : {1, 2, 3}) {
    for (const auto& stream : streams) Accumulate(*stream, seed, 20);
    for (const auto& stream : streams) stream->Reset();
  }
}

TEST(OnnxStreamTest, GivesAStreamTheSameInABatchAsAlone) {
  for (const char* name : {"accumulator", "accumulator-4"}) {
    ModelOptions options = OptionsOf(name);
    options.infer_thread = true;
    for (int interval : {0, 1000}) {
      options.infer_interval = interval;
      LargestBatch largest;
      const auto model = Load(name, options);
      model->SetObserver(&largest);
      std::atomic<unsigned int> seed{0};
      for (size_t stream_num : {3, 7}) {
        const auto run = [&](BaseProxy& p) { Accumulate(p, seed++, 300); };
        ForEach(NewProxies(*model, stream_num), run);
      }
      EXPECT_GT(largest.size, interval > 0 ? 1U : 0U);
    }
  }
}

TEST(OnnxStreamTest, NeverSwapsCachesOfSimilarNames) {
  const auto model = Load("caches");
  const Proxies streams = NewProxies(*model, 4);
  for (int64_t call = 0; call < 3; ++call) {
    ForEach(streams, [&](BaseProxy& stream) {
      const int64_t x = &stream == streams[0].get() ? 101 : 100;
      SetInput(stream, "x", std::vector<int64_t>(3, x));
      ASSERT_TRUE(stream.Inference());
      EXPECT_THAT(Output<int64_t>(stream, "total"), Each(call * x));
      EXPECT_THAT(Output<int64_t>(stream, "count"), Each(call));
      EXPECT_THAT(Output<int64_t>(stream, "last"), Each(call > 0 ? x : 0));
    });
  }
}

TEST(OnnxBatchTest, CarriesEveryElementTypeInAnyOrder) {
  const auto model = Load("types");
  const Proxies proxies = NewProxies(*model, 3);
  unsigned char next_byte = 0;
  for (const auto& proxy : proxies) {
    for (unsigned int i = 0; i < proxy->GetInputNum(); ++i) {
      const std::string& name = proxy->GetInputName(i);
      const Tensor x = proxy->CreateInput(name, {3});
      const unsigned int size = 3 * x.GetElementSize();
      std::generate_n(x.Data<unsigned char>(), size,
                      [&] { return ++next_byte; });
      proxy->SetInput(name, x);
    }
  }
  ComputeBatch(*model, proxies);
  for (const auto& proxy : proxies) {
    for (unsigned int i = 0; i < proxy->GetInputNum(); ++i) {
      const Tensor& x = proxy->GetInput(proxy->GetInputName(i));
      const Tensor& y = proxy->GetOutput(proxy->GetOutputName(i));
      for (int k = 0; k < 3; ++k) {
        const void* reversed = x[2 - k].Data();
        EXPECT_EQ(memcmp(y[k].Data(), reversed, x.GetElementSize()), 0) << i;
      }
    }
  }
}

// Doubles requests of the given lengths: one alone, several as a batch.
void ExpectDoubled(OnnxModel& model, const std::vector<int>& lengths) {
  const Proxies proxies = NewProxies(model, lengths.size());
  for (size_t i = 0; i < lengths.size(); ++i) {
    proxies[i]->FixDimension("time", lengths[i]);
    const size_t size = 3 * static_cast<size_t>(lengths[i]);
    const auto value = static_cast<float>(i + 1);
    SetInput(*proxies[i], "feats", std::vector<float>(size, value));
  }
  if (lengths.size() == 1) {
    model.Compute(proxies[0].get());
  } else {
    ComputeBatch(model, proxies);
  }
  for (size_t i = 0; i < lengths.size(); ++i) {
    const auto value = static_cast<float>(2 * (i + 1));
    EXPECT_THAT(Output<float>(*proxies[i], "doubled"), Each(value));
  }
}

TEST(OnnxDynamicDeathTest, MixesLengthsOnlyIfOutputsDoNotFollowThem) {
  const auto single = Load("frames-single");
  for (int length : {1, 5, 2}) ExpectDoubled(*single, {length});
  ExpectDoubled(*Load("first-frame"), {2, 5, 1});
  const auto frames = Load("frames");
  for (int length : {5, 2}) ExpectDoubled(*frames, std::vector<int>(4, length));
  ExpectFatal([&] { ExpectDoubled(*frames, {2, 5}); },
              "range at dimension:0 is mismatched.", "PartialCopy");
}

// A failed run must leave a log line and no more: no outputs, old state, nobody
// waiting.
void ExpectFailureLeavesNoTrace(OnnxModel& model, size_t stream_num) {
  const Proxies streams = NewProxies(model, stream_num);
  const auto infer = [&](int64_t first_index, bool succeeds) {
    ForEach(streams, [&](BaseProxy& stream) {
      const bool is_first = &stream == streams[0].get();
      SetInput<int64_t>(stream, "i", {is_first ? first_index : 1, 1, 2});
      EXPECT_EQ(stream.Inference(), succeeds);
      EXPECT_EQ(stream.HasOutput("y"), succeeds);
    });
  };
  infer(0, true);
  const auto lines = LinesOf([&] { infer(1000, false); });
  ASSERT_EQ(lines.size(), 2U);  // The first is the engine's own.
  EXPECT_EQ(lines[1].find("ERROR Compute: inference failed: Non-zero"), 0U);
  infer(0, true);
  for (const auto& stream : streams) {
    const float first = stream == streams[0] ? 2 : 20;
    EXPECT_EQ(Output<float>(*stream, "y"),
              (std::vector<float>{first, 20, 200}));
  }
}

TEST(OnnxFailureTest, LeavesNoTrace) {
  ExpectFailureLeavesNoTrace(*Load("lookup-single"), 1);
  ExpectFailureLeavesNoTrace(*Load("lookup-4"), 4);
  ModelOptions options = OptionsOf("lookup-4");
  options.infer_thread = true;
  options.infer_interval = 600 * 1000 * 1000;  // Only full batches.
  ExpectFailureLeavesNoTrace(*Load("lookup-4", options), 4);
}

TEST(OnnxFailureTest, LeavesNothingInRowsWithoutAProxy) {
  const auto model = Load("lookup-4");
  const auto compute = [&](size_t count, int64_t index) {
    const Proxies proxies = NewProxies(*model, count);
    for (const auto& proxy : proxies) {
      SetInput<int64_t>(*proxy, "i", {index, 1, 2});
      Tensor sum = proxy->CreateCache("sum", {3});
      sum.Zeros();
      proxy->SetCache("sum", sum);
    }
    ComputeBatch(*model, proxies);
    return proxies[0]->HasOutput("y");
  };
  LogOf([&] { EXPECT_FALSE(compute(4, 1000)); });
  EXPECT_TRUE(compute(2, 0));
}

// Replaces `from` where it first occurs in each text of the description.
ModelOptions Replaced(ModelOptions options, const std::string& from,
                      const std::string& to) {
  for (std::string* text :
       {&options.inputs_format, &options.inputs_shape, &options.inputs_dtype,
        &options.outputs_format, &options.outputs_shape, &options.outputs_dtype,
        &options.caches_pair, &options.caches_shape}) {
    const size_t at = text->find(from);
    if (at != std::string::npos) text->replace(at, from.size(), to);
  }
  return options;
}

// What CheckModel() finds to be FATAL.
std::vector<std::string> Findings(const std::string& name,
                                  const ModelOptions& options) {
  std::vector<std::string> found;
  for (const Finding& finding :
       CheckModel(options, "onnx", "cpu", TARN_TEST_MODELS "/" + name + ".onnx",
                  "", "")) {
    if (finding.severity == FATAL) found.push_back(finding.found);
  }
  return found;
}

TEST(OnnxLoadDeathTest, RejectsModelsThatDoNotFitTheirDescription) {
  const char* const file = "src/model/onnx-model-check.cc";
  // A model, a replacement in its description, and the message; * is the words
  // that several begin with.
  for (auto& row : Rows(R"(
types | x-float: | x-int8: | the number of inputs is mismatched.
types | y-float: | y-int8: | the number of outputs is mismatched.
accumulator | x: | z: | undefined inputs:x
accumulator | y: | z: | undefined outputs:y
accumulator | sum-next | z | undefined outputs:sum-next
accumulator | -1 | 4 | *cache:sum, shape=[-1, 3], dtype=FLOAT32
types | x-int8:INT8 | x-int8:INT16 | *input:x-int8, shape=[-1, 3], dtype=INT8
types | y-int8:INT8 | y-int8:INT16 | *output:y-int8, shape=[-1, 3], dtype=INT8
scalar | - | - | *input:x, shape=[], dtype=FLOAT32)")) {
    SCOPED_TRACE(row[3]);
    if (row[3][0] == '*') {
      row[3].replace(0, 1, "Check shape and data type failed for ");
    }
    const auto options = Replaced(OptionsOf(row[0]), row[1], row[2]);
    ExpectFatal([&] { Load(row[0], options); }, row[3], "CheckModel", file);
    EXPECT_THAT(Findings(row[0], options), Contains(row[3]));
  }
  ExpectFatal([] { Load("string"); }, "unsupported data type of onnx: 8.",
              "OnnxDataTypeToTarn", file);
  ExpectFatal([] { Load("sequence"); }, "unsupported data type of onnx: 0.",
              "OnnxDataTypeToTarn", file);
}

TEST(OnnxLoadDeathTest, RejectsDevicesThatItDoesNotServe) {
  const ModelOptions options = OptionsOf("accumulator");
  ExpectFatal([&] { Load("accumulator", options, "cuda:1"); },
              "expect macro:ON_DEVICE_CUDA to be turned on.", "LoadModel");
  ExpectFatal([&] { Load("accumulator", options, "htp"); },
              "the model of type OnnxBaseModel can't run on htp.", "LoadModel");
}

TEST(OnnxDataTypeTest, MapsUnsignedTypesToSignedOnes) {
  const ScopedLogLevel silent(kSilent);
  std::string codes;  // The library's by the engine's, from 0.
  for (int type = 0; type < 17; ++type) {
    codes += std::to_string(OnnxModel::OnnxDataTypeToTarn(
        static_cast<ONNXTensorElementDataType>(type)));
  }
  EXPECT_EQ(codes, "01776645003245000");
}

TEST(OnnxLogDeathTest, KeepsTheSeverity) {
  const ScopedLogLevel level(DEBUG);
  const auto log = [](int severity) {
    OnnxModel::OnnxLog(nullptr, static_cast<OrtLoggingLevel>(severity), "cat",
                       "id", "place", "text");
  };
  const auto log_all = [&] {
    for (int severity : {0, 1, 2, 3, 5}) log(severity);
  };
  const std::string line = " OnnxLog: ONNX[cat, place] text";
  EXPECT_EQ(LinesOf(log_all),
            (std::vector<std::string>{"DEBUG" + line, "INFO" + line,
                                      "WARNING" + line, "ERROR" + line}));
  ExpectFatal([&] { log(4); }, "ONNX[cat, place] text", "OnnxLog");
}

}  // namespace
}  // namespace tarn
