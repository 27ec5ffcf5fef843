#include "base/tarn-functions.h"

#include <gtest/gtest.h>

#include <exception>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "base/base-proxy.h"
#include "support/log.h"

namespace tarn {
namespace {

using Models = std::vector<Model*>;

const std::string kDirectory = TARN_TEST_MODELS;
const std::string kFile = kDirectory + "/accumulator.onnx";

ModelOptions Options() {
  ModelOptions options(kDirectory + "/accumulator.conf", false);
  options.infer_thread = true;
  return options;
}

// Calls the four factory functions alike.
struct Factory {
  const char* function;
  bool from_memory;
  bool shared;

  Models Make(const ModelOptions& options, const std::string& backend,
              const std::string& model) const {
    const std::vector<std::string> devices = {"cpu", "CPU:1"};
    if (shared) {
      const auto make = from_memory ? NewSharedModelsFromMem : NewSharedModels;
      return make(options, backend, devices, model, "", "");
    }
    const auto make = from_memory ? NewModelFromMem : NewModel;
    return {make(options, backend, devices[1], model, "", "")};
  }
};

const Factory kFactories[] = {{"NewModel", false, false},
                              {"NewModelFromMem", true, false},
                              {"NewSharedModels", false, true},
                              {"NewSharedModelsFromMem", true, true}};

std::string BytesOf(const std::string& path) {
  std::ifstream is(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(is), {});
}

bool Infers(Model& model) {
  const std::unique_ptr<Proxy> proxy(model.NewProxy());
  Tensor x = proxy->CreateInput("x", {3});
  x.Fill(1.0F);
  proxy->SetInput("x", x);
  return proxy->Inference();
}

TEST(FactoryTest, MakesModelsThatRun) {
  for (const Factory& factory : kFactories) {
    Models models;
    const std::string model = factory.from_memory ? BytesOf(kFile) : kFile;
    const auto lines =
        LinesOf([&] { models = factory.Make(Options(), "onnx", model); });
    const std::string line = std::string("WARNING ") + factory.function +
                             ": initialize successfully, model from " +
                             (factory.from_memory ? "stream" : kFile) +
                             ", with backend of onnx, on " +
                             (factory.shared ? "cpu;CPU:1" : "CPU:1");
    EXPECT_EQ(lines, std::vector<std::string>{line});
    EXPECT_EQ(models.size(), factory.shared ? 2U : 1U);
    for (Model* made : models) {
      EXPECT_EQ(made->GetBackEnd(), 2);
      EXPECT_TRUE(made->Ready());
      EXPECT_TRUE(Infers(*made));
    }
    for (Model* made : models) delete made;
  }
}

TEST(FactoryDeathTest, RejectsBackendsAndFilesThatItCannotUse) {
  const std::string missing = kDirectory + "/missing.onnx";
  for (const Factory& factory : kFactories) {
    const auto expect_fatal = [&](const char* backend, const std::string& model,
                                  const std::string& message) {
      SCOPED_TRACE(factory.function + (": " + message));
      ExpectFatal([&] { factory.Make(Options(), backend, model); }, message,
                  factory.function, "src/base/tarn-functions.cc");
      const ScopedLogLevel silent(kSilent);
      for (const Model* made : factory.Make(Options(), backend, model)) {
        EXPECT_EQ(made, nullptr);
      }
    };
    expect_fatal("tensorrt", kFile,
                 "expect macro:USE_BACKEND_TENSORRT to be turned on.");
    expect_fatal("ONNX", kFile, "unknow backend:ONNX");
    expect_fatal("", kFile, "unknow backend:");
    expect_fatal("mace", kFile,
                 factory.from_memory
                     ? "unimplemented."
                     : "expect macro:USE_BACKEND_MACE to be turned on.");
    if (factory.from_memory) continue;
    for (const std::string& path : {missing, kDirectory, std::string()}) {
      expect_fatal("onnx", path, "read model failed from " + path);
    }
  }
}

TEST(FactoryDeathTest, SharesModelsOnlyBetweenInferenceThreads) {
  ModelOptions serial(kDirectory + "/accumulator-single.conf", false);
  serial.infer_thread = true;
  ModelOptions threadless = Options();
  threadless.infer_thread = false;
  for (const Factory& factory : {kFactories[2], kFactories[3]}) {
    ExpectFatal([&] { factory.Make(serial, "onnx", kFile); },
                "expect --multi-threads=true.", factory.function);
    ExpectFatal([&] { factory.Make(threadless, "onnx", kFile); },
                "expect --infer-thread=true.", factory.function);
  }
}

TEST(FactoryTest, ThrowsWhenTheEngineCannotLoadTheBytes) {
  const std::string bytes = BytesOf(kFile);
  for (const std::string& broken : {std::string(), std::string("garbage"),
                                    bytes.substr(0, bytes.size() / 2)}) {
    for (const Factory& factory : {kFactories[1], kFactories[3]}) {
      EXPECT_THROW(factory.Make(Options(), "onnx", broken), std::exception);
    }
  }
}

}  // namespace
}  // namespace tarn
