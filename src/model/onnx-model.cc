#include "model/onnx-model.h"

#include <algorithm>
#include <utility>

#include "base/base-proxy.h"
#include "model/onnx-model-check.h"
#include "model/onnx-session-options.h"
#include "utils/logging.h"
#include "utils/reporter.h"

namespace tarn {

namespace {

// A value of the engine's over the tensor's memory. The element type is the
// session's, which may be the unsigned twin of the tensor's.
Ort::Value Wrap(const Tensor& tensor, ONNXTensorElementDataType type,
                const Ort::MemoryInfo& memory) {
  constexpr size_t kUsualRank = 8;
  int64_t usual_shape[kUsualRank];
  const std::vector<int>& shape = tensor.GetShape();
  std::vector<int64_t> long_shape(shape.size() > kUsualRank ? shape.size() : 0);
  int64_t* wide = long_shape.empty() ? usual_shape : long_shape.data();
  std::copy(shape.begin(), shape.end(), wide);
  const unsigned int size = tensor.GetElementNum() * tensor.GetElementSize();
  return Ort::Value::CreateTensor(memory, tensor.Data(), size, wide,
                                  shape.size(), type);
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
  CheckOnnxDevice(device_, Reporter().As("LoadModel"));
  env_ = std::make_unique<Ort::Env>(ORT_LOGGING_LEVEL_WARNING, "tarn", OnnxLog,
                                    nullptr);
  session_ = std::make_unique<Ort::Session>(
      *env_, model.data(), model.size(),
      OnnxSessionOptions(info_->num_execute_threads()));
  std::vector<std::string> input_names;
  std::vector<std::string> output_names;
  std::vector<ONNXTensorElementDataType> input_types;
  std::vector<ONNXTensorElementDataType> output_types;
  CheckModel(session_, input_names, output_names, input_types, output_types);
  inputs_ = MakePorts(input_names, input_types, &ModelInfo::FindInput);
  outputs_ = MakePorts(output_names, output_types, &ModelInfo::FindOutput);
  if (info_->HasBatchDimension()) {
    AllocMemorys(memorys_);
    AllocNewCaches();
  }
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
  CheckSession(*session, *info_, Reporter().As("CheckModel"));
  for (const OnnxPort& port : PortsOf(*session, false)) {
    input_names.push_back(port.name);
    input_types.push_back(port.type);
  }
  for (const OnnxPort& port : PortsOf(*session, true)) {
    output_names.push_back(port.name);
    output_types.push_back(port.type);
  }
}

void OnnxModel::AllocMemorys(std::map<std::string, Tensor>& memorys) {
  for (const auto* tensors :
       {&info_->inputs(), &info_->caches(), &info_->outputs()}) {
    for (const TensorInfo& tensor : *tensors) {
      memorys[tensor.name].Resize(info_->Bounded(tensor, true),
                                  tensor.data_type, Tensor::HOST);
    }
  }
  // A row keeps what it held behind an input that is shorter than the batch's
  // longest: zeros at first, not chance.
  for (auto& memory : memorys) memory.second.Zeros();
}

void OnnxModel::AllocNewCaches() {
  for (const TensorInfo& cache : info_->caches()) {
    const Tensor& old_cache = memorys_.at(cache.name);
    new_caches_[cache.name].Resize(old_cache.GetShape(),
                                   old_cache.GetDataType(), Tensor::HOST);
  }
}

std::vector<OnnxModel::Port> OnnxModel::MakePorts(
    const std::vector<std::string>& names,
    const std::vector<ONNXTensorElementDataType>& types, Find find) const {
  std::vector<Port> ports;
  for (size_t i = 0; i < names.size(); ++i) {
    const TensorInfo* info = ((*info_).*find)(names[i]);
    const bool is_cache = info == nullptr;
    if (is_cache) info = &info_->CacheAt(names[i], "LoadModel");
    ports.push_back({names[i], info, is_cache, types[i]});
  }
  return ports;
}

void OnnxModel::Compute(BaseProxy* proxy) {
  const auto memory =
      Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
  Ort::IoBinding binding(*session_);
  for (const Port& port : inputs_) {
    binding.BindInput(port.name.c_str(),
                      Wrap(InputOf(*proxy, port), port.type, memory));
  }
  Tensor view;
  for (const Port& port : outputs_) {
    binding.BindOutput(port.name.c_str(),
                       Wrap(OutputOf(*proxy, port, view), port.type, memory));
  }
  if (!Run(binding, proxy)) return;
  for (const Port& port : outputs_) {
    proxy->Hold(*port.info, OutputOf(*proxy, port, view));
  }
}

const Tensor& OnnxModel::InputOf(const BaseProxy& proxy, const Port& port) {
  const Tensor* held = proxy.Held(*port.info);
  if (held != nullptr) return *held;
  return port.is_cache ? proxy.GetCache(port.name) : proxy.GetInput(port.name);
}

// The proxy's memory for an output or new state; the same until that is kept.
// New state goes into the one of the cache's two blocks that does not hold the
// present one, which the engine may still read.
const Tensor& OnnxModel::OutputOf(BaseProxy& proxy, const Port& port,
                                  Tensor& view) {
  if (!port.is_cache) return proxy.OutputToFill(*port.info, view);
  const Tensor& block =
      proxy.CacheToFill(*port.info, BaseProxy::CACHE_OUT, view);
  if (block.Data() != InputOf(proxy, port).Data()) return block;
  return proxy.CacheToFill(*port.info, BaseProxy::CACHE_IN, view);
}

// The proxy's memory for its row of an output or new state. The engine has done
// with the present one.
const Tensor& OnnxModel::RowOf(BaseProxy& proxy, const Port& port,
                               Tensor& view) {
  return port.is_cache
             ? proxy.CacheToFill(*port.info, BaseProxy::CACHE_IN, view)
             : proxy.OutputToFill(*port.info, view);
}

void OnnxModel::Compute(const std::vector<BaseProxy*>& proxies) {
  const auto memory =
      Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
  Ort::IoBinding binding(*session_);
  const bool is_dynamic = !info_->GetDimensionRanges().empty();
  Tensors bindings;
  if (is_dynamic) GetBindings(proxies, bindings);
  const Tensors& batches = is_dynamic ? bindings : memorys_;
  for (const Port& port : inputs_) {
    const Tensor& batch = batches.at(port.info->name);
    GatherRows(port, proxies, batch);
    binding.BindInput(port.name.c_str(), Wrap(batch, port.type, memory));
  }
  std::vector<Tensor> outputs;
  outputs.reserve(outputs_.size());
  for (const Port& port : outputs_) {
    outputs.push_back(BatchOutput(port, batches));
    binding.BindOutput(port.name.c_str(),
                       Wrap(outputs.back(), port.type, memory));
  }
  if (!Run(binding, proxies)) return;
  for (size_t i = 0; i < outputs_.size(); ++i) {
    ScatterRows(outputs_[i], outputs[i], proxies);
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
void OnnxModel::GatherRows(const Port& port,
                           const std::vector<BaseProxy*>& proxies,
                           Tensor batch) {
  const int row_num = batch.GetShape()[0];
  const int proxy_num = static_cast<int>(proxies.size());
  for (int i = 0; i < proxy_num; ++i) {
    const Tensor& source = InputOf(*proxies[static_cast<size_t>(i)], port);
    if (!batch.SetRow(i, source)) batch[i].PartialCopyFrom(source, {});
  }
  for (int i = proxy_num; i < row_num; ++i) batch[i].Zeros();
}

// The batch tensor that the session's output is written to.
Tensor OnnxModel::BatchOutput(const Port& port, const Tensors& batches) const {
  const Tensor& batch = batches.at(port.info->name);
  if (!port.is_cache) return batch;
  return Tensor(new_caches_.at(port.info->name).Data(), batch.GetShape(),
                batch.GetDataType(), batch.GetLocation());
}

// Copies each row into its proxy's output or cache.
void OnnxModel::ScatterRows(const Port& port, const Tensor& batch,
                            const std::vector<BaseProxy*>& proxies) {
  Tensor view;
  for (size_t i = 0; i < proxies.size(); ++i) {
    const int index = static_cast<int>(i);
    const Tensor& output = RowOf(*proxies[i], port, view);
    if (!batch.GetRow(index, output)) {
      Tensor corner = output;
      batch[index].PartialCopyTo(corner, {});
    }
    proxies[i]->Hold(*port.info, output);
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
  return ConvertOnnxType(type, "the tensor", Reporter().As(__func__));
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
