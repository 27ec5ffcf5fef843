#include "bare-stream.h"

namespace tarn::tool {

Tensors ZeroCaches(const ModelInfo& info) {
  Tensors caches;
  for (unsigned int i = 0; i < info.GetCacheNum(); ++i) {
    Tensor& cache = caches[info.GetCacheName(i, false)];
    cache.Resize(WithoutBatch(info.GetCacheShape(i), info),
                 info.GetCacheDataType(i), Tensor::HOST);
    cache.Zeros();
  }
  return caches;
}

Result BareStream::Compute(const Request& request, const Sizes& sizes,
                           size_t batch_size, size_t row) const {
  Tensors inputs;
  Tensors outputs;
  for (const auto& [name, tensor] : request.inputs) {
    inputs[name] = Repeat(tensor, batch_size);
  }
  for (const auto& [name, tensor] : request.caches) {
    inputs[name] = Repeat(tensor, batch_size);
  }
  for (unsigned int i = 0; i < info_.GetOutputNum(); ++i) {
    outputs[info_.GetOutputName(i)] =
        Allocate(info_.GetOutputShape(i), info_.GetOutputFormat(i),
                 info_.GetOutputDataType(i), sizes, batch_size);
  }
  for (unsigned int i = 0; i < info_.GetCacheNum(); ++i) {
    outputs[info_.GetCacheName(i, true)] =
        Allocate(info_.GetCacheShape(i), info_.GetCacheFormat(i),
                 info_.GetCacheDataType(i), sizes, batch_size);
  }
  engine_.Run(inputs, outputs);
  Result result;
  for (const auto& [name, tensor] : outputs) {
    const bool is_output = info_.HasOutput(name);
    Tensors& tensors = is_output ? result.outputs : result.caches;
    tensors[is_output ? name : info_.GetCacheName(name)] = Row(tensor, row);
  }
  return result;
}

Tensor BareStream::Repeat(const Tensor& row, size_t count) const {
  if (!info_.HasBatchDimension()) return row;
  const int fixed = info_.GetDimension(info_.batch_dim());
  const int size = fixed == -1 ? static_cast<int>(count) : fixed;
  std::vector<int> shape = row.GetShape();
  shape.insert(shape.begin(), size);
  const Tensor batch(shape, row.GetDataType(), Tensor::HOST);
  for (int i = 0; i < size; ++i) batch[i].Copy(row);
  return batch;
}

Tensor BareStream::Row(const Tensor& batch, size_t row) const {
  return info_.HasBatchDimension() ? batch[static_cast<int>(row)] : batch;
}

Tensor BareStream::Allocate(std::vector<int> shape,
                            const std::vector<std::string>& format,
                            Tensor::DataType type, const Sizes& sizes,
                            size_t batch_size) const {
  for (size_t i = 0; i < shape.size(); ++i) {
    if (shape[i] != -1) continue;
    shape[i] = format[i] == info_.batch_dim() ? static_cast<int>(batch_size)
                                              : sizes.at(format[i]);
  }
  return Tensor(shape, type, Tensor::HOST);
}

}  // namespace tarn::tool
