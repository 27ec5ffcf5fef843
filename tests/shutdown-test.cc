// Ends of models, of failed ones, and of the processes that have them.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/base-proxy.h"
#include "base/tarn-functions.h"
#include "model/onnx-model.h"
#include "support/echo-model.h"

namespace tarn {
namespace {

const std::string kModel = std::string(TARN_TEST_MODELS) + "/accumulator";

ModelOptions Options() {
  ModelOptions options(kModel + ".conf", false);
  options.infer_thread = true;
  options.infer_interval = 600 * 1000 * 1000;
  return options;
}

std::string Bytes() {
  std::ifstream is(kModel + ".onnx", std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(is), {});
}

void SetAll(Proxy& proxy, float x) {
  Tensor tensor = proxy.CreateInput("x", {3});
  tensor.Fill(x);
  proxy.SetInput("x", tensor);
}

// The engine is released only behind the last request. The model is gone
// without ever having waited for a batch to fill.
TEST(ShutdownTest, AModelComputesWhatIsQueuedBeforeItEnds) {
  const auto info = std::make_shared<ModelInfo>(Options());
  const auto queue = std::make_shared<Queue<BaseProxy*>>();
  std::vector<std::unique_ptr<ParallelProxy>> requests;
  for (int i = 0; i < 9; ++i) {
    requests.push_back(std::make_unique<ParallelProxy>(nullptr, info.get()));
    SetAll(*requests.back(), static_cast<float>(i));
    Tensor sum = requests.back()->CreateCache("sum", {3});
    sum.Zeros();
    requests.back()->SetCache("sum", sum);
    queue->Push(requests.back().get(), 4);
  }
  std::make_unique<OnnxModel>(info, Bytes(), Device("cpu"), queue).reset();
  for (size_t i = 0; i < requests.size(); ++i) {
    requests[i]->Wait();
    EXPECT_EQ(requests[i]->GetOutput("y").Data<float>()[2], i);
  }
}

size_t EntryNum(const std::string& directory) {
  const std::filesystem::directory_iterator entries(directory);
  return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

void TryGarbage() {
  ModelOptions options = Options();
  options.num_execute_threads = 4;
  const std::string bytes = Bytes();
  for (const std::string& broken : {std::string("garbage"), std::string(),
                                    bytes.substr(0, bytes.size() / 2)}) {
    EXPECT_THROW(NewModelFromMem(options, "onnx", "cpu", broken, "", ""),
                 std::exception);
    EXPECT_THROW(
        NewSharedModelsFromMem(options, "onnx", {"cpu", "cpu"}, broken, "", ""),
        std::exception);
  }
}

TEST(ShutdownTest, AModelThatCannotBeMadeLeavesNoThreadsAndFiles) {
  TryGarbage();  // What the engine keeps for good is there from now on.
  const size_t threads = EntryNum("/proc/self/task");
  const size_t files = EntryNum("/proc/self/fd");
  for (int i = 0; i < 10; ++i) TryGarbage();
  // The kernel may list a thread a moment longer than its end is awaited.
  while (EntryNum("/proc/self/task") > threads) std::this_thread::yield();
  EXPECT_EQ(EntryNum("/proc/self/fd"), files);
}

// Runs a program in a forked child and returns its status.
int RunInFork(const char* program) {
  const pid_t child = fork();
  if (child == 0) {
    execl(program, program, nullptr);
    _exit(127);
  }
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  return status;
}

// A child of fork() has none of the model's threads: all it may do is to end,
// or to become another program. The parent's streams notice nothing.
TEST(ShutdownTest, AHostMayForkWhileItServes) {
  ModelOptions options = Options();
  options.infer_interval = 100;
  const std::unique_ptr<Model> model(
      NewModelFromMem(options, "onnx", "cpu", Bytes(), "", ""));
  std::atomic<bool> running{true};
  std::vector<std::thread> callers;
  for (int i = 0; i < 4; ++i) {
    callers.emplace_back([&] {
      const std::unique_ptr<Proxy> stream(model->NewProxy());
      for (float sum = 0; running; ++sum) {
        SetAll(*stream, 1);
        ASSERT_TRUE(stream->Inference());
        ASSERT_EQ(stream->GetOutput("y").Data<float>()[0], sum + sum + 1);
      }
    });
  }
  for (int i = 0; i < 20; ++i) EXPECT_EQ(RunInFork("/bin/true"), 0);
  running = false;
  for (std::thread& caller : callers) caller.join();
}

TEST(ShutdownTest, AModelMayBeAGlobalVariable) {
  EXPECT_EQ(std::system(TARN_EMULATOR " " TARN_STATIC_MODEL), 0);
}

}  // namespace
}  // namespace tarn
