#ifndef TOOLS_TARN_BENCH_MEASURE_H_
#define TOOLS_TARN_BENCH_MEASURE_H_

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bench-load.h"
#include "bench-stats.h"
#include "event-log.h"
#include "interrupt.h"
#include "load-model.h"

namespace tarn::tool::bench {

// What the tool was asked for. 0 and empty texts: not.
struct BenchOptions {
  ModelArguments model;
  std::vector<std::string> dims;
  double seconds = 2;
  int threads = 0;
  int streams = 0;
  double chunk_ms = 0;
  double jitter_ms = 0;
  double deadline_ms = 0;
  int max_streams = 1024;
  unsigned int seed = 1;
  bool tune = false;
  int max_batch = 0;
  std::string output;
  bool json = false;
  std::string csv;
  std::string html;
  std::string trace;
};

// "64 streams".
std::string StreamNum(int num);

// What all measurements of one run of the tool have in common.
struct Setup {
  BenchOptions asked;
  CheckedModel model;
  Sizes sizes;
  std::vector<std::string> warnings;  // About what had to be changed.
  const Interrupt& interrupt;
};

// Reads and checks model and arguments, and changes the description's
// scheduling where many callers would otherwise hang or collide. Throws a
// Failure.
Setup MakeSetup(const BenchOptions& asked, const Interrupt& interrupt);

// Smallest and largest number of rows in a run; both 1 without batch dimension.
std::pair<int, int> BatchRange(const ModelInfo& info);

// A loaded model whose every request is watched.
class MeasuredModel {
 public:
  // `options` may differ from those of the setup, in their scheduling.
  MeasuredModel(const Setup& setup, const ModelOptions& options);

  // One load with so many streams: real time with `chunk_ms`, else a closed
  // loop.
  Measurement Measure(int streams, double chunk_ms);

  // Of the last load.
  const EventLog& log() const { return log_; }

 private:
  const Setup& setup_;
  ModelInfo info_;
  EventLog log_;
  std::unique_ptr<Model> model_;
};

// The engine alone, run after run with inputs and outputs in place, at the
// smallest and the largest batch. Empty, with a warning, when the engine is not
// ONNX Runtime or cannot run the network so.
std::vector<Measurement> MeasureBare(Setup& setup);

// Looks for the largest number up to `limit` that holds: doubles from
// `at_least` on, then bisects until it is known to a sixteenth.
void SearchMost(int at_least, int limit, const std::function<bool(int)>& holds);

}  // namespace tarn::tool::bench

#endif  // TOOLS_TARN_BENCH_MEASURE_H_
