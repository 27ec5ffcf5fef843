#ifndef TARN_BENCH_ROUNDS_H_
#define TARN_BENCH_ROUNDS_H_

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

namespace tarn {

// How many rounds a benchmark takes: `full`, or few where the environment asks
// for a quick run, which shows no more than that all works.
inline int RoundNum(int full) {
  return std::getenv("TARN_BENCH_QUICK") == nullptr ? full : 2;
}

// Whether to run the library's side alone, for a profile of it.
inline bool IsProfile() { return std::getenv("TARN_BENCH_PROFILE") != nullptr; }

// The seconds that `count` calls of `action` take.
template <typename Action>
double SecondsOf(int count, Action action) {
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < count; ++i) action();
  const auto end = std::chrono::steady_clock::now();
  return std::chrono::duration<double>(end - start).count();
}

// The value below which `part` of the values lie.
inline double Quantile(double part, std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[static_cast<size_t>(part *
                                    static_cast<double>(values.size() - 1))];
}

// Measures the library and its base, what it is compared with, in turns: on a
// machine with other work, what slows a round down slows both of its sides. The
// medians of the rounds' ratios and differences are the result, their quartiles
// tell how noisy it is.
class Rounds {
 public:
  // Runs one round; `library` and `base` each return what one side measured.
  // The sides take turns in going first.
  template <typename Library, typename Base>
  void Run(Library library, Base base) {
    const bool library_first = IsProfile() || ratio_.size() % 2 == 0;
    if (library_first) library_.push_back(library());
    base_.push_back(IsProfile() ? library_.back() : base());
    if (!library_first) library_.push_back(library());
    ratio_.push_back(library_.back() / base_.back());
    difference_.push_back(library_.back() - base_.back());
  }

  // Prints the medians of both sides, and what the one is to the other.
  void Report(benchmark::State& state) const {
    ReportQuartiles("library", library_, state);
    ReportQuartiles("base", base_, state);
    ReportQuartiles("ratio", ratio_, state);
    ReportQuartiles("difference", difference_, state);
  }

 private:
  static void ReportQuartiles(const std::string& name,
                              const std::vector<double>& values,
                              benchmark::State& state) {
    state.counters[name] = Quantile(0.5, values);
    state.counters[name + "_q1"] = Quantile(0.25, values);
    state.counters[name + "_q3"] = Quantile(0.75, values);
  }

  std::vector<double> library_;
  std::vector<double> base_;
  std::vector<double> ratio_;
  std::vector<double> difference_;
};

}  // namespace tarn

#endif  // TARN_BENCH_ROUNDS_H_
