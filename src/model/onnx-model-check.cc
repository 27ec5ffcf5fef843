#include "model/onnx-model-check.h"

#include <cstddef>
#include <cstdint>
#include <set>

#include "model/onnx-model.h"
#include "utils/text-utils.h"

namespace tarn {

namespace {

OnnxPort MakePort(const char* name, const Ort::TypeInfo& type_info) {
  OnnxPort port{name, ONNX_TENSOR_ELEMENT_DATA_TYPE_UNDEFINED, {}};
  if (type_info.GetONNXType() != ONNX_TYPE_TENSOR) return port;
  const auto tensor_info = type_info.GetTensorTypeAndShapeInfo();
  port.type = tensor_info.GetElementType();
  for (int64_t size : tensor_info.GetShape()) {
    port.shape.push_back(static_cast<int>(size));
  }
  return port;
}

// Checks the inputs or the outputs of a session against a description.
class PortCheck {
 public:
  PortCheck(const ModelInfo& info, bool output, const Reporter& reporter)
      : info_(info), output_(output), reporter_(reporter) {
    for (unsigned int i = 0; i < info.GetCacheNum(); ++i) {
      caches_.insert(info.GetCacheName(i, output));
    }
  }

  void CheckNumber(size_t number) const {
    const unsigned int described =
        (output_ ? info_.GetOutputNum() : info_.GetInputNum()) +
        info_.GetCacheNum();
    if (number == described || !info_.IsComplete()) return;
    reporter_.Report(
        FATAL,
        {"tensor-count", "the network has " + std::to_string(number) +
                             ", described are " + std::to_string(described) +
                             " with the caches"})
        << "the number of " << Noun() << "s is mismatched.";
  }

  void CheckPort(const OnnxPort& port) const {
    const Tensor::DataType type = ConvertOnnxType(
        port.type, port.name, reporter_.As("OnnxDataTypeToTarn"));
    const bool reported = type == 0 || !info_.IsUsable(port.name);
    if (reported) return;
    if (output_ ? info_.HasOutput(port.name) : info_.HasInput(port.name)) {
      CheckMatch(port, type, Noun(),
                 output_ ? info_.GetOutputShape(port.name)
                         : info_.GetInputShape(port.name),
                 output_ ? info_.GetOutputFormat(port.name)
                         : info_.GetInputFormat(port.name),
                 output_ ? info_.GetOutputDataType(port.name)
                         : info_.GetInputDataType(port.name));
    } else if (caches_.count(port.name) > 0) {
      CheckMatch(port, type, "cache", info_.GetCacheShape(port.name),
                 info_.GetCacheFormat(port.name),
                 info_.GetCacheDataType(port.name));
    } else {
      reporter_.About(Noun() + std::string("s-format"))
              .Report(FATAL, {"tensor-undefined",
                              "describe it: the network has it with shape=" +
                                  ConvertShapeToString(port.shape)})
          << "undefined " << Noun() << "s:" << port.name;
    }
  }

 private:
  const char* Noun() const { return output_ ? "output" : "input"; }

  void CheckMatch(const OnnxPort& port, Tensor::DataType type,
                  const std::string& noun, const std::vector<int>& shape,
                  const std::vector<std::string>& format,
                  Tensor::DataType described_type) const {
    if (LacksRange(shape, format)) return;  // Has been reported.
    const bool type_agrees = type == described_type;
    if (type_agrees && info_.CheckShape(port.shape, shape, format)) return;
    reporter_.About(noun + (type_agrees ? "s-shape" : "s-dtype"))
            .Report(FATAL,
                    {"tensor-mismatch",
                     "described are shape=" + ConvertShapeToString(shape) +
                         ", dtype=" + ConvertDataTypeToString(described_type)})
        << "Check shape and data type failed for " << noun << ":" << port.name
        << ", shape=" << ConvertShapeToString(port.shape)
        << ", dtype=" << ConvertDataTypeToString(type);
  }

