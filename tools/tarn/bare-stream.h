#ifndef TOOLS_TARN_BARE_STREAM_H_
#define TOOLS_TARN_BARE_STREAM_H_

#include <cstddef>

#include "bare-engine.h"
#include "stream-inputs.h"
#include "tarn.h"

namespace tarn::tool {

// Tensors of one stream, without the batch dimension. Caches have the names of
// their input sides.
struct Request {
  Tensors inputs;
  Tensors caches;
};

struct Result {
  Tensors outputs;
  Tensors caches;
};

// The state of a new stream.
Tensors ZeroCaches(const ModelInfo& info);

// Computes single requests on the engine alone, without the library's gathering
// and scattering: the oracle that the library is compared with.
class BareStream {
 public:
  BareStream(BareEngine& engine, const ModelInfo& info)
      : engine_(engine), info_(info) {}

  // Runs a batch each of whose rows is this request, and gives the results of
  // one row. A batch dimension of fixed size decides the size itself; without
  // one there are no rows. `sizes` are those of the other dynamic dimensions.
  Result Compute(const Request& request, const Sizes& sizes, size_t batch_size,
                 size_t row) const;

 private:
  Tensor Repeat(const Tensor& row, size_t count) const;
  Tensor Row(const Tensor& batch, size_t row) const;
  Tensor Allocate(std::vector<int> shape,
                  const std::vector<std::string>& format, Tensor::DataType type,
                  const Sizes& sizes, size_t batch_size) const;

  BareEngine& engine_;
  const ModelInfo& info_;
};

}  // namespace tarn::tool

#endif  // TOOLS_TARN_BARE_STREAM_H_
