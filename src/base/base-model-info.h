#ifndef TARN_BASE_BASE_MODEL_INFO_H_
#define TARN_BASE_BASE_MODEL_INFO_H_

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "base/base-model-options.h"
#include "base/tarn-tensor.h"
#include "utils/export.h"

namespace tarn {

// The validated description of one model: names, shapes, formats and data types
// of its inputs, outputs and caches, and the ranges of its dimensions.
//
// Built once and then only read, by any number of threads. A shape lists the
// sizes of a tensor's dimensions, -1 for a dynamic one; its format lists their
// names. Inputs and outputs are indexed in ascending order of their names,
// caches in that of their output-side names. A cache is known by its input-side
// name; where a cache's name is asked for, either side's will do. When there is
// a batch dimension it is the first one of every shape given here.
//
// An inconsistent description is FATAL, and so is a query with an index or a
// name that the model does not have; when the log level silences that, such a
// query throws std::out_of_range.
class TARN_EXPORT ModelInfo {
 public:
  explicit ModelInfo(const ModelOptions& options);
  virtual ~ModelInfo();

  unsigned int GetInputNum() const;
  unsigned int GetOutputNum() const;
  unsigned int GetCacheNum() const;

  bool HasInput(const std::string& name) const;
  bool HasOutput(const std::string& name) const;

  const std::string& GetInputName(unsigned int index) const;
  const std::string& GetOutputName(unsigned int index) const;
  // The name of a cache's output or input side.
  const std::string& GetCacheName(unsigned int index, bool output) const;
  // The input-side name of the cache that has `name` on either side.
  const std::string& GetCacheName(const std::string& name) const;

  const std::vector<int>& GetInputShape(unsigned int index) const;
  const std::vector<int>& GetInputShape(const std::string& name) const;
  const std::vector<int>& GetOutputShape(unsigned int index) const;
  const std::vector<int>& GetOutputShape(const std::string& name) const;
  const std::vector<int>& GetCacheShape(unsigned int index) const;
  const std::vector<int>& GetCacheShape(const std::string& name) const;

  // The shape with every dynamic dimension at the top of its range, or at the
  // bottom when `max` is false.
  std::vector<int> GetInputShape(unsigned int index, bool max) const;
  std::vector<int> GetInputShape(const std::string& name, bool max) const;
  std::vector<int> GetOutputShape(unsigned int index, bool max) const;
  std::vector<int> GetOutputShape(const std::string& name, bool max) const;
  std::vector<int> GetCacheShape(unsigned int index, bool max) const;
  std::vector<int> GetCacheShape(const std::string& name, bool max) const;

  const std::vector<std::string>& GetInputFormat(unsigned int index) const;
  const std::vector<std::string>& GetInputFormat(const std::string& name) const;
  const std::vector<std::string>& GetOutputFormat(unsigned int index) const;
  const std::vector<std::string>& GetOutputFormat(
      const std::string& name) const;
  const std::vector<std::string>& GetCacheFormat(unsigned int index) const;
  const std::vector<std::string>& GetCacheFormat(const std::string& name) const;

  Tensor::DataType GetInputDataType(unsigned int index) const;
  Tensor::DataType GetInputDataType(const std::string& name) const;
  Tensor::DataType GetOutputDataType(unsigned int index) const;
  Tensor::DataType GetOutputDataType(const std::string& name) const;
  Tensor::DataType GetCacheDataType(unsigned int index) const;
  Tensor::DataType GetCacheDataType(const std::string& name) const;

  bool HasDimension(const std::string& name) const;
  // The size written for the dimension, -1 for a dynamic one.
  int GetDimension(const std::string& name) const;
  // Smallest and largest size of a dynamic dimension, both allowed.
  std::pair<int, int> GetDimensionRange(const std::string& name) const;
  const std::map<std::string, std::pair<int, int>>& GetDimensionRanges() const {
    return ranges_;
  }
  bool HasBatchDimension() const { return has_batch_dimension_; }
  // Whether a dimension other than the batch dimension is dynamic.
  bool HasDynamicRows() const;
  const std::string& batch_dim() const { return batch_dim_; }

  bool multi_threads() const { return multi_threads_; }
  bool infer_thread() const { return infer_thread_; }
  int32_t infer_interval() const { return infer_interval_; }
  int32_t num_execute_threads() const { return num_execute_threads_; }

