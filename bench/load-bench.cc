// How much longer does it take to load a model than to make a bare session?
//
// Library: NewModel() for one stream of a network of 7.6 million parameters.
// Base: the engine's session of the same file. The file is in memory already.

#include <benchmark/benchmark.h>

#include "bare-model.h"
#include "rounds.h"
#include "stream.h"

namespace tarn {
namespace {

void LoadTime(benchmark::State& state) {
  const Network network(TARN_BENCH_MODELS "/conformer-serial");
  const auto milliseconds_of = [](auto load) {
    return 1e3 * SecondsOf(1, load);
  };
  Rounds rounds;
  for (auto _ : state) {
    rounds.Run(
        [&] {
          return milliseconds_of(
              [&] { benchmark::DoNotOptimize(network.Load()); });
        },
        [&] {
          return milliseconds_of([&] {
            const Ort::Env env(ORT_LOGGING_LEVEL_WARNING, "bare");
            const Ort::Session session(
                env, network.model.c_str(),
                OnnxSessionOptions(network.options.num_execute_threads));
            benchmark::DoNotOptimize(session.GetInputCount());
          });
        });
  }
  rounds.Report(state);
  state.SetLabel("ms, library - bare: lower is better");
}

BENCHMARK(LoadTime)->Iterations(RoundNum(50));

}  // namespace
}  // namespace tarn

BENCHMARK_MAIN();
