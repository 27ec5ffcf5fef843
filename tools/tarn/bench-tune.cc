#include "bench-tune.h"

#include <algorithm>
#include <set>
#include <string>
#include <thread>
#include <tuple>

namespace tarn::tool::bench {

namespace {

bool HasDynamicBatch(const ModelInfo& info) {
  return info.HasBatchDimension() && info.GetDimension(info.batch_dim()) == -1;
}

// The same description with the trial's scheduling.
ModelOptions Reschedule(const Setup& setup, const Trial& trial) {
  ModelOptions options = setup.model.options;
  options.infer_thread = true;
  options.infer_interval = trial.interval_us;
  options.num_execute_threads = trial.engine_threads;
  if (!HasDynamicBatch(*setup.model.info)) return options;
  auto ranges = setup.model.info->GetDimensionRanges();
  ranges[options.batch_dim].second = trial.batch_size;
  options.dynamic_dims.clear();
  for (const auto& [name, range] : ranges) {
    options.dynamic_dims += (options.dynamic_dims.empty() ? "" : ";") + name +
                            ":" + std::to_string(range.first) + "-" +
                            std::to_string(range.second);
  }
  return options;
}

// A network may have a fixed batch size where the description has a range.
bool CanBeLoaded(const Setup& setup, const ModelOptions& options) {
  const ModelArguments& model = setup.asked.model;
  const std::vector<Finding> findings =
      CheckModel(options, model.backend, model.device, model.model, "", "");
  return std::none_of(
      findings.begin(), findings.end(),
      [](const Finding& finding) { return finding.severity == FATAL; });
}

bool IsBetter(const Trial& trial, const Trial& other) {
  if (!trial.best || !other.best) return trial.best.has_value();
  if (trial.most_streams != other.most_streams) {
    return trial.most_streams > other.most_streams;
  }
  return trial.best->CpuPerAudio() < other.best->CpuPerAudio();
}

std::string Describe(const Trial& trial) {
  return "batch size " + std::to_string(trial.batch_size) +
         ", infer-interval " + std::to_string(trial.interval_us) +
         ", num-execute-threads " + std::to_string(trial.engine_threads);
}

std::string Outcome(const Trial& trial) {
  return StreamNum(trial.most_streams) + ", p99 " +
         Figure(trial.best->latency.Percentile(99)) + " ms, " +
         Figure(trial.best->CpuPerAudio()) +
         " s of processor time per second of audio";
}

class Tuner {
 public:
  Tuner(const Setup& setup, Report& report) : setup_(setup), report_(report) {
    std::tie(smallest_, largest_) = BatchRange(*setup.model.info);
    if (HasDynamicBatch(*setup.model.info) && setup.asked.max_batch > 0) {
      largest_ = std::max(smallest_, setup.asked.max_batch);
    }
    best_.batch_size = smallest_;
    best_.interval_us = setup.model.options.infer_interval;
    best_.engine_threads = setup.model.options.num_execute_threads;
  }

  std::optional<ModelOptions> Run() {
    Try(best_);
    TryThreads();
    const Trial unbatched = best_;
    TryBatchSizes();
    if (best_.batch_size > 1) {
      TryIntervals();
      TryThreads();
    }
    if (!best_.best) {
      report_.verdict.emplace_back(
          "no scheduling holds the deadline for even "
          "one stream");
      return std::nullopt;
    }
    ExplainBest();
    ExplainBatching(unbatched);
    return Reschedule(setup_, best_);
  }

 private:
  // Candidates that differ from the best one in one setting.

  void TryThreads() {
    const int cores = static_cast<int>(std::thread::hardware_concurrency());
    for (int threads = 1; threads <= std::max(cores, 1); threads *= 2) {
      Trial trial = best_;
      trial.engine_threads = threads;
      Try(trial);
    }
  }

  void TryBatchSizes() {
    for (int size = smallest_; size < largest_;) {
      size = std::min(2 * size, largest_);
      Trial trial = best_;
      trial.batch_size = size;
      Try(trial);
    }
  }

