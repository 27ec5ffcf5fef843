// Serves streams with many threads, models and injected faults for a while and
// checks that nothing is lost: every caller returns, every stream's results are
// those of its reference, and memory and threads are at the end what they were.
//
// usage: soak SECONDS [--throw]
//
// Lanes of callers work side by side, each on one model, or two that share a
// queue, after the other. Each request adds a number to its stream's state and
// gives back the sum: one lost or computed twice would show from there on.
// Callers run one request, several together, or several with callbacks.
// Prints figures as a table; the status is 1 if anything was wrong. With
// --throw, runs also throw, out of memory or by themselves.

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <iostream>
#include <memory>
#include <new>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/base-proxy.h"
#include "base/tarn-functions.h"
#include "soak/failing-new.h"
#include "support/echo-model.h"
#include "utils/logging.h"
#include "utils/semaphore.h"

namespace tarn {
namespace {

using Clock = std::chrono::steady_clock;
using Models = std::vector<std::unique_ptr<Model>>;

constexpr int kLaneNum = 8;
constexpr int kCallersPerLane = 8;
constexpr int kBatchSize = 4;
constexpr int kMaxGrowth = 64 * 1024;  // Of resident memory, in KiB.
constexpr auto kPatience = std::chrono::seconds(120);

struct Figures {
  std::atomic<long> models{0}, streams{0}, resets{0}, abandoned{0};
  std::atomic<long> succeeded{0}, failed{0};  // As callers saw them.
  std::atomic<long> batches{0}, computed{0};  // As the stand-in saw them, ...
  std::atomic<long> spoilt{0};                // ... these of failing runs.
  std::atomic<long> engine_succeeded{0}, engine_failed{0};
  std::atomic<long> slow_runs{0}, silent_runs{0}, thrown_runs{0};
  std::atomic<long> starved_runs{0}, wrong{0};
};

Figures figures;
bool runs_throw = false;
std::atomic<bool> time_is_up{false};

class Random {
 public:
  int UpTo(int last) {
    return std::uniform_int_distribution<int>(0, last)(generator_);
  }
  bool OneIn(int count) { return UpTo(count - 1) == 0; }

 private:
  std::mt19937 generator_{std::random_device{}()};
};

Random& Dice() {
  thread_local Random random;
  return random;
}

void Report(const std::string& what) {
  ++figures.wrong;
  std::cerr << "soak: " + what + "\n";
}

// The stand-in for an engine, with faults.
class FaultyModel : public BaseModel {
 public:
  FaultyModel(const ModelOptions& options, EchoModel::SharedQueue queue)
      : BaseModel(std::make_shared<ModelInfo>(options), Device("cpu"),
                  std::move(queue)) {
    StartInferThread();
  }
  ~FaultyModel() override { StopInferThread(); }

  BackEnd GetBackEnd() const override { return ONNX; }
  void LoadModel(const std::string& /*model*/) override {}
  void Compute(BaseProxy* proxy) override { Run({proxy}); }
  void Compute(const std::vector<BaseProxy*>& proxies) override {
    Run(proxies);
  }

 private:
  void Run(const std::vector<BaseProxy*>& proxies) {
    const auto count = static_cast<long>(proxies.size());
    ++figures.batches;
    try {
      if (!Fails(proxies)) {
        figures.computed += count;
        return;
      }
    } catch (...) {
      allocations_until_failure = 0;
      figures.spoilt += count;
      throw;
    }
    figures.spoilt += count;
  }

  // One run, or one of its faults. Returns whether it left no outputs.
  static bool Fails(const std::vector<BaseProxy*>& proxies) {
    if (Dice().OneIn(500)) {
      ++figures.slow_runs;
      std::this_thread::sleep_for(std::chrono::milliseconds(Dice().UpTo(20)));
    }
    if (Dice().OneIn(50)) {
      ++figures.silent_runs;
      return true;
    }
    if (runs_throw && Dice().OneIn(50)) {
      ++figures.thrown_runs;
      throw std::runtime_error("soak");
    }
    const bool starves = runs_throw && Dice().OneIn(50);
    if (starves) allocations_until_failure = 1 + Dice().UpTo(9);
    try {
      for (BaseProxy* proxy : proxies) Add(*proxy);
    } catch (const std::bad_alloc&) {
      ++figures.starved_runs;
      throw;
    }
    allocations_until_failure = 0;
    return false;
  }

