#include "model/mace-model.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/base-proxy.h"
#include "base/tarn-functions.h"
#include "mace/control.h"
#include "support/log.h"
#include "support/table.h"
#include "support/temp-file.h"

namespace tarn {
namespace {

using testing::ElementsAre;
using testing::StartsWith;
using Lines = std::vector<std::string>;

// sum-next = sum / 2 + x, y = sum-next * w, where w begins behind a number.
const std::string kGraph =
    "input x 1 1 2\ninput sum 1 1 2\noutput y 1 1 2\noutput sum-next 1 1 2\n"
    "weight w 1 2 2\n"
    "scale sum-next sum 0.5\naccumulate sum-next x\nmatmul y sum-next w\n";
constexpr float kWeights[] = {-1, 1, 2, 3, 4};
const std::string kWeightsFile(reinterpret_cast<const char*>(kWeights),
                               sizeof(kWeights));

ModelOptions Options(const std::string& type = "FLOAT32") {
  ModelOptions options;
  options.inputs_format = "x:[row,feat]";
  options.inputs_shape = "x:[1,2]";
  options.inputs_dtype = "x:" + type;
  options.outputs_format = "y:[row,feat]";
  options.outputs_shape = "y:[1,2]";
  options.outputs_dtype = "y:" + type;
  options.caches_pair = "sum-next:sum";
  options.caches_format = "sum:[row,feat]";
  options.caches_shape = "sum:[1,2]";
  options.caches_dtype = "sum:" + type;
  options.num_execute_threads = 3;
  return options;
}

// The four ways in which requests reach the engine without batches.
std::vector<ModelOptions> AllModes() {
  std::vector<ModelOptions> modes(4, Options());
  for (size_t i = 0; i < modes.size(); ++i) {
    modes[i].multi_threads = i % 2 == 1;
    modes[i].infer_thread = i >= 2;
  }
  return modes;
}

std::unique_ptr<MaceModel> Load(const std::string& graph,
                                const ModelOptions& options = Options(),
                                const std::string& device = "cpu",
                                const std::string& cache = "") {
  const TempFile graph_file(graph);
  const TempFile weights_file(kWeightsFile);
  return std::make_unique<MaceModel>(std::make_shared<ModelInfo>(options),
                                     graph_file.path(), weights_file.path(),
                                     cache, Device(device), nullptr);
}

// A stream that knows what its state should be.
class Stream {
 public:
  explicit Stream(Model& model)
      : proxy_(static_cast<BaseProxy*>(model.NewProxy())) {}

  bool Infer(float value) {
    Tensor x = proxy_->CreateInput("x", {1, 2});
    x.Fill(value);
    proxy_->SetInput("x", x);
    if (!proxy_->Inference()) return false;
    sum_ = sum_ / 2 + value;
    return true;
  }

  const float* Output() { return proxy_->GetOutput("y").Data<float>(); }

  void ExpectOutput() {
    EXPECT_EQ(Output()[0], sum_ * 1 + sum_ * 3);
    EXPECT_EQ(Output()[1], sum_ * 2 + sum_ * 4);
  }

