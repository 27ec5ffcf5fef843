#include "base/base-proxy.h"

#include <algorithm>

#include "utils/text-utils.h"

namespace tarn {

namespace {

// Looks `key` up on behalf of `function`, which calls it `shown`.
const Tensor& Find(const std::map<std::string, Tensor>& tensors,
                   const std::string& key, const std::string& shown,
                   const char* noun, const char* function) {
  const auto found = tensors.find(key);
  if (found != tensors.end()) return found->second;
  TARN_LOG_AS(FATAL, function) << "missing " << noun << ":" << shown << ".";
  // Throws; reached only when the log level silences fatal checks.
  return tensors.at(key);
}

}  // namespace

Proxy::~Proxy() = default;

BaseProxy::BaseProxy(BaseModel* model, ModelInfo* info)
    : model_(model), info_(info) {}

BaseProxy::~BaseProxy() = default;

SerialProxy::~SerialProxy() = default;

ParallelProxy::~ParallelProxy() = default;

void ParallelProxy::Wait() { semaphore_.Wait(); }

void ParallelProxy::Notify() { semaphore_.Signal(); }

unsigned int BaseProxy::GetInputNum() const { return info_->GetInputNum(); }

unsigned int BaseProxy::GetOutputNum() const { return info_->GetOutputNum(); }

unsigned int BaseProxy::GetCacheNum() const { return info_->GetCacheNum(); }

const std::string& BaseProxy::GetInputName(unsigned int index) const {
  return info_->GetInputName(index);
}

const std::string& BaseProxy::GetOutputName(unsigned int index) const {
  return info_->GetOutputName(index);
}

const std::string& BaseProxy::GetCacheName(unsigned int index) const {
  return info_->GetCacheName(index, false);
}

Tensor::DataType BaseProxy::GetInputDataType(unsigned int index) const {
  return info_->GetInputDataType(index);
}

Tensor::DataType BaseProxy::GetOutputDataType(unsigned int index) const {
  return info_->GetOutputDataType(index);
}

Tensor::DataType BaseProxy::GetCacheDataType(unsigned int index) const {
  return info_->GetCacheDataType(index);
}

Tensor::DataType BaseProxy::GetInputDataType(const std::string& name) const {
  return info_->GetInputDataType(name);
}

Tensor::DataType BaseProxy::GetOutputDataType(const std::string& name) const {
  return info_->GetOutputDataType(name);
}

Tensor::DataType BaseProxy::GetCacheDataType(const std::string& name) const {
  return info_->GetCacheDataType(name);
}

std::vector<int> BaseProxy::GetInputShape(unsigned int index) const {
  return ShapeView(info_->GetInputShape(index),
                   [&] { return GetInputFormat(index); });
}

std::vector<int> BaseProxy::GetInputShape(const std::string& name) const {
  return ShapeView(info_->GetInputShape(name),
                   [&] { return GetInputFormat(name); });
}

std::vector<int> BaseProxy::GetOutputShape(unsigned int index) const {
  return ShapeView(info_->GetOutputShape(index),
                   [&] { return GetOutputFormat(index); });
}

std::vector<int> BaseProxy::GetOutputShape(const std::string& name) const {
  return ShapeView(info_->GetOutputShape(name),
                   [&] { return GetOutputFormat(name); });
}

std::vector<int> BaseProxy::GetCacheShape(unsigned int index) const {
  return ShapeView(info_->GetCacheShape(index),
                   [&] { return GetCacheFormat(index); });
}

std::vector<int> BaseProxy::GetCacheShape(const std::string& name) const {
  return ShapeView(info_->GetCacheShape(name),
                   [&] { return GetCacheFormat(name); });
}

std::vector<std::string> BaseProxy::GetInputFormat(unsigned int index) const {
  return WithoutBatch(info_->GetInputFormat(index));
}

std::vector<std::string> BaseProxy::GetInputFormat(
    const std::string& name) const {
  return WithoutBatch(info_->GetInputFormat(name));
}

std::vector<std::string> BaseProxy::GetOutputFormat(unsigned int index) const {
  return WithoutBatch(info_->GetOutputFormat(index));
}

std::vector<std::string> BaseProxy::GetOutputFormat(
    const std::string& name) const {
  return WithoutBatch(info_->GetOutputFormat(name));
}

std::vector<std::string> BaseProxy::GetCacheFormat(unsigned int index) const {
  return WithoutBatch(info_->GetCacheFormat(index));
}

std::vector<std::string> BaseProxy::GetCacheFormat(
    const std::string& name) const {
  return WithoutBatch(info_->GetCacheFormat(name));
}

// The batch dimension is the first one wherever there is one.
template <typename T>
std::vector<T> BaseProxy::WithoutBatch(std::vector<T> dimensions) const {
  if (info_->HasBatchDimension()) dimensions.erase(dimensions.begin());
  return dimensions;
}

template <typename GetFormat>
std::vector<int> BaseProxy::ShapeView(const std::vector<int>& described,
                                      GetFormat get_format) const {
  std::vector<int> shape = WithoutBatch(described);
  if (std::find(shape.begin(), shape.end(), -1) != shape.end()) {
    FixShape(get_format(), shape);
  }
  return shape;
}

void BaseProxy::FixShape(const std::vector<std::string>& format,
                         std::vector<int>& shape) const {
  for (size_t i = 0; i < shape.size(); ++i) {
    if (shape[i] != -1) continue;
    const auto fixed = fixed_dims_.find(format[i]);
    if (fixed == fixed_dims_.end()) {
      TARN_LOG(FATAL) << "dimension:" << format[i] << " is't fixed.";
      continue;  // Reached only when the log level silences fatal checks.
    }
    shape[i] = fixed->second;
  }
}

bool BaseProxy::HasDimension(const std::string& name) const {
  return info_->HasDimension(name);
}

int BaseProxy::GetDimension(const std::string& name) const {
  return info_->GetDimension(name);
}

std::pair<int, int> BaseProxy::GetDimensionRange(
    const std::string& name) const {
  return info_->GetDimensionRange(name);
}

bool BaseProxy::HasInput(const std::string& name) {
  return info_->HasInput(name);
}

bool BaseProxy::HasOutput(const std::string& name) {
  return outputs_.count(name) > 0;
}

bool BaseProxy::HasCache(const std::string& name) {
  return caches_.count(info_->GetCacheName(name)) > 0;
}

void BaseProxy::FixDimension(const std::string& name, int value) {
  if (info_->GetDimensionRanges().count(name) == 0) {
    TARN_LOG(FATAL) << "dimension:" << name << " is't dynamic.";
    return;  // Reached only when the log level silences fatal checks.
  }
  const std::pair<int, int> range = GetDimensionRange(name);
  if (value < range.first || value > range.second) {
    TARN_LOG(FATAL) << "dimension:" << name << " out of range [" << range.first
                    << ", " << range.second << "].";
    return;  // Reached only when the log level silences fatal checks.
  }
  fixed_dims_[name] = value;
}

void BaseProxy::SetInput(const std::string& name, const Tensor& tensor) {
  Store({__func__, "set input:", ""}, name, tensor, GetInputDataType(name),
        GetInputShape(name), inputs_);
}

void BaseProxy::SetOutput(const std::string& name, const Tensor& tensor) {
  Store({__func__, "set output:", ""}, name, tensor, GetOutputDataType(name),
        GetOutputShape(name), outputs_);
}

void BaseProxy::SetCache(const std::string& name, const Tensor& tensor) {
  const std::string& key = info_->GetCacheName(name);
  Store({__func__, "set cache:", ""}, key, tensor, GetCacheDataType(key),
        GetCacheShape(key), caches_);
}

// A mismatched tensor is stored all the same where fatal checks are silenced.
void BaseProxy::Store(const Words& words, const std::string& name,
                      const Tensor& tensor, Tensor::DataType expected_type,
                      const std::vector<int>& expected_shape,
                      Tensors& tensors) {
  if (tensor.GetShape() != expected_shape) {
    TARN_LOG_AS(FATAL, words.function)
        << words.action << name << " with wrong shape. Expect "
        << ConvertShapeToString(expected_shape) << ", but got "
        << ConvertShapeToString(tensor.GetShape());
  }
  if (tensor.GetDataType() != expected_type) {
    TARN_LOG_AS(FATAL, words.function)
        << words.action << name << " with wrong data type. Expect "
        << ConvertDataTypeToString(expected_type) << ", but got "
        << ConvertDataTypeToString(tensor.GetDataType());
  }
  tensors[name] = tensor;
}

const Tensor& BaseProxy::GetInput(const std::string& name) const {
  return Find(inputs_, name, name, "input", __func__);
}

const Tensor& BaseProxy::GetOutput(const std::string& name) const {
  return Find(outputs_, name, name, "output", __func__);
}

const Tensor& BaseProxy::GetCache(const std::string& name) const {
  return Find(caches_, info_->GetCacheName(name), name, "cache", __func__);
}

// Every operation has wording of its own, which users' logs depend on.

Tensor BaseProxy::CreateInput(const std::string& name,
                              const std::vector<int>& shape) {
  return Create({__func__, "create input: ", "smaller than "}, name, shape,
                input_buffers_, [&] {
                  return Largest(info_->GetInputShape(name, true),
                                 info_->GetInputDataType(name));
                });
}

Tensor BaseProxy::CreateOutput(const std::string& name,
                               const std::vector<int>& shape) {
  return Create({__func__, "create output: ", "small than "}, name, shape,
                output_buffers_, [&] {
                  return Largest(info_->GetOutputShape(name, true),
                                 info_->GetOutputDataType(name));
                });
}

Tensor BaseProxy::CreateCache(const std::string& name,
                              const std::vector<int>& shape) {
  return Create({__func__, "create output: ", "smaler than "}, name, shape,
                cache_buffers_, [&] {
                  return Largest(info_->GetCacheShape(name, true),
                                 info_->GetCacheDataType(name));
                });
}

Tensor BaseProxy::Largest(const std::vector<int>& described,
                          Tensor::DataType data_type) const {
  return Tensor(WithoutBatch(described), data_type, Tensor::HOST);
}

// Gives the buffer's memory in another shape. The limit's order is that of
// vectors, not element by element: it lets shapes through that hold more than
// the buffer does. They get a block of their own.
template <typename MakeBuffer>
Tensor BaseProxy::Create(const Words& words, const std::string& name,
                         const std::vector<int>& shape, Tensors& buffers,
                         MakeBuffer make_buffer) {
  auto found = buffers.find(name);
  if (found == buffers.end()) {
    found = buffers.emplace(name, make_buffer()).first;
  }
  const Tensor& buffer = found->second;
  const std::vector<int>& limit = buffer.GetShape();
  if (shape.size() != limit.size() || limit < shape) {
    TARN_LOG_AS(FATAL, words.function)
        << "fail to " << words.action << name
        << " with shape=" << ConvertShapeToString(shape) << ", it should be "
        << words.comparison << ConvertShapeToString(limit);
  }
  if (buffer.GetElementNum(shape) > buffer.GetElementNum()) {
    return Tensor(shape, buffer.GetDataType(), Tensor::HOST);
  }
  return Tensor(buffer.Data(), shape, buffer.GetDataType(), Tensor::HOST);
}

void BaseProxy::Reset() {
  inputs_.clear();
  outputs_.clear();
  caches_.clear();
  fixed_dims_.clear();
  TARN_LOG(INFO) << "proxy:" << static_cast<const void*>(this)
                 << " has been reset.";
}

bool BaseProxy::Inference() {
  for (unsigned int i = 0; i < GetInputNum(); ++i) {
    const std::string& name = GetInputName(i);
    if (inputs_.count(name) == 0) {
      TARN_LOG(FATAL) << "missing input:" << name << " when inference";
    }
  }
  if (caches_.empty()) ZeroCaches();
  outputs_.clear();
  model_->Inference(this);
  inputs_.clear();
  TARN_LOG(INFO) << "proxy:" << static_cast<const void*>(this)
                 << " inference finished.";
  return !outputs_.empty();
}

void BaseProxy::ZeroCaches() {
  for (unsigned int i = 0; i < GetCacheNum(); ++i) {
    const std::string& name = GetCacheName(i);
    Tensor cache = CreateCache(name, GetCacheShape(i));
    cache.Zeros();
    caches_[name] = cache;
  }
}

}  // namespace tarn
