#include "base/base-model.h"

#include <utility>

#include "base/base-proxy.h"
#include "utils/device-utils.h"
#include "utils/logging.h"

namespace tarn {

namespace {

// How long an idle model without batches sleeps at a time, in microseconds.
constexpr unsigned int kIdleInterval = 1000000;

}  // namespace

template class Queue<BaseProxy*>;

InferenceObserver::~InferenceObserver() = default;

Model::~Model() = default;

bool Model::Ready() const { return true; }

BaseModel::BaseModel(std::shared_ptr<ModelInfo> info, const Device& device,
                     std::shared_ptr<Queue<BaseProxy*>> queue)
    : info_(std::move(info)), device_(device) {
  if (info_ == nullptr) {
    TARN_LOG(FATAL) << "the pointer of ModelInfo is nullptr.";
    return;  // Reached only when the log level silences fatal checks.
  }
  if (info_->HasBatchDimension() || info_->infer_thread()) {
    queue_ = queue ? std::move(queue) : std::make_shared<Queue<BaseProxy*>>();
  } else if (queue != nullptr) {
    TARN_LOG(FATAL) << "invalid parameter: queue should be nullptr.";
  }
  if (info_->multi_threads() && !info_->infer_thread()) {
    compute_mutex_ = std::make_shared<std::mutex>();
  }
}

BaseModel::~BaseModel() = default;

Proxy* BaseModel::NewProxy() {
  if (queue_ != nullptr) return new ParallelProxy(this, info_.get());
  return new SerialProxy(this, info_.get());
}

void BaseModel::Inference(BaseProxy* proxy) {
  if (proxy == nullptr) TARN_LOG(FATAL) << "proxy is nullptr";
  if (info_->infer_thread()) {
    HandToInferThread(proxy);
  } else if (info_->HasBatchDimension()) {
    ComputeWithOtherCallers(proxy);
  } else {
    ComputeHere(proxy);
  }
}

// The proxy belongs to the inference thread from Push() until that thread
// notifies it, which ends Wait().
void BaseModel::HandToInferThread(BaseProxy* proxy) {
  Observe(InferenceObserver::QUEUED, proxy);
  queue_->Push(proxy, info_->HasBatchDimension() ? BatchSize() : 1);
  proxy->Wait();
}

// The caller that completes a batch computes it for all of its members; the
// others wait. No lock is held while a caller waits. A proxy belongs to
// whichever caller popped it until that caller notifies it.
void BaseModel::ComputeWithOtherCallers(BaseProxy* proxy) {
  Observe(InferenceObserver::QUEUED, proxy);
  queue_->Push(proxy, kWakeNobody);
  const std::vector<BaseProxy*> batch = queue_->Pop(BatchSize());
  if (!batch.empty()) {
    const std::lock_guard<std::mutex> lock(*compute_mutex_);
    ComputeObserved(batch);
  }
  bool computed = false;
  for (BaseProxy* member : batch) {
    if (member == proxy) {
      computed = true;
    } else {
      member->Notify();
    }
  }
  // Less than a batch was waiting, or more: another caller computes it.
  if (!computed) proxy->Wait();
}

void BaseModel::ComputeHere(BaseProxy* proxy) {
  if (compute_mutex_ == nullptr) {
    ComputeObserved(proxy);
    return;
  }
  const std::lock_guard<std::mutex> lock(*compute_mutex_);
  ComputeObserved(proxy);
}

// Computes one request or a batch of them.
template <typename Requests>
void BaseModel::ComputeObserved(const Requests& requests) {
  Observe(InferenceObserver::TAKEN, requests);
  Compute(requests);
  Observe(InferenceObserver::SCATTERED, requests);
}

void BaseModel::Observe(InferenceObserver::Event event,
                        const std::vector<BaseProxy*>& proxies) const {
  InferenceObserver* observer = observer_.load(std::memory_order_acquire);
  if (observer != nullptr) observer->OnEvent(event, proxies);
}

void BaseModel::Observe(InferenceObserver::Event event,
                        BaseProxy* proxy) const {
  InferenceObserver* observer = observer_.load(std::memory_order_acquire);
  if (observer != nullptr) observer->OnEvent(event, {proxy});
}

unsigned int BaseModel::BatchSize() const {
  const std::string& batch_dim = info_->batch_dim();
  const int size = info_->GetDimension(batch_dim);
  return static_cast<unsigned int>(
      size == -1 ? info_->GetDimensionRange(batch_dim).second : size);
}

void BaseModel::StartInferThread() {
  if (info_ == nullptr || !info_->infer_thread()) return;
  running_ = true;
  thread_ = std::thread(ThreadFunction, this);
}

void BaseModel::StopInferThread() {
  running_ = false;
  if (!thread_.joinable()) return;
  queue_->Wake();  // It need not sleep out its interval first.
  thread_.join();
}

void* BaseModel::ThreadFunction(BaseModel* model) {
  SetActiveDevice(model->device_);
  const ModelInfo& info = *model->info_;
  const bool has_batch_dimension = info.HasBatchDimension();
  const unsigned int batch_size = has_batch_dimension ? model->BatchSize() : 1;
  const auto interval = static_cast<unsigned int>(info.infer_interval());
  while (!model->IsStopped()) {
    if (has_batch_dimension) {
      model->ServeBatch(batch_size, interval);
    } else {
      model->ServeOne();
    }
  }
  return nullptr;
}

// A stopping thread first drains the queue.
bool BaseModel::IsStopped() const {
  return !running_.load(std::memory_order_relaxed) && queue_->Empty();
}

void BaseModel::ServeBatch(unsigned int batch_size, unsigned int interval) {
  const std::vector<BaseProxy*> batch =
      queue_->Pop(batch_size, interval, running_);
  if (!batch.empty()) ComputeObserved(batch);
  // A notified proxy is its caller's again and may be gone at once.
  for (BaseProxy* proxy : batch) proxy->Notify();
}

void BaseModel::ServeOne() {
  const std::vector<BaseProxy*> popped =
      queue_->Pop(1, kIdleInterval, running_);
  for (BaseProxy* proxy : popped) {
    ComputeObserved(proxy);
    proxy->Notify();
  }
}

}  // namespace tarn
