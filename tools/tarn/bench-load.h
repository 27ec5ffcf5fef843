#ifndef TOOLS_TARN_BENCH_LOAD_H_
#define TOOLS_TARN_BENCH_LOAD_H_

#include <chrono>
#include <cstddef>
#include <functional>
#include <vector>

#include "interrupt.h"
#include "stream-inputs.h"
#include "tarn.h"

namespace tarn::tool::bench {

// What the streams, each in a thread of its own, ask of a model.
struct Load {
  bool IsRealTime() const { return chunk_ms > 0; }

  int streams = 1;
  double seconds = 1;
  // Closed loop without it: a stream's next request follows the last answer.
  // Otherwise a stream's chunks are due this far apart, from a random phase on,
  // whether or not the last has been computed.
  double chunk_ms = 0;
  double jitter_ms = 0;  // A chunk is due up to this much later, at random.
  unsigned int seed = 1;
  size_t max_requests = 0;  // The streams stop after so many; bounds memory.
};

// What came of it.
struct Answers {
  double seconds = 0;             // From the start to the last answer.
  std::vector<double> latencies;  // In ms; in real time since they were due.
  std::vector<size_t> places;     // In the stream, from 1, of each of them.
  size_t undone = 0;              // Chunks that were due and not computed.
};

// Runs the load on a model after a warm-up; `on_start` is called between them,
// while no inference runs. A real-time load that has fallen behind is given up
// one chunk after its end. Throws a Failure when an inference fails.
Answers Run(const Load& load, Model& model, const Sizes& sizes,
            const Interrupt& interrupt, const std::function<void()>& on_start);

}  // namespace tarn::tool::bench

#endif  // TOOLS_TARN_BENCH_LOAD_H_
