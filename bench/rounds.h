#ifndef TARN_BENCH_ROUNDS_H_
#define TARN_BENCH_ROUNDS_H_

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

namespace tarn {

// The seconds that `count` calls of `action` take.
template <typename Action>
double SecondsOf(int count, Action action) {
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < count; ++i) action();
  const auto end = std::chrono::steady_clock::now();
  return std::chrono::duration<double>(end - start).count();
}

// Measures the library and the bare engine in turns: on a machine with other
// work, what slows a round down slows both of its sides. The median of the
// rounds' ratios is the result, their quartiles tell how noisy it is.
class Rounds {
 public:
  // Runs one round; `library` and `bare` each return what one side measured.
  // The sides take turns in going first.
  template <typename Library, typename Bare>
  void Run(Library library, Bare bare) {
    const bool library_first = ratio_.size() % 2 == 0;
    if (library_first) library_.push_back(library());
    bare_.push_back(bare());
    if (!library_first) library_.push_back(library());
    ratio_.push_back(library_.back() / bare_.back());
  }

  // Prints both sides' medians, in `unit`, and the ratio beside them.
  void Report(const std::string& unit, benchmark::State& state) {
    state.counters["library_" + unit] = Quantile(0.5, library_);
    state.counters["bare_" + unit] = Quantile(0.5, bare_);
    state.counters["ratio"] = Quantile(0.5, ratio_);
    state.counters["ratio_q1"] = Quantile(0.25, ratio_);
    state.counters["ratio_q3"] = Quantile(0.75, ratio_);
  }

 private:
  static double Quantile(double part, std::vector<double>& values) {
    std::sort(values.begin(), values.end());
    return values[static_cast<size_t>(part *
                                      static_cast<double>(values.size() - 1))];
  }

  std::vector<double> library_;
  std::vector<double> bare_;
  std::vector<double> ratio_;
};

}  // namespace tarn

#endif  // TARN_BENCH_ROUNDS_H_
