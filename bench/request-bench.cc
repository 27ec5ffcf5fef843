// What does a request cost through the library, over running the engine bare?
//
// Library: CreateInput, fill, SetInput, Inference and GetOutput of one stream
// in its caller's thread. Bare: a run with the inputs already in place.

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string>

#include <benchmark/benchmark.h>

#include "bare-model.h"
#include "rounds.h"
#include "tarn.h"

namespace tarn {
namespace {

// One request of a stream: fills the only input, reads the only output.
void Request(Proxy* stream, const std::string& input,
             const std::string& output) {
  Tensor tensor = stream->CreateInput(input, stream->GetInputShape(0));
  std::fill_n(tensor.Data<float>(), tensor.GetElementNum(), 0.1f);
  stream->SetInput(input, tensor);
  if (!stream->Inference()) std::abort();  // The log says why.
  benchmark::DoNotOptimize(stream->GetOutput(output).Data<float>()[0]);
}

void SerialRequest(benchmark::State& state, const std::string& name,
                   int requests_per_round) {
  const std::string path = std::string(TARN_BENCH_MODELS "/") + name;
  const ModelOptions options(path + ".conf", /*scrambled=*/false);
  SetLogLevel(ERROR);  // Loading a model is logged as a warning.
  const std::unique_ptr<Model> model(
      NewModel(options, "onnx", "cpu", path + ".onnx", "", ""));
  const std::unique_ptr<Proxy> stream(model->NewProxy());
  const std::string input = stream->GetInputName(0);
  const std::string output = stream->GetOutputName(0);
  BareModel bare(path + ".onnx", options.num_execute_threads, 1);

  const auto microseconds_of = [requests_per_round](auto request) {
    return 1e6 * SecondsOf(requests_per_round, request) / requests_per_round;
  };
  Rounds rounds;
  for (auto _ : state) {
    rounds.Run(
        [&] {
          return microseconds_of([&] { Request(stream.get(), input, output); });
        },
        [&] { return microseconds_of([&] { bare.Run(); }); });
  }
  rounds.Report("us", state);
  state.SetLabel("one request, library / bare: lower is better");
}

BENCHMARK_CAPTURE(SerialRequest, add_160, "add", 500)->Iterations(1000);
BENCHMARK_CAPTURE(SerialRequest, gru_2x256, "gru-serial", 8)->Iterations(1000);

}  // namespace
}  // namespace tarn

BENCHMARK_MAIN();
