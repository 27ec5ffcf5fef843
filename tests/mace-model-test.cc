#include "model/mace-model.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/base-proxy.h"
#include "base/tarn-functions.h"
#include "mace/control.h"
#include "support/log.h"
#include "support/temp-file.h"

namespace tarn {
namespace {

using testing::ElementsAre;
using testing::StartsWith;
using Floats = std::vector<float>;
using Lines = std::vector<std::string>;

// sum-next = sum / 2 + x, y = sum-next * w, both = x + sum.
const std::string kGraph =
    "input x 1 1 2\n"
    "input sum 1 1 2\n"
    "output y 1 1 2\n"
    "output both 1 1 2\n"
    "output sum-next 1 1 2\n"
    "weight w 1 2 2\n"
    "scale sum-next sum 0.5\n"
    "accumulate sum-next x\n"
    "matmul y sum-next w\n"
    "add both x sum\n";
constexpr float kWeights[] = {-1, 1, 2, 3, 4};  // Those of w begin behind -1.
const std::string kWeightsFile(reinterpret_cast<const char*>(kWeights),
                               sizeof(kWeights));

ModelOptions Options() {
  ModelOptions options;
  options.inputs_format = "x:[row,feat]";
  options.inputs_shape = "x:[1,2]";
  options.inputs_dtype = "x:FLOAT32";
  options.outputs_format = "y:[row,feat];both:[row,feat]";
  options.outputs_shape = "y:[1,2];both:[1,2]";
  options.outputs_dtype = "y:FLOAT32;both:FLOAT32";
  options.caches_pair = "sum-next:sum";
  options.caches_format = "sum:[row,feat]";
  options.caches_shape = "sum:[1,2]";
  options.caches_dtype = "sum:FLOAT32";
  options.num_execute_threads = 3;
  return options;
}

// Options for a graph that gives out `x` of the call before as `y`; `rows` and
// the type are those of all its tensors.
ModelOptions DelayOptions(const std::string& type) {
  ModelOptions options = Options();
  options.inputs_dtype = "x:" + type;
  options.outputs_format = "y:[row,feat]";
  options.outputs_shape = "y:[1,2]";
  options.outputs_dtype = "y:" + type;
  options.caches_dtype = "sum:" + type;
  return options;
}

std::string DelayGraph(int type) {
  const std::string shape = " " + std::to_string(type) + " 1 2\n";
  return "input x" + shape + "input sum" + shape + "output y" + shape +
         "output sum-next" + shape + "copy y sum\ncopy sum-next x\n";
}

std::unique_ptr<MaceModel> Load(const std::string& graph,
                                const ModelOptions& options,
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

  BaseProxy& proxy() { return *proxy_; }

  bool Infer(float x0, float x1) {
    const Tensor x = proxy_->CreateInput("x", {1, 2});
    x.Data<float>()[0] = x0;
    x.Data<float>()[1] = x1;
    proxy_->SetInput("x", x);
    if (!proxy_->Inference()) return false;
    both_ = {x0 + sum_[0], x1 + sum_[1]};
    sum_ = {x0 + sum_[0] / 2, x1 + sum_[1] / 2};
    return true;
  }

  void ExpectOutputs() const {
    const Floats y = {sum_[0] * 1 + sum_[1] * 3, sum_[0] * 2 + sum_[1] * 4};
    EXPECT_EQ(Output("y"), y);
    EXPECT_EQ(Output("both"), both_);
  }

  Floats Output(const std::string& name) const {
    const float* data = proxy_->GetOutput(name).Data<float>();
    return {data, data + 2};
  }

 private:
  std::unique_ptr<BaseProxy> proxy_;
  Floats sum_ = {0, 0};
  Floats both_;
};

// The four ways in which requests reach the engine without batches.
std::vector<ModelOptions> AllModes() {
  std::vector<ModelOptions> modes;
  for (const auto& [multi_threads, infer_thread] :
       {std::pair{false, false}, {true, false}, {false, true}, {true, true}}) {
    modes.push_back(Options());
    modes.back().multi_threads = multi_threads;
    modes.back().infer_thread = infer_thread;
  }
  return modes;
}

// Infers in a stream for each model of `models`, each in a thread of its own.
// Their outputs are the models', so that they are looked at one by one.
void RunStreams(const std::vector<Model*>& models) {
  std::vector<Stream> streams;
  for (Model* model : models) streams.emplace_back(*model);
  std::vector<std::thread> threads;
  for (Stream& stream : streams) {
    threads.emplace_back([&stream, first = 4.0F * threads.size()] {
      for (int i = 0; i < 60; ++i) EXPECT_TRUE(stream.Infer(first, 64));
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (Stream& stream : streams) {
    EXPECT_TRUE(stream.Infer(8, 16));
    stream.ExpectOutputs();
  }
}

class MaceModelTest : public testing::Test {
 protected:
  void TearDown() override {
    EXPECT_EQ(mace::control::LiveEngines(), 0);
    EXPECT_EQ(mace::control::LiveRegions(), 0);
  }
};

using MaceModelDeathTest = MaceModelTest;

TEST_F(MaceModelTest, ConfiguresTheEngine) {
  const TempFile cache("compiled");
  const std::string missing = cache.path() + "-missing";
  const std::string load =
      "SetAcceleratorCache(2, " + cache.path() + ", " + cache.path() + ")";
  const std::string store =
      "SetAcceleratorCache(1, " + missing + ", " + missing + ")";
  const Lines cpu = {"SetRuntimeType(0, default_graph)",
                     "SetCPUThreadPolicy(3, 1)"};
  const Lines htp = {"SetRuntimeType(6, default_graph)",
                     "SetQnnPerformance(3)"};
  const struct {
    std::string device;
    std::string cache;
    Lines calls;
  } cases[] = {{"cpu", "", cpu},
               {"htp", "", htp},
               {"htp:1", cache.path(), {load, htp[0], htp[1]}},
               {"CPU", missing, {store, cpu[0], cpu[1]}}};
  for (const auto& c : cases) {
    const auto model = Load(kGraph, Options(), c.device, c.cache);
    EXPECT_EQ(mace::control::TakeCalls(), c.calls);
    EXPECT_TRUE(model->Ready());
    EXPECT_EQ(model->GetBackEnd(), 3);
  }
}

TEST_F(MaceModelTest, GoesOnWithoutSettingsThatTheEngineRefuses) {
  mace::control::FailCalls(true);
  const std::string cache = "WARNING LoadModel: Set cache failed, ret ";
  for (const auto& [device, warning] :
       {std::pair{"cpu", "Set mace cpu affinity failed."},
        {"htp", "Set qnn performance failed, ret Runtime error"}}) {
    std::unique_ptr<MaceModel> model;
    EXPECT_THAT(LinesOf([&, device = device] {
                  model = Load(kGraph, Options(), device, "/cache");
                }),
                ElementsAre(cache + "Runtime error",
                            std::string("WARNING LoadModel: ") + warning));
    EXPECT_TRUE(Stream(*model).Infer(1, 2));
  }
}

TEST_F(MaceModelTest, SaysWhatItLoads) {
  const TempFile graph(kGraph);
  const TempFile weights(kWeightsFile);
  const auto info = std::make_shared<ModelInfo>(Options());
  const ScopedLogLevel level(DEBUG);
  EXPECT_THAT(LinesOf([&] {
                MaceModel(info, graph.path(), weights.path(), "", Device("cpu"),
                          nullptr);
              }),
              ElementsAre("INFO LoadModel: load graph " + graph.path(),
                          "INFO LoadModel: load weight " + weights.path(),
                          "DEBUG LoadModel: Init mace engine success."));
}

TEST_F(MaceModelTest, IsNotReadyWithoutAnEngine) {
  const TempFile graph(kGraph);
  const TempFile weights(kWeightsFile);
  const TempFile empty("");
  const TempFile few_weights(kWeightsFile.substr(0, 19));
  const TempFile garbage("\x08\x96\x01\xff garbage");
  const TempFile truncated(kGraph.substr(0, kGraph.size() - 6));
  const TempFile unlucky("fail-create 2 full\n" + kGraph);
  const TempFile other_names(kGraph + "input z 1 2\n");
  const std::string create = "Failed create mace engine, ret ";
  const std::string read = "Failed to read file: ";
  const std::string missing = empty.path() + "-missing";
  Device unknown("cpu");
  unknown.kind = static_cast<Device::Kind>(7);
  const struct {
    std::string graph;
    std::string weights;
    std::string message;
    Device device = Device("cpu");
  } cases[] = {
      {graph.path(), weights.path(), "does not support type: cuda:1",
       Device("cuda:1")},
      {graph.path(), weights.path(), "does not support type: unknow", unknown},
      {missing, weights.path(), read + missing},
      {empty.path(), weights.path(), read + empty.path()},
      {"/tmp", weights.path(), read + "/tmp"},
      {graph.path(), missing, read + missing},
      {graph.path(), "", read},
      {graph.path(), empty.path(), create + "Invalid Arguments"},
      {graph.path(), few_weights.path(), create + "Invalid Arguments"},
      {garbage.path(), weights.path(), create + "Invalid Arguments"},
      {truncated.path(), weights.path(), create + "Invalid Arguments"},
      {other_names.path(), weights.path(), create + "Invalid Arguments"},
      {unlucky.path(), weights.path(), create + "Out of resources: full"}};
  for (const ModelOptions& options : AllModes()) {
    const auto info = std::make_shared<ModelInfo>(options);
    for (const auto& c : cases) {
      // The inference thread would first want to make the device active.
      if (options.infer_thread && c.device.kind == Device::CUDA) continue;
      std::unique_ptr<MaceModel> model;
      EXPECT_THAT(LinesOf([&] {
                    model = std::make_unique<MaceModel>(
                        info, c.graph, c.weights, "", c.device, nullptr);
                  }),
                  ElementsAre(StartsWith("ERROR LoadModel: " + c.message)));
      EXPECT_FALSE(model->Ready());
      EXPECT_EQ(mace::control::LiveEngines(), 0);
      EXPECT_THAT(LinesOf([&] { EXPECT_FALSE(Stream(*model).Infer(1, 2)); }),
                  ElementsAre("ERROR Compute: mace run model failed: the "
                              "engine is not ready."));
    }
  }
}

TEST_F(MaceModelTest, CarriesTheStateOfEachStreamInEveryMode) {
  for (const ModelOptions& options : AllModes()) {
    const auto model = Load("slow 30\n" + kGraph, options);
    // The engine itself, and the weights that it reads in every run.
    EXPECT_EQ(mace::control::LiveEngines(), 1);
    EXPECT_EQ(mace::control::LiveRegions(), 1);
    const bool alone = !options.multi_threads && !options.infer_thread;
    RunStreams(std::vector<Model*>(alone ? 1 : 4, model.get()));
  }
}

TEST_F(MaceModelTest, SharesOneQueueBetweenModels) {
  const TempFile graph("slow 30\n" + kGraph);
  const TempFile weights(kWeightsFile);
  std::vector<Model*> models;
  EXPECT_EQ(LinesOf([&] {
              models =
                  NewSharedModels(AllModes().back(), "mace", {"cpu", "htp"},
                                  graph.path(), weights.path(), "");
            }),
            Lines{"WARNING NewSharedModels: initialize successfully, model "
                  "from " +
                  graph.path() + ", with backend of mace, on cpu;htp"});
  ASSERT_EQ(models.size(), 2U);
  RunStreams({models[0], models[1], models[0], models[1], models[0]});
  for (Model* model : models) delete model;
}

TEST_F(MaceModelTest, LeavesNoTraceOfAFailedRun) {
  for (const ModelOptions& options : AllModes()) {
    const auto model = Load("fail-run 2 4 broken\n" + kGraph, options);
    Stream stream(*model);
    EXPECT_TRUE(stream.Infer(8, 16));
    EXPECT_EQ(LinesOf([&] { EXPECT_FALSE(stream.Infer(100, 200)); }),
              Lines{"ERROR Compute: mace run model failed: "
                    "Runtime error: broken"});
    EXPECT_FALSE(stream.proxy().HasOutput("y"));
    EXPECT_TRUE(stream.Infer(1, 2));
    stream.ExpectOutputs();
  }
}

TEST_F(MaceModelTest, OutputsAreTheModelsUntilItsNextCompute) {
  const auto model = Load(kGraph, Options());
  Stream first(*model);
  Stream second(*model);
  EXPECT_TRUE(first.Infer(1, 2));
  const Tensor kept = first.proxy().GetOutput("y");
  EXPECT_TRUE(second.Infer(3, 4));
  EXPECT_EQ(kept.Data(), second.proxy().GetOutput("y").Data());
  EXPECT_EQ(first.Output("y"), second.Output("y"));
}

// Records the events of one request.
class Recorder : public InferenceObserver {
 public:
  void OnEvent(Event event, const std::vector<BaseProxy*>& proxies) override {
    EXPECT_EQ(proxies.size(), 1U);
    events_.push_back(event);
  }
  const std::vector<Event>& events() const { return events_; }

 private:
  std::vector<Event> events_;
};

TEST_F(MaceModelTest, TellsItsObserver) {
  const auto model = Load(kGraph, Options());
  Recorder recorder;
  model->SetObserver(&recorder);
  EXPECT_TRUE(Stream(*model).Infer(1, 2));
  EXPECT_THAT(
      recorder.events(),
      ElementsAre(InferenceObserver::TAKEN, InferenceObserver::GATHERED,
                  InferenceObserver::COMPUTED, InferenceObserver::SCATTERED));
}

TEST_F(MaceModelTest, CarriesEveryElementType) {
  for (const auto& [type, number] : {std::pair{"FLOAT32", 1},
                                     {"FLOAT16", 5},
                                     {"INT32", 4},
                                     {"INT16", 7},
                                     {"INT8", 8}}) {
    SCOPED_TRACE(type);
    const auto model = Load(DelayGraph(number), DelayOptions(type));
    const std::unique_ptr<Proxy> proxy(model->NewProxy());
    for (int call = 0; call < 3; ++call) {
      const Tensor x = proxy->CreateInput("x", {1, 2});
      const size_t size = x.GetElementNum() * x.GetElementSize();
      std::memset(x.Data(), 10 * (call + 1), size);
      proxy->SetInput("x", x);
      ASSERT_TRUE(proxy->Inference());
      const std::string y(proxy->GetOutput("y").Data<char>(), size);
      EXPECT_EQ(y, std::string(size, static_cast<char>(10 * call)));
    }
  }
}

TEST(MaceDataTypeTest, MapsBothWays) {
  const Tensor::DataType none = static_cast<Tensor::DataType>(0);
  // By the other side's number.
  const int to_mace[] = {0, 1, 0, 5, 4, 0, 7, 8, 0};
  const Tensor::DataType from_mace[] = {
      none, Tensor::FLOAT32, Tensor::INT8, none, Tensor::INT32, Tensor::FLOAT16,
      none, Tensor::INT16,   Tensor::INT8, none};
  const ScopedLogLevel silent(kSilent);
  for (int i = 0; i < static_cast<int>(std::size(to_mace)); ++i) {
    const auto type = static_cast<Tensor::DataType>(i);
    EXPECT_EQ(MaceModel::TarnDataTypeToMace(type), to_mace[i]) << i;
  }
  for (size_t i = 0; i < std::size(from_mace); ++i) {
    const auto type = static_cast<mace::IDataType>(i);
    EXPECT_EQ(MaceModel::MaceDataTypeToTarn(type), from_mace[i]) << i;
  }
}

TEST_F(MaceModelDeathTest, HasNoBatchesAndLoadsNoSingleFile) {
  const auto model = Load(kGraph, Options());
  ExpectFatal([&] { model->LoadModel("graph"); }, "not implemented yet.",
              "LoadModel", "src/model/mace-model.cc");
  ExpectFatal([&] { model->Compute(std::vector<BaseProxy*>(2)); },
              "not implemented yet.", "Compute", "src/model/mace-model.cc");
  ExpectFatal([&] { MaceModel::MaceDataTypeToTarn(mace::IDT_HALF); },
              "unsupported data type of mace: 3", "MaceDataTypeToTarn");
  ExpectFatal([] { NewModelFromMem(Options(), "mace", "cpu", kGraph, "", ""); },
              "unimplemented.", "NewModelFromMem");
}

// Where fatal checks are silenced, such a model's inferences fail.
TEST_F(MaceModelDeathTest, RejectsTypesAndShapesThatTheEngineDoesNotHave) {
  ModelOptions dynamic = DelayOptions("FLOAT32");
  dynamic.outputs_shape = dynamic.inputs_shape = "x:[-1,2]";
  dynamic.outputs_shape[0] = 'y';
  dynamic.dynamic_dims = "row:1-4";
  dynamic.caches_pair = dynamic.caches_format = "";
  dynamic.caches_shape = dynamic.caches_dtype = "";
  const std::string graph = "input x 1 1 2\noutput y 1 1 2\ncopy y x\n";
  const struct {
    ModelOptions options;
    std::string graph;
    std::string message;
    std::string function;
  } cases[] = {{dynamic, graph, "invalid shape: [-1, 2]", "Resize"},
               {DelayOptions("INT64"), DelayGraph(4),
                "mace unsupported data type of: 5", "TarnDataTypeToMace"},
               {DelayOptions("FLOAT64"), DelayGraph(1),
                "mace unsupported data type of: 2", "TarnDataTypeToMace"}};
  for (const auto& c : cases) {
    const auto infer = [&c] {
      const auto model = Load(c.graph, c.options);
      const std::unique_ptr<Proxy> proxy(model->NewProxy());
      if (c.options.dynamic_dims != "") proxy->FixDimension("row", 1);
      proxy->SetInput("x", proxy->CreateInput("x", {1, 2}));
      return proxy->Inference();
    };
    ExpectFatal(infer, c.message, c.function);
    const ScopedLogLevel silent(kSilent);
    EXPECT_FALSE(infer());
  }
}

#ifndef USE_BACKEND_ONNX
TEST(MaceOnlyDeathTest, RefusesTheOtherBackend) {
  ExpectFatal([] { NewModelFromMem(Options(), "onnx", "cpu", "", "", ""); },
              "create model failed.", "NewModelFromMem");
}
#endif

}  // namespace
}  // namespace tarn
