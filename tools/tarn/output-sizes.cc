#include "output-sizes.h"

#include <algorithm>
#include <cstring>

#include <onnxruntime_cxx_api.h>

#include "command.h"

namespace tarn::tool {

namespace {

bool KnowsAllOutputs(const Network& network, const Sizes& sizes) {
  for (const Port& port : network.outputs) {
    for (const Dimension& dimension : port.dimensions) {
      if (dimension.size == -1 && sizes.count(dimension.name) == 0) {
        return false;
      }
    }
  }
  return true;
}

Ort::Value Zeros(const Port& port, ONNXTensorElementDataType type,
                 const Sizes& sizes) {
  std::vector<int64_t> shape;
  size_t byte_num = Tensor().GetElementSize(*port.data_type);
  for (const Dimension& dimension : port.dimensions) {
    shape.push_back(dimension.size == -1 ? sizes.at(dimension.name)
                                         : dimension.size);
    byte_num *= static_cast<size_t>(shape.back());
  }
  Ort::AllocatorWithDefaultOptions allocator;
  Ort::Value value =
      Ort::Value::CreateTensor(allocator, shape.data(), shape.size(), type);
  std::memset(value.GetTensorMutableRawData(), 0, byte_num);
  return value;
}

std::vector<Ort::Value> RunOnZeros(const Network& network, const Sizes& sizes) {
  const Ort::Env env(ORT_LOGGING_LEVEL_FATAL, "sizes");
  Ort::Session session(env, network.path.c_str(), Ort::SessionOptions());
  std::vector<const char*> input_names;
  std::vector<Ort::Value> inputs;
  for (size_t i = 0; i < network.inputs.size(); ++i) {
    const auto type = session.GetInputTypeInfo(i);
    input_names.push_back(network.inputs[i].name.c_str());
    inputs.push_back(Zeros(network.inputs[i],
                           type.GetTensorTypeAndShapeInfo().GetElementType(),
                           sizes));
  }
  std::vector<const char*> output_names;
  for (const Port& port : network.outputs) {
    output_names.push_back(port.name.c_str());
  }
  return session.Run(Ort::RunOptions(), input_names.data(), inputs.data(),
                     inputs.size(), output_names.data(), output_names.size());
}

}  // namespace

void AddOutputSizes(const Network& network, Sizes& sizes) {
  if (KnowsAllOutputs(network, sizes)) return;
  try {
    const std::vector<Ort::Value> outputs = RunOnZeros(network, sizes);
    for (size_t i = 0; i < outputs.size(); ++i) {
      const auto shape = outputs[i].GetTensorTypeAndShapeInfo().GetShape();
      const auto& dimensions = network.outputs[i].dimensions;
      for (size_t k = 0; k < dimensions.size(); ++k) {
        if (dimensions[k].size != -1) continue;
        sizes.emplace(dimensions[k].name, static_cast<int>(shape.at(k)));
      }
    }
  } catch (const Ort::Exception& exception) {
    throw Failure(DoesNotRun(sizes, exception.what()));
  }
}

std::string DoesNotRun(const Sizes& sizes, const std::string& reason) {
  std::string text;
  for (const auto& [name, size] : sizes) {
    text += (text.empty() ? "" : ", ") + name + "=" + std::to_string(size);
  }
  return "the network does not run" +
         (text.empty() ? ""
                       : " with " + text + ", which --dynamic can change") +
         ": " + reason;
}

}  // namespace tarn::tool
