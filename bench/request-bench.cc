// What does a request cost through the library, over running the engine bare?
// Does it cost more where there are many streams?

#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "bare-model.h"
#include "rounds.h"
#include "stream.h"

namespace tarn {
namespace {

// Library: one stream in its caller's thread. Base: bare runs with the inputs
// already in place.
void SerialRequest(benchmark::State& state, const std::string& name,
                   int requests_per_round) {
  const Network network(TARN_BENCH_MODELS "/" + name + "-serial");
  const auto model = network.Load();
  Stream stream(*model);
  BareModel bare(network.model, network.options.num_execute_threads, 1);

  const auto microseconds_of = [requests_per_round](auto request) {
    return 1e6 * SecondsOf(requests_per_round, request) / requests_per_round;
  };
  Rounds rounds;
  for (auto _ : state) {
    rounds.Run(
        [&] {
          return microseconds_of(
              [&] { benchmark::DoNotOptimize(stream.Request()); });
        },
        [&] { return microseconds_of([&] { bare.Run(); }); });
  }
  rounds.Report(state);
  state.SetLabel("us per request, library / bare: lower is better");
}

BENCHMARK_CAPTURE(SerialRequest, add, "add", 500)->Iterations(RoundNum(1000));
BENCHMARK_CAPTURE(SerialRequest, gru_1x64, "gru-1x64", 50)
    ->Iterations(RoundNum(1000));
BENCHMARK_CAPTURE(SerialRequest, gru_2x256, "gru-2x256", 8)
    ->Iterations(RoundNum(1000));
BENCHMARK_CAPTURE(SerialRequest, conformer, "conformer", 1)
    ->Iterations(RoundNum(200));

// The microseconds of one of kRequests requests, the streams taking turns.
double MeasureTurns(std::vector<Stream>& streams) {
  constexpr size_t kRequests = 4096;
  const double seconds = SecondsOf(1, [&streams] {
    for (size_t i = 0; i < kRequests; ++i) {
      benchmark::DoNotOptimize(streams[i % streams.size()].Request());
    }
  });
  return 1e6 * seconds / kRequests;
}

// Library: some streams that take turns in one thread. Base: a single one.
void StreamNum(benchmark::State& state, const std::string& name) {
  const Network network(TARN_BENCH_MODELS "/" + name + "-serial");
  const auto model = network.Load();
  std::vector<Stream> many =
      MakeStreams(*model, static_cast<int>(state.range(0)));
  std::vector<Stream> one = MakeStreams(*model, 1);
  Rounds rounds;
  MeasureTurns(many);  // Each makes its tensors at its first request.
  for (auto _ : state) {
    rounds.Run([&] { return MeasureTurns(many); },
               [&] { return MeasureTurns(one); });
  }
  rounds.Report(state);
  state.SetLabel("us per request, many streams / one: lower is better");
}

BENCHMARK_CAPTURE(StreamNum, add, "add")
    ->RangeMultiplier(16)
    ->Range(16, 4096)
    ->Iterations(RoundNum(100));
BENCHMARK_CAPTURE(StreamNum, gru_1x64, "gru-1x64")
    ->RangeMultiplier(16)
    ->Range(16, 4096)
    ->Iterations(RoundNum(20));

}  // namespace
}  // namespace tarn

BENCHMARK_MAIN();