  static void Add(BaseProxy& proxy) {
    Tensor y = proxy.CreateOutput("y", {1});
    y.Fill(*proxy.GetInput("x").Data<float>() +
           *proxy.GetCache("sum").Data<float>());
    Tensor sum = proxy.CreateCache("sum", {1});
    sum.Copy(y);
    proxy.SetCache("sum", sum);
    proxy.SetOutput("y", y);  // Last: no failed run leaves it in place.
  }
};

// A stream and its reference.
class Stream {
 public:
  explicit Stream(Model& model) : proxy_(model.NewProxy()) {
    ++figures.streams;
  }

  Proxy& proxy() { return *proxy_; }

  // Prepares the next request.
  void Fill() {
    x_ = static_cast<float>(1 + Dice().UpTo(8));
    Tensor tensor = proxy_->CreateInput("x", proxy_->GetInputShape(0));
    tensor.Fill(x_);
    proxy_->SetInput("x", tensor);
  }

  // Looks at what became of it. What y is to the sums differs.
  void Check(bool is_engine) {
    if (!proxy_->HasOutput("y")) {
      ++(is_engine ? figures.engine_failed : figures.failed);
      // A run that broke off may have left the new state.
      if (runs_throw) Reset();
      return;
    }
    ++(is_engine ? figures.engine_succeeded : figures.succeeded);
    const float expected = is_engine ? x_ + sum_ + sum_ : x_ + sum_;
    sum_ += x_;
    const Tensor& y = proxy_->GetOutput("y");
    for (unsigned int i = 0; i < y.GetElementNum(); ++i) {
      if (y.Data<float>()[i] != expected) Report("a wrong result");
    }
  }

  void Reset() {
    proxy_->Reset();
    sum_ = 0;
    ++figures.resets;
  }

 private:
  std::unique_ptr<Proxy> proxy_;
  float x_ = 0;
  float sum_ = 0;
};

using Streams = std::vector<std::unique_ptr<Stream>>;

// How a caller has its requests computed.
using Style = void (*)(const Streams& streams);

void RunOneByOne(const Streams& streams) {
  for (const auto& stream : streams) {
    try {
      const bool computed = stream->proxy().Inference();
      if (computed != stream->proxy().HasOutput("y")) Report("a wrong return");
    } catch (const std::exception&) {
      if (!runs_throw) Report("an exception");
    }
  }
}

void RunTogether(const Streams& streams) {
  std::vector<Proxy*> proxies;
  for (const auto& stream : streams) proxies.push_back(&stream->proxy());
  Inference(proxies);
}

void RunWithCallbacks(const Streams& streams) {
  Semaphore done;
  for (const auto& stream : streams) {
    InferenceAsync(&stream->proxy(), [&done](Proxy* proxy, bool computed) {
      if (computed != proxy->HasOutput("y")) Report("a wrong argument");
      done.Signal();
    });
  }
  for (size_t i = 0; i < streams.size(); ++i) done.Wait();
}

// A way to make one or two models.
struct Kind {
  bool is_engine;
  std::vector<Style> styles;  // That its callers may have.
  bool mixes_styles;          // Whether side by side.
  std::function<Models()> make;
};

ModelOptions Threaded(ModelOptions options, bool infer_thread) {
  options.multi_threads = true;
  options.infer_thread = infer_thread;
  options.infer_interval = 200;
  return options;
}

Kind MakeKind(bool is_engine, const ModelOptions& options,
              std::function<Models()> make) {
  if (options.infer_thread) {
    return {is_engine,
            {RunOneByOne, RunTogether, RunWithCallbacks},
            true,
            std::move(make)};
  }
  // Callers that wait for a full batch would miss those whom others took along.
  if (!options.batch_dim.empty()) {
    return {is_engine, {RunOneByOne, RunTogether}, false, std::move(make)};
  }
  return {is_engine, {RunOneByOne}, false, std::move(make)};
}

Kind Faulty(const std::string& batch, bool infer_thread, int model_num = 1) {
  const ModelOptions options = Threaded(EchoOptions(batch), infer_thread);
  return MakeKind(false, options, [options, model_num] {
    EchoModel::SharedQueue queue;
    if (model_num > 1) queue = std::make_shared<Queue<BaseProxy*>>();
    Models models;
    for (int i = 0; i < model_num; ++i) {
      models.push_back(std::make_unique<FaultyModel>(options, queue));
    }
    return models;
  });
}

Kind Engine(const std::string& name, bool infer_thread, size_t model_num = 1) {
  const std::string path = std::string(TARN_TEST_MODELS) + "/" + name;
  const ModelOptions options =
      Threaded(ModelOptions(path + ".conf", false), infer_thread);
  const std::vector<std::string> devices(model_num, "cpu");
  return MakeKind(true, options, [=] {
    const std::string file = path + ".onnx";
    Models models;
    if (devices.size() == 1) {
      models.emplace_back(NewModel(options, "onnx", "cpu", file, "", ""));
      return models;
    }
    for (Model* model :
         NewSharedModels(options, "onnx", devices, file, "", "")) {
      models.emplace_back(model);
    }
    return models;
  });
}

std::vector<Kind> Kinds() {
  return {Faulty("", false),
          Faulty("", true),
          Faulty("4", false),
          Faulty("1-4", false),
          Faulty("4", true),
          Faulty("1-4", true),
          Faulty("", true, 2),
          Faulty("1-4", true, 2),
          Engine("accumulator", false),
          Engine("accumulator", true),
          Engine("accumulator-4", true),
          Engine("accumulator", true, 2),
          Engine("accumulator-single", false),
          Engine("accumulator-single", true)};
}

// A caller's streams, of random lengths: some are reset or left in the middle.
// They go to either model.
class Caller {
 public:
  Caller(const Models& models, const Kind& kind, Style style)
      : models_(models), kind_(kind), style_(style) {}

