#include "model/onnx-model.h"

#include <algorithm>
#include <utility>

#include "base/base-proxy.h"
#include "utils/logging.h"
#include "utils/text-utils.h"

namespace tarn {

namespace {

// A value of the engine's over the tensor's memory. The element type is the
// session's, which may be the unsigned twin of the tensor's.
Ort::Value Wrap(const Tensor& tensor, ONNXTensorElementDataType type,
                const Ort::MemoryInfo& memory) {
  const std::vector<int64_t> shape(tensor.GetShape().begin(),
                                   tensor.GetShape().end());
  const unsigned int size = tensor.GetElementNum() * tensor.GetElementSize();
  return Ort::Value::CreateTensor(memory, tensor.Data(), size, shape.data(),
                                  shape.size(), type);
}

// Copies into the corner of `to` where it is the larger one.
void CopyToCorner(const Tensor& from, Tensor& to) {
  if (from.GetShape() == to.GetShape()) {
    to.Copy(from);
  } else {
    to.PartialCopyFrom(from, {});
  }
}

// Raises the sizes behind the batch dimension to those of one row; sets them
// where it is the first row.
void FitRow(const std::vector<int>& row, bool first, std::vector<int>& batch) {
  for (size_t k = 1; k < batch.size(); ++k) {
    batch[k] = first ? row[k - 1] : std::max(batch[k], row[k - 1]);
  }
}

}  // namespace

OnnxModel::OnnxModel(std::shared_ptr<ModelInfo> info, const std::string& model,
                     const Device& device,
                     std::shared_ptr<Queue<BaseProxy*>> queue)
    : BaseModel(std::move(info), device, std::move(queue)) {
  OnnxModel::LoadModel(model);
  StartInferThread();
}

OnnxModel::~OnnxModel() { StopInferThread(); }

Model::BackEnd OnnxModel::GetBackEnd() const { return ONNX; }

void OnnxModel::LoadModel(const std::string& model) {
  Ort::SessionOptions options;
  options.SetIntraOpNumThreads(info_->num_execute_threads());
  options.SetGraphOptimizationLevel(ORT_ENABLE_EXTENDED);
  options.DisableCpuMemArena();
  options.DisableMemPattern();
  CheckDevice();
  env_ = std::make_unique<Ort::Env>(ORT_LOGGING_LEVEL_WARNING, "tarn", OnnxLog,
                                    nullptr);
  session_ = std::make_unique<Ort::Session>(*env_, model.data(), model.size(),
                                            options);
  CheckModel(session_, input_names_, output_names_, input_types_,
             output_types_);
  if (info_->HasBatchDimension()) {
    AllocMemorys(memorys_);
    AllocNewCaches();
  }
}

void OnnxModel::CheckDevice() const {
  if (device_.kind == Device::CPU) return;
  if (device_.kind == Device::CUDA) {
    TARN_LOG_AS(FATAL, "LoadModel")
        << "expect macro:ON_DEVICE_CUDA to be turned on.";
    return;  // Reached only when the log level silences fatal checks.
  }
  TARN_LOG_AS(FATAL, "LoadModel")
      << "the model of type OnnxBaseModel can't run on " << device_.ToString()
      << ".";
}

void OnnxModel::CheckModel(
    std::unique_ptr<Ort::Session>& session,
    std::vector<std::string>& input_names,
    std::vector<std::string>& output_names,
    std::vector<ONNXTensorElementDataType>& input_types,
    std::vector<ONNXTensorElementDataType>& output_types) {
  input_names.clear();
  output_names.clear();
  input_types.clear();
  output_types.clear();
  const size_t input_num = session->GetInputCount();
  const size_t output_num = session->GetOutputCount();
  if (input_num != info_->GetInputNum() + info_->GetCacheNum()) {
    TARN_LOG(FATAL) << "the number of inputs is mismatched.";
  }
  if (output_num != info_->GetOutputNum() + info_->GetCacheNum()) {
    TARN_LOG(FATAL) << "the number of outputs is mismatched.";
  }
  Ort::AllocatorWithDefaultOptions allocator;
  for (size_t i = 0; i < input_num; ++i) {
    input_names.emplace_back(
        session->GetInputNameAllocated(i, allocator).get());
    input_types.push_back(
        CheckTensor(input_names.back(), false, session->GetInputTypeInfo(i)));
  }
  for (size_t i = 0; i < output_num; ++i) {
    output_names.emplace_back(
        session->GetOutputNameAllocated(i, allocator).get());
    output_types.push_back(
        CheckTensor(output_names.back(), true, session->GetOutputTypeInfo(i)));
  }
}

// Checks one input or output of the session; returns its element type.
ONNXTensorElementDataType OnnxModel::CheckTensor(
    const std::string& name, bool output,
    const Ort::TypeInfo& type_info) const {
  ONNXTensorElementDataType type = ONNX_TENSOR_ELEMENT_DATA_TYPE_UNDEFINED;
  std::vector<int> shape;
  if (type_info.GetONNXType() == ONNX_TYPE_TENSOR) {
    const auto tensor_info = type_info.GetTensorTypeAndShapeInfo();
    type = tensor_info.GetElementType();
    for (int64_t size : tensor_info.GetShape()) {
      shape.push_back(static_cast<int>(size));
    }
  }
  const Tensor::DataType data_type = OnnxDataTypeToTarn(type);
  const char* noun = output ? "output" : "input";
  bool agrees = false;
  if (output ? info_->HasOutput(name) : info_->HasInput(name)) {
    agrees = output ? info_->CheckOutput(name, shape, data_type)
                    : info_->CheckInput(name, shape, data_type);
  } else if (IsCache(name, output)) {
    noun = "cache";
    agrees = info_->CheckCache(name, shape, data_type);
  } else {
    TARN_LOG_AS(FATAL, "CheckModel") << "undefined " << noun << "s:" << name;
    return type;  // Reached only when the log level silences fatal checks.
  }
  if (!agrees) {
    TARN_LOG_AS(FATAL, "CheckModel")
        << "Check shape and data type failed for " << noun << ":" << name
        << ", shape=" << ConvertShapeToString(shape)
        << ", dtype=" << ConvertDataTypeToString(data_type);
  }
  return type;
}

// Whether `name` is the output or the input side of a cache.
bool OnnxModel::IsCache(const std::string& name, bool output) const {
  for (unsigned int i = 0; i < info_->GetCacheNum(); ++i) {
    if (info_->GetCacheName(i, output) == name) return true;
  }
  return false;
}

void OnnxModel::AllocMemorys(std::map<std::string, Tensor>& memorys) {
  for (unsigned int i = 0; i < info_->GetInputNum(); ++i) {
    memorys[info_->GetInputName(i)].Resize(info_->GetInputShape(i, true),
                                           info_->GetInputDataType(i),
                                           Tensor::HOST);
  }
  for (unsigned int i = 0; i < info_->GetCacheNum(); ++i) {
    memorys[info_->GetCacheName(i, false)].Resize(info_->GetCacheShape(i, true),
                                                  info_->GetCacheDataType(i),
                                                  Tensor::HOST);
  }
  for (unsigned int i = 0; i < info_->GetOutputNum(); ++i) {
    memorys[info_->GetOutputName(i)].Resize(info_->GetOutputShape(i, true),
                                            info_->GetOutputDataType(i),
                                            Tensor::HOST);
  }
  // A row keeps what it held behind an input that is shorter than the batch's
  // longest: zeros at first, not chance.
  for (auto& memory : memorys) memory.second.Zeros();
}

void OnnxModel::AllocNewCaches() {
  for (unsigned int i = 0; i < info_->GetCacheNum(); ++i) {
    const Tensor& old_cache = memorys_.at(info_->GetCacheName(i, false));
    new_caches_[info_->GetCacheName(i, false)].Resize(
        old_cache.GetShape(), old_cache.GetDataType(), Tensor::HOST);
  }
}

void OnnxModel::Compute(BaseProxy* proxy) {
  const auto memory =
      Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
  Ort::IoBinding binding(*session_);
  for (size_t i = 0; i < input_names_.size(); ++i) {
    const std::string& name = input_names_[i];
    const Tensor& input =
        info_->HasInput(name) ? proxy->GetInput(name) : proxy->GetCache(name);
    binding.BindInput(name.c_str(), Wrap(input, input_types_[i], memory));
  }
  std::vector<Tensor> outputs;
  outputs.reserve(output_names_.size());
  for (size_t i = 0; i < output_names_.size(); ++i) {
    const std::string& name = output_names_[i];
    outputs.push_back(
        info_->HasOutput(name)
            ? proxy->CreateOutput(name, proxy->GetOutputShape(name))
            : CreateNewCache(proxy, name));
    binding.BindOutput(name.c_str(),
                       Wrap(outputs.back(), output_types_[i], memory));
  }
  if (!Run(binding, proxy)) return;
  for (size_t i = 0; i < output_names_.size(); ++i) {
    const std::string& name = output_names_[i];
    if (info_->HasOutput(name)) {
      proxy->SetOutput(name, outputs[i]);
    } else {
      proxy->SetCache(name, outputs[i]);
    }
  }
}

// The one of the cache's two buffers that does not hold the present state,
// which the engine may still read while it writes the new one.
Tensor OnnxModel::CreateNewCache(BaseProxy* proxy,
                                 const std::string& name) const {
  const std::vector<int> shape = proxy->GetCacheShape(name);
  Tensor cache = proxy->CreateCache(name, shape);
  if (cache.Data() != proxy->GetCache(name).Data()) return cache;
  return proxy->CreateCache(info_->GetCacheName(name), shape);
}

void OnnxModel::Compute(const std::vector<BaseProxy*>& proxies) {
  const auto memory =
      Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
  Ort::IoBinding binding(*session_);
  const bool is_dynamic = !info_->GetDimensionRanges().empty();
  Tensors bindings;
  if (is_dynamic) GetBindings(proxies, bindings);
  const Tensors& batches = is_dynamic ? bindings : memorys_;
  for (size_t i = 0; i < input_names_.size(); ++i) {
    const std::string& name = input_names_[i];
    GatherRows(name, proxies, batches.at(name));
    binding.BindInput(name.c_str(),
                      Wrap(batches.at(name), input_types_[i], memory));
  }
  std::vector<Tensor> outputs;
  outputs.reserve(output_names_.size());
  for (size_t i = 0; i < output_names_.size(); ++i) {
    const std::string& name = output_names_[i];
    outputs.push_back(BatchOutput(name, batches));
    binding.BindOutput(name.c_str(),
                       Wrap(outputs.back(), output_types_[i], memory));
  }
  if (!Run(binding, proxies)) return;
  for (size_t i = 0; i < output_names_.size(); ++i) {
    ScatterRows(output_names_[i], outputs[i], proxies);
  }
}

void OnnxModel::GetBindings(const std::vector<BaseProxy*>& proxies,
                            std::map<std::string, Tensor>& bindings) {
  const bool rows_differ = info_->HasDynamicRows();
  const auto bind = [&](const std::string& name,
                        const std::vector<int>& described, auto get_row_shape) {
    const Tensor& memory = memorys_[name];
    std::vector<int> shape = memory.GetShape();
    if (described[0] == -1) shape[0] = static_cast<int>(proxies.size());
    if (rows_differ) {
      for (BaseProxy* proxy : proxies) {
        FitRow(get_row_shape(proxy), proxy == proxies.front(), shape);
      }
    }
    bindings[name] = Tensor(memory.Data(), shape, memory.GetDataType(),
                            memory.GetLocation());
  };
  for (unsigned int i = 0; i < info_->GetInputNum(); ++i) {
    bind(info_->GetInputName(i), info_->GetInputShape(i),
         [i](BaseProxy* proxy) { return proxy->GetInputShape(i); });
  }
  for (unsigned int i = 0; i < info_->GetCacheNum(); ++i) {
    bind(info_->GetCacheName(i, false), info_->GetCacheShape(i),
         [i](BaseProxy* proxy) { return proxy->GetCacheShape(i); });
  }
  for (unsigned int i = 0; i < info_->GetOutputNum(); ++i) {
    bind(info_->GetOutputName(i), info_->GetOutputShape(i),
         [i](BaseProxy* proxy) { return proxy->GetOutputShape(i); });
  }
}

// Copies each proxy's input or cache into its row; rows without a proxy are
// zeroed.
void OnnxModel::GatherRows(const std::string& name,
                           const std::vector<BaseProxy*>& proxies,
                           const Tensor& batch) const {
  const bool is_input = info_->HasInput(name);
  const int row_num = batch.GetShape()[0];
  const int proxy_num = static_cast<int>(proxies.size());
  for (int i = 0; i < proxy_num; ++i) {
    const BaseProxy* proxy = proxies[static_cast<size_t>(i)];
    Tensor row = batch[i];
    CopyToCorner(is_input ? proxy->GetInput(name) : proxy->GetCache(name), row);
  }
  for (int i = proxy_num; i < row_num; ++i) batch[i].Zeros();
}

// The batch tensor that the session's output `name` is written to.
Tensor OnnxModel::BatchOutput(const std::string& name,
                              const Tensors& batches) const {
  if (info_->HasOutput(name)) return batches.at(name);
  const std::string& key = info_->GetCacheName(name);
  const Tensor& old_cache = batches.at(key);
  return Tensor(new_caches_.at(key).Data(), old_cache.GetShape(),
                old_cache.GetDataType(), old_cache.GetLocation());
}

// Copies each row into its proxy's output or cache.
void OnnxModel::ScatterRows(const std::string& name, const Tensor& batch,
                            const std::vector<BaseProxy*>& proxies) const {
  const bool is_output = info_->HasOutput(name);
  const std::string& key = is_output ? name : info_->GetCacheName(name);
  for (size_t i = 0; i < proxies.size(); ++i) {
    BaseProxy* proxy = proxies[i];
    Tensor tensor = is_output
                        ? proxy->CreateOutput(key, proxy->GetOutputShape(key))
                        : proxy->CreateCache(key, proxy->GetCacheShape(key));
    CopyToCorner(batch[static_cast<int>(i)], tensor);
    if (is_output) {
      proxy->SetOutput(key, tensor);
    } else {
      proxy->SetCache(key, tensor);
    }
  }
}

// Runs the session for one request or a batch of them.
template <typename Requests>
bool OnnxModel::Run(const Ort::IoBinding& binding, const Requests& requests) {
  Observe(InferenceObserver::GATHERED, requests);
  bool succeeded = true;
  try {
    session_->Run(Ort::RunOptions{nullptr}, binding);
  } catch (const Ort::Exception& exception) {
    succeeded = false;
    TARN_LOG_AS(ERROR, "Compute") << "inference failed: " << exception.what();
  }
  Observe(InferenceObserver::COMPUTED, requests);
  return succeeded;
}

Tensor::DataType OnnxModel::OnnxDataTypeToTarn(ONNXTensorElementDataType type) {
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
  TARN_LOG(FATAL) << "unsupported data type of onnx: " << static_cast<int>(type)
                  << ".";
  // Reached only when the log level silences fatal checks.
  return static_cast<Tensor::DataType>(0);
}

void OnnxModel::OnnxLog(void* /*param*/, OrtLoggingLevel severity,
                        const char* category, const char* /*logid*/,
                        const char* code_location, const char* message) {
  if (severity > ORT_LOGGING_LEVEL_FATAL) return;
  // The five severities have the same order and numbers on both sides.
  TARN_LOG(static_cast<Severity>(severity))
      << "ONNX[" << category << ", " << code_location << "] " << message;
}

}  // namespace tarn
