#include "base/base-model-info.h"

#include "base/base-model-texts.h"
#include "utils/logging.h"

namespace tarn {

// The texts of <group>-format, <group>-shape and <group>-dtype, parsed.
struct ModelInfo::Texts {
  Texts(const std::string& group, const std::string& format,
        const std::string& shape, const std::string& dtype, bool may_be_empty,
        const Reporter& reporter) {
    const auto is_given = [may_be_empty](const std::string& text) {
      return !may_be_empty || !text.empty();
    };
    if (is_given(format)) {
      formats = ParseFormats(format, reporter.About(group + "-format"));
    }
    if (is_given(shape)) {
      shapes = ParseShapes(shape, reporter.About(group + "-shape"));
    }
    if (is_given(dtype)) {
      types = ParseDataTypes(dtype, reporter.About(group + "-dtype"));
    }
  }

  // Whether each names as many entries as `counted`, as far as that is known.
  template <typename Value>
  bool AgreeWith(const Entries<Value>& counted) const {
    if (formats.HasUnknownKeys() || shapes.HasUnknownKeys() ||
        types.HasUnknownKeys() || counted.HasUnknownKeys()) {
      return true;
    }
    const size_t count = counted.KeyNum();
    return formats.KeyNum() == count && shapes.KeyNum() == count &&
           types.KeyNum() == count;
  }

