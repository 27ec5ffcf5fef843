#include "base/tarn-tensor.h"

#include <cstdlib>
#include <cstring>
#include <limits>
#include <sstream>
#include <utility>

#include "utils/device-utils.h"
#include "utils/logging.h"
#include "utils/text-utils.h"

namespace tarn {

namespace {

constexpr uint64_t kMaxBytes = std::numeric_limits<unsigned int>::max();

// What elements of this size take in this shape; more than kMaxBytes, and no
// more than that said, where it is beyond 32 bits.
uint64_t ByteNum(const std::vector<int>& shape, unsigned int element_size) {
  uint64_t size = element_size;
  for (int dimension : shape) {
    size *= static_cast<uint64_t>(dimension);
    if (size > kMaxBytes) return kMaxBytes + 1;
  }
  return size;
}

// The bytes of a block, or null where there is no memory for it, a size beyond
// 32 bits included.
std::shared_ptr<void> Allocate(const std::vector<int>& shape,
                               unsigned int element_size,
                               Tensor::Location location) {
  const uint64_t size = ByteNum(shape, element_size);
  if (size > kMaxBytes) return nullptr;
  void* block = nullptr;
  void (*release)(void*) = std::free;
  if (location == Tensor::DEVICE) {
    block = MallocOnDevice(static_cast<unsigned int>(size));
    release = FreeOnDevice;
  } else {
    block = std::malloc(size);
  }
  if (block == nullptr) return nullptr;
  return std::shared_ptr<void>(block, release);
}

MemCopyDirection CopyDirection(Tensor::Location from, Tensor::Location to) {
  if (to == Tensor::DEVICE) {
    return from == Tensor::HOST ? HOST_TO_DEVICE : DEVICE_TO_DEVICE;
  }
  return from == Tensor::DEVICE ? DEVICE_TO_HOST : HOST_TO_HOST;
}

}  // namespace

Tensor::Tensor(const std::vector<int>& shape, DataType data_type,
               Location location) {
  Resize(shape, data_type, location);
}

Tensor::Tensor(void* data, const std::vector<int>& shape, DataType data_type,
               Location location)
    : data_(data), shape_(shape), data_type_(data_type), location_(location) {
  if (!CheckShape(shape)) {
    TARN_LOG(FATAL) << "invalid shape: " << ConvertShapeToString(shape);
  }
  if (data == nullptr && !shape.empty()) TARN_LOG(FATAL) << "data is nullptr";
}

Tensor::Tensor(Tensor&& other) noexcept { Swap(other); }

Tensor& Tensor::operator=(Tensor&& other) noexcept {
  Tensor moved(std::move(other));
  Swap(moved);
  return *this;
}

Tensor::~Tensor() = default;

void Tensor::Resize(const std::vector<int>& shape, DataType data_type,
                    Location location) {
  if (!CheckShape(shape)) {
    TARN_LOG(FATAL) << "invalid shape: " << ConvertShapeToString(shape);
    return;  // Reached only when the log level silences fatal checks.
  }
  const unsigned int element_size = GetElementSize(data_type);
  std::vector<int> new_shape(shape);  // Nothing may throw behind the change.
  storage_ = Allocate(shape, element_size, location);
  if (storage_ == nullptr) {
    TARN_LOG(FATAL) << "malloc memory failed with size="
                    << element_size * GetElementNum(shape) << ".";
  }
  data_ = storage_.get();
  shape_.swap(new_shape);
  data_type_ = data_type;
  location_ = location;
}

bool Tensor::CheckShape(const std::vector<int>& shape) const {
  for (int dimension : shape) {
    if (dimension < 1) return false;
  }
  return true;
}

unsigned int Tensor::GetElementNum() const {
  return data_ == nullptr ? 0 : GetElementNum(shape_);
}

unsigned int Tensor::GetElementNum(const std::vector<int>& shape) const {
  unsigned int count = 1;
  for (int dimension : shape) count *= static_cast<unsigned int>(dimension);
  return count;
}

unsigned int Tensor::GetElementSize() const {
  return GetElementSize(data_type_);
}

unsigned int Tensor::GetElementSize(DataType data_type) const {
  switch (data_type) {
    case FLOAT64:
    case INT64:
      return 8;
    case FLOAT32:
    case INT32:
      return 4;
    case FLOAT16:
    case INT16:
      return 2;
    case INT8:
      return 1;
  }
  TARN_LOG(FATAL) << "unknow data type:" << static_cast<int32_t>(data_type)
                  << ".";
  return 0;  // Reached only when the log level silences fatal checks.
}

bool Tensor::Reshape(const std::vector<int>& shape) {
  if (!CheckShape(shape) || ByteNum(shape, 1) > kMaxBytes ||
      GetElementNum() != GetElementNum(shape)) {
    return false;
  }
  shape_ = shape;
  return true;
}

void Tensor::Copy(const Tensor& src) {
  if (src.data_ == nullptr) {
    TARN_LOG(FATAL) << "the tensor is empty.";
    return;  // Reached only when the log level silences fatal checks.
  }
  if (src.shape_ != shape_ || src.data_type_ != data_type_) {
    TARN_LOG(FATAL) << "the shape or data type of tensors is mismatched.";
    return;  // Reached only when the log level silences fatal checks.
  }
  MemoryCopy(data_, src.data_, GetElementSize() * GetElementNum(),
             CopyDirection(src.location_, location_));
}

void Tensor::Swap(Tensor& other) noexcept {
  std::swap(storage_, other.storage_);
  std::swap(data_, other.data_);
  std::swap(shape_, other.shape_);
  std::swap(data_type_, other.data_type_);
  std::swap(location_, other.location_);
}

void Tensor::Zeros() {
  if (data_ == nullptr) return;
  std::memset(data_, 0, size_t{GetElementSize()} * GetElementNum());
}

void Tensor::ToHost() { MoveTo(HOST); }

void Tensor::ToDevice() { MoveTo(DEVICE); }

void Tensor::MoveTo(Location location) {
  if (location_ == location) return;
  if (data_ == nullptr) {
    location_ = location;
    return;
  }
  Tensor moved(shape_, data_type_, location);
  moved.Copy(*this);
  Swap(moved);
}

std::string Tensor::ToString() const {
  std::ostringstream os;
  os << "Tensor at " << data_ << ": " << ConvertShapeToString(shape_) << ", "
     << ConvertDataTypeToString(data_type_) << ", on "
     << (location_ == DEVICE ? "device" : "host");
  if (storage_ != nullptr) {
    os << ", hold memorys, count=" << storage_.use_count();
  }
  os << ".";
  return os.str();
}

}  // namespace tarn
