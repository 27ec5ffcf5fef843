#include "model/mace-model.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <utility>

#include <mace/port/env.h>
#include <mace/port/file_system.h>

#include "base/base-proxy.h"
#include "utils/device-utils.h"
#include "utils/logging.h"
#include "utils/reporter.h"

namespace tarn {

namespace {

// The name that MACE's converter gives to a model's only graph.
constexpr char kGraphName[] = "default_graph";

using Region = std::unique_ptr<mace::port::ReadOnlyMemoryRegion>;

struct EngineWithWeights {
  Region weights;
  std::shared_ptr<mace::MaceEngine> engine;  // Destroyed first.
};

bool Succeeded(const mace::MaceStatus& status) {
  return status == mace::MaceStatus::MACE_SUCCESS;
}

void SetCache(const std::string& path, mace::MaceEngineConfig& config) {
  struct stat file_status;
  const mace::AcceleratorCachePolicy policy =
      stat(path.c_str(), &file_status) == 0 ? mace::ACCELERATOR_CACHE_LOAD
                                            : mace::ACCELERATOR_CACHE_STORE;
  const mace::MaceStatus status =
      config.SetAcceleratorCache(policy, path, path);
  if (!Succeeded(status)) {
    TARN_LOG_AS(WARNING, "LoadModel")
        << "Set cache failed, ret " << status.information();
  }
}

void SetHtp(mace::MaceEngineConfig& config) {
  config.SetRuntimeType(mace::RT_HTP, kGraphName);
  const mace::MaceStatus status =
      config.SetQnnPerformance(mace::HEXAGON_BALANCED);
  if (!Succeeded(status)) {
    TARN_LOG_AS(WARNING, "LoadModel")
        << "Set qnn performance failed, ret " << status.information();
  }
}

void SetCpu(int thread_num, mace::MaceEngineConfig& config) {
  config.SetRuntimeType(mace::RT_CPU, kGraphName);
  if (!Succeeded(
          config.SetCPUThreadPolicy(thread_num, mace::AFFINITY_BIG_ONLY))) {
    TARN_LOG_AS(WARNING, "LoadModel") << "Set mace cpu affinity failed.";
  }
}

bool CheckDevice(const Device& device, const Reporter& reporter) {
  if (device.kind == Device::HTP || device.kind == Device::CPU) return true;
  reporter.Report(ERROR, {"device", "use cpu or htp"})
      << "does not support type: " << device.ToString();
  return false;
}

void SetDevice(const Device& device, int thread_num,
               mace::MaceEngineConfig& config) {
  if (device.kind == Device::HTP) {
    SetHtp(config);
  } else {
    SetCpu(thread_num, config);
  }
}

// Maps the file at `path`. Returns null when it cannot be read, or when it is
// empty and may not be.
Region MapFile(const std::string& path, bool may_be_empty,
               const Reporter& reporter) {
  Region region;
  const mace::MaceStatus status =
      mace::port::Env::Default()
          ->GetFileSystem()
          ->NewReadOnlyMemoryRegionFromFile(path.c_str(), &region);
  if (!Succeeded(status) || (region->length() == 0 && !may_be_empty)) {
    reporter.Report(ERROR, {"file", "name a readable file"})
        << "Failed to read file: " << path;
    return nullptr;
  }
  return region;
}

bool IsFixed(const std::vector<int>& shape) {
  return std::find(shape.begin(), shape.end(), -1) == shape.end();
}

const unsigned char* Bytes(const Region& region) {
  return static_cast<const unsigned char*>(region->data());
}

std::vector<std::string> InputNames(const ModelInfo& info) {
  std::vector<std::string> names;
  for (unsigned int i = 0; i < info.GetInputNum(); ++i) {
    names.push_back(info.GetInputName(i));
  }
  for (unsigned int i = 0; i < info.GetCacheNum(); ++i) {
    names.push_back(info.GetCacheName(i, false));
  }
  return names;
}

std::vector<std::string> OutputNames(const ModelInfo& info) {
  std::vector<std::string> names;
  for (unsigned int i = 0; i < info.GetOutputNum(); ++i) {
    names.push_back(info.GetOutputName(i));
  }
  for (unsigned int i = 0; i < info.GetCacheNum(); ++i) {
    names.push_back(info.GetCacheName(i, true));
  }
  return names;
}

bool AreWrapped(const std::map<std::string, mace::MaceTensor>& tensors) {
  return std::all_of(tensors.begin(), tensors.end(), [](const auto& named) {
    return named.second.data() != nullptr;
  });
}

}  // namespace

void CheckMaceModel(const std::string& graph, const std::string& weights,
                    const ModelInfo& info, const Device& device,
                    const Reporter& reporter) {
  const Reporter load_reporter = reporter.As("LoadModel");
  CheckDevice(device, load_reporter);
  MapFile(graph, /*may_be_empty=*/false, load_reporter);
  MapFile(weights, /*may_be_empty=*/true, load_reporter);
  const auto check_fixed = [&](const std::string& name,
                               const std::vector<int>& shape,
                               const char* option) {
    if (IsFixed(shape)) return;
    reporter.About(option).Report(FATAL, {"mace-fixed", "fix its sizes"})
        << name << " has a dynamic dimension, which MACE can't allocate.";
  };
  for (unsigned int i = 0; i < info.GetOutputNum(); ++i) {
    check_fixed(info.GetOutputName(i), info.GetOutputShape(i), "outputs-shape");
  }
  for (unsigned int i = 0; i < info.GetCacheNum(); ++i) {
    check_fixed(info.GetCacheName(i, false), info.GetCacheShape(i),
                "caches-shape");
  }
}

MaceModel::MaceModel(std::shared_ptr<ModelInfo> info, const std::string& graph,
                     const std::string& weights, const std::string& cache,
                     const Device& device,
                     std::shared_ptr<Queue<BaseProxy*>> queue)
    : BaseModel(std::move(info), device, std::move(queue)) {
  LoadModel(graph, weights, cache);
  StartInferThread();
}

MaceModel::~MaceModel() { StopInferThread(); }

Model::BackEnd MaceModel::GetBackEnd() const { return MACE; }

bool MaceModel::Ready() const { return ready_; }

void MaceModel::LoadModel(const std::string& /*model*/) {
  TARN_LOG(FATAL) << "not implemented yet.";
}

void MaceModel::LoadModel(const std::string& graph, const std::string& weights,
                          const std::string& cache) {
  const Reporter reporter = Reporter().As(__func__);
  mace::MaceEngineConfig config;
  if (!cache.empty()) SetCache(cache, config);
  if (!CheckDevice(device_, reporter)) return;
  SetDevice(device_, info_->num_execute_threads(), config);
  TARN_LOG(INFO) << "load graph " << graph;
  // The engine aborts on a graph without bytes; weights may have none.
  const Region graph_region = MapFile(graph, /*may_be_empty=*/false, reporter);
  if (graph_region == nullptr) return;
  TARN_LOG(INFO) << "load weight " << weights;
  auto loaded = std::make_shared<EngineWithWeights>();
  loaded->weights = MapFile(weights, /*may_be_empty=*/true, reporter);
  if (loaded->weights == nullptr) return;
  const mace::MaceStatus status = mace::CreateMaceEngineFromProto(
      Bytes(graph_region), graph_region->length(), Bytes(loaded->weights),
      loaded->weights->length(), InputNames(*info_), OutputNames(*info_),
      config, &loaded->engine);
  // A failed creation may leave an engine behind: only the status counts.
  ready_ = Succeeded(status);
  if (ready_) {
    engine_ = std::shared_ptr<mace::MaceEngine>(loaded, loaded->engine.get());
    TARN_LOG(DEBUG) << "Init mace engine success.";
  } else {
    TARN_LOG(ERROR) << "Failed create mace engine, ret "
                    << status.information();
  }
  AllocateMemory();
}

void MaceModel::AllocateMemory() {
  for (unsigned int i = 0; i < info_->GetOutputNum(); ++i) {
    outputs_[info_->GetOutputName(i)].Resize(
        info_->GetOutputShape(i), info_->GetOutputDataType(i), Tensor::HOST);
  }
  for (unsigned int i = 0; i < info_->GetCacheNum(); ++i) {
    outputs_[info_->GetCacheName(i, true)].Resize(
        info_->GetCacheShape(i), info_->GetCacheDataType(i), Tensor::HOST);
  }
}

void MaceModel::Compute(BaseProxy* proxy) {
  if (!ready_) {
    TARN_LOG(ERROR) << "mace run model failed: the engine is not ready.";
    return;
  }
  const MaceTensors inputs = BindInputs(*proxy);
  MaceTensors outputs = BindOutputs();
  if (Run(proxy, inputs, outputs)) KeepResults(proxy);
}

void MaceModel::Compute(const std::vector<BaseProxy*>& /*proxies*/) {
  TARN_LOG(FATAL) << "not implemented yet.";
}

MaceModel::MaceTensors MaceModel::BindInputs(const BaseProxy& proxy) const {
  MaceTensors inputs;
  for (unsigned int i = 0; i < info_->GetInputNum(); ++i) {
    const std::string& name = info_->GetInputName(i);
    inputs.emplace(name, MakeMaceTensor(proxy.GetInput(name)));
  }
  for (unsigned int i = 0; i < info_->GetCacheNum(); ++i) {
    const std::string& name = info_->GetCacheName(i, false);
    inputs.emplace(name, MakeMaceTensor(proxy.GetCache(name)));
  }
  return inputs;
}

MaceModel::MaceTensors MaceModel::BindOutputs() const {
  MaceTensors outputs;
  for (const auto& output : outputs_) {
    outputs.emplace(output.first, MakeMaceTensor(output.second));
  }
  return outputs;
}

bool MaceModel::Run(BaseProxy* proxy, const MaceTensors& inputs,
                    MaceTensors& outputs) {
  // Untrue only when the log level silences fatal checks.
  if (!AreWrapped(inputs) || !AreWrapped(outputs)) {
    TARN_LOG_AS(ERROR, "Compute")
        << "mace run model failed: the engine can't take every tensor.";
    return false;
  }
  Observe(InferenceObserver::GATHERED, proxy);
  const mace::MaceStatus status = engine_->Run(inputs, &outputs);
  Observe(InferenceObserver::COMPUTED, proxy);
  if (!Succeeded(status)) {
    TARN_LOG_AS(ERROR, "Compute")
        << "mace run model failed: " << status.information();
    return false;
  }
  return true;
}

// Gives the proxy its outputs, and its caches their new values.
void MaceModel::KeepResults(BaseProxy* proxy) const {
  for (unsigned int i = 0; i < info_->GetOutputNum(); ++i) {
    const std::string& name = info_->GetOutputName(i);
    proxy->SetOutput(name, outputs_.at(name));
  }
  for (unsigned int i = 0; i < info_->GetCacheNum(); ++i) {
    const Tensor& cache = proxy->GetCache(info_->GetCacheName(i, false));
    MemoryCopy(cache.Data(), outputs_.at(info_->GetCacheName(i, true)).Data(),
               cache.GetElementNum() * cache.GetElementSize(), HOST_TO_HOST);
  }
}

mace::MaceTensor MaceModel::MakeMaceTensor(const Tensor& tensor) {
  const mace::IDataType type = TarnDataTypeToMace(tensor.GetDataType());
  if (tensor.Data() == nullptr || type == mace::IDT_INVALID) {
    // Reached only when the log level silences fatal checks. The engine would
    // abort over such a tensor.
    return mace::MaceTensor();
  }
  const std::vector<int64_t> shape(tensor.GetShape().begin(),
                                   tensor.GetShape().end());
  const std::shared_ptr<void> not_owned(tensor.Data(), [](void*) {});
  return mace::MaceTensor(shape, not_owned, mace::DataFormat::NONE, type,
                          mace::CPU_BUFFER);
}

mace::IDataType MaceModel::TarnDataTypeToMace(Tensor::DataType type) {
  switch (type) {
    case Tensor::FLOAT32:
      return mace::IDT_FLOAT;
    case Tensor::FLOAT16:
      return mace::IDT_FLOAT16;
    case Tensor::INT32:
      return mace::IDT_INT32;
    case Tensor::INT16:
      return mace::IDT_INT16;
    case Tensor::INT8:
      return mace::IDT_INT8;
    default:
      break;
  }
  TARN_LOG(FATAL) << "mace unsupported data type of: "
                  << static_cast<int32_t>(type);
  // Reached only when the log level silences fatal checks.
  return mace::IDT_INVALID;
}

Tensor::DataType MaceModel::MaceDataTypeToTarn(mace::IDataType type) {
  switch (type) {
    case mace::IDT_FLOAT:
      return Tensor::FLOAT32;
    case mace::IDT_FLOAT16:
      return Tensor::FLOAT16;
    case mace::IDT_INT32:
      return Tensor::INT32;
    case mace::IDT_INT16:
      return Tensor::INT16;
    case mace::IDT_UINT8:
    case mace::IDT_INT8:
      return Tensor::INT8;
    default:
      break;
  }
  TARN_LOG(FATAL) << "unsupported data type of mace: "
                  << static_cast<int32_t>(type);
  // Reached only when the log level silences fatal checks.
  return static_cast<Tensor::DataType>(0);  // NOLINT: out of range.
}

}  // namespace tarn
