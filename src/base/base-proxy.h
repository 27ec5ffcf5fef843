#ifndef TARN_BASE_BASE_PROXY_H_
#define TARN_BASE_BASE_PROXY_H_

#include <atomic>
#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "base/base-model.h"
#include "base/tarn-tensor.h"
#include "utils/export.h"
#include "utils/logging.h"
#include "utils/semaphore.h"

namespace tarn {

// One stream of requests to a model: its inputs, its outputs, and the state
// (caches) that it carries from one inference to the next.
//
// Made by Model::NewProxy(), owned by the caller and deleted before the model.
// One thread at a time may use it, and none but the one blocked in it while
// Inference() runs. Shapes and formats are those of this stream alone, without
// the batch dimension. Broken preconditions are FATAL.
//
// The order of the virtual operations of Proxy and BaseProxy is part of the
// interface: append, never reorder.
class TARN_EXPORT Proxy {
 public:
  virtual ~Proxy();

  // What the model describes. A shape has the fixed size of each dynamic
  // dimension, which must have been fixed.
  virtual unsigned int GetInputNum() const = 0;
  virtual unsigned int GetOutputNum() const = 0;
  virtual const std::string& GetInputName(unsigned int index) const = 0;
  virtual const std::string& GetOutputName(unsigned int index) const = 0;
  virtual Tensor::DataType GetInputDataType(unsigned int index) const = 0;
  virtual Tensor::DataType GetOutputDataType(unsigned int index) const = 0;
  virtual Tensor::DataType GetInputDataType(const std::string& name) const = 0;
  virtual Tensor::DataType GetOutputDataType(const std::string& name) const = 0;
  virtual std::vector<int> GetInputShape(unsigned int index) const = 0;
  virtual std::vector<int> GetOutputShape(unsigned int index) const = 0;
  virtual std::vector<int> GetInputShape(const std::string& name) const = 0;
  virtual std::vector<int> GetOutputShape(const std::string& name) const = 0;
  virtual std::vector<std::string> GetInputFormat(unsigned int index) const = 0;
  virtual std::vector<std::string> GetOutputFormat(
      unsigned int index) const = 0;
  virtual std::vector<std::string> GetInputFormat(
      const std::string& name) const = 0;
  virtual std::vector<std::string> GetOutputFormat(
      const std::string& name) const = 0;
  virtual bool HasDimension(const std::string& name) const = 0;
  // The size as described, -1 for a dynamic dimension.
  virtual int GetDimension(const std::string& name) const = 0;
  // Smallest and largest size of a dynamic dimension, both allowed.
  virtual std::pair<int, int> GetDimensionRange(
      const std::string& name) const = 0;

  // Whether the model has such an input.
  virtual bool HasInput(const std::string& name) = 0;
  // Whether the last inference left such an output here.
  virtual bool HasOutput(const std::string& name) = 0;
  // Whether this stream holds state for such a cache, named by either side.
  virtual bool HasCache(const std::string& name) = 0;

  // Fixes the size of a dynamic dimension until Reset().
  virtual void FixDimension(const std::string& name, int value) = 0;

  // Gives an input to the next inference. The tensor is shared, not copied; it
  // must have the input's shape and type and stay unchanged until then.
  virtual void SetInput(const std::string& name, const Tensor& tensor) = 0;

  // An output of the last inference, valid until the next one or Reset().
  virtual const Tensor& GetOutput(const std::string& name) const = 0;

  // A host tensor of `shape` over memory of the proxy's, to be filled and
  // passed to SetInput(). There is one block per input: a later call gives the
  // same memory. The elements are not initialised.
  virtual Tensor CreateInput(const std::string& name,
                             const std::vector<int>& shape) = 0;

  // Starts a new stream: drops inputs, outputs, state and fixed dimensions.
  virtual void Reset() = 0;

