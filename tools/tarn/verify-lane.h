#ifndef TOOLS_TARN_VERIFY_LANE_H_
#define TOOLS_TARN_VERIFY_LANE_H_

#include <cstddef>
#include <memory>
#include <random>
#include <vector>

#include "bare-stream.h"
#include "event-log.h"
#include "stream-inputs.h"
#include "tarn.h"

namespace tarn::tool {

// A request as the library has computed it.
struct PlayedRequest {
  size_t chunk;   // Number of the lane's request.
  bool is_first;  // Of a new stream, whose state is zeros.
  Sizes sizes;
  Request request;
  Result result;
  EventLog::Place place;
};

// A caller of the library with random inputs: now and then it resets its
// stream, or drops it and starts another one. One thread at a time.
class Lane {
 public:
  // The model, its description and the log of its events outlive the lane.
  Lane(size_t number, unsigned int seed, size_t chunk_num, Model& model,
       const ModelInfo& info, EventLog& events);

  // Plays up to `count` of the remaining chunks, at random times. Throws a
  // Failure when the engine fails.
  std::vector<PlayedRequest> Play(size_t count, const Sizes& sizes);

  size_t remaining() const { return chunk_num_ - next_; }
  size_t reset_num() const { return reset_num_; }
  size_t drop_num() const { return drop_num_; }

 private:
  void Pause();
  bool MaybeStartOver();
  PlayedRequest PlayOne(const Sizes& sizes);
  Tensors RandomInputs();
  Result CopyOfResult() const;

  size_t number_;
  size_t chunk_num_;
  Model& model_;
  const ModelInfo& info_;
  EventLog& events_;
  std::mt19937 generator_;
  std::unique_ptr<Proxy> proxy_;
  Tensors caches_;  // What the library left in the stream.
  size_t next_ = 0;
  size_t reset_num_ = 0;
  size_t drop_num_ = 0;
};

}  // namespace tarn::tool

#endif  // TOOLS_TARN_VERIFY_LANE_H_
