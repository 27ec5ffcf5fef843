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
#include "support/log.h"
#include "support/table.h"

namespace tarn {
namespace {

using Proxies = std::vector<std::unique_ptr<BaseProxy>>;
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
      std::generate_n(x.Data<unsigned char>(), size, [&] { return ++next_byte; });
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

// Doubles requests of the given lengths, as one batch if there is a batch
// dimension.
void ExpectDoubled(OnnxModel& model, const std::vector<int>& lengths) {
  const Proxies proxies = NewProxies(model, lengths.size());
  for (size_t i = 0; i < lengths.size(); ++i) {
    proxies[i]->FixDimension("time", lengths[i]);
    const auto size = static_cast<size_t>(3 * lengths[i]);
    const auto value = static_cast<float>(i + 1);
    SetInput(*proxies[i], "feats", std::vector<float>(size, value));
  }
  if (proxies[0]->GetInputShape(0).size() == 1) {
    model.Compute(proxies[0].get());
  } else {
    ComputeBatch(model, proxies);
  }
  for (size_t i = 0; i < lengths.size(); ++i) {
    const auto value = static_cast<float>(2 * (i + 1));
    EXPECT_THAT(Output<float>(*proxies[i], "doubled"), Each(value));
  }
}
