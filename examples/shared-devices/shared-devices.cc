// Several devices behind one queue: each request is computed by whichever
// device is free first. Two times the CPU stands for two accelerators here.

#include <atomic>
#include <cstdio>
#include <exception>
#include <memory>
#include <thread>
#include <vector>

#include "tarn/tarn.h"

namespace {

constexpr int kStreams = 8;
constexpr int kChunks = 5;

// Counts the requests that one device computes.
class Counter : public tarn::InferenceObserver {
 public:
  void OnEvent(Event event,
               const std::vector<tarn::BaseProxy*>& proxies) override {
    if (event == TAKEN) requests += static_cast<int>(proxies.size());
  }
  std::atomic<int> requests{0};
};

void RunStream(tarn::Model& model) {
  const std::unique_ptr<tarn::Proxy> stream(model.NewProxy());
  const std::string input = stream->GetInputName(0);
  for (int i = 0; i < kChunks; ++i) {
    tarn::Tensor chunk =
        stream->CreateInput(input, stream->GetInputShape(input));
    chunk.Zeros();
    stream->SetInput(input, chunk);
    stream->Inference();
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s CONFIG MODEL\n", argv[0]);
    return 2;
  }
  std::setvbuf(stdout, nullptr, _IOLBF, 0);  // A fatal line must not get lost.
  tarn::SetLogLevel(tarn::ERROR);
  tarn::ModelOptions options(argv[1], /*scrambled=*/false);
  options.multi_threads = true;
  options.infer_thread = true;
  options.infer_interval = 1000;
  try {
    std::vector<std::unique_ptr<tarn::Model>> models;
    for (tarn::Model* model : tarn::NewSharedModels(
             options, "onnx", {"cpu", "cpu"}, argv[2], "", "")) {
      models.emplace_back(model);
    }
    std::vector<Counter> counters(models.size());
    for (size_t i = 0; i < models.size(); ++i) {
      tarn::SetObserver(models[i].get(), &counters[i]);
    }
    std::vector<std::thread> threads;
    for (int i = 0; i < kStreams; ++i) {  // Any of the models will do.
      threads.emplace_back([&models] { RunStream(*models[0]); });
    }
    for (std::thread& thread : threads) thread.join();
    std::printf("%d requests: %d by one device, %d by the other\n",
                counters[0].requests + counters[1].requests,
                counters[0].requests.load(), counters[1].requests.load());
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
    return 1;
  }
  return 0;
}
