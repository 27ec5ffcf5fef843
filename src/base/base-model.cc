#include "base/base-model.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "base/base-proxy.h"
#include "utils/device-utils.h"
#include "utils/logging.h"

namespace tarn {

namespace {

unsigned int BatchSizeOf(const ModelInfo& info) {
  if (!info.HasBatchDimension()) return 1;
  const int size = info.GetDimension(info.batch_dim());
  return static_cast<unsigned int>(
      size == -1 ? info.GetDimensionRange(info.batch_dim()).second : size);
}

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
  batch_size_ = BatchSizeOf(*info_);
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
  CheckMayWait();
  Submit(proxy);
  proxy->Wait();
}

void BaseModel::Submit(BaseProxy* proxy) {
  Observe(InferenceObserver::QUEUED, proxy);
  queue_->Push(proxy, BatchSize());
}

void BaseModel::CheckMayWait() const {
  if (std::this_thread::get_id() != thread_.get_id()) return;
  TARN_LOG_AS(FATAL, "Inference")
      << "the inference thread can't wait for an inference.";
}

// The caller that completes a batch computes it for all of its members; the
// others wait. No lock is held while a caller waits. A proxy belongs to
// whichever caller popped it until that caller completes it.
void BaseModel::ComputeWithOtherCallers(BaseProxy* proxy) {
  Observe(InferenceObserver::QUEUED, proxy);
  queue_->Push(proxy, kWakeNobody);
  const std::vector<BaseProxy*> batch = queue_->Pop(BatchSize());
  if (!batch.empty()) {
    const std::lock_guard<std::mutex> lock(*compute_mutex_);
    ComputeForCallers(batch);
  }
  bool computed = false;
  for (BaseProxy* member : batch) {
    if (member == proxy) {
      computed = true;
    } else {
      member->Complete();
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

void BaseModel::InferAll(const std::vector<BaseProxy*>& proxies) {
  if (queue_ == nullptr) {
    for (BaseProxy* proxy : proxies) ComputeHere(proxy);
    return;
  }
  if (HasInferThread()) CheckMayWait();
  Observe(InferenceObserver::QUEUED, proxies);
  const size_t count =
      queue_->Push(proxies, HasInferThread() ? BatchSize() : kWakeNobody);
  if (!HasInferThread()) ComputeQueued(count);
  // The last one is computed last: this thread sleeps once, not for each.
  for (auto proxy = proxies.rbegin(); proxy != proxies.rend(); ++proxy) {
    (*proxy)->Wait();
  }
}

// Computes up to `count` waiting requests in this thread, in batches of which
// the last may be a partial one.
void BaseModel::ComputeQueued(size_t count) {
  while (count > 0) {
    const std::vector<BaseProxy*> batch = queue_->Pop(BatchSize(), 0);
    if (batch.empty()) return;  // Other callers have taken the rest.
    count -= std::min(count, batch.size());
    {
      const std::lock_guard<std::mutex> lock(*compute_mutex_);
      ComputeForCallers(batch);
    }
    for (BaseProxy* proxy : batch) proxy->Complete();
  }
}

// Computes a batch whose callers wait: they must hear of it in any case.
void BaseModel::ComputeForCallers(const std::vector<BaseProxy*>& batch) {
  try {
    if (info_->HasBatchDimension()) {
      ComputeObserved(batch);
    } else {
      ComputeObserved(batch.front());
    }
  } catch (const std::exception& exception) {
    TARN_LOG_AS(ERROR, "Compute") << "inference failed: " << exception.what();
    for (BaseProxy* proxy : batch) proxy->DropOutputs();
  }
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
  const unsigned int batch_size = model->BatchSize();
  const auto interval = info.HasBatchDimension()
                            ? static_cast<unsigned int>(info.infer_interval())
                            : kIdleInterval;
  while (!model->IsStopped()) model->Serve(batch_size, interval);
  return nullptr;
}

// A stopping thread first drains the queue.
bool BaseModel::IsStopped() const {
  return !running_.load(std::memory_order_relaxed) && queue_->Empty();
}

void BaseModel::Serve(unsigned int batch_size, unsigned int interval) {
  const std::vector<BaseProxy*> batch =
      queue_->Pop(batch_size, interval, running_);
  if (!batch.empty()) ComputeForCallers(batch);
  // A completed proxy is its caller's again and may be gone at once.
  for (BaseProxy* proxy : batch) proxy->Complete();
}

}  // namespace tarn
