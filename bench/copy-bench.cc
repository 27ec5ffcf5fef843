// What does it cost to gather the rows of a batch and to scatter them?
//
// Library: 64 rows of 40 KiB, each in a block of its own, row by row as the
// ONNX backend does it. Base: one memcpy of as many bytes.

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <benchmark/benchmark.h>

#include "rounds.h"
#include "tarn/tarn.h"

namespace tarn {
namespace {

constexpr int kRows = 64;
constexpr int kRowElements = 10 * 1024;  // Floats.
constexpr int kCopiesPerRound = 20;

Tensor ZeroTensor(const std::vector<int>& shape) {
  Tensor tensor(shape, Tensor::FLOAT32, Tensor::HOST);
  tensor.Zeros();
  return tensor;
}

template <typename CopyRow>
void Compare(benchmark::State& state, CopyRow copy_row) {
  Tensor batch = ZeroTensor({kRows, kRowElements});
  Tensor other = ZeroTensor({kRows, kRowElements});
  std::vector<Tensor> rows;
  for (int i = 0; i < kRows; ++i) rows.push_back(ZeroTensor({kRowElements}));
  const size_t bytes = size_t{batch.GetElementNum()} * batch.GetElementSize();

  const auto microseconds_of = [](auto copy) {
    return 1e6 * SecondsOf(kCopiesPerRound, copy) / kCopiesPerRound;
  };
  const auto copy_rows = [&] {
    for (int i = 0; i < kRows; ++i) {
      if (!copy_row(batch, i, rows[static_cast<size_t>(i)])) std::abort();
    }
    benchmark::ClobberMemory();
  };
  const auto copy_block = [&] {
    std::memcpy(batch.Data(), other.Data(), bytes);
    benchmark::ClobberMemory();
  };
  Rounds rounds;
  for (auto _ : state) {
    rounds.Run([&] { return microseconds_of(copy_rows); },
               [&] { return microseconds_of(copy_block); });
  }
  rounds.Report(state);
  state.SetLabel("us, rows / one block: lower is better");
}

void Gather(benchmark::State& state) {
  Compare(state, [](Tensor& batch, int index, const Tensor& row) {
    return batch.SetRow(index, row);
  });
}

void Scatter(benchmark::State& state) {
  Compare(state, [](const Tensor& batch, int index, Tensor& row) {
    return batch.GetRow(index, row);
  });
}

BENCHMARK(Gather)->Iterations(RoundNum(500));
BENCHMARK(Scatter)->Iterations(RoundNum(500));

}  // namespace
}  // namespace tarn

BENCHMARK_MAIN();
