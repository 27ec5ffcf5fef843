#ifndef TOOLS_TARN_EVENT_LOG_H_
#define TOOLS_TARN_EVENT_LOG_H_

#include <chrono>
#include <cstddef>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/base-observer.h"

namespace tarn::tool {

// Records what happens to every request of a model, and when. Safe from any
// thread; but for PlaceOf(), read it when no inference runs.
class EventLog : public InferenceObserver {
 public:
  using Clock = std::chrono::steady_clock;

  // Requests that were computed together.
  struct Batch {
    Clock::time_point taken;
    Clock::time_point gathered;
    Clock::time_point computed;
    Clock::time_point scattered;
    std::thread::id thread;        // That computed it.
    std::vector<size_t> requests;  // Indices into requests(), by row.
  };

  struct Request {
    const BaseProxy* proxy;
    Clock::time_point queued;  // That of taking it for a model without queue.
    size_t batch;              // Index into batches().
    size_t row;                // Its place in the batch.
  };

  // Where a request was computed.
  struct Place {
    size_t batch_size;  // Requests in its batch.
    size_t row;
  };

  void OnEvent(Event event, const std::vector<BaseProxy*>& proxies) override;

  // In the order in which they were taken.
  const std::vector<Request>& requests() const { return requests_; }
  const std::vector<Batch>& batches() const { return batches_; }

  // Of the proxy's latest request, which has been computed.
  Place PlaceOf(const BaseProxy* proxy);

  // Requests per batch; 0 when there was none.
  double MeanBatchSize() const;

  // Forgets what has been recorded, such as a warm-up.
  void Clear();

  // Writes all as a Chrome trace: for each request the spans queued, gathered,
  // computed and scattered, and a span for each batch. Throws a Failure when
  // the file cannot be written.
  void WriteTrace(const std::string& path) const;

 private:
  void AddBatch(const std::vector<BaseProxy*>& proxies, Clock::time_point now);

  std::mutex mutex_;  // Guards what follows.
  std::map<const BaseProxy*, Clock::time_point> queued_;
  std::map<const BaseProxy*, size_t> latest_;  // Index into requests_.
  std::map<std::thread::id, size_t> running_;  // Batch that a thread computes.
  std::vector<Request> requests_;
  std::vector<Batch> batches_;
};

}  // namespace tarn::tool

#endif  // TOOLS_TARN_EVENT_LOG_H_
