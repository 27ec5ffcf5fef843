// How much of the engine's throughput do many streams get, whose requests the
// library batches?
//
// Library: streams in a steady state. Base: bare runs, one after the other,
// with the inputs already in place, at a batch of as many rows as there are
// streams and 64 at most. Both let the engine use as many threads as the
// configuration says.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "bare-model.h"
#include "rounds.h"
#include "stream.h"
#include "tarn/utils/semaphore.h"

namespace tarn {
namespace {

constexpr int kMaxBatch = 64;

// How much a round does.
struct Amount {
  Amount(benchmark::State& state, int full_batches)
      : streams(static_cast<int>(state.range(0))),
        batch(std::min(streams, kMaxBatch)),
        requests(RoundNum(full_batches) * batch) {}

  int streams;
  int batch;
  // That are timed, and as many before them: until the scheduler has spread
  // the threads over the cores.
  int requests;
};

// Tells when the streams have warmed up, and when they have made enough
// requests. All are busy at both moments. Safe from any thread.
class Progress {
 public:
  explicit Progress(int requests) : requests_(requests) {}

  // Counts a finished request; returns whether its stream shall make another.
  bool Finish() {
    const int finished = ++finished_;
    if (finished == requests_) start_ = Clock::now();
    if (finished == 2 * requests_) end_ = Clock::now();
    return finished < 2 * requests_;
  }

  // To be asked after the streams have stopped.
  double RequestsPerSecond() const {
    return requests_ / std::chrono::duration<double>(end_ - start_).count();
  }

 private:
  using Clock = std::chrono::steady_clock;

  const int requests_;
  std::atomic<int> finished_{0};
  Clock::time_point start_;  // Each written by one thread.
  Clock::time_point end_;
};

// Each side loads its model for every round: the engine's threads spin for a
// while after a run, and the inference thread of an idle model wakes up at
// every interval, both at the other side's cost.

double MeasureBare(const Network& network, const Amount& amount) {
  BareModel model(network.model, network.options.num_execute_threads,
                  amount.batch);
  const auto run = [&model] { model.Run(); };
  const int runs = amount.requests / amount.batch;
  SecondsOf(runs, run);
  return amount.requests / SecondsOf(runs, run);
}

// Every stream has a thread of its own.
double MeasureThreads(const Network& network, const Amount& amount) {
  const auto model = network.Load();
  Progress progress(amount.requests);
  std::vector<std::thread> callers;
  for (int i = 0; i < amount.streams; ++i) {
    callers.emplace_back([&model, &progress] {
      Stream stream(*model);
      do {
        benchmark::DoNotOptimize(stream.Request());
      } while (progress.Finish());
    });
  }
  for (std::thread& caller : callers) caller.join();
  return progress.RequestsPerSecond();
}

// One thread runs the requests of all streams together.
double MeasureTogether(const Network& network, const Amount& amount) {
  const auto model = network.Load();
  std::vector<Stream> streams = MakeStreams(*model, amount.streams);
  const std::vector<Proxy*> proxies = ProxiesOf(streams);
  const auto request = [&] {
    benchmark::DoNotOptimize(RequestAll(streams, proxies));
  };
  const int steps = std::max(1, amount.requests / amount.streams);
  SecondsOf(steps, request);
  return 1.0 * steps * amount.streams / SecondsOf(steps, request);
}

// A stream that makes its next request as soon as the last one is done.
class EagerStream {
 public:
  EagerStream(Model& model, Progress& progress, Semaphore& stopped)
      : stream_(model), progress_(progress), stopped_(stopped) {}

  void Submit() {
    stream_.Fill();
    InferenceAsync(stream_.proxy(), [this](Proxy*, bool has_outputs) {
      if (!has_outputs) std::abort();  // The log says why.
      benchmark::DoNotOptimize(stream_.Read());
      if (progress_.Finish()) {
        Submit();
      } else {
        stopped_.Signal();
      }
    });
  }

