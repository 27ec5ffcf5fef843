// Element access, views and partial copies of Tensor.

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <type_traits>
#include <utility>

#include "base/tarn-tensor.h"
#include "utils/logging.h"
#include "utils/text-utils.h"

namespace tarn {

namespace {

void ReportMismatch(const char* function) {
  TARN_LOG_AS(FATAL, function) << "the data type of tensor is mismatched.";
}

void ReportNoElements(Tensor::DataType data_type, const char* function) {
  TARN_LOG_AS(FATAL, function)
      << "can't fill tensor of type:" << ConvertDataTypeToString(data_type);
}

// Hands the elements to `visit` as a pointer to Signed or, if T is that,
// Unsigned. FATAL if T is neither.
template <typename T, typename Signed, typename Unsigned, typename Visit>
void VisitAs(const Tensor& tensor, const char* function, Visit visit) {
  constexpr bool kIsSigned = std::is_same<T, Signed>::value;
  if constexpr (!kIsSigned && !std::is_same<T, Unsigned>::value) {
    ReportMismatch(function);
  }
  visit(tensor.Data<std::conditional_t<kIsSigned, Signed, Unsigned>>());
}

// Hands the elements to `visit` as a pointer to the type that T asks for in a
// tensor of this type, on behalf of `function`.
template <typename T, typename Visit>
void VisitElements(const Tensor& tensor, const char* function, Visit visit) {
  switch (tensor.GetDataType()) {
    case Tensor::FLOAT32:
      return VisitAs<T, float, float>(tensor, function, visit);
    case Tensor::FLOAT64:
      return VisitAs<T, double, double>(tensor, function, visit);
    case Tensor::INT32:
      return VisitAs<T, int, unsigned int>(tensor, function, visit);
    case Tensor::INT64:
      return VisitAs<T, long, unsigned long>(tensor, function, visit);
    case Tensor::INT16:
      return VisitAs<T, short, unsigned short>(tensor, function, visit);
    case Tensor::INT8:
      return VisitAs<T, signed char, unsigned char>(tensor, function, visit);
    case Tensor::FLOAT16:
      break;
  }
  ReportNoElements(tensor.GetDataType(), function);
}

}  // namespace

void Tensor::CheckItem(const char* function) const {
  if (data_ == nullptr || !shape_.empty()) {
    TARN_LOG_AS(FATAL, function) << "please call it on scalar Tensor.";
  }
  if (location_ == DEVICE) {
    TARN_LOG_AS(FATAL, function) << "move the tensor to HOST and retry.";
  }
}

template <typename T>
T Tensor::Item() const {
  CheckItem(__func__);
  T item = 0;
  VisitElements<T>(*this, __func__, [&item](auto* elements) {
    if (elements != nullptr) item = static_cast<T>(*elements);
  });
  return item;
}

template <typename T>
void Tensor::Fill(T value) {
  const unsigned int count = GetElementNum();
  VisitElements<T>(*this, __func__, [count, value](auto* elements) {
    using Element = std::remove_pointer_t<decltype(elements)>;
    std::fill_n(elements, count, static_cast<Element>(value));
  });
}

template float Tensor::Item() const;
template double Tensor::Item() const;
template int Tensor::Item() const;
template unsigned int Tensor::Item() const;
template long Tensor::Item() const;
template unsigned long Tensor::Item() const;
template short Tensor::Item() const;
template unsigned short Tensor::Item() const;
template signed char Tensor::Item() const;
template unsigned char Tensor::Item() const;

template void Tensor::Fill(float);
template void Tensor::Fill(double);
template void Tensor::Fill(int);
template void Tensor::Fill(unsigned int);
template void Tensor::Fill(long);
template void Tensor::Fill(unsigned long);
template void Tensor::Fill(short);
template void Tensor::Fill(unsigned short);
template void Tensor::Fill(signed char);
template void Tensor::Fill(unsigned char);

Tensor Tensor::operator[](int index) const {
  if (shape_.empty()) {
    TARN_LOG(FATAL) << "can't operator on scalar.";
    return *this;  // Reached only when the log level silences fatal checks.
  }
  if (!IsValidIndex(index, 0)) {
    TARN_LOG(FATAL) << "index beyond the range of dimension.";
  }
  return ViewAt(&index, 1);
}

Tensor Tensor::Slice(const std::vector<int>& indices) const {
  if (indices.size() > shape_.size()) {
    TARN_LOG(FATAL)
        << "the size of indices is more than the number of dimensions.";
    return *this;  // Reached only when the log level silences fatal checks.
  }
  for (size_t k = 0; k < indices.size(); ++k) {
    if (!IsValidIndex(indices[k], k)) {
      TARN_LOG(FATAL) << "index:" << k << " beyond the range of dimension.";
    }
  }
  return ViewAt(indices.data(), indices.size());
}

Tensor Tensor::SubTensor(unsigned int start, unsigned int count) const {
  Tensor view;
  view.data_type_ = data_type_;
  view.location_ = location_;
  if (shape_.empty()) {
    TARN_LOG(FATAL) << "the tensor is scalar or empty.";
    return view;  // Reached only when the log level silences fatal checks.
  }
  if (uint64_t{start} + count > static_cast<uint64_t>(shape_[0])) {
    TARN_LOG(FATAL) << "range is invalid, expect in rang [0, " << shape_[0]
                    << "].";
  }
  if (count == 0) return view;
  std::vector<int> shape = shape_;
  shape[0] = static_cast<int>(count);
  const auto row_size = static_cast<unsigned int>(GetStride()[0]);
  return View(ptrdiff_t{start} * row_size, std::move(shape));
}

bool Tensor::SetRow(int index, const Tensor& src) {
  void* row = RowLike(src, index);
  if (row == nullptr) return false;
  std::memcpy(row, src.data_, size_t{src.GetElementNum()} * GetElementSize());
  return true;
}

bool Tensor::GetRow(int index, const Tensor& dst) const {
  const void* row = RowLike(dst, index);
  if (row == nullptr) return false;
  std::memcpy(dst.data_, row, size_t{dst.GetElementNum()} * GetElementSize());
  return true;
}

// The memory of index `index` of the first dimension, where that is a row of
// the shape and type of `other`; null elsewhere.
void* Tensor::RowLike(const Tensor& other, int index) const {
  const bool alike =
      data_ != nullptr && other.data_ != nullptr && location_ == HOST &&
      other.location_ == HOST && data_type_ == other.data_type_ &&
      shape_.size() == other.shape_.size() + 1 && IsValidIndex(index, 0) &&
      std::equal(shape_.begin() + 1, shape_.end(), other.shape_.begin());
  if (!alike) return nullptr;
  const int row = index < 0 ? index + shape_[0] : index;
  return static_cast<char*>(data_) + size_t{other.GetElementNum()} *
                                         GetElementSize() *
                                         static_cast<size_t>(row);
}

std::vector<int> Tensor::GetStride() const {
  std::vector<int> strides(shape_.size());
  unsigned int stride = 1;
  for (size_t k = shape_.size(); k-- > 0;) {
    strides[k] = static_cast<int>(stride);
    stride *= static_cast<unsigned int>(shape_[k]);
  }
  return strides;
}

void Tensor::PartialCopy(const Tensor& src, std::vector<int> offsets) {
  const size_t rank = shape_.size();
  if (src.shape_.size() != rank) {
    TARN_LOG(FATAL) << "the rank of tensors should be equal.";
    return;  // Reached only when the log level silences fatal checks.
  }
  if (rank == 0) return Copy(src);
  offsets.resize(rank, 0);
  for (size_t k = 0; k < rank; ++k) {
    const int64_t end = int64_t{src.shape_[k]} + offsets[k];
    if (offsets[k] < 0 || end > shape_[k]) {
      TARN_LOG(FATAL) << "range at dimension:" << k << " is mismatched.";
      return;  // Reached only when the log level silences fatal checks.
    }
  }
  CopyIntoRegion(src, offsets.data());
}

void Tensor::PartialCopyFrom(const Tensor& src,
                             const std::vector<int>& offsets) {
  PartialCopy(src, offsets);
}

void Tensor::PartialCopyTo(Tensor& dst, const std::vector<int>& offsets) {
  dst.PartialCopy(*this, offsets);
}

bool Tensor::IsValidIndex(int index, size_t dimension) const {
  const int size = shape_[dimension];
  return index >= -size && index < size;
}

// The view whose leading `count` dimensions are fixed to `indices`; a negative
// index counts from the end.
Tensor Tensor::ViewAt(const int* indices, size_t count) const {
  ptrdiff_t position = 0;  // Among the views of this rank.
  for (size_t k = 0; k < count; ++k) {
    const ptrdiff_t size = shape_[k];
    const ptrdiff_t index = indices[k];
    position = position * size + (index < 0 ? index + size : index);
  }
  const auto inner = shape_.begin() + static_cast<ptrdiff_t>(count);
  std::vector<int> shape(inner, shape_.end());
  const ptrdiff_t element_num = GetElementNum(shape);
  return View(position * element_num, std::move(shape));
}

Tensor Tensor::View(ptrdiff_t first_element, std::vector<int> shape) const {
  Tensor view;
  view.storage_ = storage_;
  if (data_ != nullptr) {  // Null after an allocation that failed in silence.
    view.data_ = Data<char>() + first_element * ptrdiff_t{GetElementSize()};
  }
  view.shape_ = std::move(shape);
  view.data_type_ = data_type_;
  view.location_ = location_;
  return view;
}

// Copies run by run: where the inner dimensions agree, the whole of `src` is
// one run. The region must fit.
void Tensor::CopyIntoRegion(const Tensor& src, const int* offsets) {
  if (std::equal(shape_.begin() + 1, shape_.end(), src.shape_.begin() + 1)) {
    const auto row_size = static_cast<unsigned int>(GetStride()[0]);
    View(ptrdiff_t{offsets[0]} * row_size, src.shape_).Copy(src);
    return;
  }
  for (int i = 0; i < src.shape_[0]; ++i) {
    (*this)[offsets[0] + i].CopyIntoRegion(src[i], offsets + 1);
  }
}

}  // namespace tarn