  bool LacksRange(const std::vector<int>& shape,
                  const std::vector<std::string>& format) const {
    for (size_t i = 0; i < shape.size(); ++i) {
      const bool has_range = info_.GetDimensionRanges().count(format[i]) > 0;
      if (shape[i] == -1 && !has_range) return true;
    }
    return false;
  }

  const ModelInfo& info_;
  bool output_;
  const Reporter& reporter_;
  std::set<std::string> caches_;  // By the side that is checked.
};

}  // namespace

std::vector<OnnxPort> PortsOf(const Ort::Session& session, bool output) {
  const size_t count =
      output ? session.GetOutputCount() : session.GetInputCount();
  Ort::AllocatorWithDefaultOptions allocator;
  std::vector<OnnxPort> ports;
  for (size_t i = 0; i < count; ++i) {
    const auto name = output ? session.GetOutputNameAllocated(i, allocator)
                             : session.GetInputNameAllocated(i, allocator);
    ports.push_back(MakePort(name.get(), output ? session.GetOutputTypeInfo(i)
                                                : session.GetInputTypeInfo(i)));
  }
  return ports;
}

Tensor::DataType ConvertOnnxType(ONNXTensorElementDataType type,
                                 const std::string& name,
                                 const Reporter& reporter) {
  switch (type) {
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT:
      return Tensor::FLOAT32;
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_DOUBLE:
      return Tensor::FLOAT64;
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT16:
      return Tensor::FLOAT16;
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_INT32:
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_UINT32:
      return Tensor::INT32;
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_INT64:
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_UINT64:
      return Tensor::INT64;
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_INT16:
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_UINT16:
      return Tensor::INT16;
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_INT8:
    case ONNX_TENSOR_ELEMENT_DATA_TYPE_UINT8:
      return Tensor::INT8;
    default:
      break;
  }
  reporter.Report(FATAL,
                  {"tensor-type", "export " + name + " with another type"})
      << "unsupported data type of onnx: " << static_cast<int>(type) << ".";
  return Tensor::DataType{};
}

void CheckOnnxDevice(const Device& device, const Reporter& reporter) {
  if (device.kind == Device::CPU) return;
  if (device.kind == Device::CUDA) {
    reporter.Report(FATAL, {"device", "use cpu"})
        << "expect macro:ON_DEVICE_CUDA to be turned on.";
    return;
  }
  reporter.Report(FATAL, {"device", "use cpu"})
      << "the model of type OnnxBaseModel can't run on " << device.ToString()
      << ".";
}

void CheckSession(const Ort::Session& session, const ModelInfo& info,
                  const Reporter& reporter) {
  const std::vector<OnnxPort> inputs = PortsOf(session, false);
  const std::vector<OnnxPort> outputs = PortsOf(session, true);
  const PortCheck input_check(info, false, reporter);
  const PortCheck output_check(info, true, reporter);
  input_check.CheckNumber(inputs.size());
  output_check.CheckNumber(outputs.size());
  for (const OnnxPort& port : inputs) input_check.CheckPort(port);
  for (const OnnxPort& port : outputs) output_check.CheckPort(port);
}

void CheckOnnxModel(const std::string& bytes, const ModelInfo& info,
                    const Device& device, const Reporter& reporter) {
  CheckOnnxDevice(device, reporter.As("LoadModel"));
  try {
    Ort::SessionOptions options;
    // What fails is an exception; the engine shall not log it too.
    options.SetLogSeverityLevel(ORT_LOGGING_LEVEL_FATAL);
    options.SetGraphOptimizationLevel(ORT_ENABLE_EXTENDED);
    Ort::Env env(ORT_LOGGING_LEVEL_FATAL, "tarn", OnnxModel::OnnxLog, nullptr);
    const Ort::Session session(env, bytes.data(), bytes.size(), options);
    CheckSession(session, info, reporter.As("CheckModel"));
  } catch (const Ort::Exception& exception) {
    reporter.As("LoadModel")
            .Report(FATAL, {"engine", "export the network anew"})
        << exception.what();
  }
}

}  // namespace tarn
