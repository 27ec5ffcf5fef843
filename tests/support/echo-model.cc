#include "support/echo-model.h"

#include <stdexcept>

#include <utility>

namespace tarn {

ModelOptions EchoOptions(const std::string& batch) {
  const bool is_dynamic = batch.find('-') != std::string::npos;
  const std::string size = is_dynamic ? "-1" : batch;
  const std::string shape = batch.empty() ? ":[1]" : ":[" + size + ",1]";
  const std::string format = batch.empty() ? ":[feat]" : ":[batch,feat]";
  ModelOptions options;
  options.inputs_shape = "x" + shape;
  options.inputs_format = "x" + format;
  options.inputs_dtype = "x:FLOAT32";
  options.outputs_shape = "y" + shape;
  options.outputs_format = "y" + format;
  options.outputs_dtype = "y:FLOAT32";
  options.caches_pair = "sum-next:sum";
  options.caches_shape = "sum" + shape;
  options.caches_format = "sum" + format;
  options.caches_dtype = "sum:FLOAT32";
  if (!batch.empty()) options.batch_dim = "batch";
  if (is_dynamic) options.dynamic_dims = "batch:" + batch;
  options.multi_threads = !batch.empty();
  return options;
}

ModelOptions InferThreadOptions(const std::string& batch, int interval) {
  ModelOptions options = EchoOptions(batch);
  options.infer_thread = true;
  options.infer_interval = interval;
  return options;
}

EchoModel::EchoModel(std::shared_ptr<ModelInfo> info, SharedQueue queue)
    : BaseModel(std::move(info), Device("cpu"), std::move(queue)) {
  StartInferThread();
}

std::vector<size_t> EchoModel::batch_sizes() const {
  std::vector<size_t> sizes;
  for (const Run& run : runs_) sizes.push_back(run.proxies.size());
  return sizes;
}

void EchoModel::RunOn(bool batched, const std::vector<BaseProxy*>& proxies) {
  if (is_computing_.exchange(true)) has_overlapped_ = true;
  if (gate_is_closed_.exchange(false)) {
    run_at_gate_.Signal();
    gate_opened_.Wait();
  }
  std::this_thread::yield();  // Gives others the chance to break in.
  runs_.push_back({batched, proxies, std::this_thread::get_id()});
  const bool fails = fails_next_.exchange(false);
  for (BaseProxy* proxy : proxies) {
    Tensor y = proxy->CreateOutput("y", {1});
    y.Fill(*proxy->GetInput("x").Data<float>() +
           *proxy->GetCache("sum").Data<float>());
    proxy->SetOutput("y", y);
    if (fails) {
      is_computing_ = false;
      throw std::runtime_error("a broken run");
    }
    Tensor sum = proxy->CreateCache("sum", {1});
    sum.Copy(y);
    proxy->SetCache("sum", sum);
  }
  is_computing_ = false;
}

std::unique_ptr<BaseProxy> NewStream(Model& model) {
  return std::unique_ptr<BaseProxy>(static_cast<BaseProxy*>(model.NewProxy()));
}

void SetX(Proxy& proxy, float x) {
  Tensor tensor = proxy.CreateInput("x", {1});
  tensor.Fill(x);
  proxy.SetInput("x", tensor);
}

std::unique_ptr<BaseProxy> NewRequest(Model& model, float x) {
  std::unique_ptr<BaseProxy> proxy = NewStream(model);
  SetX(*proxy, x);
  Tensor sum = proxy->CreateCache("sum", {1});
  sum.Zeros();
  proxy->SetCache("sum", sum);
  return proxy;
}

float ResultOf(Proxy& proxy) {
  return proxy.HasOutput("y") ? *proxy.GetOutput("y").Data<float>() : -1;
}

}  // namespace tarn
