#ifndef TARN_BASE_BASE_MODEL_H_
#define TARN_BASE_BASE_MODEL_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/base-model-info.h"
#include "base/base-model-options.h"
#include "base/base-observer.h"
#include "base/base-queue.h"
#include "utils/export.h"
#include "utils/tarn-device.h"

namespace tarn {

class BaseProxy;
class Proxy;

// A loaded network. Made by the factory functions and owned by their caller; it
// must outlive every proxy it made. Several threads may call it at once when
// its options say --multi-threads or --infer-thread.
//
// The order of the virtual operations of Model and BaseModel is part of the
// interface: append, never reorder.
class TARN_EXPORT Model {
 public:
  // The engines, by the values that hosts know them by.
  enum BackEnd : int32_t {
    ONNX = 2,
    MACE = 3,
  };

  virtual ~Model();

  // A new request stream; the caller owns it and deletes it before the model.
  virtual Proxy* NewProxy() = 0;

  // The engine that computes.
  virtual BackEnd GetBackEnd() const = 0;

  // Whether the engine has loaded the network.
  virtual bool Ready() const;

  // Called by the proxy; returns when its request has been computed, or has
  // failed, which leaves the proxy without outputs.
  virtual void Inference(BaseProxy* proxy) = 0;
};

// What does not depend on the engine: proxies, running modes, batches of
// several callers' requests, and the inference thread.
//
// A backend derives from it and supplies LoadModel() and both Compute(). Its
// constructor ends with StartInferThread(), its destructor begins with
// StopInferThread(): nothing may be released under a running thread.
class TARN_EXPORT BaseModel : public Model {
 public:
  // Creates a queue of its own if the running mode needs one and none is given.
  // FATAL without `info`, and for a queue where none is needed.
  BaseModel(std::shared_ptr<ModelInfo> info, const Device& device,
            std::shared_ptr<Queue<BaseProxy*>> queue);
  BaseModel(const BaseModel&) = delete;
  BaseModel& operator=(const BaseModel&) = delete;
  ~BaseModel() override;

  Proxy* NewProxy() override;
  void Inference(BaseProxy* proxy) override;

  // Loads the network; what `model` holds is the backend's affair.
  virtual void LoadModel(const std::string& model) = 0;

  // Computes one request: reads the proxy's inputs and caches, sets its outputs
  // and new caches. Runs in the caller's thread, or in the inference thread of
  // a model without batch dimension.
  virtual void Compute(BaseProxy* proxy) = 0;

  // Computes several requests as one batch, at most the batch size.
  virtual void Compute(const std::vector<BaseProxy*>& proxies) = 0;

  // Computes the requests of several proxies of this model, which have been
  // begun, and returns when all are: through the queue where there is one.
  void InferAll(const std::vector<BaseProxy*>& proxies);

  // Queues a request that has been begun and returns at once. Needs an
  // inference thread, which completes it.
  void Submit(BaseProxy* proxy);

  // Whether a thread of the model's own computes the requests.
  bool HasInferThread() const { return info_->infer_thread(); }

  // See SetObserver().
  void SetObserver(InferenceObserver* observer) { observer_ = observer; }

  // The body of the inference thread. Serves the queue until the model is to
  // stop and the queue is drained; returns a null pointer.
  static void* ThreadFunction(BaseModel* model);

 protected:
  // Starts the inference thread if the options ask for one.
  void StartInferThread();

  // Lets the inference thread drain the queue and joins it, if there is one.
  void StopInferThread();

  // Tells the observer, if there is one. A backend reports GATHERED and
  // COMPUTED, this class the other events.
  void Observe(InferenceObserver::Event event,
               const std::vector<BaseProxy*>& proxies) const;
  void Observe(InferenceObserver::Event event, BaseProxy* proxy) const;

  // The most requests that one batch holds; 1 without a batch dimension.
  unsigned int BatchSize() const { return batch_size_; }

  std::shared_ptr<ModelInfo> info_;  // The description.
  Device device_;                    // Where the engine runs.
  // Waiting requests; empty when each is computed in its caller's thread.
  std::shared_ptr<Queue<BaseProxy*>> queue_;
  // Held around a Compute() in a caller's thread, where several may call.
  std::shared_ptr<std::mutex> compute_mutex_;
  std::thread thread_;
  std::atomic<bool> running_{false};
  std::atomic<InferenceObserver*> observer_{nullptr};  // Not owned.
  unsigned int batch_size_ = 1;

 private:
  template <typename Requests>
  void ComputeObserved(const Requests& requests);
  void ComputeForCallers(const std::vector<BaseProxy*>& batch);
  void HandToInferThread(BaseProxy* proxy);
  void ComputeWithOtherCallers(BaseProxy* proxy);
  void ComputeHere(BaseProxy* proxy);
  void ComputeQueued(size_t count);
  void CheckMayWait() const;
  void Serve(unsigned int batch_size, unsigned int interval);
  bool IsStopped() const;
};

}  // namespace tarn

#endif  // TARN_BASE_BASE_MODEL_H_
