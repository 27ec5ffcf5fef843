#include "base/base-model-info.h"

#include "utils/logging.h"
#include "utils/text-utils.h"

namespace tarn {

ModelInfo::ModelInfo(const ModelOptions& options)
    : batch_dim_(options.batch_dim),
      multi_threads_(options.multi_threads),
      infer_thread_(options.infer_thread),
      infer_interval_(options.infer_interval),
      num_execute_threads_(options.num_execute_threads) {
  ReadInputOptions(options);
  ReadOutputOptions(options);
  ReadCacheOptions(options);
  ReadDimensionOptions(options);
  if (HasBatchDimension() && !multi_threads_) {
    TARN_LOG(WARNING) << "expect --multi-threads=true if there is batch "
                      << "dimension exists, correct it automaticly.";
    multi_threads_ = true;
  }
  if (infer_thread_ && infer_interval_ < 0) {
    TARN_LOG(FATAL) << "expect --infer-interval>=0 if there is independent "
                    << "inference thread.";
  }
  if (GetCacheNum() > 0 && HasDynamicRows()) {
    TARN_LOG(FATAL) << "except for the batch dimension, all other dimensions "
                    << "should be fixed if the model is streaming.";
  }
}

ModelInfo::~ModelInfo() = default;

void ModelInfo::ReadInputOptions(const ModelOptions& options) {
  ReadTable(options.inputs_format, options.inputs_shape, options.inputs_dtype,
            __func__, inputs_);
}

void ModelInfo::ReadOutputOptions(const ModelOptions& options) {
  ReadTable(options.outputs_format, options.outputs_shape,
            options.outputs_dtype, __func__, outputs_);
}

void ModelInfo::ReadTable(const std::string& format, const std::string& shape,
                          const std::string& type, const char* function,
                          Table& table) {
  Texts texts;
  GetFormat(format, texts.formats);
  GetShape(shape, texts.shapes);
  GetDataType(type, texts.types);
  const std::string nouns = std::string(table.noun) + "s";
  if (!texts.HaveSizeOf(texts.formats.size())) {
    TARN_LOG_AS(FATAL, function)
        << "the number of " << nouns << " are different in " << nouns
        << "-shape, " << nouns << "-format and " << nouns << "-dtype";
  }
  for (const auto& named_format : texts.formats) {
    AddEntry(named_format.first, texts, function, table);
  }
  if (table.entries.empty()) {
    TARN_LOG_AS(FATAL, function) << "there are no " << nouns << " exist.";
  }
  TARN_LOG_AS(INFO, function)
      << "reading options of " << nouns << " successfully.";
}

void ModelInfo::ReadCacheOptions(const ModelOptions& options) {
  Texts texts;
  std::map<std::string, std::string> pairs;
  if (!options.caches_pair.empty()) GetPair(options.caches_pair, pairs);
  if (!options.caches_format.empty()) {
    GetFormat(options.caches_format, texts.formats);
  }
  if (!options.caches_shape.empty()) {
    GetShape(options.caches_shape, texts.shapes);
  }
  if (!options.caches_dtype.empty()) {
    GetDataType(options.caches_dtype, texts.types);
  }
  if (!texts.HaveSizeOf(pairs.size())) {
    TARN_LOG(FATAL) << "the number of caches are different in caches-pair, "
                    << "caches-format, caches-shape and caches-dtype";
  }
  for (const auto& pair : pairs) {
    AddCache(pair.first, pair.second, texts, __func__);
  }
  TARN_LOG(INFO) << "reading options of caches successfully.";
}

void ModelInfo::AddCache(const std::string& output, const std::string& input,
                         const Texts& texts, const char* function) {
  if (HasInput(input)) {
    TARN_LOG_AS(FATAL, function)
        << "the input part of cache is one of model's inputs, "
        << "it's name should be different with other inputs";
    return;  // Reached only when the log level silences fatal checks.
  }
  if (HasOutput(output)) {
    TARN_LOG_AS(FATAL, function)
        << "the output part of cache is one of model's outputs, "
        << "it's name should be different with other outputs";
    return;  // Reached only when the log level silences fatal checks.
  }
  if (!AddEntry(input, texts, function, caches_)) return;
  cache_outputs_.push_back(output);
  cache_pairs_[output] = input;
}

// Adds what the texts say of `name`. Returns false, with nothing added, when
// that is inconsistent and the log level silences fatal checks.
bool ModelInfo::AddEntry(const std::string& name, const Texts& texts,
                         const char* function, Table& table) {
  const auto report_missing = [&](const char* what) {
    TARN_LOG_AS(FATAL, function)
        << "missing " << what << " of " << table.noun << ":" << name;
    return false;
  };
  const auto format = texts.formats.find(name);
  if (format == texts.formats.end()) return report_missing("format");
  const auto shape = texts.shapes.find(name);
  if (shape == texts.shapes.end()) return report_missing("shape");
  const auto type = texts.types.find(name);
  if (type == texts.types.end()) return report_missing("data type");
  if (format->second.size() != shape->second.size()) {
    TARN_LOG_AS(FATAL, function) << "the format and shape of " << table.noun
                                 << ":" << name << " are mismatched.";
    return false;
  }
  table.indices[name] = table.Size();
  table.entries.push_back({name, format->second, shape->second, type->second});
  return true;
}

void ModelInfo::ReadDimensionOptions(const ModelOptions& options) {
  if (!options.dynamic_dims.empty()) GetRange(options.dynamic_dims, ranges_);
  ReadDimensions(inputs_, "different size found for dimension:", __func__);
  ReadDimensions(outputs_, "different size found for dimension: ", __func__);
  ReadDimensions(caches_, "different size found for dimension: ", __func__);
  has_batch_dimension_ = HasDimension(batch_dim_);
  if (!batch_dim_.empty()) CheckBatchDimension(__func__);
  TARN_LOG(INFO) << "reading options of dimensions successfully.";
}

void ModelInfo::ReadDimensions(const Table& table, const char* difference,
                               const char* function) {
  for (const Entry& entry : table.entries) {
    for (size_t i = 0; i < entry.format.size(); ++i) {
      const std::string& name = entry.format[i];
      const int size = entry.shape[i];
      if (dimensions_.emplace(name, size).first->second != size) {
        TARN_LOG_AS(FATAL, function) << difference << name;
      }
      if (size == -1 && ranges_.count(name) == 0) {
        TARN_LOG_AS(FATAL, function) << "missing range of dimension:" << name;
      }
    }
  }
}

void ModelInfo::CheckBatchDimension(const char* function) const {
  if (!HasBatchDimension()) {
    TARN_LOG_AS(FATAL, function)
        << "can't find batch dimension with name:" << batch_dim_;
  }
  for (const Table* table : {&inputs_, &outputs_, &caches_}) {
    for (const Entry& entry : table->entries) {
      if (entry.format[0] == batch_dim_) continue;
      TARN_LOG_AS(FATAL, function)
          << "the first dimension must be " << batch_dim_ << ", but got "
          << entry.format[0] << " at " << table->noun << ":" << entry.name;
    }
  }
}

unsigned int ModelInfo::GetInputNum() const { return inputs_.Size(); }

unsigned int ModelInfo::GetOutputNum() const { return outputs_.Size(); }

unsigned int ModelInfo::GetCacheNum() const { return caches_.Size(); }

bool ModelInfo::HasInput(const std::string& name) const {
  return inputs_.indices.count(name) > 0;
}

bool ModelInfo::HasOutput(const std::string& name) const {
  return outputs_.indices.count(name) > 0;
}

const std::string& ModelInfo::GetCacheName(unsigned int index,
                                           bool output) const {
  const std::string& input_name = caches_.At(index, __func__).name;
  return output ? cache_outputs_.at(index) : input_name;
}

const std::string& ModelInfo::GetCacheName(const std::string& name) const {
  const auto input_side = caches_.indices.find(name);
  if (input_side != caches_.indices.end()) return input_side->first;
  if (cache_pairs_.count(name) == 0) {
    TARN_LOG(FATAL) << name << " is't a cache of model.";
  }
  return cache_pairs_.at(name);
}

const std::string& ModelInfo::GetInputName(unsigned int index) const {
  return inputs_.At(index, __func__).name;
}

const std::string& ModelInfo::GetOutputName(unsigned int index) const {
  return outputs_.At(index, __func__).name;
}

const std::vector<int>& ModelInfo::GetInputShape(unsigned int index) const {
  return inputs_.At(index, __func__).shape;
}

const std::vector<int>& ModelInfo::GetInputShape(
    const std::string& name) const {
  return inputs_.At(name, __func__).shape;
}

std::vector<int> ModelInfo::GetInputShape(unsigned int index, bool max) const {
  return Bounded(inputs_.At(index, __func__), max);
}

std::vector<int> ModelInfo::GetInputShape(const std::string& name,
                                          bool max) const {
  return Bounded(inputs_.At(name, __func__), max);
}

const std::vector<std::string>& ModelInfo::GetInputFormat(
    unsigned int index) const {
  return inputs_.At(index, __func__).format;
}

const std::vector<std::string>& ModelInfo::GetInputFormat(
    const std::string& name) const {
  return inputs_.At(name, __func__).format;
}

Tensor::DataType ModelInfo::GetInputDataType(unsigned int index) const {
  return inputs_.At(index, __func__).data_type;
}

Tensor::DataType ModelInfo::GetInputDataType(const std::string& name) const {
  return inputs_.At(name, __func__).data_type;
}

const std::vector<int>& ModelInfo::GetOutputShape(unsigned int index) const {
  return outputs_.At(index, __func__).shape;
}

const std::vector<int>& ModelInfo::GetOutputShape(
    const std::string& name) const {
  return outputs_.At(name, __func__).shape;
}

std::vector<int> ModelInfo::GetOutputShape(unsigned int index, bool max) const {
  return Bounded(outputs_.At(index, __func__), max);
}

std::vector<int> ModelInfo::GetOutputShape(const std::string& name,
                                           bool max) const {
  return Bounded(outputs_.At(name, __func__), max);
}

const std::vector<std::string>& ModelInfo::GetOutputFormat(
    unsigned int index) const {
  return outputs_.At(index, __func__).format;
}

const std::vector<std::string>& ModelInfo::GetOutputFormat(
    const std::string& name) const {
  return outputs_.At(name, __func__).format;
}

Tensor::DataType ModelInfo::GetOutputDataType(unsigned int index) const {
  return outputs_.At(index, __func__).data_type;
}

Tensor::DataType ModelInfo::GetOutputDataType(const std::string& name) const {
  return outputs_.At(name, __func__).data_type;
}

const std::vector<int>& ModelInfo::GetCacheShape(unsigned int index) const {
  return caches_.At(index, __func__).shape;
}

const std::vector<int>& ModelInfo::GetCacheShape(
    const std::string& name) const {
  return caches_.At(GetCacheName(name), __func__).shape;
}

std::vector<int> ModelInfo::GetCacheShape(unsigned int index, bool max) const {
  return Bounded(caches_.At(index, __func__), max);
}

std::vector<int> ModelInfo::GetCacheShape(const std::string& name,
                                          bool max) const {
  return Bounded(caches_.At(GetCacheName(name), __func__), max);
}

const std::vector<std::string>& ModelInfo::GetCacheFormat(
    unsigned int index) const {
  return caches_.At(index, __func__).format;
}

const std::vector<std::string>& ModelInfo::GetCacheFormat(
    const std::string& name) const {
  return caches_.At(GetCacheName(name), __func__).format;
}

Tensor::DataType ModelInfo::GetCacheDataType(unsigned int index) const {
  return caches_.At(index, __func__).data_type;
}

Tensor::DataType ModelInfo::GetCacheDataType(const std::string& name) const {
  return caches_.At(GetCacheName(name), __func__).data_type;
}

bool ModelInfo::HasDimension(const std::string& name) const {
  return dimensions_.count(name) > 0;
}

int ModelInfo::GetDimension(const std::string& name) const {
  if (!HasDimension(name)) {
    TARN_LOG(FATAL) << "no dimension named " << name << " exists.";
  }
  return dimensions_.at(name);
}

std::pair<int, int> ModelInfo::GetDimensionRange(
    const std::string& name) const {
  if (ranges_.count(name) == 0) {
    TARN_LOG(FATAL) << "no dynamic dimension named " << name << " exists.";
  }
  return ranges_.at(name);
}

bool ModelInfo::HasDynamicRows() const {
  return ranges_.size() > ranges_.count(batch_dim_);
}

bool ModelInfo::CheckShape(const std::vector<int>& shape,
                           const std::vector<int>& expected,
                           const std::vector<std::string>& format) const {
  if (shape.size() != expected.size()) return false;
  for (size_t i = 0; i < shape.size(); ++i) {
    if (shape[i] == expected[i]) continue;
    if (expected[i] != -1) return false;
    const std::pair<int, int> range = GetDimensionRange(format.at(i));
    if (shape[i] < range.first || shape[i] > range.second) return false;
  }
  return true;
}

bool ModelInfo::CheckInput(const std::string& name,
                           const std::vector<int>& shape,
                           Tensor::DataType data_type) const {
  return CheckEntry(inputs_.At(name, __func__), shape, data_type);
}

bool ModelInfo::CheckOutput(const std::string& name,
                            const std::vector<int>& shape,
                            Tensor::DataType data_type) const {
  return CheckEntry(outputs_.At(name, __func__), shape, data_type);
}

bool ModelInfo::CheckCache(const std::string& name,
                           const std::vector<int>& shape,
                           Tensor::DataType data_type) const {
  return CheckEntry(caches_.At(GetCacheName(name), __func__), shape, data_type);
}

bool ModelInfo::CheckEntry(const Entry& entry, const std::vector<int>& shape,
                           Tensor::DataType data_type) const {
  return data_type == entry.data_type &&
         CheckShape(shape, entry.shape, entry.format);
}

std::vector<int> ModelInfo::Bounded(const Entry& entry, bool max) const {
  std::vector<int> shape = entry.shape;
  for (size_t i = 0; i < shape.size(); ++i) {
    if (shape[i] != -1) continue;
    const std::pair<int, int> range = GetDimensionRange(entry.format[i]);
    shape[i] = max ? range.second : range.first;
  }
  return shape;
}

unsigned int ModelInfo::Table::Size() const {
  return static_cast<unsigned int>(entries.size());
}

const ModelInfo::Entry& ModelInfo::Table::At(unsigned int index,
                                             const char* function) const {
  if (index >= Size()) {
    TARN_LOG_AS(FATAL, function)
        << "index is beyond the number of " << noun << "s.";
  }
  return entries.at(index);
}

const ModelInfo::Entry& ModelInfo::Table::At(const std::string& name,
                                             const char* function) const {
  const auto found = indices.find(name);
  if (found != indices.end()) return entries[found->second];
  TARN_LOG_AS(FATAL, function) << name << " is't " << one_noun << " of model.";
  // Throws; reached only when the log level silences fatal checks.
  return entries[indices.at(name)];
}

bool ModelInfo::Texts::HaveSizeOf(size_t count) const {
  return formats.size() == count && shapes.size() == count &&
         types.size() == count;
}

}  // namespace tarn
