#include "base/base-proxy.h"

#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <utility>

#include "utils/text-utils.h"

namespace tarn {

namespace {

// Whether `shape` has no more elements than that; a tensor's own count wraps.
bool HasAtMost(unsigned int limit, const std::vector<int>& shape) {
  uint64_t count = 1;
  for (int size : shape) {
    count *= static_cast<uint64_t>(size);
    if (count > limit) return false;
  }
  return true;
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
  return outputs_.Find(name) != nullptr;
}

bool BaseProxy::HasCache(const std::string& name) {
  return caches_.Find(info_->GetCacheName(name)) != nullptr;
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

// A tensor that does not fit is stored all the same where fatal checks are
// silenced.

void BaseProxy::SetInput(const std::string& name, const Tensor& tensor) {
  const TensorInfo* info = info_->FindInput(name);
  if (info == nullptr || !Fits(tensor, *info)) {
    ReportMisfit({__func__, "set input:", ""}, name, tensor,
                 GetInputDataType(name), GetInputShape(name));
  }
  inputs_.Set(name, tensor);
}

void BaseProxy::SetOutput(const std::string& name, const Tensor& tensor) {
  const TensorInfo* info = info_->FindOutput(name);
  if (info == nullptr || !Fits(tensor, *info)) {
    ReportMisfit({__func__, "set output:", ""}, name, tensor,
                 GetOutputDataType(name), GetOutputShape(name));
  }
  outputs_.Set(name, tensor);
}

void BaseProxy::SetCache(const std::string& name, const Tensor& tensor) {
  const std::string& key = info_->GetCacheName(name);
  const TensorInfo* info = info_->FindCache(key);
  if (info == nullptr || !Fits(tensor, *info)) {
    ReportMisfit({__func__, "set cache:", ""}, key, tensor,
                 GetCacheDataType(key), GetCacheShape(key));
  }
  caches_.Set(key, tensor);
}

// Whether a tensor has the type and this stream's shape of what `info` tells
// of. Also false where the shape needs a dimension that is not fixed.
bool BaseProxy::Fits(const Tensor& tensor, const TensorInfo& info) const {
  const std::vector<int>& shape = tensor.GetShape();
  const size_t first = info_->HasBatchDimension() ? 1 : 0;
  if (tensor.GetDataType() != info.data_type ||
      shape.size() + first != info.shape.size()) {
    return false;
  }
  for (size_t i = 0; i < shape.size(); ++i) {
    int expected = info.shape[i + first];
    if (expected == -1) {
      const auto fixed = fixed_dims_.find(info.format[i + first]);
      if (fixed == fixed_dims_.end()) return false;
      expected = fixed->second;
    }
    if (shape[i] != expected) return false;
  }
  return true;
}

void BaseProxy::ReportMisfit(const Words& words, const std::string& name,
                             const Tensor& tensor,
                             Tensor::DataType expected_type,
                             const std::vector<int>& expected_shape) {
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
}

const Tensor& BaseProxy::GetInput(const std::string& name) const {
  return Get(inputs_, name, name, "input", __func__);
}

const Tensor& BaseProxy::GetOutput(const std::string& name) const {
  return Get(outputs_, name, name, "output", __func__);
}

const Tensor& BaseProxy::GetCache(const std::string& name) const {
  return Get(caches_, info_->GetCacheName(name), name, "cache", __func__);
}

// Looks `key` up on behalf of `function`, which calls it `shown`.
const Tensor& BaseProxy::Get(const Tensors& tensors, const std::string& key,
                             const std::string& shown, const char* noun,
                             const char* function) {
  const Tensor* found = tensors.Find(key);
  if (found != nullptr) return *found;
  TARN_LOG_AS(FATAL, function) << "missing " << noun << ":" << shown << ".";
  // Reached only when the log level silences fatal checks.
  throw std::out_of_range("map::at:  key not found");
}

// Every operation has wording of its own, which users' logs depend on.

Tensor BaseProxy::CreateInput(const std::string& name,
                              const std::vector<int>& shape) {
  return Create({__func__, "create input: ", "smaller than "}, name, shape,
                BufferOf(name, input_buffers_, [&] {
                  return Largest(info_->GetInputShape(name, true),
                                 info_->GetInputDataType(name));
                }));
}

Tensor BaseProxy::CreateOutput(const std::string& name,
                               const std::vector<int>& shape) {
  return Create({__func__, "create output: ", "small than "}, name, shape,
                OutputBuffer(name));
}

Tensor BaseProxy::CreateCache(const std::string& name,
                              const std::vector<int>& shape) {
  return Create({__func__, "create output: ", "smaler than "}, name, shape,
                CacheBuffer(name));
}

const Tensor& BaseProxy::OutputBuffer(const std::string& name) {
  return BufferOf(name, output_buffers_, [&] {
    return Largest(info_->GetOutputShape(name, true),
                   info_->GetOutputDataType(name));
  });
}

const Tensor& BaseProxy::CacheBuffer(const std::string& name) {
  return BufferOf(name, cache_buffers_, [&] {
    return Largest(info_->GetCacheShape(name, true),
                   info_->GetCacheDataType(name));
  });
}

const Tensor& BaseProxy::OutputToFill(const std::string& name, Tensor& view) {
  const TensorInfo* info = info_->FindOutput(name);
  const Tensor& buffer = OutputBuffer(name);
  if (info != nullptr && Fits(buffer, *info)) return buffer;
  view = CreateOutput(name, GetOutputShape(name));
  return view;
}

const Tensor& BaseProxy::CacheToFill(const std::string& name, Tensor& view) {
  const TensorInfo* info = info_->FindCache(name);
  const Tensor& buffer = CacheBuffer(name);
  if (info != nullptr && Fits(buffer, *info)) return buffer;
  view = CreateCache(name, GetCacheShape(name));
  return view;
}

Tensor BaseProxy::Largest(const std::vector<int>& described,
                          Tensor::DataType data_type) const {
  return Tensor(WithoutBatch(described), data_type, Tensor::HOST);
}

// The block of that name, which is made when there is none.
template <typename MakeBuffer>
const Tensor& BaseProxy::BufferOf(const std::string& name, Buffers& buffers,
                                  MakeBuffer make_buffer) {
  const auto found = buffers.find(name);
  if (found != buffers.end()) return found->second;
  return buffers.emplace(name, make_buffer()).first->second;
}

// Gives the buffer's memory in another shape. The limit's order is that of
// vectors, not element by element: it lets shapes through that hold more than
// the buffer does. They get a block of their own.
Tensor BaseProxy::Create(const Words& words, const std::string& name,
                         const std::vector<int>& shape, const Tensor& buffer) {
  const std::vector<int>& limit = buffer.GetShape();
  if (shape.size() != limit.size() || limit < shape) {
    TARN_LOG_AS(FATAL, words.function)
        << "fail to " << words.action << name
        << " with shape=" << ConvertShapeToString(shape) << ", it should be "
        << words.comparison << ConvertShapeToString(limit);
  }
  if (!HasAtMost(buffer.GetElementNum(), shape)) {
    return Tensor(shape, buffer.GetDataType(), Tensor::HOST);
  }
  return Tensor(buffer.Data(), shape, buffer.GetDataType(), Tensor::HOST);
}

void BaseProxy::Reset() {
  inputs_.Clear();
  outputs_.Clear();
  caches_.Clear();
  fixed_dims_.clear();
  TARN_LOG(INFO) << "proxy:" << static_cast<const void*>(this)
                 << " has been reset.";
}

bool BaseProxy::Inference() {
  try {
    BeginRequest();
    model_->Inference(this);
  } catch (...) {
    CancelRequest();
    throw;
  }
  return EndRequest();
}

// Messages are those of Inference(), whichever way the request is run.
void BaseProxy::BeginRequest() {
  if (in_flight_.exchange(true)) {
    TARN_LOG_AS(FATAL, "Inference")
        << "proxy is in flight already, or given twice.";
  }
  for (unsigned int i = 0; i < GetInputNum(); ++i) {
    const std::string& name = GetInputName(i);
    if (inputs_.Find(name) == nullptr) {
      TARN_LOG_AS(FATAL, "Inference")
          << "missing input:" << name << " when inference";
    }
  }
  if (caches_.Empty()) ZeroCaches();
  outputs_.Clear();
}

bool BaseProxy::EndRequest() {
  inputs_.Clear();
  TARN_LOG_AS(INFO, "Inference")
      << "proxy:" << static_cast<const void*>(this) << " inference finished.";
  const bool has_outputs = !outputs_.Empty();
  in_flight_ = false;
  return has_outputs;
}

void BaseProxy::SetDone(std::function<void(Proxy*, bool)> done) {
  done_ = std::move(done);
}

void BaseProxy::Complete() {
  if (!done_) {
    Notify();
    return;
  }
  // Free for the next request before it is called, which may submit that.
  const std::function<void(Proxy*, bool)> done = std::move(done_);
  done_ = nullptr;
  done(this, EndRequest());
}

void BaseProxy::ZeroCaches() {
  for (unsigned int i = 0; i < GetCacheNum(); ++i) {
    const std::string& name = GetCacheName(i);
    Tensor cache = CreateCache(name, GetCacheShape(i));
    cache.Zeros();
    caches_.Set(name, cache);
  }
}

const Tensor* BaseProxy::Tensors::Find(const std::string& name) const {
  const auto found = places_.find(name);
  if (found == places_.end() || !found->second.is_held) return nullptr;
  return &found->second.tensor;
}

void BaseProxy::Tensors::Set(const std::string& name, const Tensor& tensor) {
  Place& place = places_[name];
  place.tensor = tensor;
  if (!place.is_held) ++held_num_;
  place.is_held = true;
}

void BaseProxy::Tensors::Clear() {
  // Copied, not moved: the shape's memory stays for the next tensor.
  static const Tensor kNone;
  for (auto& named_place : places_) {
    named_place.second.tensor = kNone;
    named_place.second.is_held = false;
  }
  held_num_ = 0;
}

}  // namespace tarn