  // Runs the model on the inputs, which are consumed, and on the state, which
  // is zeros for a new stream. Blocks until this request has been computed.
  // Returns whether there are outputs; when not, the log says why and the state
  // is as before.
  virtual bool Inference() = 0;
};

// Implements Proxy on top of a model and its description, which must outlive
// it, and gives backends access to tensors and state.
class TARN_EXPORT BaseProxy : public Proxy {
 public:
  // A stream of `model`, whose description is `info`; both must outlive it.
  BaseProxy(BaseModel* model, ModelInfo* info);
  BaseProxy(const BaseProxy&) = delete;
  BaseProxy& operator=(const BaseProxy&) = delete;
  ~BaseProxy() override;

  unsigned int GetInputNum() const override;
  unsigned int GetOutputNum() const override;
  const std::string& GetInputName(unsigned int index) const override;
  const std::string& GetOutputName(unsigned int index) const override;
  Tensor::DataType GetInputDataType(unsigned int index) const override;
  Tensor::DataType GetOutputDataType(unsigned int index) const override;
  Tensor::DataType GetInputDataType(const std::string& name) const override;
  Tensor::DataType GetOutputDataType(const std::string& name) const override;
  std::vector<int> GetInputShape(unsigned int index) const override;
  std::vector<int> GetOutputShape(unsigned int index) const override;
  std::vector<int> GetInputShape(const std::string& name) const override;
  std::vector<int> GetOutputShape(const std::string& name) const override;
  std::vector<std::string> GetInputFormat(unsigned int index) const override;
  std::vector<std::string> GetOutputFormat(unsigned int index) const override;
  std::vector<std::string> GetInputFormat(
      const std::string& name) const override;
  std::vector<std::string> GetOutputFormat(
      const std::string& name) const override;
  bool HasDimension(const std::string& name) const override;
  int GetDimension(const std::string& name) const override;
  std::pair<int, int> GetDimensionRange(const std::string& name) const override;
  bool HasInput(const std::string& name) override;
  bool HasOutput(const std::string& name) override;
  bool HasCache(const std::string& name) override;
  void FixDimension(const std::string& name, int value) override;
  void SetInput(const std::string& name, const Tensor& tensor) override;
  const Tensor& GetOutput(const std::string& name) const override;
  Tensor CreateInput(const std::string& name,
                     const std::vector<int>& shape) override;
  void Reset() override;
  bool Inference() override;

  // Caches, by index or by the name of either side.
  virtual unsigned int GetCacheNum() const;
  virtual const std::string& GetCacheName(unsigned int index) const;
  virtual Tensor::DataType GetCacheDataType(unsigned int index) const;
  virtual Tensor::DataType GetCacheDataType(const std::string& name) const;
  virtual std::vector<int> GetCacheShape(unsigned int index) const;
  virtual std::vector<int> GetCacheShape(const std::string& name) const;
  virtual std::vector<std::string> GetCacheFormat(unsigned int index) const;
  virtual std::vector<std::string> GetCacheFormat(
      const std::string& name) const;

  // Wait() blocks the caller until Notify() says that its request has been
  // computed. A Notify() that comes first is kept for the next Wait().
  virtual void Wait() = 0;
  virtual void Notify() = 0;

  // For backends: what to compute, and where the results go.
  const Tensor& GetInput(const std::string& name) const;
  const Tensor& GetCache(const std::string& name) const;
  void SetOutput(const std::string& name, const Tensor& tensor);
  void SetCache(const std::string& name, const Tensor& tensor);

  // As CreateInput(). A cache has a block for each side's name, so that new
  // state can be written while the old is still being read.
  Tensor CreateOutput(const std::string& name, const std::vector<int>& shape);
  Tensor CreateCache(const std::string& name, const std::vector<int>& shape);

  // The same for backends that look names up once, not for every request, and
  // keep the entries of the model's description.

  // The tensor that is set for `info`; null for none.
  const Tensor* Held(const TensorInfo& info) const;
  // As CreateOutput() and CreateCache() for the stream's own shape, but without
  // making a tensor where the proxy has one of that shape; `view` is the place
  // for one where it has not.
  enum CacheSide { CACHE_IN, CACHE_OUT };
  const Tensor& OutputToFill(const TensorInfo& output, Tensor& view);
  const Tensor& CacheToFill(const TensorInfo& cache, CacheSide side,
                            Tensor& view);
  // Sets what one of these has returned.
  void Hold(const TensorInfo& info, const Tensor& tensor);

