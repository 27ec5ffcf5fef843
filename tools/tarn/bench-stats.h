#ifndef TOOLS_TARN_BENCH_STATS_H_
#define TOOLS_TARN_BENCH_STATS_H_

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "event-log.h"

namespace tarn::tool::bench {

// How many samples spread, in milliseconds.
class Distribution {
 public:
  // Of none: every percentile is NaN, which stands for unknown.
  Distribution() = default;
  explicit Distribution(std::vector<double> samples);

  size_t count() const { return count_; }

  // By nearest rank: the smallest sample that at least `percent` percent, 1 to
  // 100, of all samples do not exceed. 100 gives the largest.
  double Percentile(int percent) const;

 private:
  size_t count_ = 0;
  std::vector<double> percentiles_;  // From 1 to 100.
};

// Latency of the requests that have a similar place in their streams.
struct Age {
  size_t first;  // Place of a stream's request, from 1; both ends included.
  size_t last;
  Distribution latency;
};

// What one load on the library, or on the bare engine, came to.
struct Measurement {
  enum Kind { BARE, CLOSED_LOOP, REAL_TIME };

  double RequestsPerSecond() const;
  double CpuMsPerRequest() const;
  double CpuPerAudio()
      const;  // Seconds per second; NaN without a chunk length.
  double MeanBatchSize() const;

  // Whether a real-time load was computed as it came: of all chunks due, at
  // most 1 % took longer than a chunk lasts or was never computed.
  bool PaceKept() const;
  // Latencies of a load that falls behind grow with the length of the run and
  // mean nothing: they are unknown.
  Distribution KnownLatency() const;
  bool Holds(double deadline_ms) const;

  Kind kind = CLOSED_LOOP;
  int streams = 0;       // 0 for the bare engine.
  int batch_size = 1;    // The most rows of a run.
  double chunk_ms = 0;   // Audio in a request; 0: unknown.
  double seconds = 0;    // From the start to the last answer.
  size_t requests = 0;   // That were computed; rows for the bare engine.
  size_t late = 0;       // Of them, longer than a chunk after they were due.
  size_t undone = 0;     // Further chunks that were due.
  Distribution latency;  // Of requests; of runs for the bare engine.
  Distribution queue;    // Until the request was taken to be computed.
  Distribution copy;     // Into the batch and out of it.
  Distribution compute;  // The engine's run.
  std::vector<Age> ages;
  std::map<size_t, size_t> batch_sizes;  // Number of batches by size.
  double cpu_seconds = 0;                // Of the whole process.
  double peak_mb = 0;
};

// Samples of the requests by their place in the stream, sorted into ages.
std::vector<Age> SplitByAge(const std::vector<double>& latencies,
                            const std::vector<size_t>& places);

// Adds what the log knows: the parts of the latency and the batch sizes.
void AddEvents(const EventLog& log, Measurement& measurement);

}  // namespace tarn::tool::bench

#endif  // TOOLS_TARN_BENCH_STATS_H_
