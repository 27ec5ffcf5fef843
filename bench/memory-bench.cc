// What does the library need of the heap: how many allocations for a request,
// how much memory for an idle stream and while a model is loaded?

#include <malloc.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "bare-model.h"
#include "heap-count.h"
#include "rounds.h"
#include "stream.h"
#include "tarn/base/base-proxy.h"

namespace tarn {
namespace {

constexpr int kWarmUpRequests = 3;
constexpr int kRequests = 20;

// Prints the allocations of one request: library, base and difference are all
// of them, tensor_difference those not by operator new.
void Report(const Allocations& library, const Allocations& bare,
            benchmark::State& state) {
  Rounds rounds;
  rounds.Run([&] { return library.objects + library.blocks; },
             [&] { return bare.objects + bare.blocks; });
  rounds.Report(state);
  state.counters["tensor_difference"] = library.blocks - bare.blocks;
  state.SetLabel("allocations per request, library - bare");
}

template <typename Action>
Allocations SteadyAllocationsOf(Action action) {
  AllocationsOf(kWarmUpRequests, action);
  return AllocationsOf(kRequests, action);
}

void SerialAllocations(benchmark::State& state, const std::string& name) {
  const Network network(TARN_BENCH_MODELS "/" + name + "-serial");
  const auto model = network.Load();
  Stream stream(*model);
  BareModel bare(network.model, network.options.num_execute_threads, 1);
  for (auto _ : state) {
    Report(SteadyAllocationsOf(
               [&] { benchmark::DoNotOptimize(stream.Request()); }),
           SteadyAllocationsOf([&] { bare.Run(); }), state);
  }
}

// 64 streams together, in batches of 64.
void BatchedAllocations(benchmark::State& state, const std::string& name) {
  constexpr int kStreams = 64;
  const Network network(TARN_BENCH_MODELS "/" + name);
  const auto model = network.Load();
  std::vector<Stream> streams = MakeStreams(*model, kStreams);
  const std::vector<Proxy*> proxies = ProxiesOf(streams);
  BareModel bare(network.model, network.options.num_execute_threads, kStreams);
  const auto per_request = [](const Allocations& batch) {
    return Allocations{batch.objects / kStreams, batch.blocks / kStreams};
  };
  for (auto _ : state) {
    Report(per_request(SteadyAllocationsOf([&] {
             benchmark::DoNotOptimize(RequestAll(streams, proxies));
           })),
           per_request(SteadyAllocationsOf([&] { bare.Run(); })), state);
  }
}

BENCHMARK_CAPTURE(SerialAllocations, add, "add")->Iterations(1);
BENCHMARK_CAPTURE(SerialAllocations, gru_2x256, "gru-2x256")->Iterations(1);
BENCHMARK_CAPTURE(BatchedAllocations, add, "add")->Iterations(1);
BENCHMARK_CAPTURE(BatchedAllocations, gru_2x256, "gru-2x256")->Iterations(1);

// Once the heap has given back what the engine no longer uses.
double ResidentBytes() {
  malloc_trim(0);
  long total = 0;
  long resident = 0;
  std::ifstream("/proc/self/statm") >> total >> resident;
  return 1.0 * static_cast<double>(resident) *
         static_cast<double>(sysconf(_SC_PAGESIZE));
}

double BytesOf(const std::vector<int>& shape) {
  double bytes = sizeof(float);
  for (int size : shape) bytes *= size;
  return bytes;
}

// The tensors of a stream that has run. A cache has two blocks: one holds the
// state, the other gets the next.
double TensorBytesOf(const Stream& stream) {
  const auto* proxy = dynamic_cast<const BaseProxy*>(stream.proxy());
  double bytes = 0;
  for (unsigned int i = 0; i < proxy->GetInputNum(); ++i) {
    bytes += BytesOf(proxy->GetInputShape(i));
  }
  for (unsigned int i = 0; i < proxy->GetOutputNum(); ++i) {
    bytes += BytesOf(proxy->GetOutputShape(i));
  }
  for (unsigned int i = 0; i < proxy->GetCacheNum(); ++i) {
    bytes += 2 * BytesOf(proxy->GetCacheShape(i));
  }
  return bytes;
}

// Library: resident memory for each of many streams that have run and wait for
// their next chunk. Base: their tensors.
void IdleStream(benchmark::State& state, const std::string& name) {
  constexpr int kStreams = 4096;
  const Network network(TARN_BENCH_MODELS "/" + name);
  const auto model = network.Load();
  const auto run_twice = [&model](int count) {
    std::vector<Stream> streams = MakeStreams(*model, count);
    const std::vector<Proxy*> proxies = ProxiesOf(streams);
    RequestAll(streams, proxies);
    RequestAll(streams, proxies);
    return streams;
  };
  const std::vector<Stream> first = run_twice(64);  // The engine is warm now.
  Rounds rounds;
  double heap_bytes = 0;
  for (auto _ : state) {
    rounds.Run(
        [&] {
          const double before = ResidentBytes();
          const long heap_before = heap_count.bytes;
          const std::vector<Stream> streams = run_twice(kStreams);
          heap_bytes =
              static_cast<double>(heap_count.bytes - heap_before) / kStreams;
          return (ResidentBytes() - before) / kStreams;
        },
        [&] { return TensorBytesOf(first.front()); });
  }
  rounds.Report(state);
  state.counters["heap"] = heap_bytes;
  state.SetLabel("bytes per stream, resident - tensors");
}

BENCHMARK_CAPTURE(IdleStream, add_serial, "add-serial")
    ->Iterations(RoundNum(5));
BENCHMARK_CAPTURE(IdleStream, gru_2x256_serial, "gru-2x256-serial")
    ->Iterations(RoundNum(5));
BENCHMARK_CAPTURE(IdleStream, gru_2x256, "gru-2x256")->Iterations(RoundNum(5));

// Library: the peak of the heap while a model of 7.6 million parameters is
// loaded, in copies of its file. Base: while the engine makes a session.
void LoadPeak(benchmark::State& state) {
  const Network network(TARN_BENCH_MODELS "/conformer-serial");
  std::ifstream file(network.model, std::ios::binary | std::ios::ate);
  const auto file_bytes = static_cast<double>(file.tellg());
  Rounds rounds;
  for (auto _ : state) {
    rounds.Run(
        [&] {
          return static_cast<double>(PeakBytesOf([&] { network.Load(); })) /
                 file_bytes;
        },
        [&] {
          return static_cast<double>(PeakBytesOf([&] {
                   const Ort::Env env(ORT_LOGGING_LEVEL_WARNING, "bare");
                   const Ort::Session session(
                       env, network.model.c_str(),
                       OnnxSessionOptions(network.options.num_execute_threads));
                 })) /
                 file_bytes;
        });
  }
  rounds.Report(state);
  state.SetLabel("copies of the file, library - bare");
}

BENCHMARK(LoadPeak)->Iterations(RoundNum(5));

}  // namespace
}  // namespace tarn

BENCHMARK_MAIN();
