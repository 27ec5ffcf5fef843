#include "bench-measure.h"

#include <algorithm>
#include <chrono>
#include <iostream>
#include <random>
#include <set>
#include <utility>

#include <unistd.h>

#include "bare-engine.h"
#include "bench-process.h"
#include "random-inputs.h"

namespace tarn::tool::bench {

namespace {

using Clock = std::chrono::steady_clock;

// So many requests of a load are recorded at about 200 bytes each. A trace is
// made in memory, and a viewer must still be able to open it.
constexpr size_t kMostRequests = 1000000;
constexpr size_t kMostTraced = 50000;
constexpr int kForcedInterval = 1000;  // Microseconds.

void Announce(const std::string& text) {
  if (isatty(STDERR_FILENO) != 0) std::cerr << "measuring " << text << "\n";
}

// Of every dynamic dimension but the batch dimension: as asked for, otherwise
// the largest.
Sizes ReadSizes(const ModelInfo& info, const std::vector<std::string>& texts) {
  Sizes sizes = ParseSizes(texts, info);
  for (const std::string& name : DynamicRowDimensions(info)) {
    sizes.emplace(name, info.GetDimensionRange(name).second);
  }
  return sizes;
}

// Callers that compute for each other wait until there are as many as a batch
// holds, which for fewer is for ever.
void LetManyCall(ModelOptions& options, bool batched,
                 std::vector<std::string>& warnings) {
  if (batched && !options.infer_thread) {
    options.infer_thread = true;
    if (options.infer_interval == 0) options.infer_interval = kForcedInterval;
    warnings.push_back(
        "measured with --infer-thread=true and --infer-interval=" +
        std::to_string(options.infer_interval) +
        ": as described, callers wait until there is a full batch of them");
  }
  if (!options.multi_threads) {
    options.multi_threads = true;
    if (!batched) {
      warnings.emplace_back(
          "measured with --multi-threads=true: as described, "
          "one thread alone may call");
    }
  }
}

Load MakeLoad(const BenchOptions& asked, int streams, double chunk_ms) {
  Load load;
  load.streams = streams;
  load.seconds = asked.seconds;
  load.chunk_ms = chunk_ms;
  load.jitter_ms = asked.jitter_ms;
  load.seed = asked.seed;
  load.max_requests = asked.trace.empty() ? kMostRequests : kMostTraced;
  return load;
}

// The tensors of a session, for one number of rows.
class BareTensors {
 public:
  BareTensors(const ModelInfo& info, const Sizes& sizes, int rows)
      : info_(info), sizes_(sizes), rows_(rows) {}

  Tensors Inputs(std::mt19937& generator) const {
    Tensors inputs = Caches(/*output=*/false);
    for (unsigned int i = 0; i < info_.GetInputNum(); ++i) {
      Tensor tensor = Make(info_.GetInputShape(i), info_.GetInputFormat(i),
                           info_.GetInputDataType(i));
      FillRandom(tensor, generator);
      inputs[info_.GetInputName(i)] = tensor;
    }
    return inputs;
  }

  Tensors Outputs() const {
    Tensors outputs = Caches(/*output=*/true);
    for (unsigned int i = 0; i < info_.GetOutputNum(); ++i) {
      outputs[info_.GetOutputName(i)] =
          Make(info_.GetOutputShape(i), info_.GetOutputFormat(i),
               info_.GetOutputDataType(i));
    }
    return outputs;
  }

 private:
  Tensors Caches(bool output) const {
    Tensors caches;
    for (unsigned int i = 0; i < info_.GetCacheNum(); ++i) {
      caches[info_.GetCacheName(i, output)] =
          Make(info_.GetCacheShape(i), info_.GetCacheFormat(i),
               info_.GetCacheDataType(i));
    }
    return caches;
  }

  Tensor Make(std::vector<int> shape, const std::vector<std::string>& format,
              Tensor::DataType type) const {
    for (size_t i = 0; i < shape.size(); ++i) {
      if (shape[i] != -1) continue;
      const auto size = sizes_.find(format[i]);
      shape[i] = size == sizes_.end() ? rows_ : size->second;
    }
    Tensor tensor(shape, type, Tensor::HOST);
    tensor.Zeros();
    return tensor;
  }