 private:
  Stream stream_;
  Progress& progress_;
  Semaphore& stopped_;
};

// One thread starts the streams, the inference thread does the rest.
double MeasureAsync(const Network& network, const Amount& amount) {
  const auto model = network.Load();
  Progress progress(amount.requests);
  Semaphore stopped;
  std::vector<std::unique_ptr<EagerStream>> streams;
  for (int i = 0; i < amount.streams; ++i) {
    streams.push_back(std::make_unique<EagerStream>(*model, progress, stopped));
  }
  for (const auto& stream : streams) stream->Submit();
  for (int i = 0; i < amount.streams; ++i) stopped.Wait();
  return progress.RequestsPerSecond();
}

template <typename Measure>
void Compare(benchmark::State& state, const Network& network, int batches,
             Measure measure) {
  const Amount amount(state, batches);
  Rounds rounds;
  for (auto _ : state) {
    rounds.Run([&] { return measure(network, amount); },
               [&] { return MeasureBare(network, amount); });
  }
  rounds.Report(state);
  state.SetLabel("requests/s, library / bare: higher is better");
}

void Threads(benchmark::State& state, const std::string& name, int batches) {
  Network network(TARN_BENCH_MODELS "/" + name);
  // While one half is computed, the other half comes back.
  const int64_t half = std::max(state.range(0) / 2, int64_t{1});
  network.options.dynamic_dims = "batch:1-" + std::to_string(half);
  Compare(state, network, batches, MeasureThreads);
}

void Together(benchmark::State& state, const std::string& name, int batches) {
  Network network(TARN_BENCH_MODELS "/" + name);
  network.options.infer_thread = false;  // No other thread brings requests.
  Compare(state, network, batches, MeasureTogether);
}

void Async(benchmark::State& state, const std::string& name, int batches) {
  Compare(state, Network(TARN_BENCH_MODELS "/" + name), batches, MeasureAsync);
}

BENCHMARK_CAPTURE(Threads, gru_2x256, "gru-2x256", 32)
    ->RangeMultiplier(4)
    ->Range(1, 64)
    ->Iterations(RoundNum(16));
BENCHMARK_CAPTURE(Threads, gru_1x64, "gru-1x64", 256)
    ->RangeMultiplier(4)
    ->Range(1, 64)
    ->Iterations(RoundNum(16));
BENCHMARK_CAPTURE(Threads, conformer, "conformer", 6)
    ->Arg(64)
    ->Iterations(RoundNum(10));

BENCHMARK_CAPTURE(Together, gru_2x256, "gru-2x256", 32)
    ->RangeMultiplier(4)
    ->Range(1, 1024)
    ->Iterations(RoundNum(16));
BENCHMARK_CAPTURE(Together, gru_1x64, "gru-1x64", 256)
    ->RangeMultiplier(4)
    ->Range(1, 1024)
    ->Iterations(RoundNum(16));
BENCHMARK_CAPTURE(Together, add, "add", 1024)
    ->RangeMultiplier(4)
    ->Range(64, 1024)
    ->Iterations(RoundNum(50));
BENCHMARK_CAPTURE(Together, conformer, "conformer", 6)
    ->Arg(64)
    ->Iterations(RoundNum(10));

BENCHMARK_CAPTURE(Async, gru_2x256, "gru-2x256", 32)
    ->RangeMultiplier(4)
    ->Range(64, 1024)
    ->Iterations(RoundNum(16));
BENCHMARK_CAPTURE(Async, gru_1x64, "gru-1x64", 256)
    ->RangeMultiplier(4)
    ->Range(64, 1024)
    ->Iterations(RoundNum(16));
BENCHMARK_CAPTURE(Async, add, "add", 1024)
    ->RangeMultiplier(4)
    ->Range(64, 1024)
    ->Iterations(RoundNum(50));

}  // namespace
}  // namespace tarn

BENCHMARK_MAIN();
