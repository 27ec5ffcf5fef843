#include "base/base-model-advice.h"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <set>
#include <thread>
#include <vector>

namespace tarn {

namespace {

void AdviseOnBatches(const ModelOptions& options, const ModelInfo& info,
                     const std::string& backend, const Reporter& reporter) {
  if (!info.HasBatchDimension()) return;
  if (backend == "mace") {
    reporter.About("batch-dim")
            .Report(WARNING, {"mace-batch", "remove the batch dimension"})
        << "MACE computes single requests only.";
  }
  if (!options.infer_thread) {
    reporter.About("infer-thread")
            .Report(WARNING, {"callers-wait", "set --infer-thread=true"})
        << "without an inference thread every request waits until as many as "
        << "fill a batch are there, however long that takes.";
  } else if (options.infer_interval == 0) {
    reporter.About("infer-interval")
            .Report(WARNING, {"polling", "set it to 1000 or more"})
        << "with an infer-interval of 0 the inference thread polls: it keeps a "
        << "core busy while it waits.";
  }
}

void AdviseOnThreads(const ModelOptions& options, const Reporter& reporter) {
  const unsigned int cores = std::thread::hardware_concurrency();  // Or 0.
  const int threads = options.num_execute_threads;
  const Reporter about = reporter.About("num-execute-threads");
  if (threads < 0) {
    about.Report(WARNING, {"thread-number", "use 0 for the engine's default"})
        << "num-execute-threads is negative.";
  } else if (cores > 0 && static_cast<unsigned int>(threads) > cores) {
    about.Report(WARNING, {"thread-number", "use at most the number of cores"})
        << "num-execute-threads is " << threads << ", this machine has "
        << cores << " cores.";
  }
}

void AdviseOnRanges(const ModelInfo& info, const Reporter& reporter) {
  for (const auto& range : info.GetDimensionRanges()) {
    const std::string& name = range.first;
    if (info.HasDimension(name) && info.GetDimension(name) == -1) continue;
    reporter.About("dynamic-dims")
            .Report(WARNING,
                    {"range-unused", "remove it, or make the sizes -1"})
        << "the range of " << name << " has no effect: no shape has -1 there.";
  }
}

void AdviseOnCaches(const ModelInfo& info, const Reporter& reporter) {
  std::set<std::string> inputs;
  for (const TensorInfo& cache : info.caches()) {
    if (inputs.insert(cache.name).second) continue;
    reporter.About("caches-pair")
            .Report(WARNING, {"cache-shared", "pair it with one output"})
        << "two caches have the input side " << cache.name << ".";
  }
}

// The bytes of a tensor at its largest shape; 0 where that is not known.
double BytesAtMost(const TensorInfo& tensor, const ModelInfo& info) {
  double bytes = Tensor().GetElementSize(tensor.data_type);
  for (size_t i = 0; i < tensor.shape.size(); ++i) {
    int size = tensor.shape[i];
    if (size == -1) {
      const auto range = info.GetDimensionRanges().find(tensor.format[i]);
      if (range == info.GetDimensionRanges().end()) return 0;
      size = range->second.second;
    }
    bytes *= size;
  }
  return bytes;
}

// What the library would stumble over only when it allocates the tensor.
void CheckSizes(const TensorInfo& tensor, const ModelInfo& info,
                const Reporter& reporter) {
  for (int size : tensor.shape) {
    if (size >= 1 || size == -1) continue;
    reporter.Report(FATAL, {"size-below-one", "write 1 or more, or -1"})
        << tensor.name << " has a dimension of size " << size << ".";
    return;
  }
  constexpr double kMaxBytes = std::numeric_limits<uint32_t>::max();
  if (BytesAtMost(tensor, info) > kMaxBytes) {
    reporter.Report(FATAL, {"tensor-size", "make its sizes or ranges smaller"})
        << tensor.name << " takes 4 GiB or more at its largest shape.";
  }
}

void CheckAllSizes(const ModelInfo& info, const Reporter& reporter) {
  for (const TensorInfo& input : info.inputs()) {
    CheckSizes(input, info, reporter.About("inputs-shape"));
  }
  for (const TensorInfo& output : info.outputs()) {
    CheckSizes(output, info, reporter.About("outputs-shape"));
  }
  for (const TensorInfo& cache : info.caches()) {
    CheckSizes(cache, info, reporter.About("caches-shape"));
  }
}

}  // namespace

void GiveAdvice(const ModelOptions& options, const ModelInfo& info,
                const std::string& backend, const Reporter& reporter) {
  CheckAllSizes(info, reporter);
  AdviseOnBatches(options, info, backend, reporter);
  AdviseOnThreads(options, reporter);
  AdviseOnRanges(info, reporter);
  AdviseOnCaches(info, reporter);
}

}  // namespace tarn