 private:
  std::unique_ptr<BaseProxy> proxy_;
  float sum_ = 0;  // Each element.
};

// Runs a stream of each model, in threads of their own. The outputs are the
// models', so that they are looked at one by one.
void RunStreams(const std::vector<Model*>& models) {
  std::vector<Stream> streams;
  for (Model* model : models) streams.emplace_back(*model);
  std::vector<std::thread> threads;
  for (Stream& stream : streams) {
    const auto value = static_cast<float>(threads.size());
    threads.emplace_back([&stream, value] {
      for (int i = 0; i < 60; ++i) EXPECT_TRUE(stream.Infer(value));
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (Stream& stream : streams) {
    EXPECT_TRUE(stream.Infer(8));
    stream.ExpectOutput();
  }
}

class MaceModelTest : public testing::Test {
 protected:
  void TearDown() override {
    mace::control::FailCalls(false);
    EXPECT_EQ(mace::control::LiveEngines(), 0);
    EXPECT_EQ(mace::control::LiveRegions(), 0);
  }
};

using MaceModelDeathTest = MaceModelTest;

TEST_F(MaceModelTest, ConfiguresTheEngine) {
  const auto calls_for = [](const char* device, const std::string& cache) {
    mace::control::TakeCalls();
    const auto model = Load(kGraph, Options(), device, cache);
    EXPECT_TRUE(model->Ready());
    EXPECT_EQ(model->GetBackEnd(), 3);
    return mace::control::TakeCalls();
  };
  const std::string cpu = "SetRuntimeType(0, default_graph)";
  const std::string threads = "SetCPUThreadPolicy(3, 1)";
  const std::string htp = "SetRuntimeType(6, default_graph)";
  const std::string balanced = "SetQnnPerformance(3)";
  const TempFile file("compiled");
  const std::string path = file.path() + ", " + file.path() + ")";
  EXPECT_THAT(calls_for("cpu", ""), ElementsAre(cpu, threads));
  EXPECT_THAT(calls_for("htp:1", file.path()),
              ElementsAre("SetAcceleratorCache(2, " + path, htp, balanced));
  EXPECT_THAT(
      calls_for("CPU", "/missing"),
      ElementsAre("SetAcceleratorCache(1, /missing, /missing)", cpu, threads));
}

TEST_F(MaceModelTest, GoesOnWithoutSettingsThatTheEngineRefuses) {
  mace::control::FailCalls(true);
  const std::string load = "WARNING LoadModel: ";
  for (const auto& [device, warning] :
       {std::pair{"cpu", "Set mace cpu affinity failed."},
        {"htp", "Set qnn performance failed, ret Runtime error"}}) {
    std::unique_ptr<MaceModel> model;
    EXPECT_THAT(LinesOf([&, device = device] {
                  model = Load(kGraph, Options(), device, "/cache");
                }),
                ElementsAre(load + "Set cache failed, ret Runtime error",
                            load + warning));
    EXPECT_TRUE(Stream(*model).Infer(1));
  }
}

TEST_F(MaceModelTest, IsNotReadyWithoutAnEngine) {
  std::map<std::string, TempFile> files;
  files.try_emplace("good", kGraph);
  files.try_emplace("weights", kWeightsFile);
  files.try_emplace("empty", "");
  files.try_emplace("few", kWeightsFile.substr(0, 19));
  files.try_emplace("garbage", "\x08\x96\x01\xff");
  files.try_emplace("cut", kGraph.substr(0, kGraph.size() - 2));
  files.try_emplace("names", kGraph + "input z 1 2\n");
  files.try_emplace("unlucky", "fail-create 2\n" + kGraph);
  const auto path_of = [&](const std::string& name) {
    const auto file = files.find(name);
    return file == files.end() ? name : file->second.path();
  };
  for (const ModelOptions& options : AllModes()) {
    const auto info = std::make_shared<ModelInfo>(options);
    for (const auto& row : Rows(R"(
good | weights | cuda:1 | does not support type: cuda:1
good | weights | other | does not support type: unknow
/none | weights | cpu | Failed to read file: /none
/tmp | weights | cpu | Failed to read file: /tmp
empty | weights | cpu | Failed to read file: /
good | /none | cpu | Failed to read file: /none
good | empty | cpu | Failed create mace engine, ret Invalid Arguments
good | few | cpu | Failed create mace engine, ret Invalid Arguments
garbage | weights | cpu | Failed create mace engine, ret Invalid Arguments
cut | weights | cpu | Failed create mace engine, ret Invalid Arguments
names | weights | cpu | Failed create mace engine, ret Invalid Arguments
unlucky | weights | cpu | Failed create mace engine, ret Out of resources)")) {
      Device device(row[2] == "other" ? "cpu" : row[2]);
      if (row[2] == "other") {
        device.kind = static_cast<Device::Kind>(7);  // NOLINT: out of range.
      }
      // The inference thread would first make the device active: FATAL.
      if (options.infer_thread && device.kind == Device::CUDA) continue;
      std::unique_ptr<MaceModel> model;
      EXPECT_THAT(LinesOf([&] {
                    model = std::make_unique<MaceModel>(info, path_of(row[0]),
                                                        path_of(row[1]), "",
                                                        device, nullptr);
                  }),
                  ElementsAre(StartsWith("ERROR LoadModel: " + row[3])));
      EXPECT_FALSE(model->Ready());
      EXPECT_EQ(mace::control::LiveEngines(), 0);
      EXPECT_THAT(LinesOf([&] { EXPECT_FALSE(Stream(*model).Infer(1)); }),
                  ElementsAre("ERROR Compute: mace run model failed: "
                              "the engine is not ready."));
    }
  }
}

TEST_F(MaceModelTest, CarriesTheStateOfEachStreamInEveryMode) {
  for (const ModelOptions& options : AllModes()) {
    const auto model = Load("slow 30\n" + kGraph, options);
    // That of the weights, which the engine reads in every run.
    EXPECT_EQ(mace::control::LiveRegions(), 1);
    const bool alone = !options.multi_threads && !options.infer_thread;
    RunStreams(std::vector<Model*>(alone ? 1 : 4, model.get()));
  }
}

TEST_F(MaceModelTest, SharesOneQueueBetweenModels) {
  const TempFile graph("slow 30\n" + kGraph);
  const TempFile weights(kWeightsFile);
  std::vector<Model*> models;
  SetLogLevel(DEBUG);
  const Lines lines = LinesOf([&] {
    models = NewSharedModels(AllModes().back(), "mace", {"cpu", "htp"},
                             graph.path(), weights.path(), "");
  });
  SetLogLevel(WARNING);
  EXPECT_THAT(lines, testing::IsSupersetOf(
                         Lines{"INFO LoadModel: load graph " + graph.path(),
                               "INFO LoadModel: load weight " + weights.path(),
                               "DEBUG LoadModel: Init mace engine success."}));
  RunStreams({models[0], models[1], models[0], models[1], models[0]});
  for (Model* model : models) delete model;
}

TEST_F(MaceModelTest, LeavesNoTraceOfAFailedRun) {
  for (const ModelOptions& options : AllModes()) {
    const auto model = Load("fail-run 2\n" + kGraph, options);
    Stream stream(*model);
    EXPECT_TRUE(stream.Infer(8));
    EXPECT_THAT(LinesOf([&] { EXPECT_FALSE(stream.Infer(100)); }),
                ElementsAre("ERROR Compute: mace run model failed: "
                            "Runtime error: broken"));
    EXPECT_TRUE(stream.Infer(1));
    stream.ExpectOutput();
  }
}

class EventRecorder : public InferenceObserver {
 public:
  void OnEvent(Event event, const std::vector<BaseProxy*>& /*one*/) override {
    events.push_back(event);
  }
  std::vector<int> events;
};

TEST_F(MaceModelTest, OutputsAreTheModelsUntilItsNextCompute) {
  const auto model = Load(kGraph);
  EventRecorder recorder;
  model->SetObserver(&recorder);
  Stream first(*model), second(*model);
  EXPECT_TRUE(first.Infer(1));
  EXPECT_EQ(recorder.events, (std::vector<int>{1, 2, 3, 4}));
  EXPECT_TRUE(second.Infer(3));
  second.ExpectOutput();
  EXPECT_EQ(first.Output(), second.Output());
}

TEST_F(MaceModelTest, CarriesEveryElementType) {
  for (const auto& [type, number] : {std::pair{"FLOAT32", " 1"},
                                     {"FLOAT16", " 5"},
                                     {"INT32", " 4"},
                                     {"INT16", " 7"},
                                     {"INT8", " 8"}}) {
    SCOPED_TRACE(type);
    std::string graph;
    for (const char* name :
         {"input x", "input sum", "output y", "output sum-next"}) {
      graph += std::string(name) + number + " 1 2\n";
    }
    const auto model =
        Load(graph + "copy y sum\ncopy sum-next x\n", Options(type));
    const std::unique_ptr<Proxy> proxy(model->NewProxy());
    for (char call = 0; call < 3; ++call) {
      const Tensor x = proxy->CreateInput("x", {1, 2});
      const size_t size = size_t{x.GetElementNum()} * x.GetElementSize();
      std::memset(x.Data(), call + 1, size);
      proxy->SetInput("x", x);
      ASSERT_TRUE(proxy->Inference());
      EXPECT_EQ(std::string(proxy->GetOutput("y").Data<char>(), size),
                std::string(size, call));
    }
  }
}

TEST(MaceDataTypeTest, MapsBothWays) {
  const ScopedLogLevel silent(kSilent);
  std::vector<int> to_mace;
  std::vector<int> to_tarn;
  for (int i = 0; i <= mace::IDT_END; ++i) {
    const auto mace_type = static_cast<mace::IDataType>(i);
    to_tarn.push_back(MaceModel::MaceDataTypeToTarn(mace_type));
  }
  for (int i = Tensor::FLOAT32; i <= Tensor::INT8; ++i) {
    const auto type = static_cast<Tensor::DataType>(i);
    to_mace.push_back(MaceModel::TarnDataTypeToMace(type));
  }
  EXPECT_THAT(to_mace, ElementsAre(1, 0, 5, 4, 0, 7, 8));
  EXPECT_THAT(to_tarn, ElementsAre(0, 1, 7, 0, 4, 3, 0, 6, 7, 0));
}

TEST_F(MaceModelDeathTest, RefusesWhatItCannotDo) {
  const auto model = Load(kGraph);
  const std::string file = "src/model/mace-model.cc";
  ExpectFatal([&] { model->LoadModel("graph"); }, "not implemented yet.",
              "LoadModel", file);
  ExpectFatal([&] { model->Compute(std::vector<BaseProxy*>(2)); },
              "not implemented yet.", "Compute", file);
  ExpectFatal([&] { MaceModel::MaceDataTypeToTarn(mace::IDT_HALF); },
              "unsupported data type of mace: 3", "MaceDataTypeToTarn", file);
  ExpectFatal([] { NewModelFromMem(Options(), "mace", "cpu", kGraph, "", ""); },
              "unimplemented.", "NewModelFromMem");
}

// Where fatal checks are silenced, such a model's inferences fail.
TEST_F(MaceModelDeathTest, RejectsTypesAndShapesThatTheEngineDoesNotHave) {
  ModelOptions dynamic = Options();
  dynamic.inputs_shape = "x:[-1,2]";
  dynamic.outputs_shape = "y:[-1,2]";
  dynamic.dynamic_dims = "row:1-4";
  dynamic.caches_pair = dynamic.caches_format = "";
  dynamic.caches_shape = dynamic.caches_dtype = "";
  const auto expect_refusal = [](const ModelOptions& options,
                                 const std::string& graph,
                                 const std::string& message) {
    const auto infer = [&] {
      const auto model = Load(graph, options);
      const std::unique_ptr<Proxy> proxy(model->NewProxy());
      if (!options.dynamic_dims.empty()) proxy->FixDimension("row", 1);
      proxy->SetInput("x", proxy->CreateInput("x", {1, 2}));
      return proxy->Inference();
    };
    ExpectFatal(infer, message);
    const ScopedLogLevel silent(kSilent);
    EXPECT_FALSE(infer());
  };
  expect_refusal(dynamic, "input x 1 1 2\noutput y 1 1 2\ncopy y x\n",
                 "Resize: invalid shape: [-1, 2]");
  const std::string type =
      "TarnDataTypeToMace: mace unsupported data type of: ";
  expect_refusal(Options("FLOAT64"), kGraph, type + "2");
  expect_refusal(Options("INT64"), kGraph, type + "5");
}

}  // namespace
}  // namespace tarn
