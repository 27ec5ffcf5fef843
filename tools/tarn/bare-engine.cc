#include "bare-engine.h"

#include <cstddef>
#include <cstdint>

#include "model/onnx-session-options.h"

namespace tarn::tool {

namespace {

Ort::Value Wrap(const Tensor& tensor, ONNXTensorElementDataType type,
                const Ort::MemoryInfo& memory) {
  const std::vector<int64_t> shape(tensor.GetShape().begin(),
                                   tensor.GetShape().end());
  return Ort::Value::CreateTensor(
      memory, tensor.Data(),
      size_t{tensor.GetElementNum()} * tensor.GetElementSize(), shape.data(),
      shape.size(), type);
}

}  // namespace

BareEngine::BareEngine(const std::string& model_path, int num_threads)
    : session_(env_, model_path.c_str(), OnnxSessionOptions(num_threads)) {
  Ort::AllocatorWithDefaultOptions allocator;
  for (size_t i = 0; i < session_.GetInputCount(); ++i) {
    inputs_.push_back({session_.GetInputNameAllocated(i, allocator).get(),
                       session_.GetInputTypeInfo(i)
                           .GetTensorTypeAndShapeInfo()
                           .GetElementType()});
  }
  for (size_t i = 0; i < session_.GetOutputCount(); ++i) {
    outputs_.push_back({session_.GetOutputNameAllocated(i, allocator).get(),
                        session_.GetOutputTypeInfo(i)
                            .GetTensorTypeAndShapeInfo()
                            .GetElementType()});
  }
}

void BareEngine::Run(const Tensors& inputs, const Tensors& outputs) {
  const auto memory =
      Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
  Ort::IoBinding binding(session_);
  for (const Port& port : inputs_) {
    binding.BindInput(port.name.c_str(),
                      Wrap(inputs.at(port.name), port.type, memory));
  }
  for (const Port& port : outputs_) {
    binding.BindOutput(port.name.c_str(),
                       Wrap(outputs.at(port.name), port.type, memory));
  }
  session_.Run(Ort::RunOptions{nullptr}, binding);
}

}  // namespace tarn::tool
