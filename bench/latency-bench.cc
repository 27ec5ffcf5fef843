// How long does a live stream wait for its results?
//
// 64 streams get 100 ms of audio every 100 ms, each at moments of its own, and
// hand it over in a thread of their own; a latency counts from the moment at
// which the chunk was due. Library: the 99th percentile of the latencies. Base:
// the infer-interval and 1.3 times the bare run of a full batch.

#include <algorithm>
#include <chrono>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "bare-model.h"
#include "rounds.h"
#include "stream.h"

namespace tarn {
namespace {

using Clock = std::chrono::steady_clock;
using Microseconds = std::chrono::duration<double, std::micro>;

constexpr int kStreams = 64;
constexpr int kWarmUpChunks = 2;
constexpr auto kPeriod = std::chrono::milliseconds(100);

// The latencies of a stream's chunks, of which the first is due at `due`.
std::vector<double> Live(Stream& stream, Clock::time_point due, int chunks) {
  std::vector<double> latencies;
  for (int i = 0; i < kWarmUpChunks + chunks; ++i, due += kPeriod) {
    std::this_thread::sleep_until(due);
    benchmark::DoNotOptimize(stream.Request());
    const double latency = Microseconds(Clock::now() - due).count();
    if (i >= kWarmUpChunks) latencies.push_back(latency);
  }
  return latencies;
}

std::vector<double> ServeLiveStreams(Model& model, int chunks,
                                     std::mt19937& random) {
  std::vector<Stream> streams = MakeStreams(model, kStreams);
  std::vector<std::vector<double>> latencies(kStreams);
  std::vector<std::thread> threads;
  std::uniform_real_distribution<double> phase(0,
                                               Microseconds(kPeriod).count());
  const Clock::time_point start = Clock::now() + kPeriod;
  for (size_t i = 0; i < kStreams; ++i) {
    const auto due = start + std::chrono::duration_cast<Clock::duration>(
                                 Microseconds(phase(random)));
    threads.emplace_back([&streams, &latencies, i, due, chunks] {
      latencies[i] = Live(streams[i], due, chunks);
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::vector<double> all;
  for (const auto& of_stream : latencies) {
    all.insert(all.end(), of_stream.begin(), of_stream.end());
  }
  return all;
}

double MeasureBareBatch(const Network& network) {
  BareModel bare(network.model, network.options.num_execute_threads, kStreams);
  const auto run = [&bare] { bare.Run(); };
  constexpr int kRuns = 10;
  SecondsOf(kRuns, run);
  return 1e6 * SecondsOf(kRuns, run) / kRuns;
}

// The argument is the infer-interval.
void LiveStreams(benchmark::State& state, const std::string& name) {
  Network network(TARN_BENCH_MODELS "/" + name);
  network.options.infer_interval = static_cast<int32_t>(state.range(0));
  const int chunks = RoundNum(30);
  std::mt19937 random(1);  // The same moments at every run.
  std::vector<double> medians;
  Rounds rounds;
  for (auto _ : state) {
    rounds.Run(
        [&] {
          const auto model = network.Load();
          const auto latencies = ServeLiveStreams(*model, chunks, random);
          medians.push_back(Quantile(0.5, latencies));
          return Quantile(0.99, latencies);
        },
        [&] {
          return network.options.infer_interval +
                 1.3 * MeasureBareBatch(network);
        });
  }
  rounds.Report(state);
  state.counters["median"] = Quantile(0.5, medians);
  state.SetLabel("us, 99th percentile / interval + 1.3 batches");
}

BENCHMARK_CAPTURE(LiveStreams, gru_2x256, "gru-2x256")
    ->Arg(1000)
    ->Arg(2000)
    ->Arg(4000)
    ->Arg(8000)
    ->Arg(16000)
    ->Iterations(RoundNum(10));
BENCHMARK_CAPTURE(LiveStreams, gru_1x64, "gru-1x64")
    ->Arg(2000)
    ->Iterations(RoundNum(10));
BENCHMARK_CAPTURE(LiveStreams, voice_activity, "voice-activity")
    ->Arg(2000)
    ->Iterations(RoundNum(10));

}  // namespace
}  // namespace tarn

BENCHMARK_MAIN();
