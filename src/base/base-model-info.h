#ifndef TARN_BASE_BASE_MODEL_INFO_H_
#define TARN_BASE_BASE_MODEL_INFO_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "base/base-model-options.h"
#include "base/tarn-tensor.h"
#include "utils/export.h"
#include "utils/finding.h"

namespace tarn {

class Reporter;
template <typename Value>
struct Entries;

// What a description says of one input, output or cache.
struct TensorInfo {
  std::string name;                 // As the network has it.
  std::vector<std::string> format;  // The names of its dimensions.
  std::vector<int> shape;           // Their sizes, -1 where dynamic.
  Tensor::DataType data_type;       // Of its elements.
  size_t slot = 0;  // Its place among all inputs, outputs and caches.
};

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
  // Validates `options`.
  explicit ModelInfo(const ModelOptions& options);

  // The same for a description that may be inconsistent: what is wrong with it
  // is added to `findings`, and nothing is logged. Only a description without a
  // FATAL finding may be given to a model.
  ModelInfo(const ModelOptions& options, std::vector<Finding>& findings);
  virtual ~ModelInfo();

  // How many inputs, outputs and caches there are.
  unsigned int GetInputNum() const;
  unsigned int GetOutputNum() const;
  unsigned int GetCacheNum() const;

  // Whether the description tells everything about an input, output or cache of
  // this name, should it name it at all. False only after FATAL findings.
  bool IsUsable(const std::string& name) const;
  // Whether it does so for every name.
  bool IsComplete() const { return unusable_.empty(); }

  // Whether there is such an input or output.
  bool HasInput(const std::string& name) const;
  bool HasOutput(const std::string& name) const;

  // Everything about an input or output, or about the cache that has `name` on
  // either side; null for a name that the model does not have.
  const TensorInfo* FindInput(const std::string& name) const;
  const TensorInfo* FindOutput(const std::string& name) const;
  const TensorInfo* FindCache(const std::string& name) const;

  // The same; a name that the model does not have is reported in the name of
  // `function`.
  const TensorInfo& InputAt(const std::string& name,
                            const char* function) const;
  const TensorInfo& OutputAt(const std::string& name,
                             const char* function) const;
  const TensorInfo& CacheAt(const std::string& name,
                            const char* function) const;

  // All of them, by index.
  const std::vector<TensorInfo>& inputs() const { return inputs_.entries; }
  const std::vector<TensorInfo>& outputs() const { return outputs_.entries; }
  const std::vector<TensorInfo>& caches() const { return caches_.entries; }
  size_t slot_num() const { return slot_num_; }  // How many there are.

  // The name at an index.
  const std::string& GetInputName(unsigned int index) const;
  const std::string& GetOutputName(unsigned int index) const;
  // The name of a cache's output or input side.
  const std::string& GetCacheName(unsigned int index, bool output) const;
  // The input-side name of the cache that has `name` on either side.
  const std::string& GetCacheName(const std::string& name) const;

  // The sizes of all dimensions, -1 for a dynamic one.
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
  std::vector<int> Bounded(const TensorInfo& tensor, bool max) const;

  // The names of all dimensions.
  const std::vector<std::string>& GetInputFormat(unsigned int index) const;
  const std::vector<std::string>& GetInputFormat(const std::string& name) const;
  const std::vector<std::string>& GetOutputFormat(unsigned int index) const;
  const std::vector<std::string>& GetOutputFormat(
      const std::string& name) const;
  const std::vector<std::string>& GetCacheFormat(unsigned int index) const;
  const std::vector<std::string>& GetCacheFormat(const std::string& name) const;

  // The type of the elements.
  Tensor::DataType GetInputDataType(unsigned int index) const;
  Tensor::DataType GetInputDataType(const std::string& name) const;
  Tensor::DataType GetOutputDataType(unsigned int index) const;
  Tensor::DataType GetOutputDataType(const std::string& name) const;
  Tensor::DataType GetCacheDataType(unsigned int index) const;
  Tensor::DataType GetCacheDataType(const std::string& name) const;

  // Whether a format names such a dimension.
  bool HasDimension(const std::string& name) const;
  // The size written for the dimension, -1 for a dynamic one.
  int GetDimension(const std::string& name) const;
  // Smallest and largest size of a dynamic dimension, both allowed.
  std::pair<int, int> GetDimensionRange(const std::string& name) const;
  const std::map<std::string, std::pair<int, int>>& GetDimensionRanges() const {
    return ranges_;
  }
  // Whether requests are computed in batches.
  bool HasBatchDimension() const { return has_batch_dimension_; }
  // Whether a dimension other than the batch dimension is dynamic.
  bool HasDynamicRows() const;
  const std::string& batch_dim() const { return batch_dim_; }

  // The options of these names.
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
  // All inputs, all outputs or all caches, in index order.
  struct Table {
    unsigned int Size() const;
    const TensorInfo* Find(const std::string& name) const;
    // Report a bad index or name on behalf of `function`.
    const TensorInfo& At(unsigned int index, const char* function) const;
    const TensorInfo& At(const std::string& name, const char* function) const;

    const char* noun;      // What messages call an entry, ...
    const char* one_noun;  // ... and with its article.
    std::vector<TensorInfo> entries;
    std::map<std::string, unsigned int> indices;
  };

  struct Texts;

  ModelInfo(const ModelOptions& options, const Reporter& reporter);

  void ReadInputOptions(const ModelOptions& options, const Reporter& reporter);
  void ReadOutputOptions(const ModelOptions& options, const Reporter& reporter);
  void ReadCacheOptions(const ModelOptions& options, const Reporter& reporter);
  void ReadDimensionOptions(const ModelOptions& options,
                            const Reporter& reporter);
  void CheckScheduling(const Reporter& reporter);

  void ReadTable(const Texts& texts, const Reporter& reporter, Table& table);
  void AddCache(const std::string& output, const std::string& input,
                const Texts& texts, const Reporter& reporter);
  bool AddEntry(const std::string& name, const Texts& texts,
                const Reporter& reporter, Table& table);
  void ReadDimensions(const Table& table, const char* difference,
                      const Entries<std::pair<int, int>>& ranges,
                      const Reporter& reporter);
  void NumberSlots();
  void MarkUnusable(const std::set<std::string>& names);
  void CheckBatchDimension(const Reporter& reporter) const;

  bool CheckEntry(const TensorInfo& entry, const std::vector<int>& shape,
                  Tensor::DataType data_type) const;

  Table inputs_{"input", "an input", {}, {}};
  Table outputs_{"output", "an output", {}, {}};
  Table caches_{"cache", "a cache", {}, {}};  // By input-side name.
  std::vector<std::string> cache_outputs_;    // Output-side names, by index.
  std::map<std::string, std::string> cache_pairs_;  // Output to input side.
  std::map<std::string, int> dimensions_;           // Sizes as written.
  std::map<std::string, std::pair<int, int>> ranges_;
  std::set<std::string> unusable_;  // An empty name stands for unknown ones.
  std::string batch_dim_;
  size_t slot_num_ = 0;
  bool has_batch_dimension_ = false;
  bool multi_threads_ = false;
  bool infer_thread_ = false;
  int32_t infer_interval_ = 0;
  int32_t num_execute_threads_ = 0;
};

}  // namespace tarn

#endif  // TARN_BASE_BASE_MODEL_INFO_H_
