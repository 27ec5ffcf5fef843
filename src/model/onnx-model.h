#ifndef TARN_MODEL_ONNX_MODEL_H_
#define TARN_MODEL_ONNX_MODEL_H_

#include <map>
#include <memory>
#include <string>
#include <vector>

#include <onnxruntime_cxx_api.h>

#include "base/base-model.h"
#include "base/tarn-tensor.h"
#include "utils/export.h"

namespace tarn {

// A network run by ONNX Runtime on the CPU.
//
// A single request is bound to the engine in the proxy's own memory. A batch is
// gathered into batch tensors, one row per request along dimension 0, which are
// allocated once at the largest shapes; after the run the rows are scattered.
// What the engine reports of itself goes to the library's log.
class TARN_EXPORT OnnxModel : public BaseModel {
 public:
  // `model` holds the bytes of the model file; they are not needed afterwards.
  // Throws Ort::Exception when the engine cannot load them; a network that does
  // not match the description is FATAL.
  OnnxModel(std::shared_ptr<ModelInfo> info, const std::string& model,
            const Device& device, std::shared_ptr<Queue<BaseProxy*>> queue);
  ~OnnxModel() override;

  BackEnd GetBackEnd() const override;
  void LoadModel(const std::string& model) override;

  // A run that fails is logged as an ERROR; the proxies then have no outputs
  // and their state is as before.
  void Compute(BaseProxy* proxy) override;
  void Compute(const std::vector<BaseProxy*>& proxies) override;

  // Checks every input and output of the session against the description, and
  // stores their names and element types in session order.
  void CheckModel(std::unique_ptr<Ort::Session>& session,
                  std::vector<std::string>& input_names,
                  std::vector<std::string>& output_names,
                  std::vector<ONNXTensorElementDataType>& input_types,
                  std::vector<ONNXTensorElementDataType>& output_types);

  // Allocates a batch tensor for each input, cache and output.
  void AllocMemorys(std::map<std::string, Tensor>& memorys);

  // Makes views of the batch tensors in the shapes of this batch.
  void GetBindings(const std::vector<BaseProxy*>& proxies,
                   std::map<std::string, Tensor>& bindings);

  // Unsigned types become the signed type of the same width. FATAL for a type
  // that Tensor does not have.
  static Tensor::DataType OnnxDataTypeToTarn(ONNXTensorElementDataType type);

  // Receives ONNX Runtime's log.
  static void OnnxLog(void* param, OrtLoggingLevel severity,
                      const char* category, const char* logid,
                      const char* code_location, const char* message);

 private:
  using Tensors = std::map<std::string, Tensor>;

  void AllocNewCaches();

  // An input or output of the session, in session order.
  struct Port {
    std::string name;
    const TensorInfo* info;  // What the description says of it.
    bool is_cache;
    ONNXTensorElementDataType type;
  };
  // How the description is asked for what is no cache.
  using Find = const TensorInfo* (ModelInfo::*)(const std::string& name) const;
  std::vector<Port> MakePorts(
      const std::vector<std::string>& names,
      const std::vector<ONNXTensorElementDataType>& types, Find find) const;

  static const Tensor& InputOf(const BaseProxy& proxy, const Port& port);
  static const Tensor& OutputOf(BaseProxy& proxy, const Port& port,
                                Tensor& view);
  static const Tensor& RowOf(BaseProxy& proxy, const Port& port, Tensor& view);
  static void GatherRows(const Port& port,
                         const std::vector<BaseProxy*>& proxies, Tensor batch);
  static void ScatterRows(const Port& port, const Tensor& batch,
                          const std::vector<BaseProxy*>& proxies);
  Tensor BatchOutput(const Port& port, const Tensors& batches) const;
  template <typename Requests>
  bool Run(const Ort::IoBinding& binding, const Requests& requests);

  std::unique_ptr<Ort::Env> env_;
  std::unique_ptr<Ort::Session> session_;
  Tensors memorys_;  // Batch tensors, by key.
  std::vector<Port> inputs_;
  std::vector<Port> outputs_;
  // Batch tensors that receive the caches' new values, by input-side name. An
  // engine may write new state before it has last read the old.
  Tensors new_caches_;
};

}  // namespace tarn

#endif  // TARN_MODEL_ONNX_MODEL_H_
