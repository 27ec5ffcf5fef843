#ifndef TARN_BASE_TARN_FUNCTIONS_H_
#define TARN_BASE_TARN_FUNCTIONS_H_

#include <functional>
#include <string>
#include <vector>

#include "base/base-model.h"
#include "utils/export.h"
#include "utils/finding.h"

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

// Reports everything that would keep the functions above from making a model,
// and settings that are legal but likely not meant, without logging anything,
// aborting or throwing: for hosts that must survive a bad model bundle. When no
// finding is of ERROR or above, a model can be made of the same arguments. The
// findings come in the order in which making one would log them. An empty
// `model` path checks the description alone. Safe from any thread.
TARN_EXPORT std::vector<Finding> CheckModel(const ModelOptions& options,
                                            const std::string& backend,
                                            const std::string& device,
                                            const std::string& model,
                                            const std::string& weights,
                                            const std::string& cache);

// The same for the bytes of the model file. Not for MACE.
TARN_EXPORT std::vector<Finding> CheckModelFromMem(
    const ModelOptions& options, const std::string& backend,
    const std::string& device, const std::string& model_bytes,
    const std::string& weights, const std::string& cache);

// Runs the requests of several streams of one model from one thread: as each
// proxy's own Inference(), but returns when all have been computed. They go
// through the model's queue where there is one, and so into batches with
// everybody else's requests; a model whose callers batch for one another does
// not wait for others to fill the last batch. Returns whether every proxy has
// outputs; each one's HasOutput() tells its own outcome.
//
// FATAL, before anything is computed: a null proxy, one that is in flight or
// given twice, proxies of different models, a missing input.
TARN_EXPORT bool Inference(const std::vector<Proxy*>& proxies);

// Starts a request and returns at once. Needs a model with --infer-thread: that
// thread calls `done` with the proxy and whether it has outputs, once, when the
// proxy is its owner's again.
//
// In `done` the owner may read outputs, set inputs, start the proxy's next
// request with this function, or delete the proxy. It must not block or throw,
// must not wait for an inference (FATAL), and must not destroy the model: until
// it returns, the thread serves nobody else. Before the model is destroyed no
// `done` may start further requests; those that wait are still computed.
//
// FATAL: as above, and a model without an inference thread.
TARN_EXPORT void InferenceAsync(Proxy* proxy,
                                std::function<void(Proxy*, bool)> done);

// Lets `observer` watch the model's requests, or nobody when it is null. To be
// set while no inference runs; the observer must outlive the model or the next
// call. FATAL for a model that was not made by this library's classes.
TARN_EXPORT void SetObserver(Model* model, InferenceObserver* observer);

}  // namespace tarn

#endif  // TARN_BASE_TARN_FUNCTIONS_H_
