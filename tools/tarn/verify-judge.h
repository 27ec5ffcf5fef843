#ifndef TOOLS_TARN_VERIFY_JUDGE_H_
#define TOOLS_TARN_VERIFY_JUDGE_H_

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "bare-stream.h"
#include "event-log.h"
#include "verify-lane.h"

namespace tarn::tool {

// The largest difference of a tensor from an oracle, and where it was.
struct Gap {
  bool exists = false;
  double largest = 0;
  size_t lane = 0;
  size_t chunk = 0;
  EventLog::Place place{0, 0};
};

// What was found of an output or a cache.
struct TensorReport {
  const char* kind = "";
  Gap alike;   // Bits that differ from the engine's at that batch size.
  Gap single;  // From the engine at a batch of one.
  double magnitude = 0;  // Largest finite absolute value there was.

  double Relative(double distance) const;
};

// Computes what every lane has played on the bare engine and notes how far the
// library is off. Two oracles: one computes each request from the state in
// which the library had it and at the batch size of the library, which must
// agree to the bit; the other follows the streams with a state of its own and a
// batch of one.
class Judge {
 public:
  // Engine and description outlive the judge.
  Judge(BareEngine& engine, const ModelInfo& info, size_t lane_num);

  // To be told of all requests of a lane, in their order.
  void Take(size_t lane, const PlayedRequest& played);

  // By name; a cache's is that of its input side.
  const std::map<std::string, TensorReport>& tensors() const {
    return tensors_;
  }

  // What speaks against the library or the network, of the worst tensor; empty
  // when nothing does. `tolerance` is relative.
  std::string Objection(double tolerance) const;

 private:
  void Compare(const Tensors& result, const Tensors& alike,
               const Tensors& single, size_t lane, const PlayedRequest& played);

  BareStream oracle_;
  Tensors zero_caches_;
  std::vector<Tensors> caches_;  // State of each lane's stream, batch of one.
  std::map<std::string, TensorReport> tensors_;
};

}  // namespace tarn::tool

#endif  // TOOLS_TARN_VERIFY_JUDGE_H_
