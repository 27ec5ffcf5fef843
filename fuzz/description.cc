// A configuration file, all the way to a stream of a model so described.

#include <memory>
#include <string>
#include <vector>

#include "base/base-proxy.h"
#include "base/tarn-functions.h"
#include "fuzz.h"

namespace tarn::fuzz {
namespace {

constexpr double kMaxElements = 1 << 16;

// A backend that fails every run.
class FailingModel : public BaseModel {
 public:
  explicit FailingModel(std::shared_ptr<ModelInfo> info)
      : BaseModel(std::move(info), Device("cpu"), nullptr) {}

  BackEnd GetBackEnd() const override { return ONNX; }
  void LoadModel(const std::string& /*model*/) override {}
  void Compute(BaseProxy* /*proxy*/) override {}
  void Compute(const std::vector<BaseProxy*>& /*proxies*/) override {}
};

bool IsLegal(const std::vector<Finding>& findings) {
  for (const Finding& finding : findings) {
    Require(!finding.found.empty() && !finding.rule.empty(),
            "a finding says what it is");
    if (finding.severity >= ERROR) return false;
  }
  return true;
}

bool IsSmall(const std::vector<int>& shape) {
  double count = 1;
  for (int size : shape) count *= size;
  return count <= kMaxElements;
}

bool IsSmall(const ModelInfo& info) {
  for (unsigned int i = 0; i < info.GetInputNum(); ++i) {
    if (!IsSmall(info.GetInputShape(i, true))) return false;
  }
  for (unsigned int i = 0; i < info.GetCacheNum(); ++i) {
    if (!IsSmall(info.GetCacheShape(i, true))) return false;
  }
  return true;
}

// Gives a stream its inputs. Runs it where it need not wait for others.
void UseStream(const std::shared_ptr<ModelInfo>& info) {
  FailingModel model(info);
  const std::unique_ptr<Proxy> proxy(model.NewProxy());
  for (const auto& range : info->GetDimensionRanges()) {
    proxy->FixDimension(range.first, range.second.second);
  }
  for (unsigned int i = 0; i < proxy->GetInputNum(); ++i) {
    const std::string& name = proxy->GetInputName(i);
    Tensor tensor = proxy->CreateInput(name, proxy->GetInputShape(i));
    tensor.Zeros();
    proxy->SetInput(name, tensor);
  }
  if (info->HasBatchDimension() || info->infer_thread()) return;
  Require(!proxy->Inference(), "a run without outputs fails");
  proxy->Reset();
}

}  // namespace
}  // namespace tarn::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace tarn::fuzz;  // NOLINT: the function cannot be inside it.
  const MemoryFile file(Text(data, size));
  std::vector<tarn::Finding> findings;
  const tarn::ModelOptions options(file.path(), false, findings);
  const bool is_legal =
      IsLegal(tarn::CheckModel(options, "onnx", "cpu", /*model=*/"", "", ""));
  const tarn::ModelInfo listed(options, findings);
  const auto info = std::make_shared<tarn::ModelInfo>(options);
  Require(info->GetInputNum() == listed.GetInputNum() &&
              info->GetOutputNum() == listed.GetOutputNum() &&
              info->GetCacheNum() == listed.GetCacheNum(),
          "both forms read the same description");
  if (is_legal && IsSmall(*info)) UseStream(info);
  return 0;
}
