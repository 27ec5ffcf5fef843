#include "base/base-model.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "base/base-proxy.h"
#include "support/echo-model.h"
#include "support/log.h"

namespace tarn {
namespace {

using Requests = std::vector<std::unique_ptr<BaseProxy>>;
using Sizes = std::vector<size_t>;

EchoModel::SharedQueue NewQueue() {
  return std::make_shared<Queue<BaseProxy*>>();
}

// Requests that stand in the queue as if their callers were waiting.
Requests Enqueue(Model& model, int count, Queue<BaseProxy*>& queue) {
  Requests requests;
  for (int i = 0; i < count; ++i) {
    requests.push_back(NewRequest(model, 7));
    queue.Push(requests.back().get(), 4);
  }
  return requests;
}

void ExpectComputed(const Requests& requests) {
  for (const auto& request : requests) {
    request->Wait();
    EXPECT_EQ(ResultOf(*request), 7);
  }
}

// Runs `count` threads and joins them.
void RunThreads(int count, const std::function<void()>& body) {
  std::vector<std::thread> threads;
  for (int i = 0; i < count; ++i) threads.emplace_back(body);
  for (std::thread& thread : threads) thread.join();
}

TEST(RunningModeTest, SettlesTheKindOfProxyAndOfCompute) {
  const struct {
    const char* batch;
    bool infer_thread, multi_threads, is_parallel, is_batched, is_in_caller;
  } modes[] = {{"", false, false, false, false, true},
               {"", false, true, false, false, true},
               {"", true, false, true, false, false},
               {"1-1", true, true, true, true, false},
               {"1", false, true, true, true, true}};
  for (const auto& mode : modes) {
    ModelOptions options = EchoOptions(mode.batch);
    options.infer_thread = mode.infer_thread;
    options.multi_threads = mode.multi_threads;
    EchoModel model(options);
    const auto request = NewRequest(model, 7);
    EXPECT_TRUE(request->Inference());
    const bool is_parallel = dynamic_cast<ParallelProxy*>(request.get());
    EXPECT_EQ(is_parallel, mode.is_parallel);
    ASSERT_EQ(model.runs().size(), 1U);
    const EchoModel::Run& run = model.runs()[0];
    EXPECT_EQ(run.batched, mode.is_batched);
    EXPECT_EQ(run.thread == std::this_thread::get_id(), mode.is_in_caller);
  }
}

// More callers than a batch: each of a stream's requests is computed once, and
// none returns before it is. What is left in the end is no partial batch.
TEST(RunningModeTest, LosesNothingWithManyCallers) {
  ModelOptions locked = EchoOptions("");
  locked.multi_threads = true;
  for (const ModelOptions& options :
       {locked, EchoOptions("4"), EchoOptions("1-4"), InferThreadOptions("", 0),
        InferThreadOptions("4", 0), InferThreadOptions("1-4", 100)}) {
    EchoModel model(options);
    std::atomic<int> unclaimed{400};
    RunThreads(12, [&] {
      const auto stream = NewStream(model);
      for (float sum = 2; unclaimed-- > 0; sum += 2) {
        SetX(*stream, 2);
        ASSERT_TRUE(stream->Inference());
        ASSERT_EQ(ResultOf(*stream), sum);
      }
    });
    EXPECT_FALSE(model.has_overlapped());
  }
}

TEST(CallerBatchingTest, CallerThatFillsTheBatchComputesForAll) {
  const auto queue = NewQueue();
  EchoModel model(EchoOptions("1-4"), queue);
  const Requests others = Enqueue(model, 3, *queue);
  EXPECT_TRUE(NewRequest(model, 7)->Inference());
  ASSERT_EQ(model.batch_sizes(), Sizes{4});
  EXPECT_EQ(model.runs()[0].proxies[0], others[0].get());
  ExpectComputed(others);
}

TEST(CallerBatchingTest, CallerWaitsIfItComputedABatchWithoutItself) {
  const auto queue = NewQueue();
  EchoModel model(EchoOptions("4"), queue);
  const Requests first = Enqueue(model, 4, *queue);
  const auto early = NewRequest(model, 7);
  std::thread early_caller([&] { EXPECT_TRUE(early->Inference()); });
  ExpectComputed(first);
  const Requests second = Enqueue(model, 2, *queue);
  EXPECT_TRUE(NewRequest(model, 7)->Inference());
  early_caller.join();
  EXPECT_EQ(model.batch_sizes(), (Sizes{4, 4}));
  EXPECT_EQ(model.runs()[1].proxies[0], early.get());
}

TEST(InferThreadTest, ComputesFullBatchesAtOnceAndOthersAfterTheInterval) {
  EchoModel patient(InferThreadOptions("4", kTenMinutes));
  RunThreads(4, [&] { EXPECT_TRUE(NewRequest(patient, 7)->Inference()); });
  EXPECT_EQ(patient.batch_sizes(), Sizes{4});
  EchoModel hasty(InferThreadOptions("4", 1000));
  EXPECT_TRUE(NewRequest(hasty, 7)->Inference());
  EXPECT_EQ(hasty.batch_sizes(), Sizes{1});
}

TEST(InferThreadTest, DrainsTheQueueBeforeItEnds) {
  for (const char* batch : {"", "1-4"}) {
    const auto queue = NewQueue();
    EchoModel model(InferThreadOptions(batch, kTenMinutes), queue);
    model.CloseGate();
    const Requests requests = Enqueue(model, 9, *queue);
    model.AwaitRunAtGate();
    std::thread stopper([&] { model.Stop(); });
    while (model.running()) std::this_thread::yield();
    model.OpenGate();
    stopper.join();
    ExpectComputed(requests);
  }
}

TEST(InferThreadTest, EndsInsteadOfSleepingOutItsInterval) {
  for (int i = 0; i < 100; ++i) {
    EchoModel model(InferThreadOptions("4", kTenMinutes));
    if (i % 2 == 0) std::this_thread::yield();
  }
}

TEST(InferThreadTest, SharesAQueueWithThoseOfOtherModels) {
  const auto queue = NewQueue();
  EchoModel one(InferThreadOptions("2", 1000), queue);
  EchoModel other(InferThreadOptions("2", 1000), queue);
  one.CloseGate();
  other.CloseGate();
  const Requests requests = Enqueue(one, 4, *queue);
  one.AwaitRunAtGate();
  other.AwaitRunAtGate();
  one.OpenGate();
  other.OpenGate();
  ExpectComputed(requests);
}

TEST(BaseModelDeathTest, RejectsMisuse) {
  const char* const file = "src/base/base-model.cc";
  ExpectFatal([] { EchoModel model(EchoOptions(""), NewQueue()); },
              "invalid parameter: queue should be nullptr.", "BaseModel", file);
  ExpectFatal([] { EchoModel model(nullptr, nullptr); },
              "the pointer of ModelInfo is nullptr.", "BaseModel", file);
  EchoModel serial(EchoOptions(""));
  ExpectFatal([&] { serial.Inference(nullptr); }, "proxy is nullptr",
              "Inference", file);
  const ScopedLogLevel silent(kSilent);  // The queue is left out.
  EchoModel model(EchoOptions(""), NewQueue());
  EXPECT_NE(dynamic_cast<SerialProxy*>(NewStream(model).get()), nullptr);
}

}  // namespace
}  // namespace tarn
