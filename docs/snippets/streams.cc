#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <tarn/tarn.h>

namespace {

using Chunks = std::vector<std::vector<float>>;

// Runs one stream from its first chunk to its last; empty if a run failed.
std::vector<float> RunStream(tarn::Proxy& stream, const Chunks& chunks) {
  std::vector<float> results;
  stream.Reset();  // The state is zeros again.
  for (const std::vector<float>& chunk : chunks) {
    tarn::Tensor x = stream.CreateInput("x", stream.GetInputShape("x"));
    std::copy(chunk.begin(), chunk.end(), x.Data<float>());
    stream.SetInput("x", x);
    if (!stream.Inference()) return {};  // The log says why.
    const tarn::Tensor& y = stream.GetOutput("y");
    results.insert(results.end(), y.Data<float>(),
                   y.Data<float>() + y.GetElementNum());
  }
  return results;
}

// One thread and one proxy for each stream.
std::vector<std::vector<float>> RunStreams(tarn::Model& model,
                                           const std::vector<Chunks>& streams) {
  std::vector<std::vector<float>> results(streams.size());
  std::vector<std::thread> threads;
  for (size_t i = 0; i < streams.size(); ++i) {
    threads.emplace_back([&, i] {
      const std::unique_ptr<tarn::Proxy> proxy(model.NewProxy());
      results[i] = RunStream(*proxy, streams[i]);
    });
  }
  for (std::thread& thread : threads) thread.join();
  return results;
}

// All streams from one thread: their next chunks go into batches together.
bool RunChunks(const std::vector<tarn::Proxy*>& streams,
               const Chunks& next_chunks) {
  for (size_t i = 0; i < streams.size(); ++i) {
    tarn::Tensor x = streams[i]->CreateInput("x", {3});
    std::copy(next_chunks[i].begin(), next_chunks[i].end(), x.Data<float>());
    streams[i]->SetInput("x", x);
  }
  return tarn::Inference(streams);
}

// Starts a request; the callback runs in the model's thread and must not block.
std::future<float> Start(tarn::Proxy& stream) {
  auto promise = std::make_shared<std::promise<float>>();
  tarn::InferenceAsync(&stream, [promise](tarn::Proxy* proxy, bool succeeded) {
    promise->set_value(succeeded ? *proxy->GetOutput("y").Data<float>() : -1);
  });
  return promise->get_future();
}

// Computes what waits in a thread of the model's own, up to a batch at once.
std::unique_ptr<tarn::Model> MakeBatchingModel(const std::string& config,
                                               const std::string& network) {
  tarn::ModelOptions options(config, /*scrambled=*/false);
  options.multi_threads = true;
  options.infer_thread = true;
  options.infer_interval = 2000;  // Microseconds.
  return std::unique_ptr<tarn::Model>(
      tarn::NewModel(options, "onnx", "cpu", network, "", ""));
}

// Two devices, one queue. A stream may be opened at either model.
std::vector<std::unique_ptr<tarn::Model>> MakeSharedModels(
    tarn::ModelOptions options, const std::string& network) {
  options.multi_threads = true;
  options.infer_thread = true;
  std::vector<std::unique_ptr<tarn::Model>> models;
  for (tarn::Model* model : tarn::NewSharedModels(
           options, "onnx", {"cpu", "cpu"}, network, "", "")) {
    models.emplace_back(model);
  }
  return models;
}

const std::string kPath = std::string(TARN_TEST_MODELS) + "/accumulator";

// The model accumulates: sum-next = x + sum, y = sum-next + sum.
const std::vector<Chunks> kStreams = {{{1, 0, 0}, {2, 0, 0}}, {{0, 5, 0}}};
const std::vector<std::vector<float>> kResults = {{1, 0, 0, 4, 0, 0},
                                                  {0, 5, 0}};

TEST(SnippetsTest, StreamsKeepTheirStateInBatches) {
  const auto model = MakeBatchingModel(kPath + ".conf", kPath + ".onnx");
  EXPECT_EQ(RunStreams(*model, kStreams), kResults);
}

TEST(SnippetsTest, OneThreadRunsManyStreams) {
  const auto model = MakeBatchingModel(kPath + ".conf", kPath + ".onnx");
  const std::unique_ptr<tarn::Proxy> one(model->NewProxy());
  const std::unique_ptr<tarn::Proxy> two(model->NewProxy());
  EXPECT_TRUE(RunChunks({one.get(), two.get()}, {{1, 0, 0}, {2, 0, 0}}));
  EXPECT_EQ(*one->GetOutput("y").Data<float>(), 1);
  EXPECT_EQ(*two->GetOutput("y").Data<float>(), 2);
  tarn::Tensor x = one->CreateInput("x", {3});
  x.Zeros();
  one->SetInput("x", x);
  EXPECT_EQ(Start(*one).get(), 2);
}

TEST(SnippetsTest, StreamsRunOnSharedModels) {
  const tarn::ModelOptions options(kPath + ".conf", /*scrambled=*/false);
  const auto models = MakeSharedModels(options, kPath + ".onnx");
  EXPECT_EQ(RunStreams(*models[1], kStreams), kResults);
}

}  // namespace
