#include "verify-lane.h"

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>

#include "base/base-proxy.h"
#include "command.h"
#include "random-inputs.h"

namespace tarn::tool {

namespace {

constexpr double kResetChance = 0.1;
constexpr double kDropChance = 0.05;
// Bounds of the longest pause, which is else the interval; microseconds.
constexpr int kMinPause = 200;
constexpr int kMaxPause = 5000;

Tensor CopyOf(const Tensor& tensor) {
  Tensor copy(tensor.GetShape(), tensor.GetDataType(), Tensor::HOST);
  copy.Copy(tensor);
  return copy;
}

}  // namespace

Lane::Lane(size_t number, unsigned int seed, size_t chunk_num, Model& model,
           const ModelInfo& info, EventLog& events)
    : number_(number),
      chunk_num_(chunk_num),
      model_(model),
      info_(info),
      events_(events),
      proxy_(model.NewProxy()),
      caches_(ZeroCaches(info)) {
  std::seed_seq seeds{seed, static_cast<unsigned int>(number)};
  generator_.seed(seeds);
}

std::vector<PlayedRequest> Lane::Play(size_t count, const Sizes& sizes) {
  std::vector<PlayedRequest> played;
  for (size_t i = std::min(count, remaining()); i > 0; --i) {
    Pause();
    played.push_back(PlayOne(sizes));
  }
  return played;
}

// Every other request comes at once.
void Lane::Pause() {
  const int longest = std::clamp(info_.infer_interval(), kMinPause, kMaxPause);
  const int pause =
      std::uniform_int_distribution<int>(-longest, longest)(generator_);
  std::this_thread::sleep_for(std::chrono::microseconds(std::max(pause, 0)));
}

// Returns whether the next request is the first of a stream.
bool Lane::MaybeStartOver() {
  if (next_ == 0) return true;
  const double chance = std::uniform_real_distribution<>()(generator_);
  if (chance >= kResetChance + kDropChance) return false;
  if (chance < kResetChance) {
    proxy_->Reset();
    ++reset_num_;
  } else {
    proxy_.reset();
    proxy_.reset(model_.NewProxy());
    ++drop_num_;
  }
  caches_ = ZeroCaches(info_);
  return true;
}

PlayedRequest Lane::PlayOne(const Sizes& sizes) {
  const bool is_first = MaybeStartOver();
  FixSizes(sizes, *proxy_);
  const Request request{RandomInputs(), caches_};
  for (const auto& [name, tensor] : request.inputs) {
    proxy_->SetInput(name, tensor);
  }
  if (!proxy_->Inference()) {
    throw Failure("stream " + std::to_string(number_) + ", chunk " +
                  std::to_string(next_) +
                  ": the engine failed, the log says why");
  }
  const Result result = CopyOfResult();
  caches_ = result.caches;
  const auto place = events_.PlaceOf(dynamic_cast<BaseProxy*>(proxy_.get()));
  return {next_++, is_first, sizes, request, result, place};
}

Tensors Lane::RandomInputs() {
  Tensors inputs;
  for (unsigned int i = 0; i < proxy_->GetInputNum(); ++i) {
    Tensor& tensor = inputs[proxy_->GetInputName(i)];
    tensor.Resize(proxy_->GetInputShape(i), proxy_->GetInputDataType(i),
                  Tensor::HOST);
    FillRandom(tensor, generator_);
  }
  return inputs;
}

// The proxy's memory is used again.
Result Lane::CopyOfResult() const {
  const auto& proxy = dynamic_cast<const BaseProxy&>(*proxy_);
  Result result;
  for (unsigned int i = 0; i < proxy.GetOutputNum(); ++i) {
    const std::string& name = proxy.GetOutputName(i);
    result.outputs[name] = CopyOf(proxy.GetOutput(name));
  }
  for (unsigned int i = 0; i < proxy.GetCacheNum(); ++i) {
    const std::string& name = proxy.GetCacheName(i);
    result.caches[name] = CopyOf(proxy.GetCache(name));
  }
  return result;
}

}  // namespace tarn::tool
