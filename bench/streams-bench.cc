// How much of the engine's throughput do 64 caller threads get, whose requests
// the inference thread batches?
//
// Library: 64 threads with a stream each, in a steady state. Bare: runs at
// batch 64, one after the other, with the inputs already in place. Both let the
// engine use as many threads as the configuration says.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "bare-model.h"
#include "rounds.h"
#include "tarn.h"

namespace tarn {
namespace {

constexpr int kStreams = 64;
constexpr int kRequests = 32 * kStreams;
// Requests of a round before those that are timed: until the scheduler has
// spread the threads over the cores.
constexpr int kWarmUpRequests = 64 * kStreams;

// One request of a stream, as a caller makes it.
void Request(Proxy* stream) {
  Tensor feats = stream->CreateInput("feats", stream->GetInputShape("feats"));
  std::fill_n(feats.Data<float>(), feats.GetElementNum(), 0.1f);
  stream->SetInput("feats", feats);
  if (!stream->Inference()) std::abort();  // The log says why.
  benchmark::DoNotOptimize(stream->GetOutput("encoded").Data<float>()[0]);
}

// Tells when the callers have warmed up, and when they have made enough
// requests. All are busy at both moments. Safe from any thread.
class Progress {
 public:
  // Counts a finished request; returns whether the caller shall make another.
  bool Finish() {
    const int finished = ++finished_;
    if (finished == kWarmUpRequests) start_ = Clock::now();
    if (finished == kWarmUpRequests + kRequests) end_ = Clock::now();
    return finished < kWarmUpRequests + kRequests;
  }

  // To be asked after the callers have left.
  double RequestsPerSecond() const {
    return kRequests / std::chrono::duration<double>(end_ - start_).count();
  }

 private:
  using Clock = std::chrono::steady_clock;

  std::atomic<int> finished_{0};
  Clock::time_point start_;  // Each written by one caller.
  Clock::time_point end_;
};

// Each side loads its model for every round: the engine's threads spin for a
// while after a run, and the inference thread of an idle model wakes up at
// every interval, both at the other side's cost.

double MeasureLibrary(const std::string& path, const ModelOptions& options) {
  const std::unique_ptr<Model> model(
      NewModel(options, "onnx", "cpu", path, "", ""));
  Progress progress;
  std::vector<std::thread> callers;
  for (int i = 0; i < kStreams; ++i) {
    callers.emplace_back([&model, &progress] {
      const std::unique_ptr<Proxy> stream(model->NewProxy());
      do {
        Request(stream.get());
      } while (progress.Finish());
    });
  }
  for (std::thread& caller : callers) caller.join();
  return progress.RequestsPerSecond();
}

double MeasureBare(const std::string& path, const ModelOptions& options) {
  BareModel model(path, options.num_execute_threads, kStreams);
  const auto run = [&model] { model.Run(); };
  SecondsOf(kWarmUpRequests / kStreams, run);
  return kRequests / SecondsOf(kRequests / kStreams, run);
}

void ManyStreams(benchmark::State& state, const std::string& name) {
  const std::string path = std::string(TARN_BENCH_MODELS "/") + name;
  const ModelOptions options(path + ".conf", /*scrambled=*/false);
  SetLogLevel(ERROR);  // Loading a model is logged as a warning.
  Rounds rounds;
  for (auto _ : state) {
    rounds.Run([&] { return MeasureLibrary(path + ".onnx", options); },
               [&] { return MeasureBare(path + ".onnx", options); });
  }
  rounds.Report("requests_per_s", state);
  state.SetLabel("throughput, 64 streams / bare batch 64: higher is better");
}

BENCHMARK_CAPTURE(ManyStreams, gru_2x256, "gru")->Iterations(16);

}  // namespace
}  // namespace tarn

BENCHMARK_MAIN();
