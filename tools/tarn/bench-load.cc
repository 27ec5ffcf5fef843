#include "bench-load.h"

#include <algorithm>
#include <future>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <utility>

#include "command.h"
#include "random-inputs.h"

namespace tarn::tool::bench {

namespace {

using Clock = std::chrono::steady_clock;
using TimePoint = Clock::time_point;
using Milliseconds = std::chrono::duration<double, std::milli>;

constexpr double kMostWarmUpMs = 500;
// How long Ctrl-C may go unnoticed.
constexpr auto kNap = std::chrono::milliseconds(100);

TimePoint After(TimePoint start, double ms) {
  return start + std::chrono::duration_cast<Clock::duration>(Milliseconds(ms));
}

// A caller's stream, which gives the same random inputs again and again.
class Stream {
 public:
  Stream(Model& model, const Sizes& sizes, std::mt19937 generator)
      : model_(model), sizes_(sizes) {
    Restart();
    for (unsigned int i = 0; i < proxy_->GetInputNum(); ++i) {
      Tensor tensor(proxy_->GetInputShape(i), proxy_->GetInputDataType(i),
                    Tensor::HOST);
      FillRandom(tensor, generator);
      inputs_[proxy_->GetInputName(i)] = tensor;
    }
  }

  // Becomes a stream that never was, without state or memory of its own.
  void Restart() {
    proxy_.reset(model_.NewProxy());
    FixSizes(sizes_, *proxy_);
  }

  void Infer() {
    for (const auto& [name, tensor] : inputs_) proxy_->SetInput(name, tensor);
    if (!proxy_->Inference()) throw Failure("an inference failed");
  }

 private:
  Model& model_;
  const Sizes& sizes_;
  std::unique_ptr<Proxy> proxy_;
  std::map<std::string, Tensor> inputs_;
};

// When a stream's chunks are due. Live audio: jitter makes no chunk overtake.
class Schedule {
 public:
  Schedule(const Load& load, TimePoint start, std::mt19937 generator)
      : generator_(generator),
        start_(start),
        chunk_ms_(load.chunk_ms),
        jitter_(0, load.jitter_ms) {
    phase_ms_ = std::uniform_real_distribution<>(0, chunk_ms_)(generator_);
  }

  TimePoint Next() {
    const double ms = phase_ms_ + chunk_ms_ * chunks_++ + jitter_(generator_);
    latest_ms_ = std::max(latest_ms_, ms);
    return After(start_, latest_ms_);
  }

 private:
  std::mt19937 generator_;
  TimePoint start_;
  double chunk_ms_;
  std::uniform_real_distribution<> jitter_;
  double phase_ms_ = 0;
  double latest_ms_ = 0;
  int chunks_ = 0;
};

// What one stream's thread does, and what it has noted.
class Caller {
 public:
  Caller(const Load& load, Model& model, const Sizes& sizes,
         const Interrupt& interrupt, unsigned int index)
      : load_(load),
        interrupt_(interrupt),
        generator_(Generator(load.seed, index)),
        most_(std::max<size_t>(
            load.max_requests / static_cast<size_t>(load.streams), 1)),
        stream_(model, sizes, generator_) {}

  void WarmUp() {
    const TimePoint end =
        After(Clock::now(), std::min(load_.seconds * 1000 / 4, kMostWarmUpMs));
    do {
      stream_.Infer();
    } while (Clock::now() < end && !interrupt_.IsRaised());
    stream_.Restart();
  }

  void Call(TimePoint start) {
    last_answer_ = start;
    end_ = After(start, load_.seconds * 1000);
    if (load_.IsRealTime()) {
      CallInRealTime(start);
    } else {
      CallInClosedLoop();
    }
  }

  void AddTo(Answers& answers, TimePoint start) const {
    const std::chrono::duration<double> seconds = last_answer_ - start;
    answers.seconds = std::max(answers.seconds, seconds.count());
    answers.undone += undone_;
    for (size_t i = 0; i < latencies_.size(); ++i) {
      answers.latencies.push_back(latencies_[i]);
      answers.places.push_back(i + 1);
    }
  }

 private:
  static std::mt19937 Generator(unsigned int seed, unsigned int index) {
    std::seed_seq sequence{seed, index};
    return std::mt19937(sequence);
  }

  void CallInClosedLoop() {
    while (Clock::now() < end_ && !interrupt_.IsRaised() &&
           latencies_.size() < most_) {
      Request(Clock::now());
    }
  }

  void CallInRealTime(TimePoint start) {
    const TimePoint given_up = After(end_, load_.chunk_ms);
    Schedule schedule(load_, start, generator_);
    while (latencies_.size() + undone_ < most_) {
      const TimePoint due = schedule.Next();
      if (due >= end_ || !SleepUntil(due)) return;
      if (interrupt_.IsRaised() || Clock::now() >= given_up) {
        ++undone_;
      } else {
        Request(due);
      }
    }
  }

  // Returns false when it was interrupted before.
  bool SleepUntil(TimePoint due) const {
    for (TimePoint now = Clock::now(); now < due; now = Clock::now()) {
      if (interrupt_.IsRaised()) return false;
      std::this_thread::sleep_until(std::min(due, now + kNap));
    }
    return true;
  }

  void Request(TimePoint due) {
    stream_.Infer();
    last_answer_ = Clock::now();
    latencies_.push_back(Milliseconds(last_answer_ - due).count());
  }

  const Load& load_;
  const Interrupt& interrupt_;
  std::mt19937 generator_;
  size_t most_;  // Requests of this stream.
  Stream stream_;
  TimePoint end_;
  TimePoint last_answer_;
  std::vector<double> latencies_;
  size_t undone_ = 0;
};

// Tells the waiting main thread that a caller is warm, or has failed.
class Arrival {
 public:
  explicit Arrival(Semaphore& arrived) : arrived_(arrived) {}
  Arrival(const Arrival&) = delete;
  Arrival& operator=(const Arrival&) = delete;
  ~Arrival() { arrived_.Signal(); }

 private:
  Semaphore& arrived_;
};

void RunCaller(Caller& caller, Semaphore& arrived,
               const std::shared_future<TimePoint>& start) {
  {
    const Arrival arrival(arrived);
    caller.WarmUp();
  }
  caller.Call(start.get());
}

}  // namespace

Answers Run(const Load& load, Model& model, const Sizes& sizes,
            const Interrupt& interrupt, const std::function<void()>& on_start) {
  std::vector<std::unique_ptr<Caller>> callers;
  for (int i = 0; i < load.streams; ++i) {
    callers.push_back(std::make_unique<Caller>(load, model, sizes, interrupt,
                                               static_cast<unsigned int>(i)));
  }
  Semaphore arrived;
  std::vector<std::future<void>> threads;
  // Made after the threads, whose futures wait for them: when making one fails,
  // the broken promise ends the others first.
  std::promise<TimePoint> start;
  const std::shared_future<TimePoint> started = start.get_future().share();
  for (const auto& caller : callers) {
    threads.push_back(std::async(std::launch::async, RunCaller,
                                 std::ref(*caller), std::ref(arrived),
                                 started));
  }
  for (size_t i = 0; i < threads.size(); ++i) arrived.Wait();
  on_start();
  const TimePoint start_time = Clock::now();
  start.set_value(start_time);
  for (auto& thread : threads) thread.wait();
  for (auto& thread : threads) thread.get();

  Answers answers;
  for (const auto& caller : callers) caller->AddTo(answers, start_time);
  return answers;
}

}  // namespace tarn::tool::bench
