#include "base/tarn-functions.h"

#include <fstream>
#include <iterator>
#include <memory>

#include "utils/logging.h"
// The factory is the one place in base that knows the backends it makes.
#ifdef USE_BACKEND_MACE
#include "model/mace-model.h"
#endif
#ifdef USE_BACKEND_ONNX
#include "model/onnx-model.h"
#endif

namespace tarn {

namespace {

// One call of a factory function.
struct Request {
  const char* function;  // Reported as the origin of messages.
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

void ReportNotBuiltIn(const char* macro, const char* function) {
  TARN_LOG_AS(FATAL, function)
      << "expect macro:" << macro << " to be turned on.";
}

std::unique_ptr<Model> MakeOnnxModel([[maybe_unused]] const Request& request,
                                     [[maybe_unused]] const Shared& shared,
                                     [[maybe_unused]] const Device& device) {
#ifdef USE_BACKEND_ONNX
  return std::make_unique<OnnxModel>(shared.info, shared.bytes, device,
                                     shared.queue);
#else
  ReportNotBuiltIn("USE_BACKEND_ONNX", request.function);
  return nullptr;
#endif
}

std::unique_ptr<Model> MakeMaceModel(const Request& request,
                                     [[maybe_unused]] const Shared& shared,
                                     [[maybe_unused]] const Device& device) {
  if (request.from_memory) {
    TARN_LOG_AS(FATAL, request.function) << "unimplemented.";
    return nullptr;  // Reached only when the log level silences fatal checks.
  }
#ifdef USE_BACKEND_MACE
  return std::make_unique<MaceModel>(shared.info, request.model,
                                     request.weights, request.cache, device,
                                     shared.queue);
#else
  ReportNotBuiltIn("USE_BACKEND_MACE", request.function);
  return nullptr;
#endif
}

std::unique_ptr<Model> MakeModel(const Request& request, const Shared& shared,
                                 const Device& device) {
  std::unique_ptr<Model> model;
  if (request.backend == "onnx") {
    model = MakeOnnxModel(request, shared, device);
  } else if (request.backend == "mace") {
    model = MakeMaceModel(request, shared, device);
  } else if (request.backend == "tensorrt") {
    ReportNotBuiltIn("USE_BACKEND_TENSORRT", request.function);
  } else {
    TARN_LOG_AS(FATAL, request.function)
        << "unknow backend:" << request.backend;
  }
  if (model == nullptr) {
    TARN_LOG_AS(FATAL, request.function) << "create model failed.";
  }
  return model;
}

// Reads the whole file if the request names one. Returns false when it cannot
// be read.
bool ReadModelFile(const Request& request, std::string& bytes) {
  if (request.from_memory) return true;
  std::ifstream is(request.model, std::ios::binary);
  is.peek();  // What opens but cannot be read, a folder, shows only now.
  if (!is.is_open() || is.bad()) {
    TARN_LOG_AS(FATAL, request.function)
        << "read model failed from " << request.model;
    return false;  // Reached only when the log level silences fatal checks.
  }
  bytes.assign(std::istreambuf_iterator<char>(is), {});
  return true;
}

void ReportSuccess(const Request& request, const std::string& devices) {
  TARN_LOG_AS(WARNING, request.function)
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
    TARN_LOG_AS(FATAL, request.function) << "expect --multi-threads=true.";
  }
  if (!info->infer_thread()) {
    TARN_LOG_AS(FATAL, request.function) << "expect --infer-thread=true.";
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

}  // namespace

Model* NewModel(const ModelOptions& options, const std::string& backend,
                const std::string& device, const std::string& model,
                const std::string& weights, const std::string& cache) {
  return MakeOne({__func__, backend, model, false, weights, cache}, options,
                 device);
}

Model* NewModelFromMem(const ModelOptions& options, const std::string& backend,
                       const std::string& device,
                       const std::string& model_bytes,
                       const std::string& weights, const std::string& cache) {
  return MakeOne({__func__, backend, model_bytes, true, weights, cache},
                 options, device);
}

std::vector<Model*> NewSharedModels(const ModelOptions& options,
                                    const std::string& backend,
                                    const std::vector<std::string>& devices,
                                    const std::string& model,
                                    const std::string& weights,
                                    const std::string& cache) {
  return MakeShared({__func__, backend, model, false, weights, cache}, options,
                    devices);
}

std::vector<Model*> NewSharedModelsFromMem(
    const ModelOptions& options, const std::string& backend,
    const std::vector<std::string>& devices, const std::string& model_bytes,
    const std::string& weights, const std::string& cache) {
  return MakeShared({__func__, backend, model_bytes, true, weights, cache},
                    options, devices);
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
