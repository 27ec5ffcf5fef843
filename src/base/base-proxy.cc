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
    : model_(model), info_(info), slots_(info->slot_num()) {}

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
  const TensorInfo* output = info_->FindOutput(name);
  return output != nullptr && Held(*output) != nullptr;
}

bool BaseProxy::HasCache(const std::string& name) {
  return Held(info_->CacheAt(name, __func__)) != nullptr;
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
  const TensorInfo& input = info_->InputAt(name, "GetInputDataType");
  if (!Fits(tensor, input)) {
    ReportMisfit({__func__, "set input:", ""}, name, tensor,
                 GetInputDataType(name), GetInputShape(name));
  }
  Hold(input, tensor);
}

void BaseProxy::SetOutput(const std::string& name, const Tensor& tensor) {
  const TensorInfo& output = info_->OutputAt(name, "GetOutputDataType");
  if (!Fits(tensor, output)) {
    ReportMisfit({__func__, "set output:", ""}, name, tensor,
                 GetOutputDataType(name), GetOutputShape(name));
  }
  Hold(output, tensor);
}

void BaseProxy::SetCache(const std::string& name, const Tensor& tensor) {
  const TensorInfo& cache = info_->CacheAt(name, "GetCacheDataType");
  if (!Fits(tensor, cache)) {
    ReportMisfit({__func__, "set cache:", ""}, cache.name, tensor,
                 GetCacheDataType(cache.name), GetCacheShape(cache.name));
  }
  Hold(cache, tensor);
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
  return Get(info_->FindInput(name), name, "input", __func__);
}

const Tensor& BaseProxy::GetOutput(const std::string& name) const {
  return Get(info_->FindOutput(name), name, "output", __func__);
}

const Tensor& BaseProxy::GetCache(const std::string& name) const {
  return Get(&info_->CacheAt(name, __func__), name, "cache", __func__);
}

// What is set in `info`, if that is not null, on behalf of `function`.
const Tensor& BaseProxy::Get(const TensorInfo* info, const std::string& name,
                             const char* noun, const char* function) const {
  const Tensor* held = info == nullptr ? nullptr : Held(*info);
  if (held != nullptr) return *held;
  TARN_LOG_AS(FATAL, function) << "missing " << noun << ":" << name << ".";
  // Reached only when the log level silences fatal checks.
  throw std::out_of_range("map::at:  key not found");
}

// Every operation has wording of its own, which users' logs depend on.

Tensor BaseProxy::CreateInput(const std::string& name,
                              const std::vector<int>& shape) {
  return Create({__func__, "create input: ", "smaller than "}, name, shape,
                BlockOf(info_->InputAt(name, "GetInputShape")));
}

Tensor BaseProxy::CreateOutput(const std::string& name,
                               const std::vector<int>& shape) {
  return Create({__func__, "create output: ", "small than "}, name, shape,
                BlockOf(info_->OutputAt(name, "GetOutputShape")));
}

Tensor BaseProxy::CreateCache(const std::string& name,
                              const std::vector<int>& shape) {
  const TensorInfo& cache = info_->CacheAt(name, "GetCacheShape");
  return Create({__func__, "create output: ", "smaler than "}, name, shape,
                BlockOf(cache, name == cache.name ? CACHE_IN : CACHE_OUT));
}

const Tensor& BaseProxy::OutputToFill(const TensorInfo& output, Tensor& view) {
  const Tensor& block = BlockOf(output);
  if (Fits(block, output)) return block;
  view = View(block, GetOutputShape(output.name));
  return view;
}

const Tensor& BaseProxy::CacheToFill(const TensorInfo& cache, CacheSide side,
                                     Tensor& view) {
  const Tensor& block = BlockOf(cache, side);
  if (Fits(block, cache)) return block;
  view = View(block, GetCacheShape(cache.name));
  return view;
}

const Tensor& BaseProxy::BlockOf(const TensorInfo& info, CacheSide side) {
  Tensor& block = slots_[info.slot].blocks[side];
  if (block.Data() == nullptr) {
    block.Resize(WithoutBatch(info_->Bounded(info, true)), info.data_type,
                 Tensor::HOST);
  }
  return block;
}

// The block's memory in a shape that somebody asks for.
Tensor BaseProxy::Create(const Words& words, const std::string& name,
                         const std::vector<int>& shape, const Tensor& block) {
  const std::vector<int>& limit = block.GetShape();
  if (shape.size() != limit.size() || limit < shape) {
    TARN_LOG_AS(FATAL, words.function)
        << "fail to " << words.action << name
        << " with shape=" << ConvertShapeToString(shape) << ", it should be "
        << words.comparison << ConvertShapeToString(limit);
  }
  return View(block, shape);
}

// The limit's order is that of vectors, not element by element: it lets shapes
// through that hold more than the block does. They get a block of their own.
Tensor BaseProxy::View(const Tensor& block, const std::vector<int>& shape) {
  if (!HasAtMost(block.GetElementNum(), shape)) {
    return Tensor(shape, block.GetDataType(), Tensor::HOST);
  }
  return Tensor(block.Data(), shape, block.GetDataType(), Tensor::HOST);
}

void BaseProxy::Reset() {
  for (Slot& slot : slots_) slot.Drop();
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
  for (const TensorInfo& input : info_->inputs()) {
    if (Held(input) == nullptr) {
      TARN_LOG_AS(FATAL, "Inference")
          << "missing input:" << input.name << " when inference";
    }
  }
  if (!HoldsAny(info_->caches())) ZeroCaches();
  DropOutputs();
}

bool BaseProxy::EndRequest() {
  DropAll(info_->inputs());
  TARN_LOG_AS(INFO, "Inference")
      << "proxy:" << static_cast<const void*>(this) << " inference finished.";
  const bool has_outputs = HoldsAny(info_->outputs());
  CancelRequest();
  return has_outputs;
}

void BaseProxy::CancelRequest() {
  in_flight_.store(false, std::memory_order_release);
}

void BaseProxy::DropOutputs() { DropAll(info_->outputs()); }

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
  Tensor view;
  for (const TensorInfo& info : info_->caches()) {
    const Tensor& cache = CacheToFill(info, CACHE_IN, view);
    Tensor(cache).Zeros();
    Hold(info, cache);
  }
}

const Tensor* BaseProxy::Held(const TensorInfo& info) const {
  return slots_[info.slot].held;
}

void BaseProxy::Hold(const TensorInfo& info, const Tensor& tensor) {
  slots_[info.slot].Hold(tensor);
}

bool BaseProxy::HoldsAny(const std::vector<TensorInfo>& infos) const {
  for (const TensorInfo& info : infos) {
    if (Held(info) != nullptr) return true;
  }
  return false;
}

void BaseProxy::DropAll(const std::vector<TensorInfo>& infos) {
  for (const TensorInfo& info : infos) slots_[info.slot].Drop();
}

void BaseProxy::Slot::Hold(const Tensor& tensor) {
  if (&tensor == &blocks[CACHE_IN] || &tensor == &blocks[CACHE_OUT]) {
    Drop();
    held = &tensor;
  } else {
    given = tensor;
    held = &given;
  }
}

void BaseProxy::Slot::Drop() {
  // Copied, not moved: the shape's memory stays for the next tensor.
  static const Tensor kNone;
  if (held == &given) given = kNone;
  held = nullptr;
}

}  // namespace tarn
