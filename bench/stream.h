#ifndef TARN_BENCH_STREAM_H_
#define TARN_BENCH_STREAM_H_

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "tarn/tarn.h"

namespace tarn {

// A network of one float input and one float output, and how it is described.
struct Network {
  // `path` is that of both files, without .onnx and .conf.
  explicit Network(const std::string& path)
      : model(path + ".onnx"), options(path + ".conf", /*scrambled=*/false) {}

  std::unique_ptr<Model> Load() const {
    SetLogLevel(ERROR);  // Loading a model is logged as a warning.
    return std::unique_ptr<Model>(
        NewModel(options, "onnx", "cpu", model, "", ""));
  }

  std::string model;
  ModelOptions options;
};

// A stream as a host uses it: Request(), or its parts around an inference that
// the host runs in another way.
class Stream {
 public:
  explicit Stream(Model& model)
      : proxy_(model.NewProxy()),
        input_(proxy_->GetInputName(0)),
        output_(proxy_->GetOutputName(0)),
        shape_(proxy_->GetInputShape(0)) {}

  void Fill() {
    Tensor tensor = proxy_->CreateInput(input_, shape_);
    std::fill_n(tensor.Data<float>(), tensor.GetElementNum(), 0.1F);
    proxy_->SetInput(input_, tensor);
  }

  float Read() const { return *proxy_->GetOutput(output_).Data<float>(); }

  float Request() {
    Fill();
    if (!proxy_->Inference()) std::abort();  // The log says why.
    return Read();
  }

  Proxy* proxy() const { return proxy_.get(); }

 private:
  std::unique_ptr<Proxy> proxy_;
  std::string input_;
  std::string output_;
  std::vector<int> shape_;
};

inline std::vector<Stream> MakeStreams(Model& model, int count) {
  std::vector<Stream> streams;
  streams.reserve(static_cast<size_t>(count));
  for (int i = 0; i < count; ++i) streams.emplace_back(model);
  return streams;
}

inline std::vector<Proxy*> ProxiesOf(const std::vector<Stream>& streams) {
  std::vector<Proxy*> proxies;
  for (const Stream& stream : streams) proxies.push_back(stream.proxy());
  return proxies;
}

// One request of each stream, all from this thread.
inline float RequestAll(std::vector<Stream>& streams,
                        const std::vector<Proxy*>& proxies) {
  for (Stream& stream : streams) stream.Fill();
  if (!Inference(proxies)) std::abort();  // The log says why.
  float sum = 0;
  for (const Stream& stream : streams) sum += stream.Read();
  return sum;
}

}  // namespace tarn

#endif  // TARN_BENCH_STREAM_H_
