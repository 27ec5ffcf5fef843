// Many streams from one thread: Inference() over several proxies, and
// InferenceAsync().

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "base/tarn-functions.h"
#include "support/echo-model.h"
#include "support/log.h"

namespace tarn {
namespace {

using testing::Each;
using testing::Le;
using Streams = std::vector<std::unique_ptr<BaseProxy>>;

// One of each running mode.
std::vector<ModelOptions> AllModes() {
  ModelOptions locked = EchoOptions("");
  locked.multi_threads = true;
  return {EchoOptions(""),           locked,
          EchoOptions("4"),          EchoOptions("1-4"),
          InferThreadOptions("", 0), InferThreadOptions("1-4", 100)};
}

Streams NewStreams(Model& model, size_t count) {
  Streams streams;
  while (streams.size() < count) streams.push_back(NewStream(model));
  return streams;
}

// Gives stream i the input i + 1.
std::vector<Proxy*> Fill(const Streams& streams) {
  std::vector<Proxy*> proxies;
  for (const auto& stream : streams) {
    proxies.push_back(stream.get());
    SetX(*stream, static_cast<float>(proxies.size()));
  }
  return proxies;
}

void ExpectSums(const Streams& streams, int round_num) {
  for (size_t i = 0; i < streams.size(); ++i) {
    EXPECT_EQ(ResultOf(*streams[i]),
              static_cast<float>(i + 1) * static_cast<float>(round_num));
  }
}

TEST(ManyStreamsTest, ComputesEachStreamsRequestInEveryMode) {
  for (const ModelOptions& options : AllModes()) {
    EchoModel model(options);
    EXPECT_TRUE(Inference({}));
    const Streams streams = NewStreams(model, 10);
    for (int round = 1; round <= 3; ++round) {
      EXPECT_TRUE(Inference(Fill(streams)));
      ExpectSums(streams, round);
    }
    EXPECT_THAT(model.batch_sizes(), Each(Le(4U)));
    EXPECT_FALSE(model.has_overlapped());
  }
}

// Those who drive many streams and those who drive one meet in one queue.
TEST(ManyStreamsTest, SharesBatchesWithOtherCallers) {
  for (const ModelOptions& options : AllModes()) {
    if (!options.multi_threads && !options.infer_thread &&
        options.batch_dim.empty()) {
      continue;  // For one thread alone.
    }
    EchoModel model(options);
    std::vector<std::thread> callers;
    for (int i = 0; i < 4; ++i) {
      callers.emplace_back([&model] {
        const Streams streams = NewStreams(model, 7);
        for (int round = 1; round <= 20; ++round) {
          EXPECT_TRUE(Inference(Fill(streams)));
          ExpectSums(streams, round);
        }
      });
    }
    for (std::thread& caller : callers) caller.join();
    EXPECT_FALSE(model.has_overlapped());
  }
}

// A batch size that is never reached: one wake-up must do.
TEST(ManyStreamsTest, FillsBatchesFromOneCall) {
  EchoModel model(InferThreadOptions("1-4", kTenMinutes));
  const Streams streams = NewStreams(model, 8);
  EXPECT_TRUE(Inference(Fill(streams)));
  EXPECT_EQ(model.batch_sizes(), (std::vector<size_t>{4, 4}));
}

TEST(AsyncTest, CallsBackWithResultsAndTakesTheNextRequestThere) {
  for (const char* batch : {"", "1-4"}) {
    EchoModel model(InferThreadOptions(batch, 100));
    const Streams streams = NewStreams(model, 6);
    std::vector<int> rounds(streams.size());
    Semaphore finished;
    std::function<void(Proxy*, bool)> next = [&](Proxy* proxy, bool computed) {
      EXPECT_TRUE(computed);
      size_t i = 0;
      while (streams[i].get() != proxy) ++i;
      EXPECT_EQ(ResultOf(*proxy), static_cast<float>(++rounds[i]));
      if (rounds[i] == 20) return finished.Signal();
      SetX(*proxy, 1);
      InferenceAsync(proxy, next);
    };
    for (const auto& stream : streams) {
      SetX(*stream, 1);
      InferenceAsync(stream.get(), next);
    }
    for (size_t i = 0; i < streams.size(); ++i) finished.Wait();
    model.Stop();
    for (const EchoModel::Run& run : model.runs()) {
      EXPECT_NE(run.thread, std::this_thread::get_id());
    }
  }
}

TEST(AsyncTest, LetsTheOwnerDeleteTheProxyAndServesWhatStandsInTheQueue) {
  EchoModel model(InferThreadOptions("1-4", kTenMinutes));
  std::atomic<int> called{0};
  for (int i = 0; i < 6; ++i) {
    Proxy* proxy = NewStream(model).release();
    SetX(*proxy, 7);
    InferenceAsync(proxy, [&called](Proxy* done, bool computed) {
      EXPECT_TRUE(computed);
      delete done;
      ++called;
    });
  }
  model.Stop();
  EXPECT_EQ(called, 6);
}

TEST(FailedRunTest, ReturnsToEveryCallerWithTheStateAsBefore) {
  for (const ModelOptions& options : AllModes()) {
    EchoModel model(options);
    const Streams streams = NewStreams(model, 4);
    ASSERT_TRUE(Inference(Fill(streams)));
    const bool in_own_thread =
        !options.infer_thread && options.batch_dim.empty();
    model.FailNextRun();
    const std::vector<Proxy*> proxies = Fill(streams);
    if (in_own_thread) {  // There is nobody else to tell.
      EXPECT_THROW(Inference(proxies), std::runtime_error);
      streams[0]->Reset();
      SetX(*streams[0], 1);
      EXPECT_TRUE(streams[0]->Inference());
      continue;
    }
    EXPECT_EQ(LinesOf([&] { EXPECT_FALSE(Inference(proxies)); }),
              std::vector<std::string>{
                  "ERROR Compute: inference failed: a broken run"});
    if (!options.batch_dim.empty()) {
      for (const auto& stream : streams) EXPECT_FALSE(stream->HasOutput("y"));
      EXPECT_TRUE(Inference(Fill(streams)));
      ExpectSums(streams, 2);
    }
  }
}

TEST(FailedRunTest, FreesTheCallersWhoseBatchAnotherComputed) {
  EchoModel model(EchoOptions("4"));
  model.FailNextRun();
  std::atomic<int> failed{0};
  SetLogLevel(FATAL);
  std::vector<std::thread> callers;
  for (int i = 0; i < 4; ++i) {
    callers.emplace_back([&] {
      if (!NewRequest(model, 7)->Inference()) ++failed;
    });
  }
  for (std::thread& caller : callers) caller.join();
  EXPECT_EQ(failed, 4);
}

TEST(ManyStreamsDeathTest, RefusesWhatCannotBeRunTogether) {
  const char* const kFile = "src/base/tarn-functions.cc";
  EchoModel model(EchoOptions(""));
  EchoModel other(EchoOptions(""));
  const auto request = NewRequest(model, 7);
  const auto others = NewRequest(other, 7);
  ExpectFatal([&] { Inference({request.get(), nullptr}); }, "proxy is nullptr",
              "Inference", kFile);
  ExpectFatal([&] { Inference({request.get(), others.get()}); },
              "the proxies belong to different models.", "Inference", kFile);
  const char* const kTwice = "proxy is in flight already, or given twice.";
  ExpectFatal([&] { Inference({request.get(), request.get()}); }, kTwice,
              "Inference", "src/base/base-proxy.cc");
  const auto empty = NewStream(model);
  ExpectFatal([&] { Inference({request.get(), empty.get()}); },
              "missing input:x when inference", "Inference");
  ExpectFatal([&] { InferenceAsync(request.get(), [](Proxy*, bool) {}); },
              "expect --infer-thread=true.", "InferenceAsync", kFile);
  ExpectFatal([&] { InferenceAsync(nullptr, [](Proxy*, bool) {}); },
              "proxy is nullptr", "InferenceAsync", kFile);
  EXPECT_TRUE(model.runs().empty());
  const auto wait_in_callback = [] {
    EchoModel async(InferThreadOptions("", 0));
    const auto stream = NewRequest(async, 7);
    const auto another = NewRequest(async, 7);
    InferenceAsync(stream.get(),
                   [&](Proxy*, bool) { Inference({another.get()}); });
    async.Stop();
  };
  ExpectFatal(wait_in_callback,
              "the inference thread can't wait for an inference.", "Inference");
  const auto use_in_flight = [] {
    EchoModel async(InferThreadOptions("", 0));
    const auto stream = NewRequest(async, 7);
    async.CloseGate();
    InferenceAsync(stream.get(), [](Proxy*, bool) {});
    stream->Inference();
  };
  ExpectFatal(use_in_flight, kTwice, "Inference");
}

}  // namespace
}  // namespace tarn
