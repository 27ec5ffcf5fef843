#ifndef TOOLS_TARN_BENCH_TUNE_H_
#define TOOLS_TARN_BENCH_TUNE_H_

#include <optional>
#include <vector>

#include "bench-measure.h"
#include "bench-report.h"

namespace tarn::tool::bench {

// The measurement with the most streams within the deadline, if any holds it.
// All measurements made are added to `steps`.
std::optional<Measurement> SearchStreams(const Setup& setup,
                                         MeasuredModel& model, int at_least,
                                         std::vector<Measurement>& steps);

// Searches the batch size, the interval and the engine's threads that let the
// most streams be computed within the deadline, with the least processor time
// among equals: one after the other, each with the best of the others so far.
// Adds the trials and the verdict to the report; returns the description with
// the winner's scheduling, if any candidate holds the deadline.
std::optional<ModelOptions> Tune(const Setup& setup, Report& report);

}  // namespace tarn::tool::bench

#endif  // TOOLS_TARN_BENCH_TUNE_H_
