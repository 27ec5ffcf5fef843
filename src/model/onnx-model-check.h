#ifndef TARN_MODEL_ONNX_MODEL_CHECK_H_
#define TARN_MODEL_ONNX_MODEL_CHECK_H_

#include <string>
#include <vector>

#include <onnxruntime_cxx_api.h>

#include "base/base-model-info.h"
#include "base/tarn-tensor.h"
#include "utils/reporter.h"
#include "utils/tarn-device.h"

namespace tarn {

// An input or output of a session.
struct OnnxPort {
  std::string name;
  ONNXTensorElementDataType type;  // Undefined for what is no tensor.
  std::vector<int> shape;          // -1 where it is not fixed.
};

// The inputs or the outputs, in session order.
std::vector<OnnxPort> PortsOf(const Ort::Session& session, bool output);

// See OnnxModel::OnnxDataTypeToTarn(). An unsupported type gives 0. `name` is
// that of the tensor, for the hint.
Tensor::DataType ConvertOnnxType(ONNXTensorElementDataType type,
                                 const std::string& name,
                                 const Reporter& reporter);

// Each reports as FATAL what keeps an OnnxModel from being made: a device that
// ONNX Runtime cannot use here, a session that is not as described.
void CheckOnnxDevice(const Device& device, const Reporter& reporter);
void CheckSession(const Ort::Session& session, const ModelInfo& info,
                  const Reporter& reporter);

// Checks the device, and the session of a model file's bytes.
void CheckOnnxModel(const std::string& bytes, const ModelInfo& info,
                    const Device& device, const Reporter& reporter);

}  // namespace tarn

#endif  // TARN_MODEL_ONNX_MODEL_CHECK_H_
