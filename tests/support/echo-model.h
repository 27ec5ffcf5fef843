#ifndef TARN_TESTS_SUPPORT_ECHO_MODEL_H_
#define TARN_TESTS_SUPPORT_ECHO_MODEL_H_

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/base-model.h"
#include "base/base-proxy.h"
#include "utils/semaphore.h"

namespace tarn {

// Describes y = sum-next = x + sum, of one float each, with a batch dimension
// of size `batch`: a number, a range such as 1-4, or empty for none.
ModelOptions EchoOptions(const std::string& batch);

// The same with an inference thread that waits `interval` microseconds.
ModelOptions InferThreadOptions(const std::string& batch, int interval);

// Longer than any test may take: a thread that sleeps through it hangs.
constexpr int kTenMinutes = 600 * 1000 * 1000;

// A backend without an engine, for tests of what surrounds one.
class EchoModel : public BaseModel {
 public:
  using SharedQueue = std::shared_ptr<Queue<BaseProxy*>>;

  struct Run {
    bool batched;
    std::vector<BaseProxy*> proxies;
    std::thread::id thread;
  };

  EchoModel(std::shared_ptr<ModelInfo> info, SharedQueue queue);
  explicit EchoModel(const ModelOptions& options, SharedQueue queue = nullptr)
      : EchoModel(std::make_shared<ModelInfo>(options), queue) {}
  ~EchoModel() override { Stop(); }

  BackEnd GetBackEnd() const override { return ONNX; }
  void LoadModel(const std::string& /*model*/) override {}
  void Compute(BaseProxy* proxy) override { RunOn(false, {proxy}); }
  void Compute(const std::vector<BaseProxy*>& proxies) override {
    RunOn(true, proxies);
  }
  void Stop() { StopInferThread(); }
  bool running() const { return running_; }

  // The next run stops at a gate until OpenGate(); AwaitRunAtGate() returns
  // when it stands there.
  void CloseGate() { gate_is_closed_ = true; }
  void AwaitRunAtGate() { run_at_gate_.Wait(); }
  void OpenGate() { gate_opened_.Signal(); }

  // The next run throws when its first request has an output.
  void FailNextRun() { fails_next_ = true; }

  // Every run so far. Not locked: runs must not overlap, and nobody may look
  // during one.
  const std::vector<Run>& runs() const { return runs_; }
  std::vector<size_t> batch_sizes() const;
  bool has_overlapped() const { return has_overlapped_; }

 private:
  void RunOn(bool batched, const std::vector<BaseProxy*>& proxies);

  std::vector<Run> runs_;
  std::atomic<bool> is_computing_{false};
  std::atomic<bool> has_overlapped_{false};
  std::atomic<bool> gate_is_closed_{false};
  std::atomic<bool> fails_next_{false};
  Semaphore run_at_gate_;
  Semaphore gate_opened_;
};

// A new proxy, the caller's.
std::unique_ptr<BaseProxy> NewStream(Model& model);

// Sets x, which is to have one element.
void SetX(Proxy& proxy, float x);

// A proxy that is ready for a queue: x is set and sum is 0.
std::unique_ptr<BaseProxy> NewRequest(Model& model, float x);

// The output y, or -1 where there is none.
float ResultOf(Proxy& proxy);

}  // namespace tarn

#endif  // TARN_TESTS_SUPPORT_ECHO_MODEL_H_
