#include "proof.h"

#include <algorithm>
#include <future>
#include <limits>
#include <memory>
#include <random>
#include <sstream>
#include <vector>

#include "bare-stream.h"
#include "command.h"
#include "compare.h"
#include "guess.h"
#include "output-sizes.h"
#include "random-inputs.h"

namespace tarn::tool {

namespace {

constexpr size_t kChunkNum = 2;
constexpr int kStreamNum = 3;
constexpr double kTolerance = 1e-4;
constexpr double kHalfTolerance = 1e-2;  // Of FLOAT16.

using Chunks = std::vector<Tensors>;  // Inputs or outputs of one stream.

void RefuseFindings(const ModelOptions& options, const std::string& model) {
  for (const Finding& finding :
       CheckModel(options, "onnx", "cpu", model, "", "")) {
    if (finding.severity < ERROR) continue;
    throw Failure("the library would refuse the description: " + finding.found);
  }
}

// The sizes of rows at one end of the ranges.
Sizes RowSizes(const ModelInfo& info, const Network& network, bool max) {
  Sizes sizes;
  for (const Port& port : network.inputs) {
    for (const auto& [size, name] : port.dimensions) {
      if (size != -1) continue;
      const auto [low, high] = info.GetDimensionRange(name);
      sizes[name] = max && name != info.batch_dim() ? high : low;
    }
  }
  AddOutputSizes(network, sizes);
  for (const auto& [name, size] : sizes) {
    const auto [low, high] = info.GetDimensionRange(name);
    if (size >= low && size <= high) continue;
    throw Failure("the network gives " + name + " the size " +
                  std::to_string(size) + ", outside its range: say --dynamic " +
                  name + ":MIN-MAX");
  }
  sizes.erase(info.batch_dim());
  return sizes;
}

// What a fixed batch dimension leaves no choice of.
int BatchWithin(const ModelInfo& info, int wanted) {
  if (!info.HasBatchDimension()) return 1;
  const int fixed = info.GetDimension(info.batch_dim());
  if (fixed != -1) return fixed;
  const auto [min, max] = info.GetDimensionRange(info.batch_dim());
  return std::clamp(wanted, min, max);
}

// How many streams fill a batch.
size_t StreamNum(const ModelInfo& info) {
  return static_cast<size_t>(BatchWithin(info, kStreamNum));
}

size_t SmallestBatch(const ModelInfo& info) {
  return static_cast<size_t>(BatchWithin(info, 1));
}

// The same description for batches that the streams fill, so that every batch
// holds them all.
ModelOptions Narrowed(ModelOptions options, const ModelInfo& info) {
  Ranges ranges = info.GetDimensionRanges();
  const auto batch = ranges.find(info.batch_dim());
  if (batch != ranges.end()) {
    batch->second.second = BatchWithin(info, kStreamNum);
  }
  options.dynamic_dims = RangesText(ranges);
  if (options.infer_thread) options.infer_interval = 1000000;
  return options;
}

Chunks RandomChunks(const ModelInfo& info, const Sizes& sizes,
                    std::mt19937& generator) {
  Chunks chunks(kChunkNum);
  for (Tensors& inputs : chunks) {
    for (unsigned int i = 0; i < info.GetInputNum(); ++i) {
      std::vector<int> shape = WithoutBatch(info.GetInputShape(i), info);
      const auto format = WithoutBatch(info.GetInputFormat(i), info);
      for (size_t k = 0; k < shape.size(); ++k) {
        if (shape[k] == -1) shape[k] = sizes.at(format[k]);
      }
      Tensor& input = inputs[info.GetInputName(i)];
      input.Resize(shape, info.GetInputDataType(i), Tensor::HOST);
      FillRandom(input, generator);
    }
  }
  return chunks;
}

Chunks RunAlone(const Chunks& inputs, const Sizes& sizes, size_t batch_size,
                BareEngine& engine, const ModelInfo& info) {
  const BareStream stream(engine, info);
  Chunks outputs;
  Tensors caches = ZeroCaches(info);
  for (const Tensors& chunk : inputs) {
    Result result;
    try {
      result = stream.Compute({chunk, caches}, sizes, batch_size, 0);
    } catch (const Ort::Exception& exception) {
      throw Failure(DoesNotRun(sizes, exception.what()));
    }
    outputs.push_back(result.outputs);
    caches = result.caches;
  }
  return outputs;
}

Chunks RunInLibrary(const Chunks& inputs, const Sizes& sizes, Model& model) {
  const std::unique_ptr<Proxy> proxy(model.NewProxy());
  FixSizes(sizes, *proxy);
  Chunks outputs;
  for (const Tensors& chunk : inputs) {
    for (const auto& [name, tensor] : chunk) proxy->SetInput(name, tensor);
    if (!proxy->Inference()) throw Failure("the library's inference failed");
    Tensors& results = outputs.emplace_back();
    for (unsigned int i = 0; i < proxy->GetOutputNum(); ++i) {
      const Tensor& output = proxy->GetOutput(proxy->GetOutputName(i));
      Tensor& copy = results[proxy->GetOutputName(i)];
      copy.Resize(output.GetShape(), output.GetDataType(), Tensor::HOST);
      copy.Copy(output);
    }
  }
  return outputs;
}

// All streams at once.
std::vector<Chunks> RunTogether(const std::vector<Chunks>& streams,
                                const Sizes& sizes, Model& model) {
  std::vector<std::future<Chunks>> runs;
  for (const Chunks& inputs : streams) {
    runs.push_back(std::async(std::launch::async, [&] {
      return RunInLibrary(inputs, sizes, model);
    }));
  }
  std::vector<Chunks> outputs;
  for (auto& run : runs) outputs.push_back(run.get());
  return outputs;
}

double RelativeDifference(const Tensor& tensor, const Tensor& expected) {
  const Distance distance = DistanceOf(tensor, expected);
  if (distance.largest == 0) return 0;
  return distance.largest /
         std::max(distance.magnitude, std::numeric_limits<double>::min());
}

void Compare(const Chunks& outputs, const Chunks& expected, Proof& proof) {
  for (size_t i = 0; i < expected.size(); ++i) {
    for (const auto& [name, tensor] : expected[i]) {
      const double difference = RelativeDifference(outputs[i].at(name), tensor);
      double& largest = proof.differences[name];
      largest = std::max(largest, difference);
      const bool is_half = tensor.GetDataType() == Tensor::FLOAT16;
      if (difference <= (is_half ? kHalfTolerance : kTolerance)) continue;
      std::ostringstream message;
      message << "output " << name << " differs by " << difference
              << " of its largest value between a stream alone on the engine "
                 "and the same in the library, "
              << (proof.stream_num > 1 ? "in a batch with others; --batch none "
                                         "if the first dimension is no batch"
                                       : "by itself");
      throw Failure(message.str());
    }
  }
}

// Proves at one end of the ranges.
void ProveAt(const Sizes& sizes, const ModelInfo& info, BareEngine& engine,
             Model& model, Proof& proof) {
  std::mt19937 generator(1);
  std::vector<Chunks> inputs;
  std::vector<Chunks> alone;
  for (size_t i = 0; i < proof.stream_num; ++i) {
    inputs.push_back(RandomChunks(info, sizes, generator));
    alone.push_back(
        RunAlone(inputs.back(), sizes, SmallestBatch(info), engine, info));
  }
  const std::vector<Chunks> together = RunTogether(inputs, sizes, model);
  for (size_t i = 0; i < alone.size(); ++i) {
    Compare(together[i], alone[i], proof);
  }
}

}  // namespace

Proof Prove(const ModelOptions& options, const Network& network) {
  RefuseFindings(options, network.path);
  const ModelInfo info(options);
  const std::unique_ptr<Model> model(
      NewModel(Narrowed(options, info), "onnx", "cpu", network.path, "", ""));
  BareEngine engine(network.path, 1);
  Proof proof{StreamNum(info), kChunkNum, {}};
  for (bool max : {false, true}) {
    ProveAt(RowSizes(info, network, max), info, engine, *model, proof);
  }
  return proof;
}

}  // namespace tarn::tool