  const ModelInfo& info_;
  const Sizes& sizes_;
  int rows_;
};

Measurement MeasureBareAt(const Setup& setup, BareEngine& engine, int rows) {
  std::mt19937 generator(setup.asked.seed);
  const BareTensors tensors(*setup.model.info, setup.sizes, rows);
  const Tensors inputs = tensors.Inputs(generator);
  const Tensors outputs = tensors.Outputs();
  const auto run_for = [&](double seconds) {
    std::vector<double> run_ms;
    const Clock::time_point start = Clock::now();
    const std::chrono::duration<double> length(seconds);
    do {
      const Clock::time_point begin = Clock::now();
      engine.Run(inputs, outputs);
      run_ms.push_back(
          std::chrono::duration<double, std::milli>(Clock::now() - begin)
              .count());
    } while (Clock::now() - start < length && !setup.interrupt.IsRaised() &&
             run_ms.size() < kMostRequests);
    return run_ms;
  };
  run_for(setup.asked.seconds / 4);  // Warms up.

  Measurement measurement;
  measurement.kind = Measurement::BARE;
  measurement.batch_size = rows;
  measurement.chunk_ms = setup.asked.chunk_ms;
  const Usage usage;
  const Clock::time_point start = Clock::now();
  const std::vector<double> run_ms = run_for(setup.asked.seconds);
  measurement.seconds =
      std::chrono::duration<double>(Clock::now() - start).count();
  measurement.cpu_seconds = usage.CpuSeconds();
  measurement.peak_mb = usage.PeakMb();
  measurement.requests = run_ms.size() * static_cast<size_t>(rows);
  measurement.batch_sizes[static_cast<size_t>(rows)] = run_ms.size();
  measurement.latency = Distribution(run_ms);
  measurement.compute = measurement.latency;
  return measurement;
}

}  // namespace

std::string StreamNum(int num) {
  return std::to_string(num) + (num == 1 ? " stream" : " streams");
}

Setup MakeSetup(const BenchOptions& asked, const Interrupt& interrupt) {
  Setup setup{asked, CheckOrFail(asked.model), {}, {}, interrupt};
  setup.sizes = ReadSizes(*setup.model.info, asked.dims);
  LetManyCall(setup.model.options, setup.model.info->HasBatchDimension(),
              setup.warnings);
  return setup;
}

std::pair<int, int> BatchRange(const ModelInfo& info) {
  if (!info.HasBatchDimension()) return {1, 1};
  const int size = info.GetDimension(info.batch_dim());
  if (size != -1) return {size, size};
  return info.GetDimensionRange(info.batch_dim());
}

MeasuredModel::MeasuredModel(const Setup& setup, const ModelOptions& options)
    : setup_(setup),
      info_(options),
      model_(LoadModel(setup.asked.model, options)) {
  SetObserver(model_.get(), &log_);
}

Measurement MeasuredModel::Measure(int streams, double chunk_ms) {
  Announce(StreamNum(streams));
  const Load load = MakeLoad(setup_.asked, streams, chunk_ms);
  std::unique_ptr<Usage> usage;
  const Answers answers =
      Run(load, *model_, setup_.sizes, setup_.interrupt, [&] {
        log_.Clear();
        usage = std::make_unique<Usage>();
      });
  Measurement measurement;
  measurement.cpu_seconds = usage->CpuSeconds();
  measurement.peak_mb = usage->PeakMb();
  measurement.kind =
      load.IsRealTime() ? Measurement::REAL_TIME : Measurement::CLOSED_LOOP;
  measurement.streams = streams;
  measurement.batch_size = BatchRange(info_).second;
  measurement.chunk_ms = setup_.asked.chunk_ms;
  measurement.seconds = answers.seconds;
  measurement.requests = answers.latencies.size();
  measurement.undone = answers.undone;
  if (load.IsRealTime()) {
    measurement.late = static_cast<size_t>(
        std::count_if(answers.latencies.begin(), answers.latencies.end(),
                      [&](double ms) { return ms > chunk_ms; }));
  }
  measurement.latency = Distribution(answers.latencies);
  measurement.ages = SplitByAge(answers.latencies, answers.places);
  AddEvents(log_, measurement);
  return measurement;
}

std::vector<Measurement> MeasureBare(Setup& setup) {
  std::vector<Measurement> measurements;
  if (setup.asked.model.backend != "onnx") {
    setup.warnings.emplace_back(
        "no comparison: the bare engine is measured "
        "with backend onnx only");
    return measurements;
  }
  const auto [smallest, largest] = BatchRange(*setup.model.info);
  try {
    BareEngine engine(setup.asked.model.model,
                      setup.model.options.num_execute_threads);
    for (const int rows : std::set<int>{smallest, largest}) {
      Announce("the bare engine at batch " + std::to_string(rows));
      measurements.push_back(MeasureBareAt(setup, engine, rows));
    }
  } catch (const Ort::Exception& exception) {
    setup.warnings.push_back(std::string("the bare engine fails: ") +
                             exception.what());
  }
  return measurements;
}

void SearchMost(int at_least, int limit,
                const std::function<bool(int)>& holds) {
  int good = 0;
  int bad = limit + 1;
  for (int n = at_least; n < bad && n > good; n = std::min(2 * n, limit)) {
    (holds(n) ? good : bad) = n;
  }
  while (good > 0 && bad - good > std::max(1, good / 16)) {
    const int middle = good + (bad - good) / 2;
    (holds(middle) ? good : bad) = middle;
  }
}

}  // namespace tarn::tool::bench
