#include "bench-stats.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <limits>

namespace tarn::tool::bench {

namespace {

constexpr double kUnknown = std::numeric_limits<double>::quiet_NaN();
constexpr double kMostLate = 0.01;  // Share of the chunks due.

// The last place of each age but the last.
constexpr std::array<size_t, 5> kAges = {1, 2, 10, 100, 1000};

double Milliseconds(EventLog::Clock::duration duration) {
  return std::chrono::duration<double, std::milli>(duration).count();
}

}  // namespace

Distribution::Distribution(std::vector<double> samples)
    : count_(samples.size()) {
  if (samples.empty()) return;
  std::sort(samples.begin(), samples.end());
  for (size_t percent = 1; percent <= 100; ++percent) {
    const size_t rank = (percent * count_ + 99) / 100;  // Rounded up, from 1.
    percentiles_.push_back(samples[rank - 1]);
  }
}

double Distribution::Percentile(int percent) const {
  if (percentiles_.empty()) return kUnknown;
  return percentiles_.at(static_cast<size_t>(percent - 1));
}

double Measurement::RequestsPerSecond() const {
  return static_cast<double>(requests) / seconds;
}

double Measurement::CpuMsPerRequest() const {
  return 1000 * cpu_seconds / static_cast<double>(requests);
}

double Measurement::CpuPerAudio() const {
  return chunk_ms > 0 ? CpuMsPerRequest() / chunk_ms : kUnknown;
}

double Measurement::MeanBatchSize() const {
  size_t batches = 0;
  for (const auto& [size, count] : batch_sizes) batches += count;
  if (batches == 0) return kUnknown;
  return static_cast<double>(requests) / static_cast<double>(batches);
}

bool Measurement::PaceKept() const {
  const auto due = static_cast<double>(requests + undone);
  return static_cast<double>(late + undone) <= kMostLate * due;
}

Distribution Measurement::KnownLatency() const {
  return PaceKept() ? latency : Distribution();
}

bool Measurement::Holds(double deadline_ms) const {
  return PaceKept() && latency.Percentile(99) <= deadline_ms;
}

std::vector<Age> SplitByAge(const std::vector<double>& latencies,
                            const std::vector<size_t>& places) {
  std::vector<std::vector<double>> samples(kAges.size() + 1);
  for (size_t i = 0; i < places.size(); ++i) {
    const auto age = std::lower_bound(kAges.begin(), kAges.end(), places[i]);
    samples[static_cast<size_t>(age - kAges.begin())].push_back(latencies[i]);
  }
  std::vector<Age> ages;
  for (size_t i = 0; i < samples.size() && !samples[i].empty(); ++i) {
    const size_t first = i == 0 ? 1 : kAges[i - 1] + 1;
    const size_t longest = *std::max_element(places.begin(), places.end());
    const size_t last =
        i < kAges.size() ? std::min(kAges[i], longest) : longest;
    ages.push_back({first, last, Distribution(std::move(samples[i]))});
  }
  return ages;
}

void AddEvents(const EventLog& log, Measurement& measurement) {
  std::vector<double> queue;
  std::vector<double> copy;
  std::vector<double> compute;
  for (const EventLog::Request& request : log.requests()) {
    const EventLog::Batch& batch = log.batches()[request.batch];
    queue.push_back(Milliseconds(batch.taken - request.queued));
    copy.push_back(Milliseconds(batch.gathered - batch.taken) +
                   Milliseconds(batch.scattered - batch.computed));
    compute.push_back(Milliseconds(batch.computed - batch.gathered));
  }
  measurement.queue = Distribution(std::move(queue));
  measurement.copy = Distribution(std::move(copy));
  measurement.compute = Distribution(std::move(compute));
  for (const EventLog::Batch& batch : log.batches()) {
    ++measurement.batch_sizes[batch.requests.size()];
  }
}

}  // namespace tarn::tool::bench
