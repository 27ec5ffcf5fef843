#ifndef TOOLS_TARN_BARE_ENGINE_H_
#define TOOLS_TARN_BARE_ENGINE_H_

#include <map>
#include <string>
#include <vector>

#include <onnxruntime_cxx_api.h>

#include "base/tarn-tensor.h"

namespace tarn::tool {

using Tensors = std::map<std::string, Tensor>;

// A network run through ONNX Runtime's own interface, with the session options
// that the library uses: what the library's results and speed are compared
// with. One thread at a time.
class BareEngine {
 public:
  // Throws Ort::Exception when the engine cannot load the file.
  BareEngine(const std::string& model_path, int num_threads);

  // Runs once, with a binding of its own. There is a tensor for every input and
  // output of the session, batch dimension included; the engine reads and
  // writes their memory. Throws Ort::Exception when the run fails.
  void Run(const Tensors& inputs, const Tensors& outputs);

 private:
  struct Port {
    std::string name;
    ONNXTensorElementDataType type;
  };

  Ort::Env env_{ORT_LOGGING_LEVEL_ERROR, "bare"};
  Ort::Session session_;
  std::vector<Port> inputs_;
  std::vector<Port> outputs_;
};

}  // namespace tarn::tool

#endif  // TOOLS_TARN_BARE_ENGINE_H_
