#ifndef TARN_BENCH_BARE_MODEL_H_
#define TARN_BENCH_BARE_MODEL_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <onnxruntime_cxx_api.h>

#include "src/model/onnx-session-options.h"

namespace tarn {

// The other side of the comparisons: a float network run through ONNX Runtime's
// own interface, with the session options that the library uses and with every
// input already in place.
class BareModel {
 public:
  // Dynamic dimensions get the size `batch_size`.
  BareModel(const std::string& path, int num_threads, int batch_size)
      : session_(env_, path.c_str(), OnnxSessionOptions(num_threads)) {
    Ort::AllocatorWithDefaultOptions allocator;
    for (size_t i = 0; i < session_.GetInputCount(); ++i) {
      inputs_.emplace_back(session_.GetInputNameAllocated(i, allocator).get(),
                           session_.GetInputTypeInfo(i), batch_size);
    }
    for (size_t i = 0; i < session_.GetOutputCount(); ++i) {
      outputs_.emplace_back(session_.GetOutputNameAllocated(i, allocator).get(),
                            session_.GetOutputTypeInfo(i), batch_size);
    }
  }

  // One run, with a binding of its own.
  void Run() {
    const auto memory =
        Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
    Ort::IoBinding binding(session_);
    for (Block& input : inputs_) {
      binding.BindInput(input.name.c_str(), input.Wrap(memory));
    }
    for (Block& output : outputs_) {
      binding.BindOutput(output.name.c_str(), output.Wrap(memory));
    }
    session_.Run(Ort::RunOptions{nullptr}, binding);
  }

 private:
  struct Block {
    Block(const char* block_name, const Ort::TypeInfo& type, int batch_size)
        : name(block_name), shape(type.GetTensorTypeAndShapeInfo().GetShape()) {
      size_t count = 1;
      for (int64_t& size : shape) {
        if (size == -1) size = batch_size;
        count *= static_cast<size_t>(size);
      }
      elements.assign(count, 0.1f);
    }

    Ort::Value Wrap(const Ort::MemoryInfo& memory) {
      return Ort::Value::CreateTensor(memory, elements.data(), elements.size(),
                                      shape.data(), shape.size());
    }

    std::string name;
    std::vector<int64_t> shape;
    std::vector<float> elements;
  };

  Ort::Env env_{ORT_LOGGING_LEVEL_WARNING, "bare"};
  Ort::Session session_;
  std::vector<Block> inputs_;
  std::vector<Block> outputs_;
};

}  // namespace tarn

#endif  // TARN_BENCH_BARE_MODEL_H_