  Formats formats;
  Shapes shapes;
  DataTypes types;
};

ModelInfo::ModelInfo(const ModelOptions& options)
    : ModelInfo(options, Reporter()) {}

ModelInfo::ModelInfo(const ModelOptions& options,
                     std::vector<Finding>& findings)
    : ModelInfo(options, Reporter(&findings, &options.lines)) {}

ModelInfo::ModelInfo(const ModelOptions& options, const Reporter& reporter)
    : batch_dim_(options.batch_dim),
      multi_threads_(options.multi_threads),
      infer_thread_(options.infer_thread),
      infer_interval_(options.infer_interval),
      num_execute_threads_(options.num_execute_threads) {
  ReadInputOptions(options, reporter.As("ReadInputOptions"));
  ReadOutputOptions(options, reporter.As("ReadOutputOptions"));
  ReadCacheOptions(options, reporter.As("ReadCacheOptions"));
  ReadDimensionOptions(options, reporter.As("ReadDimensionOptions"));
  CheckScheduling(reporter.As("ModelInfo"));
  NumberSlots();
}

ModelInfo::~ModelInfo() = default;

void ModelInfo::CheckScheduling(const Reporter& reporter) {
  if (HasBatchDimension() && !multi_threads_) {
    reporter.About("multi-threads")
            .Report(WARNING, {"multi-threads", "set --multi-threads=true"})
        << "expect --multi-threads=true if there is batch "
        << "dimension exists, correct it automaticly.";
    multi_threads_ = true;
  }
  if (infer_thread_ && infer_interval_ < 0) {
    reporter.About("infer-interval")
            .Report(FATAL, {"infer-interval", "give it in microseconds"})
        << "expect --infer-interval>=0 if there is independent "
        << "inference thread.";
  }
  if (GetCacheNum() > 0 && HasDynamicRows()) {
    reporter.About("dynamic-dims")
            .Report(FATAL, {"streaming-fixed",
                            "leave only the batch dimension in dynamic-dims, "
                            "and fix the sizes of all others"})
        << "except for the batch dimension, all other dimensions "
        << "should be fixed if the model is streaming.";
  }
}

void ModelInfo::ReadInputOptions(const ModelOptions& options,
                                 const Reporter& reporter) {
  const Texts texts("inputs", options.inputs_format, options.inputs_shape,
                    options.inputs_dtype, /*may_be_empty=*/false, reporter);
  ReadTable(texts, reporter, inputs_);
}

void ModelInfo::ReadOutputOptions(const ModelOptions& options,
                                  const Reporter& reporter) {
  const Texts texts("outputs", options.outputs_format, options.outputs_shape,
                    options.outputs_dtype, /*may_be_empty=*/false, reporter);
  ReadTable(texts, reporter, outputs_);
}

void ModelInfo::ReadTable(const Texts& texts, const Reporter& reporter,
                          Table& table) {
  const std::string nouns = std::string(table.noun) + "s";
  if (!texts.AgreeWith(texts.formats)) {
    reporter.About(nouns + "-format")
            .Report(FATAL,
                    {"entry-count", "name the same " + nouns + " in all three"})
        << "the number of " << nouns << " are different in " << nouns
        << "-shape, " << nouns << "-format and " << nouns << "-dtype";
  }
  for (const auto& named_format : texts.formats.values) {
    AddEntry(named_format.first, texts, reporter, table);
  }
  MarkUnusable(texts.formats.malformed);
  if (table.entries.empty() && IsComplete()) {
    reporter.About(nouns + "-format").Report(FATAL, {"empty", "name one"})
        << "there are no " << nouns << " exist.";
  }
  reporter.Report(INFO, {"", ""})
      << "reading options of " << nouns << " successfully.";
}

void ModelInfo::ReadCacheOptions(const ModelOptions& options,
                                 const Reporter& reporter) {
  Pairs pairs;
  if (!options.caches_pair.empty()) {
    pairs = ParsePairs(options.caches_pair, reporter.About("caches-pair"));
  }
  const Texts texts("caches", options.caches_format, options.caches_shape,
                    options.caches_dtype, /*may_be_empty=*/true, reporter);
  if (!texts.AgreeWith(pairs)) {
    reporter.About("caches-pair")
            .Report(FATAL, {"entry-count",
                            "name every cache's input side in all four"})
        << "the number of caches are different in caches-pair, "
        << "caches-format, caches-shape and caches-dtype";
  }
  for (const auto& pair : pairs.values) {
    AddCache(pair.first, pair.second, texts, reporter);
  }
  MarkUnusable(pairs.malformed);
  reporter.Report(INFO, {"", ""}) << "reading options of caches successfully.";
}

void ModelInfo::AddCache(const std::string& output, const std::string& input,
                         const Texts& texts, const Reporter& reporter) {
  const Reporter pair_reporter = reporter.About("caches-pair");
  if (HasInput(input)) {
    pair_reporter.Report(
        FATAL, {"cache-is-input", "take " + input + " out of the inputs"})
        << "the input part of cache is one of model's inputs, "
        << "it's name should be different with other inputs";
    return;
  }
  if (HasOutput(output)) {
    pair_reporter.Report(
        FATAL, {"cache-is-output", "take " + output + " out of the outputs"})
        << "the output part of cache is one of model's outputs, "
        << "it's name should be different with other outputs";
    return;
  }
  if (!AddEntry(input, texts, reporter, caches_)) {
    MarkUnusable({output});
    return;
  }
  cache_outputs_.push_back(output);
  cache_pairs_[output] = input;
}

// Adds what the texts say of `name`. Returns false, with nothing added, when
// that is inconsistent.
bool ModelInfo::AddEntry(const std::string& name, const Texts& texts,
                         const Reporter& reporter, Table& table) {
  const std::string group = std::string(table.noun) + "s-";
  bool complete = true;
  const auto check = [&](const auto& entries, const char* what,
                         const char* option) {
    if (entries.values.count(name) > 0) return;
    complete = false;
    if (!entries.Lacks(name)) return;
    reporter.About(group + option)
            .Report(FATAL,
                    {"entry-missing", "add " + name + " to " + group + option})
        << "missing " << what << " of " << table.noun << ":" << name;
  };
  check(texts.formats, "format", "format");
  check(texts.shapes, "shape", "shape");
  check(texts.types, "data type", "dtype");
  if (complete && texts.formats.values.at(name).size() !=
                      texts.shapes.values.at(name).size()) {
    complete = false;
    reporter.About(group + "shape")
            .Report(FATAL, {"format-and-shape",
                            "give as many sizes as the format has names"})
        << "the format and shape of " << table.noun << ":" << name
        << " are mismatched.";
  }
  if (!complete) {
    MarkUnusable({name});
    return false;
  }
  table.indices[name] = table.Size();
  table.entries.push_back({name, texts.formats.values.at(name),
                           texts.shapes.values.at(name),
                           texts.types.values.at(name)});
  return true;
}

void ModelInfo::NumberSlots() {
  for (Table* table : {&inputs_, &outputs_, &caches_}) {
    for (TensorInfo& entry : table->entries) entry.slot = slot_num_++;
  }
}

void ModelInfo::MarkUnusable(const std::set<std::string>& names) {
  unusable_.insert(names.begin(), names.end());
}

void ModelInfo::ReadDimensionOptions(const ModelOptions& options,
                                     const Reporter& reporter) {
  Ranges ranges;
  if (!options.dynamic_dims.empty()) {
    ranges = ParseRanges(options.dynamic_dims, reporter.About("dynamic-dims"));
  }
  ranges_ = ranges.values;
  const char* difference = "different size found for dimension:";
  for (const Table* table : {&inputs_, &outputs_, &caches_}) {
    ReadDimensions(*table, difference, ranges, reporter);
    difference = "different size found for dimension: ";
  }
  has_batch_dimension_ = HasDimension(batch_dim_);
  if (!batch_dim_.empty()) CheckBatchDimension(reporter.About("batch-dim"));
  reporter.Report(INFO, {"", ""})
      << "reading options of dimensions successfully.";
}

void ModelInfo::ReadDimensions(const Table& table, const char* difference,
                               const Ranges& ranges, const Reporter& reporter) {
  const std::string shape_option = std::string(table.noun) + "s-shape";
  for (const TensorInfo& entry : table.entries) {
    for (size_t i = 0; i < entry.format.size(); ++i) {
      const std::string& name = entry.format[i];
      const int size = entry.shape[i];
      const auto dimension = dimensions_.emplace(name, size);
      const int first_size = dimension.first->second;
      if (first_size != size) {
        reporter.About(shape_option)
                .Report(FATAL, {"dimension-size",
                                name + " is " + std::to_string(size) + " in " +
                                    entry.name + " and was " +
                                    std::to_string(first_size) +
                                    " before: give one size, or another name"})
            << difference << name;
      }
      // Told once for each dimension.
      const bool is_new = dimension.second || first_size != size;
      if (size == -1 && is_new && ranges.Lacks(name)) {
        reporter.About("dynamic-dims")
                .Report(FATAL, {"range-missing",
                                "add " + name + ":<min>-<max> to dynamic-dims"})
            << "missing range of dimension:" << name;
      }
    }
  }
}

void ModelInfo::CheckBatchDimension(const Reporter& reporter) const {
  if (!HasBatchDimension()) {
    if (!IsComplete()) return;
    reporter.Report(FATAL,
                    {"batch-unknown", "use a name that the formats have"})
        << "can't find batch dimension with name:" << batch_dim_;
    return;
  }
  for (const Table* table : {&inputs_, &outputs_, &caches_}) {
    for (const TensorInfo& entry : table->entries) {
      if (entry.format[0] == batch_dim_) continue;
      reporter.Report(FATAL, {"batch-first",
                              "the network must have its batch first; "
                              "tarn-prepare can arrange that"})
          << "the first dimension must be " << batch_dim_ << ", but got "
          << entry.format[0] << " at " << table->noun << ":" << entry.name;
    }
  }
}

bool ModelInfo::IsUsable(const std::string& name) const {
  return unusable_.count(name) == 0 && unusable_.count("") == 0;
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

const TensorInfo* ModelInfo::FindInput(const std::string& name) const {
  return inputs_.Find(name);
}

const TensorInfo* ModelInfo::FindOutput(const std::string& name) const {
  return outputs_.Find(name);
}

const TensorInfo* ModelInfo::FindCache(const std::string& name) const {
  const TensorInfo* by_input_side = caches_.Find(name);
  if (by_input_side != nullptr) return by_input_side;
  const auto pair = cache_pairs_.find(name);
  return pair == cache_pairs_.end() ? nullptr : caches_.Find(pair->second);
}

const TensorInfo& ModelInfo::InputAt(const std::string& name,
                                     const char* function) const {
  return inputs_.At(name, function);
}

const TensorInfo& ModelInfo::OutputAt(const std::string& name,
                                      const char* function) const {
  return outputs_.At(name, function);
}

const TensorInfo& ModelInfo::CacheAt(const std::string& name,
                                     const char* function) const {
  return caches_.At(GetCacheName(name), function);
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

bool ModelInfo::CheckEntry(const TensorInfo& entry,
                           const std::vector<int>& shape,
                           Tensor::DataType data_type) const {
  return data_type == entry.data_type &&
         CheckShape(shape, entry.shape, entry.format);
}

std::vector<int> ModelInfo::Bounded(const TensorInfo& tensor, bool max) const {
  std::vector<int> shape = tensor.shape;
  for (size_t i = 0; i < shape.size(); ++i) {
    if (shape[i] != -1) continue;
    const std::pair<int, int> range = GetDimensionRange(tensor.format[i]);
    shape[i] = max ? range.second : range.first;
  }
  return shape;
}

unsigned int ModelInfo::Table::Size() const {
  return static_cast<unsigned int>(entries.size());
}

const TensorInfo& ModelInfo::Table::At(unsigned int index,
                                       const char* function) const {
  if (index >= Size()) {
    TARN_LOG_AS(FATAL, function)
        << "index is beyond the number of " << noun << "s.";
  }
  return entries.at(index);
}

const TensorInfo* ModelInfo::Table::Find(const std::string& name) const {
  const auto found = indices.find(name);
  return found == indices.end() ? nullptr : &entries[found->second];
}

const TensorInfo& ModelInfo::Table::At(const std::string& name,
                                       const char* function) const {
  const TensorInfo* found = Find(name);
  if (found != nullptr) return *found;
  TARN_LOG_AS(FATAL, function) << name << " is't " << one_noun << " of model.";
  // Throws; reached only when the log level silences fatal checks.
  return entries[indices.at(name)];
}

}  // namespace tarn
