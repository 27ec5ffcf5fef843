// Bytes of a network that should be the tests' accumulator-single.

#include <memory>
#include <string>
#include <vector>

#include "base/base-proxy.h"
#include "base/tarn-functions.h"
#include "fuzz.h"

namespace tarn::fuzz {
namespace {

ModelOptions Description() {
  ModelOptions options;
  options.inputs_format = "x:[feat]";
  options.inputs_shape = "x:[3]";
  options.inputs_dtype = "x:FLOAT32";
  options.outputs_format = "y:[feat]";
  options.outputs_shape = "y:[3]";
  options.outputs_dtype = "y:FLOAT32";
  options.caches_pair = "sum-next:sum";
  options.caches_format = "sum:[feat]";
  options.caches_shape = "sum:[3]";
  options.caches_dtype = "sum:FLOAT32";
  options.num_execute_threads = 1;
  return options;
}

bool CanBeMade(const ModelOptions& options, const std::string& bytes) {
  for (const Finding& finding :
       CheckModelFromMem(options, "onnx", "cpu", bytes, "", "")) {
    if (finding.severity >= ERROR) return false;
  }
  return true;
}

}  // namespace
}  // namespace tarn::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace tarn::fuzz;  // NOLINT: the function cannot be inside it.
  static const tarn::ModelOptions options = Description();
  const std::string bytes = Text(data, size);
  if (!CanBeMade(options, bytes)) return 0;
  const std::unique_ptr<tarn::Model> model(
      tarn::NewModelFromMem(options, "onnx", "cpu", bytes, "", ""));
  Require(model != nullptr, "what has no finding can be made");
  const std::unique_ptr<tarn::Proxy> stream(model->NewProxy());
  tarn::Tensor x = stream->CreateInput("x", {3});
  x.Zeros();
  stream->SetInput("x", x);
  stream->Inference();
  return 0;
}
