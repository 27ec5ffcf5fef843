#include "base/tarn-functions.h"

#include <fstream>
#include <iterator>
#include <memory>
#include <utility>

#include "base/base-model-advice.h"
#include "base/base-proxy.h"
#include "utils/logging.h"
#include "utils/parse-device.h"
#include "utils/reporter.h"
// The factory is the one place in base that knows the backends it makes.
#ifdef USE_BACKEND_MACE
#include "model/mace-model.h"
#endif
#ifdef USE_BACKEND_ONNX
#include "model/onnx-model-check.h"
#include "model/onnx-model.h"
#endif

namespace tarn {

namespace {

// One call of a function that makes or checks models.
struct Request {
  Reporter reporter;  // In the name of that function.
  const std::string& backend;
  const std::string& model;  // The path of a file, or its bytes.
  bool from_memory;
  const std::string& weights;
  const std::string& cache;
};

// What the models of one request have in common.
struct Shared {
  std::shared_ptr<ModelInfo> info;
  std::shared_ptr<Queue<BaseProxy*>> queue;  // Null for a model's own.
  const std::string& bytes;                  // Of the model file.
};

enum class Backend { kOnnx, kMace, kTensorrt, kUnknown };

Backend BackendOf(const std::string& name) {
  if (name == "onnx") return Backend::kOnnx;
  if (name == "mace") return Backend::kMace;
  if (name == "tensorrt") return Backend::kTensorrt;
  return Backend::kUnknown;
}

#ifdef USE_BACKEND_ONNX
constexpr bool kHasOnnx = true;
#else
constexpr bool kHasOnnx = false;
#endif
#ifdef USE_BACKEND_MACE
constexpr bool kHasMace = true;
#else
constexpr bool kHasMace = false;
#endif

bool CheckBuiltIn(bool built_in, const char* macro, const Reporter& reporter) {
  if (!built_in) {
    reporter.Report(FATAL, {"backend", "use a library that has the backend"})
        << "expect macro:" << macro << " to be turned on.";
  }
  return built_in;
}

// Whether this build can serve the request.
bool CheckBackend(const Request& request) {
  const Reporter& reporter = request.reporter;
  switch (BackendOf(request.backend)) {
    case Backend::kOnnx:
      return CheckBuiltIn(kHasOnnx, "USE_BACKEND_ONNX", reporter);
    case Backend::kMace:
      if (request.from_memory) {
        reporter.Report(FATAL, {"backend", "give the paths of files"})
            << "unimplemented.";
        return false;
      }
      return CheckBuiltIn(kHasMace, "USE_BACKEND_MACE", reporter);
    case Backend::kTensorrt:
      return CheckBuiltIn(false, "USE_BACKEND_TENSORRT", reporter);
    case Backend::kUnknown:
      reporter.Report(FATAL, {"backend", "use onnx or mace"})
          << "unknow backend:" << request.backend;
  }
  return false;
}

// Null after a backend that has been reported.
std::unique_ptr<Model> MakeOfBackend([[maybe_unused]] const Request& request,
                                     [[maybe_unused]] const Shared& shared,
                                     [[maybe_unused]] const Device& device) {
  switch (BackendOf(request.backend)) {
#ifdef USE_BACKEND_ONNX
    case Backend::kOnnx:
      return std::make_unique<OnnxModel>(shared.info, shared.bytes, device,
                                         shared.queue);
#endif
#ifdef USE_BACKEND_MACE
    case Backend::kMace:
      return std::make_unique<MaceModel>(shared.info, request.model,
                                         request.weights, request.cache, device,
                                         shared.queue);
#endif
    default:
      return nullptr;
  }
}

std::unique_ptr<Model> MakeModel(const Request& request, const Shared& shared,
                                 const Device& device) {
  std::unique_ptr<Model> model;
  if (CheckBackend(request)) model = MakeOfBackend(request, shared, device);
  if (model == nullptr) {
    request.reporter.Report(FATAL, {"", ""}) << "create model failed.";
  }
  return model;
}

void ReportUnreadable(const Request& request) {
  request.reporter.Report(FATAL, {"file", "name a readable file"})
      << "read model failed from " << request.model;
}

// Reads the whole file if the request names one. Returns false when it cannot
// be read.
bool ReadModelFile(const Request& request, std::string& bytes) {
  if (request.from_memory) return true;
  std::ifstream is(request.model, std::ios::binary);
  is.peek();  // What opens but cannot be read, a folder, shows only now.
  if (!is.is_open() || is.bad()) {
    ReportUnreadable(request);
    return false;  // Reached only when nothing aborts.
  }
  const std::streamoff size = is.seekg(0, std::ios::end).tellg();
  is.clear();
  is.seekg(0);
  if (size > 0) {
    bytes.resize(static_cast<size_t>(size));
    is.read(&bytes[0], size);
  } else {  // A pipe tells no size.
    is.clear();
    bytes.assign(std::istreambuf_iterator<char>(is), {});
  }
  if (is.bad() || (size > 0 && is.gcount() != size)) {
    ReportUnreadable(request);
    return false;  // Reached only when nothing aborts.
  }
  return true;
}

void ReportSuccess(const Request& request, const std::string& devices) {
  request.reporter.Report(WARNING, {"", ""})
      << "initialize successfully, model from "
      << (request.from_memory ? "stream" : request.model)
      << ", with backend of " << request.backend << ", on " << devices;
}

Model* MakeOne(const Request& request, const ModelOptions& options,
               const std::string& device_text) {
  const auto info = std::make_shared<ModelInfo>(options);
  const Device device(device_text);
  std::string file;
  if (!ReadModelFile(request, file)) return nullptr;
  const Shared shared{info, nullptr,
                      request.from_memory ? request.model : file};
  std::unique_ptr<Model> model = MakeModel(request, shared, device);
  if (model != nullptr) ReportSuccess(request, device_text);
  return model.release();
}

std::vector<Model*> MakeShared(const Request& request,
                               const ModelOptions& options,
                               const std::vector<std::string>& device_texts) {
  const auto info = std::make_shared<ModelInfo>(options);
  if (!info->multi_threads()) {
    request.reporter.Report(FATAL, {"", ""}) << "expect --multi-threads=true.";
  }
  if (!info->infer_thread()) {
    request.reporter.Report(FATAL, {"", ""}) << "expect --infer-thread=true.";
  }
  std::string file;
  if (!ReadModelFile(request, file)) return {};
  const Shared shared{info, std::make_shared<Queue<BaseProxy*>>(),
                      request.from_memory ? request.model : file};
  // Owned here until all are made: a later one may throw.
  std::vector<std::unique_ptr<Model>> models;
  std::string devices;
  for (const std::string& text : device_texts) {
    std::unique_ptr<Model> model = MakeModel(request, shared, Device(text));
    if (model != nullptr) models.push_back(std::move(model));
    devices += (devices.empty() ? "" : ";") + text;
  }
  ReportSuccess(request, devices);
  std::vector<Model*> released;
  for (auto& model : models) released.push_back(model.release());
  return released;
}

// Checks what loading the network would find.
void CheckNetwork(const Request& request,
                  [[maybe_unused]] const ModelInfo& info,
                  [[maybe_unused]] const Device& device) {
  std::string file;
  if (!ReadModelFile(request, file) || !CheckBackend(request)) return;
#ifdef USE_BACKEND_MACE
  if (BackendOf(request.backend) == Backend::kMace) {
    CheckMaceModel(request.model, request.weights, info, device,
                   request.reporter);
  }
#endif
#ifdef USE_BACKEND_ONNX
  if (BackendOf(request.backend) == Backend::kOnnx) {
    CheckOnnxModel(request.from_memory ? request.model : file, info, device,
                   request.reporter);
  }
#endif
}

void CheckAll(const Request& request, const ModelOptions& options,
              const std::string& device_text, std::vector<Finding>& findings) {
  const ModelInfo info(options, findings);
  GiveAdvice(options, info, request.backend, request.reporter);
  Device device;
  const bool device_exists = ParseDevice(device_text, request.reporter, device);
  const bool has_network = request.from_memory || !request.model.empty();
  if (device_exists && has_network) CheckNetwork(request, info, device);
}

// The proxy as this library's own; null, with a FATAL, for any other.
BaseProxy* RequestOf(Proxy* proxy, const char* function) {
  auto* request = dynamic_cast<BaseProxy*>(proxy);
  if (request == nullptr) {
    TARN_LOG_AS(FATAL, function)
        << (proxy == nullptr ? "proxy is nullptr"
                             : "the proxy can't be run by this library.");
  }
  return request;
}

// The proxies as requests of one model. False where they are not, which shows
// only when the log level silences fatal checks.
bool RequestsOf(const std::vector<Proxy*>& proxies, const char* function,
                std::vector<BaseProxy*>& requests) {
  requests.reserve(proxies.size());
  for (Proxy* proxy : proxies) {
    BaseProxy* request = RequestOf(proxy, function);
    if (request == nullptr) return false;
    requests.push_back(request);
    if (request->model() != requests.front()->model()) {
      TARN_LOG_AS(FATAL, function) << "the proxies belong to different models.";
      return false;
    }
  }
  return true;
}

}  // namespace

Model* NewModel(const ModelOptions& options, const std::string& backend,
                const std::string& device, const std::string& model,
                const std::string& weights, const std::string& cache) {
  return MakeOne(
      {Reporter().As(__func__), backend, model, false, weights, cache}, options,
      device);
}

Model* NewModelFromMem(const ModelOptions& options, const std::string& backend,
                       const std::string& device,
                       const std::string& model_bytes,
                       const std::string& weights, const std::string& cache) {
  return MakeOne(
      {Reporter().As(__func__), backend, model_bytes, true, weights, cache},
      options, device);
}

std::vector<Model*> NewSharedModels(const ModelOptions& options,
                                    const std::string& backend,
                                    const std::vector<std::string>& devices,
                                    const std::string& model,
                                    const std::string& weights,
                                    const std::string& cache) {
  return MakeShared(
      {Reporter().As(__func__), backend, model, false, weights, cache}, options,
      devices);
}

std::vector<Model*> NewSharedModelsFromMem(
    const ModelOptions& options, const std::string& backend,
    const std::vector<std::string>& devices, const std::string& model_bytes,
    const std::string& weights, const std::string& cache) {
  return MakeShared(
      {Reporter().As(__func__), backend, model_bytes, true, weights, cache},
      options, devices);
}

std::vector<Finding> CheckModel(const ModelOptions& options,
                                const std::string& backend,
                                const std::string& device,
                                const std::string& model,
                                const std::string& weights,
                                const std::string& cache) {
  std::vector<Finding> findings;
  CheckAll({Reporter(&findings, &options.lines).As(__func__), backend, model,
            false, weights, cache},
           options, device, findings);
  return findings;
}

std::vector<Finding> CheckModelFromMem(const ModelOptions& options,
                                       const std::string& backend,
                                       const std::string& device,
                                       const std::string& model_bytes,
                                       const std::string& weights,
                                       const std::string& cache) {
  std::vector<Finding> findings;
  CheckAll({Reporter(&findings, &options.lines).As(__func__), backend,
            model_bytes, true, weights, cache},
           options, device, findings);
  return findings;
}

bool Inference(const std::vector<Proxy*>& proxies) {
  std::vector<BaseProxy*> requests;
  if (!RequestsOf(proxies, __func__, requests)) return false;
  if (requests.empty()) return true;
  try {
    for (BaseProxy* request : requests) request->BeginRequest();
    requests.front()->model()->InferAll(requests);
  } catch (...) {
    for (BaseProxy* request : requests) request->CancelRequest();
    throw;
  }
  bool all_have_outputs = true;
  for (BaseProxy* request : requests) {
    all_have_outputs = request->EndRequest() && all_have_outputs;
  }
  return all_have_outputs;
}

void InferenceAsync(Proxy* proxy, std::function<void(Proxy*, bool)> done) {
  BaseProxy* request = RequestOf(proxy, __func__);
  if (request == nullptr) return;
  if (!request->model()->HasInferThread()) {
    TARN_LOG(FATAL) << "expect --infer-thread=true.";
    return;  // Reached only when the log level silences fatal checks.
  }
  request->BeginRequest();
  request->SetDone(std::move(done));
  request->model()->Submit(request);
}

void SetObserver(Model* model, InferenceObserver* observer) {
  auto* base_model = dynamic_cast<BaseModel*>(model);
  if (base_model == nullptr) {
    TARN_LOG(FATAL) << "the model can't be observed.";
    return;  // Reached only when the log level silences fatal checks.
  }
  base_model->SetObserver(observer);
}

}  // namespace tarn