  // Whether `shape` is `expected`, with sizes within the dimension's range
  // where `expected` has -1.
  bool CheckShape(const std::vector<int>& shape,
                  const std::vector<int>& expected,
                  const std::vector<std::string>& format) const;
  // Whether a tensor of this shape and type agrees with the description.
  bool CheckInput(const std::string& name, const std::vector<int>& shape,
                  Tensor::DataType data_type) const;
  bool CheckOutput(const std::string& name, const std::vector<int>& shape,
                   Tensor::DataType data_type) const;
  bool CheckCache(const std::string& name, const std::vector<int>& shape,
                  Tensor::DataType data_type) const;

  // Parsers of the description's texts, lists of <key>:<value> with ';' between
  // them. Each adds what it reads to a map by key, a later entry replacing an
  // earlier one; a malformed text is FATAL.

  // feats:[batch-size, time-step, feat-dim];lens:[batch-size]
  static void GetFormat(
      const std::string& text,
      std::map<std::string, std::vector<std::string>>& formats);
  // feats:[-1,20,40];lens:[-1]
  static void GetShape(const std::string& text,
                       std::map<std::string, std::vector<int>>& shapes);
  // feats:FLOAT32;lens:INT32, in any case.
  static void GetDataType(const std::string& text,
                          std::map<std::string, Tensor::DataType>& types);
  // state-out:state-in
  static void GetPair(const std::string& text,
                      std::map<std::string, std::string>& pairs);
  // batch-size:1-8;time-step:4-16
  static void GetRange(const std::string& text,
                       std::map<std::string, std::pair<int, int>>& ranges);

 private:
  struct Entry {
    std::string name;
    std::vector<std::string> format;
    std::vector<int> shape;
    Tensor::DataType data_type;
  };

  // All inputs, all outputs or all caches, in index order.
  struct Table {
    unsigned int Size() const;
    // Report a bad index or name on behalf of `function`.
    const Entry& At(unsigned int index, const char* function) const;
    const Entry& At(const std::string& name, const char* function) const;

    const char* noun;      // What messages call an entry, ...
    const char* one_noun;  // ... and with its article.
    std::vector<Entry> entries;
    std::map<std::string, unsigned int> indices;
  };

  // The texts that describe a table, parsed.
  struct Texts {
    bool HaveSizeOf(size_t count) const;

    std::map<std::string, std::vector<std::string>> formats;
    std::map<std::string, std::vector<int>> shapes;
    std::map<std::string, Tensor::DataType> types;
  };

  void ReadInputOptions(const ModelOptions& options);
  void ReadOutputOptions(const ModelOptions& options);
  void ReadCacheOptions(const ModelOptions& options);
  void ReadDimensionOptions(const ModelOptions& options);

  void ReadTable(const std::string& format, const std::string& shape,
                 const std::string& type, const char* function, Table& table);
  void AddCache(const std::string& output, const std::string& input,
                const Texts& texts, const char* function);
  bool AddEntry(const std::string& name, const Texts& texts,
                const char* function, Table& table);
  void ReadDimensions(const Table& table, const char* difference,
                      const char* function);
  void CheckBatchDimension(const char* function) const;

  bool CheckEntry(const Entry& entry, const std::vector<int>& shape,
                  Tensor::DataType data_type) const;
  std::vector<int> Bounded(const Entry& entry, bool max) const;

  Table inputs_{"input", "an input", {}, {}};
  Table outputs_{"output", "an output", {}, {}};
  Table caches_{"cache", "a cache", {}, {}};  // By input-side name.
  std::vector<std::string> cache_outputs_;    // Output-side names, by index.
  std::map<std::string, std::string> cache_pairs_;  // Output to input side.
  std::map<std::string, int> dimensions_;           // Sizes as written.
  std::map<std::string, std::pair<int, int>> ranges_;
  std::string batch_dim_;
  bool has_batch_dimension_ = false;
  bool multi_threads_ = false;
  bool infer_thread_ = false;
  int32_t infer_interval_ = 0;
  int32_t num_execute_threads_ = 0;
};

}  // namespace tarn

#endif  // TARN_BASE_BASE_MODEL_INFO_H_
