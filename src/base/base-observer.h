#ifndef TARN_BASE_BASE_OBSERVER_H_
#define TARN_BASE_BASE_OBSERVER_H_

#include <cstdint>
#include <vector>

#include "utils/export.h"

namespace tarn {

class BaseProxy;

// Watches the requests of a model, for metrics and traces.
//
// Set on a model with SetObserver(). The events of one request come in the
// order below; those of requests that are computed together come once for all
// of them. QUEUED comes in the caller's thread, the others in the thread that
// computes, so that several threads may call at once. An observer must be quick
// and must not call the proxies or the model.
class TARN_EXPORT InferenceObserver {
 public:
  // How far a request has come.
  enum Event : int32_t {
    QUEUED = 0,     // About to enter the queue, where there is one.
    TAKEN = 1,      // To be computed now; `proxies` are the whole batch.
    GATHERED = 2,   // The engine has its inputs and is about to run.
    COMPUTED = 3,   // The engine has run, or failed.
    SCATTERED = 4,  // The proxies have what came of it.
  };

  virtual ~InferenceObserver();

  // `proxies` tells streams apart; it is valid during the call.
  virtual void OnEvent(Event event, const std::vector<BaseProxy*>& proxies) = 0;
};

}  // namespace tarn

#endif  // TARN_BASE_BASE_OBSERVER_H_