  // The two ends of a request, for what runs requests: the checks and steps
  // before the model has it, and those after. A proxy has one at a time: FATAL
  // for a second one, and for a missing input. EndRequest() returns whether
  // there are outputs.
  void BeginRequest();
  bool EndRequest();
  // Instead of EndRequest() for a request that was not computed; the inputs
  // stay.
  void CancelRequest();

  // Tells whoever waits for the request that it has been computed: calls what
  // SetDone() has set, once and in this thread, or else notifies the caller.
  // The proxy may be gone when this returns.
  void Complete();
  void SetDone(std::function<void(Proxy*, bool)> done);

  // After a failed computation of which some outputs are there.
  void DropOutputs();

  // The model whose stream this is.
  BaseModel* model() const { return model_; }

  // Replaces each -1 of `shape` by the size to which the dimension named at its
  // place in `format` has been fixed.
  void FixShape(const std::vector<std::string>& format,
                std::vector<int>& shape) const;

 private:
  // What the stream has of one input, output or cache.
  struct Slot {
    void Hold(const Tensor& tensor);
    void Drop();

    const Tensor* held = nullptr;  // What is set: null, `given` or a block.
    Tensor given;                  // Of somebody else's memory.
    // At the largest allowed shape; made when first asked for, they live as
    // long as the proxy. A cache has one for each side.
    Tensor blocks[2];
  };

  // How an operation's messages read.
  struct Words {
    const char* function;    // The operation.
    const char* action;      // What it does, and to what.
    const char* comparison;  // Of a shape that was asked for to the limit.
  };

  template <typename T>
  std::vector<T> WithoutBatch(std::vector<T> dimensions) const;
  template <typename GetFormat>
  std::vector<int> ShapeView(const std::vector<int>& described,
                             GetFormat get_format) const;
  bool Fits(const Tensor& tensor, const TensorInfo& info) const;
  static void ReportMisfit(const Words& words, const std::string& name,
                           const Tensor& tensor, Tensor::DataType expected_type,
                           const std::vector<int>& expected_shape);
  const Tensor& Get(const TensorInfo* info, const std::string& name,
                    const char* noun, const char* function) const;
  const Tensor& BlockOf(const TensorInfo& info, CacheSide side = CACHE_IN);
  static Tensor Create(const Words& words, const std::string& name,
                       const std::vector<int>& shape, const Tensor& block);
  static Tensor View(const Tensor& block, const std::vector<int>& shape);
  bool HoldsAny(const std::vector<TensorInfo>& infos) const;
  void DropAll(const std::vector<TensorInfo>& infos);
  void ZeroCaches();

  BaseModel* model_;  // Not owned.
  ModelInfo* info_;   // Not owned.
  std::vector<Slot> slots_;
  std::map<std::string, int> fixed_dims_;
  std::atomic<bool> in_flight_{false};
  std::function<void(Proxy*, bool)> done_;  // Empty for a caller that waits.
};

// A stream whose requests are computed in its caller's own thread.
class TARN_EXPORT SerialProxy : public BaseProxy {
 public:
  using BaseProxy::BaseProxy;
  ~SerialProxy() override;

  TARN_EXPORT void Wait() override {
    TARN_LOG(FATAL) << "SerialProxy::Wait() shouldn't be called.";
  }
  TARN_EXPORT void Notify() override {
    TARN_LOG(FATAL) << "SerialProxy::Notify() shouldn't be called.";
  }
};

// A stream whose requests may be computed in another thread.
class TARN_EXPORT ParallelProxy : public BaseProxy {
 public:
  using BaseProxy::BaseProxy;
  ~ParallelProxy() override;

  void Wait() override;
  void Notify() override;

 private:
  Semaphore semaphore_;
};

}  // namespace tarn

#endif  // TARN_BASE_BASE_PROXY_H_