  // Works until the requests are used up.
  void Work(std::atomic<int>& unclaimed) {
    while (true) {
      const int count = style_ == RunOneByOne ? 1 : 1 + Dice().UpTo(6);
      if (unclaimed.fetch_sub(count) < count) return;
      Prepare(static_cast<size_t>(count));
      for (const auto& stream : streams_) stream->Fill();
      style_(streams_);
      for (const auto& stream : streams_) stream->Check(kind_.is_engine);
    }
  }

 private:
  // Brings the number of streams to `count`, all of them on one model.
  void Prepare(size_t count) {
    if (remaining_-- <= 0 || Dice().OneIn(50)) {
      if (remaining_ > 0) {
        figures.abandoned += static_cast<long>(streams_.size());
      }
      streams_.clear();
      model_ = static_cast<size_t>(
          Dice().UpTo(static_cast<int>(models_.size()) - 1));
      remaining_ = Dice().UpTo(40);
    }
    while (streams_.size() > count) streams_.pop_back();
    for (const auto& stream : streams_) {
      if (Dice().OneIn(20)) stream->Reset();
    }
    while (streams_.size() < count) {
      streams_.push_back(std::make_unique<Stream>(*models_[model_]));
    }
  }

  const Models& models_;
  const Kind& kind_;
  Style style_;
  Streams streams_;
  size_t model_ = 0;   // That the streams are of.
  int remaining_ = 0;  // Rounds until new streams.
};

// Makes the models, lets a lane of callers use them, and destroys them. The
// number of requests leaves no part of a batch behind.
void ServeOnce(const Kind& kind) {
  const Models models = kind.make();
  figures.models += static_cast<long>(models.size());
  std::atomic<int> unclaimed{kBatchSize * (1 + Dice().UpTo(500))};
  std::vector<std::thread> threads;
  const auto any_style = [&kind] {
    const int last = static_cast<int>(kind.styles.size()) - 1;
    return kind.styles[static_cast<size_t>(Dice().UpTo(last))];
  };
  const Style common = any_style();
  for (int i = 0; i < kCallersPerLane; ++i) {
    const Style style = kind.mixes_styles ? any_style() : common;
    threads.emplace_back(
        [&, style] { Caller(models, kind, style).Work(unclaimed); });
  }
  for (std::thread& thread : threads) thread.join();
}

void RunLane(const std::vector<Kind>& kinds) {
  while (!time_is_up) {
    const int last = static_cast<int>(kinds.size()) - 1;
    ServeOnce(kinds[static_cast<size_t>(Dice().UpTo(last))]);
  }
}

// A number of /proc/self/status.
int Status(const std::string& key) {
  std::ifstream file("/proc/self/status");
  for (std::string word; file >> word;) {
    int value = 0;
    if (word == key + ":" && file >> value) return value;
  }
  return -1;
}

// The threads of an idle process: sanitizers and emulators add one of their own
// with the first that is started.
int IdleThreads() {
  pid_t first = 0;
  std::thread([&first] { first = gettid(); }).join();
  const std::filesystem::path entry =
      "/proc/self/task/" + std::to_string(first);
  while (std::filesystem::exists(entry)) std::this_thread::yield();
  return Status("Threads");
}

// Whether at most so many threads are left in time. One that was joined may
// stay in the kernel's count for a moment.
bool ThreadsFallTo(int threads) {
  const auto deadline = Clock::now() + kPatience;
  while (Status("Threads") > threads) {
    if (Clock::now() > deadline) return false;
    std::this_thread::yield();
  }
  return true;
}

// Runs all lanes so long. A lane that does not come back ends the process.
void RunLanes(const std::vector<Kind>& kinds, std::chrono::seconds duration) {
  time_is_up = false;
  std::vector<std::future<void>> lanes;
  for (int i = 0; i < kLaneNum; ++i) {
    lanes.push_back(
        std::async(std::launch::async, [&kinds] { RunLane(kinds); }));
  }
  lanes.front().wait_for(duration);
  time_is_up = true;
  const auto deadline = Clock::now() + kPatience;
  for (std::future<void>& lane : lanes) {
    if (lane.wait_until(deadline) != std::future_status::ready) {
      std::cerr << "soak: a caller does not return\n";
      std::abort();
    }
    lane.get();
  }
}

void CheckTotals(int threads, int memory) {
  if (!ThreadsFallTo(threads)) Report("threads are left");
// Sanitizers and emulators keep memory of their own.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) && \
    !defined(TARN_EMULATED)
  if (Status("VmRSS") > memory + kMaxGrowth) Report("memory has grown");
#endif
  if (figures.succeeded != figures.computed) {
    Report("a computed request is lost");
  }
  if (figures.failed != figures.spoilt) Report("a failed request is lost");
  if (figures.engine_failed != 0) Report("the engine failed");
  std::cout << "| threads before and after | " << threads << ", "
            << Status("Threads") << " |\n| resident KiB before and after | "
            << memory << ", " << Status("VmRSS") << " |\n";
}

void PrintFigures() {
  const struct {
    const char* name;
    const std::atomic<long>& value;
  } rows[] = {{"models", figures.models},
              {"streams", figures.streams},
              {"streams left in the middle", figures.abandoned},
              {"resets", figures.resets},
              {"requests to the stand-in that succeeded", figures.succeeded},
              {"requests to the stand-in that failed", figures.failed},
              {"runs of the stand-in", figures.batches},
              {"requests to the engine", figures.engine_succeeded},
              {"slow runs", figures.slow_runs},
              {"runs without outputs", figures.silent_runs},
              {"runs that threw", figures.thrown_runs},
              {"runs out of memory", figures.starved_runs},
              {"wrong", figures.wrong}};
  for (const auto& row : rows) {
    std::cout << "| " << row.name << " | " << row.value << " |\n";
  }
}

}  // namespace
}  // namespace tarn

int main(int argc, char** argv) {
  using namespace tarn;  // NOLINT: main cannot be inside it.
  const int seconds = argc > 1 ? std::atoi(argv[1]) : 0;
  runs_throw = argc == 3 && std::string(argv[2]) == "--throw";
  if (seconds < 1 || argc > 3 || (argc == 3 && !runs_throw)) {
    std::cerr << "usage: soak SECONDS [--throw]\n";
    return EXIT_FAILURE;
  }
  std::setvbuf(stdout, nullptr, _IOLBF, 0);  // A fatal line must not get lost.
  SetLogLevel(FATAL);
  const std::vector<Kind> kinds = Kinds();
  const int threads = IdleThreads();
  RunLanes(kinds, std::chrono::seconds(std::min(seconds, 5)));  // Warms up.
  const int memory = Status("VmRSS");
  RunLanes(kinds, std::chrono::seconds(seconds));
  CheckTotals(threads, memory);
  PrintFigures();
  return figures.wrong == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
