#ifndef TARN_MODEL_MACE_MODEL_H_
#define TARN_MODEL_MACE_MODEL_H_

#include <map>
#include <memory>
#include <string>
#include <vector>

#include <mace/public/mace.h>

#include "base/base-model.h"
#include "base/tarn-tensor.h"
#include "utils/export.h"

namespace tarn {

class Reporter;

// A network run by MACE on the CPU or on an HTP accelerator.
//
// It computes one request at a time and no batches, so its description must not
// have a batch dimension. The engine writes into output tensors of the model's,
// which every request shares: what a proxy has as its outputs is overwritten by
// the model's next inference, for whichever proxy that is. A proxy's caches are
// its own.
class TARN_EXPORT MaceModel : public BaseModel {
 public:
  // As LoadModel() with three texts. Whether that succeeded is Ready().
  MaceModel(std::shared_ptr<ModelInfo> info, const std::string& graph,
            const std::string& weights, const std::string& cache,
            const Device& device, std::shared_ptr<Queue<BaseProxy*>> queue);
  ~MaceModel() override;

  BackEnd GetBackEnd() const override;

  // Whether there is an engine. Without one every inference fails.
  bool Ready() const override;

  // FATAL: the engine needs more than one file.
  void LoadModel(const std::string& model) override;

  // Creates the engine from the files at `graph` and `weights`. A file at
  // `cache` is loaded as what an accelerator compiled earlier, and stored there
  // where there is none; an empty `cache` is no cache. A setting that the
  // engine refuses is a WARNING. Any other failure is an ERROR and leaves the
  // model not ready. FATAL for an output or cache that is not of fixed shape.
  void LoadModel(const std::string& graph, const std::string& weights,
                 const std::string& cache);

  // A run that fails is logged as an ERROR; the proxy then has no outputs and
  // its state is as before. FATAL for element types that MACE does not have.
  void Compute(BaseProxy* proxy) override;

  // FATAL: the engine has no batches.
  void Compute(const std::vector<BaseProxy*>& proxies) override;

  // Allocates a tensor for each output, and for each cache's output side.
  void AllocateMemory();

  // Wraps the tensor's memory, which must outlive the result.
  static mace::MaceTensor MakeMaceTensor(const Tensor& tensor);

  // FATAL for a type that the other side does not have. Unsigned 8-bit becomes
  // the signed type.
  static mace::IDataType TarnDataTypeToMace(Tensor::DataType type);
  static Tensor::DataType MaceDataTypeToTarn(mace::IDataType type);

 private:
  using MaceTensors = std::map<std::string, mace::MaceTensor>;

  MaceTensors BindInputs(const BaseProxy& proxy) const;
  MaceTensors BindOutputs() const;
  bool Run(BaseProxy* proxy, const MaceTensors& inputs, MaceTensors& outputs);
  void KeepResults(BaseProxy* proxy) const;

  // Keeps the file of weights mapped too: the engine reads it in every run.
  std::shared_ptr<mace::MaceEngine> engine_;
  std::map<std::string, Tensor> outputs_;  // Caches by their output side.
  bool ready_ = false;
};

// Reports what keeps a MaceModel from being made or from getting ready, as far
// as that shows without creating the engine.
void CheckMaceModel(const std::string& graph, const std::string& weights,
                    const ModelInfo& info, const Device& device,
                    const Reporter& reporter);

}  // namespace tarn

#endif  // TARN_MODEL_MACE_MODEL_H_
