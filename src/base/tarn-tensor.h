#ifndef TARN_BASE_TARN_TENSOR_H_
#define TARN_BASE_TARN_TENSOR_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "utils/export.h"

namespace tarn {

// A typed, shaped, dense, row-major block of elements.
//
// A tensor either shares ownership of its block with the tensors copied or
// viewed from it, or wraps a caller's block that it does not own. Copying a
// Tensor object shares the block; Copy() copies elements. An empty shape is a
// scalar. Element counts and sizes in bytes are unsigned 32-bit: a block of
// 4 GiB or more cannot be described.
//
// There is no lock: tensors that share a block may be copied and destroyed in
// different threads, the elements themselves are not protected. Every broken
// precondition named below is FATAL.
class TARN_EXPORT Tensor {
 public:
  // Unsigned elements share the code of the signed type of the same width.
  enum DataType : int32_t {
    FLOAT32 = 1,
    FLOAT64 = 2,
    FLOAT16 = 3,
    INT32 = 4,
    INT64 = 5,
    INT16 = 6,
    INT8 = 7,
  };

  // Where a block lies.
  enum Location : int32_t {
    HOST = 0,
    DEVICE = 1,
  };

  // No data, empty shape, FLOAT32, HOST.
  Tensor() = default;

  // Allocates as Resize() does.
  Tensor(const std::vector<int>& shape, DataType data_type, Location location);

  // Wraps `data` without owning it; it must outlive the tensor and its views.
  // FATAL for a dimension below 1, and for null data unless the shape is empty.
  Tensor(void* data, const std::vector<int>& shape, DataType data_type,
         Location location);

  // A copy shares the block.
  Tensor(const Tensor& other) = default;
  Tensor& operator=(const Tensor& other) = default;
  Tensor(Tensor&& other) noexcept;  // Leaves `other` without data.
  Tensor& operator=(Tensor&& other) noexcept;
  virtual ~Tensor();

  // The first element, in the type that the caller asks for unchecked.
  void* Data() const { return data_; }
  template <typename T>
  T* Data() const {
    return static_cast<T*>(data_);
  }
  // What the tensor was made with.
  const std::vector<int>& GetShape() const { return shape_; }
  DataType GetDataType() const { return data_type_; }
  Location GetLocation() const { return location_; }

  // Allocates a fresh block, its contents not initialised; the old one lives on
  // while other tensors share it. FATAL for a dimension below 1 and where there
  // is no memory.
  void Resize(const std::vector<int>& shape, DataType data_type,
              Location location);

  // Whether every dimension is at least 1.
  bool CheckShape(const std::vector<int>& shape) const;

  // Number of elements: 0 without data, 1 for an empty shape.
  unsigned int GetElementNum() const;
  unsigned int GetElementNum(const std::vector<int>& shape) const;

  // Bytes of one element. FATAL for a code that is no data type.
  unsigned int GetElementSize() const;
  unsigned int GetElementSize(DataType data_type) const;

  // Changes only the shape. Returns false, and changes nothing, without data,
  // for a dimension below 1 and for another number of elements.
  bool Reshape(const std::vector<int>& shape);

  // Copies the elements of `src` into this tensor's block. FATAL when `src` has
  // no data, or another shape or type.
  void Copy(const Tensor& src);

  // Exchanges everything with `other`.
  void Swap(Tensor& other) noexcept;

  // Sets every byte of a host block to zero.
  void Zeros();

  // Move the contents to the other location, into a block of this tensor's own.
  void ToHost();
  void ToDevice();

  // One line on address, shape, type, location and owners of the block.
  std::string ToString() const;

  // The element of a scalar on the host, converted to T, which must be the
  // tensor's element type or its unsigned counterpart: float, double, int,
  // unsigned int, long, unsigned long, short, unsigned short, signed char or
  // unsigned char. There is none for FLOAT16. FATAL otherwise.
  template <typename T>
  T Item() const;

  // Sets every element of a host block; T as for Item().
  template <typename T>
  void Fill(T value);

  // The following give views: tensors that share this one's block.

  // Index `index` of the first dimension; a negative one counts from its end.
  // FATAL for a scalar and for an index out of range.
  Tensor operator[](int index) const;

  // The leading dimensions fixed to `indices`, each as above.
  Tensor Slice(const std::vector<int>& indices) const;

  // Indices [start, start + count) of the first dimension, which may end at its
  // end but not beyond: FATAL. A count of 0 gives a tensor without data.
  Tensor SubTensor(unsigned int start, unsigned int count) const;

  // Copy `src` into index `index` of the first dimension, and that into `dst`,
  // as a copy of the view would. Return false, and copy nothing, where there is
  // no such view of the other tensor's shape and type on the host.
  bool SetRow(int index, const Tensor& src);
  bool GetRow(int index, const Tensor& dst) const;

  // Row-major strides in elements.
  std::vector<int> GetStride() const;

  // Copy all of `src` into the region of this tensor that begins at `offsets`;
  // missing offsets are 0, surplus ones ignored. The ranks and types must be
  // equal and the region must fit: FATAL.
  void PartialCopy(const Tensor& src, std::vector<int> offsets);
  void PartialCopyFrom(const Tensor& src, const std::vector<int>& offsets);

  // Copies all of this tensor into a region of `dst`.
  void PartialCopyTo(Tensor& dst, const std::vector<int>& offsets);

 private:
  void MoveTo(Location location);
  bool IsValidIndex(int index, size_t dimension) const;
  void CheckItem(const char* function) const;
  void* RowLike(const Tensor& other, int index) const;
  Tensor ViewAt(const int* indices, size_t count) const;
  Tensor View(ptrdiff_t first_element, std::vector<int> shape) const;
  void CopyIntoRegion(const Tensor& src, const int* offsets);

  std::shared_ptr<void> storage_;  // Empty when the block is not owned.
  void* data_ = nullptr;
  std::vector<int> shape_;
  DataType data_type_ = FLOAT32;
  Location location_ = HOST;
};

}  // namespace tarn

#endif  // TARN_BASE_TARN_TENSOR_H_