  void TryIntervals() {
    for (const int interval : {500, 1000, 2000, 5000, 10000, 20000}) {
      if (interval > 1000 * setup_.asked.deadline_ms) return;
      Trial trial = best_;
      trial.interval_us = interval;
      Try(trial);
    }
  }

  void Try(Trial trial) {
    const auto key = std::make_tuple(trial.batch_size, trial.interval_us,
                                     trial.engine_threads);
    if (setup_.interrupt.IsRaised() || !tried_.insert(key).second) return;
    const ModelOptions options = Reschedule(setup_, trial);
    if (!CanBeLoaded(setup_, options)) return;
    MeasuredModel model(setup_, options);
    std::vector<Measurement> steps;
    trial.at_least = std::max(best_.most_streams, 1);
    trial.best = SearchStreams(setup_, model, trial.at_least, steps);
    trial.most_streams = trial.best ? trial.best->streams : 0;
    report_.trials.push_back(trial);
    if (IsBetter(trial, best_)) best_ = trial;
  }

  void ExplainBest() {
    report_.most_streams = best_.most_streams;
    report_.verdict.push_back("best: " + Describe(best_) + ": " +
                              Outcome(best_));
    if (best_.most_streams == setup_.asked.max_streams) {
      report_.verdict.emplace_back(
          "the search ended at --max-streams; among candidates that held so "
          "many, the one with the least processor time won");
    }
  }

  void ExplainBatching(const Trial& unbatched) {
    if (smallest_ == largest_ && setup_.model.info->HasBatchDimension()) {
      report_.verdict.push_back("the description allows no batch size but " +
                                std::to_string(smallest_));
    } else if (smallest_ == largest_) {
      report_.verdict.emplace_back(
          "there is no batch dimension: only the "
          "engine's threads were searched");
    } else if (best_.batch_size > smallest_) {
      report_.verdict.push_back(
          NameOfSmallest() + ": " +
          (unbatched.best ? Outcome(unbatched) : "not one stream"));
    } else {
      ExplainNotBatching();
    }
  }

  std::string NameOfSmallest() const {
    return smallest_ == 1 ? "without batching"
                          : "at the smallest batch size allowed, " +
                                std::to_string(smallest_);
  }

  void ExplainNotBatching() {
    report_.verdict.push_back(
        smallest_ == 1
            ? "not batching is best on this machine: none of the larger batch "
              "sizes holds more streams, or as many with less processor time"
            : NameOfSmallest() + ", is best on this machine");
    for (const Trial& trial : report_.trials) {
      if (trial.batch_size == smallest_) continue;
      report_.verdict.push_back(
          Describe(trial) + ": " +
          (trial.best ? Outcome(trial)
                      : "fewer than " + std::to_string(trial.at_least)));
    }
    if (report_.bare.size() == 2) {
      const Measurement& one = report_.bare.front();
      const Measurement& many = report_.bare.back();
      report_.verdict.push_back(
          "the engine alone computes " +
          Figure(many.RequestsPerSecond() / one.RequestsPerSecond()) +
          " x as many rows per second at batch " +
          std::to_string(many.batch_size) + " as at batch " +
          std::to_string(one.batch_size));
    }
  }

  const Setup& setup_;
  Report& report_;
  int smallest_ = 1;  // Batch sizes.
  int largest_ = 1;
  Trial best_;
  std::set<std::tuple<int, int, int>> tried_;
};

}  // namespace

std::optional<Measurement> SearchStreams(const Setup& setup,
                                         MeasuredModel& model, int at_least,
                                         std::vector<Measurement>& steps) {
  std::optional<Measurement> best;
  SearchMost(at_least, setup.asked.max_streams, [&](int streams) {
    if (setup.interrupt.IsRaised()) return false;
    const Measurement step = model.Measure(streams, setup.asked.chunk_ms);
    if (step.requests + step.undone > 0) steps.push_back(step);
    const bool holds =
        !setup.interrupt.IsRaised() && step.Holds(setup.asked.deadline_ms);
    if (holds) best = step;
    return holds;
  });
  return best;
}

std::optional<ModelOptions> Tune(const Setup& setup, Report& report) {
  return Tuner(setup, report).Run();
}

}  // namespace tarn::tool::bench
