#include "base/tarn-functions.h"

#include <gtest/gtest.h>

#include <exception>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "base/base-proxy.h"
#include "support/log.h"

namespace tarn {
namespace {

using Texts = std::vector<std::string>;

const std::string kDirectory = TARN_TEST_MODELS;
const std::string kFile = kDirectory + "/accumulator.onnx";

ModelOptions Options(const std::string& model, bool infer_thread) {
  ModelOptions options(kDirectory + "/" + model + ".conf", false);
  options.infer_thread = infer_thread;
  return options;
}

std::string BytesOf(const std::string& path) {
  std::ifstream is(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(is), {});
}

// One of the four functions.
struct Factory {
  // For the devices "cpu" and "CPU:1", or for the latter alone.
  std::vector<Model*> Make(const std::string& backend, const std::string& model,
                           const ModelOptions& options) const {
    if (shared) {
      const auto make = from_memory ? NewSharedModelsFromMem : NewSharedModels;
      return make(options, backend, {"cpu", "CPU:1"}, model, "", "");
    }
    const auto make = from_memory ? NewModelFromMem : NewModel;
    return {make(options, backend, "CPU:1", model, "", "")};
  }

  void ExpectFatalFrom(const std::string& backend, const std::string& model,
                       const std::string& message,
                       const ModelOptions& options) const {
    SCOPED_TRACE(name);
    ExpectFatal([&] { Make(backend, model, options); }, message, name,
                "src/base/tarn-functions.cc");
  }

  const char* name;
  bool from_memory;
  bool shared;
};

const Factory kFactories[] = {{"NewModel", false, false},
                              {"NewModelFromMem", true, false},
                              {"NewSharedModels", false, true},
                              {"NewSharedModelsFromMem", true, true}};

TEST(FactoryTest, MakesModelsThatRun) {
  for (const Factory& factory : kFactories) {
    std::vector<Model*> models;
    const auto make = [&] {
      models =
          factory.Make("onnx", factory.from_memory ? BytesOf(kFile) : kFile,
                       Options("accumulator", true));
    };
    EXPECT_EQ(LinesOf(make), Texts{std::string("WARNING ") + factory.name +
                                   ": initialize successfully, model from " +
                                   (factory.from_memory ? "stream" : kFile) +
                                   ", with backend of onnx, on " +
                                   (factory.shared ? "cpu;CPU:1" : "CPU:1")});
    EXPECT_EQ(models.size(), factory.shared ? 2U : 1U);
    for (Model* model : models) {
      EXPECT_EQ(model->GetBackEnd(), 2);
      Proxy* proxy = model->NewProxy();
      Tensor x = proxy->CreateInput("x", {3});
      x.Zeros();
      proxy->SetInput("x", x);
      EXPECT_TRUE(proxy->Inference());
      delete proxy;
    }
    for (Model* model : models) delete model;
  }
}

TEST(FactoryDeathTest, RejectsWhatItCannotUse) {
  const ModelOptions options = Options("accumulator", true);
  for (const Factory& factory : kFactories) {
    factory.ExpectFatalFrom(
        "tensorrt", kFile, "expect macro:USE_BACKEND_TENSORRT to be turned on.",
        options);
    factory.ExpectFatalFrom("ONNX", kFile, "unknow backend:ONNX", options);
    if (factory.from_memory) {
      factory.ExpectFatalFrom("mace", kFile, "unimplemented.", options);
    } else {
#ifndef USE_BACKEND_MACE
      factory.ExpectFatalFrom("mace", kFile,
                              "expect macro:USE_BACKEND_MACE to be turned on.",
                              options);
#endif
      for (const std::string& path : {kDirectory, kDirectory + "/none"}) {
        factory.ExpectFatalFrom("onnx", path, "read model failed from " + path,
                                options);
      }
    }
    if (factory.shared) {
      factory.ExpectFatalFrom("onnx", kFile, "expect --multi-threads=true.",
                              Options("accumulator-single", true));
      factory.ExpectFatalFrom("onnx", kFile, "expect --infer-thread=true.",
                              Options("accumulator", false));
    }
    const ScopedLogLevel silent(kSilent);
    const std::vector<Model*> models = factory.Make("none", kFile, options);
    for (const Model* model : models) EXPECT_EQ(model, nullptr);
  }
}

TEST(FactoryTest, ThrowsWhenTheEngineCannotLoadTheBytes) {
  const std::string bytes = BytesOf(kFile);
  for (const std::string& broken :
       {std::string(), std::string("garbage"), bytes.substr(0, 90)}) {
    for (const Factory& factory : {kFactories[1], kFactories[3]}) {
      EXPECT_THROW(factory.Make("onnx", broken, Options("accumulator", true)),
                   std::exception);
    }
  }
}

}  // namespace
}  // namespace tarn
