// A backend of the host's own, for a model that needs no engine. Streams, their
// state, the queue and the running modes are the library's.

#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tarn/tarn.h"

namespace {

// level-next = (level + x) / 2, y = level-next: a smoothed level.
class LevelModel : public tarn::BaseModel {
 public:
  explicit LevelModel(const tarn::ModelOptions& options)
      : BaseModel(std::make_shared<tarn::ModelInfo>(options),
                  tarn::Device("cpu"), /*queue=*/nullptr) {
    StartInferThread();  // Last: the thread may call Compute() at once.
  }
  ~LevelModel() override { StopInferThread(); }

  // A number that none of the library's backends has.
  BackEnd GetBackEnd() const override { return static_cast<BackEnd>(100); }
  void LoadModel(const std::string& /*model*/) override {}

  void Compute(tarn::BaseProxy* proxy) override {
    const tarn::Tensor& x = proxy->GetInput("x");
    const tarn::Tensor& level = proxy->GetCache("level");
    tarn::Tensor next = proxy->CreateCache("level-next", level.GetShape());
    tarn::Tensor y = proxy->CreateOutput("y", x.GetShape());
    for (unsigned int i = 0; i < x.GetElementNum(); ++i) {
      next.Data<float>()[i] = (level.Data<float>()[i] + x.Data<float>()[i]) / 2;
    }
    y.Copy(next);
    proxy->SetCache("level-next", next);
    proxy->SetOutput("y", y);
  }

  // An engine would gather rows here; this one has nothing to gain.
  void Compute(const std::vector<tarn::BaseProxy*>& proxies) override {
    for (tarn::BaseProxy* proxy : proxies) Compute(proxy);
  }
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s CONFIG\n", argv[0]);
    return 2;
  }
  const tarn::ModelOptions options(argv[1], /*scrambled=*/false);
  const auto model = std::make_unique<LevelModel>(options);
  const std::unique_ptr<tarn::Proxy> stream(model->NewProxy());
  for (float x : {8.0F, 8.0F, 0.0F}) {
    tarn::Tensor tensor = stream->CreateInput("x", {1});
    tensor.Fill(x);
    stream->SetInput("x", tensor);
    if (!stream->Inference()) return 1;
    std::printf("%g ", *stream->GetOutput("y").Data<float>());
  }
  std::printf("\n");
  return 0;
}
