// Has a model and a stream of it in global variables, which end behind main().

#include <cstdlib>
#include <memory>
#include <string>

#include "tarn/tarn.h"

namespace {

std::unique_ptr<tarn::Model> model;
std::unique_ptr<tarn::Proxy> stream;  // Gone before the model.

}  // namespace

int main() {
  const std::string path = TARN_TEST_MODELS "/accumulator";
  tarn::ModelOptions options(path + ".conf", false);
  options.infer_thread = true;
  options.infer_interval = 600 * 1000 * 1000;
  model.reset(tarn::NewModel(options, "onnx", "cpu", path + ".onnx", "", ""));
  stream.reset(model->NewProxy());
  return EXIT_SUCCESS;
}
