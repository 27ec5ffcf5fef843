#ifndef TARN_BASE_TARN_FUNCTIONS_H_
#define TARN_BASE_TARN_FUNCTIONS_H_

#include <string>
#include <vector>

#include "base/base-model.h"
#include "utils/export.h"

namespace tarn {

// The functions below make models; the caller owns and deletes them.
//
// `backend` is "onnx" or "mace". `device` is such as "cpu" or "htp" (see
// Device). The ONNX backend loads the one file or the bytes `model`; the last
// two texts are for the MACE backend, whose graph, weights and accelerator
// cache files are `model`, `weights` and `cache`. An empty `cache` is none.
//
// What is wrong with options, description or network is FATAL; where the log
// level silences that, the result is null. A network that the engine cannot
// load leaves as the engine's exception, derived from std::exception. Safe from
// any thread.

TARN_EXPORT Model* NewModel(const ModelOptions& options,
                            const std::string& backend,
                            const std::string& device, const std::string& model,
                            const std::string& weights,
                            const std::string& cache);

// The same from the bytes of the model file. Not for MACE.
TARN_EXPORT Model* NewModelFromMem(const ModelOptions& options,
                                   const std::string& backend,
                                   const std::string& device,
                                   const std::string& model_bytes,
                                   const std::string& weights,
                                   const std::string& cache);

// One model per device, in the order of `devices`, with an inference thread
// each. They share one queue: a request to any of them is computed by whichever
// takes it first. All must live until the last of their proxies is done. Needs
// --multi-threads and --infer-thread.
TARN_EXPORT std::vector<Model*> NewSharedModels(
    const ModelOptions& options, const std::string& backend,
    const std::vector<std::string>& devices, const std::string& model,
    const std::string& weights, const std::string& cache);

// The same from the bytes of the model file. Not for MACE.
TARN_EXPORT std::vector<Model*> NewSharedModelsFromMem(
    const ModelOptions& options, const std::string& backend,
    const std::vector<std::string>& devices, const std::string& model_bytes,
    const std::string& weights, const std::string& cache);

// Lets `observer` watch the model's requests, or nobody when it is null. To be
// set while no inference runs; the observer must outlive the model or the next
// call. FATAL for a model that was not made by this library's classes.
TARN_EXPORT void SetObserver(Model* model, InferenceObserver* observer);

}  // namespace tarn

#endif  // TARN_BASE_TARN_FUNCTIONS_H_
