#include "mace/public/mace.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <mutex>
#include <set>
#include <sstream>
#include <thread>
#include <utility>

#include "control.h"

namespace mace {

namespace {

using Tensors = std::map<std::string, MaceTensor>;
using Words = std::vector<std::string>;

std::mutex calls_mutex;
std::vector<std::string> calls;  // Guarded by calls_mutex.
std::atomic<bool> calls_fail{false};
std::atomic<int> live_engines{0};

template <typename First, typename... Rest>
MaceStatus Record(const char* function, First first, const Rest&... rest) {
  std::ostringstream call;
  call << function << "(" << first;
  ((call << ", " << rest), ...);
  const std::lock_guard<std::mutex> lock(calls_mutex);
  calls.push_back(call.str() + ")");
  if (calls_fail) return MaceStatus::MACE_RUNTIME_ERROR;
  return {};
}

MaceStatus Invalid(const std::string& message) {
  return {MaceStatus::MACE_INVALID_ARGS, message};
}

// A named tensor of a graph, with its present contents.
struct Block {
  float& operator[](size_t i) {
    if ((i + 1) * sizeof(float) > bytes.size()) std::abort();
    return reinterpret_cast<float*>(bytes.data())[i];
  }
  size_t Rows() const { return static_cast<size_t>(shape.at(0)); }
  size_t Columns() const { return static_cast<size_t>(shape.at(1)); }

  std::string role;  // "input", "output" or "weight".
  IDataType type;
  size_t offset;  // Of a weight, in bytes.
  std::vector<int64_t> shape;
  std::vector<char> bytes;
};

Block MakeBlock(const Words& words) {
  const int number = std::stoi(words.at(2));
  Block block = {words[0], IDT_FLOAT, 0, {}, {}};
  if (block.role == "weight") {
    block.offset = static_cast<size_t>(number) * sizeof(float);
  } else {
    block.type = static_cast<IDataType>(number);
  }
  const bool is_byte = block.type == IDT_UINT8 || block.type == IDT_INT8;
  const bool is_word = block.type == IDT_FLOAT || block.type == IDT_INT32;
  size_t size = is_byte ? 1 : is_word ? 4 : 2;
  for (size_t i = 3; i < words.size(); ++i) {
    block.shape.push_back(std::stoi(words[i]));
    size *= static_cast<size_t>(block.shape.back());
  }
  block.bytes.resize(size);
  return block;
}

}  // namespace

// Reads the statements of a graph and interprets them in every run.
class MaceEngine::Impl {
 public:
  Impl() { ++live_engines; }
  ~Impl() {
    ReadWeights();  // They must outlive the engine.
    --live_engines;
  }

  MaceStatus Load(const std::string& graph, const unsigned char* weights,
                  size_t weights_size) {
    std::istringstream lines(graph);
    for (std::string line; std::getline(lines, line);) {
      std::istringstream words(line);
      if (!Read(Words(std::istream_iterator<std::string>(words), {}))) {
        return Invalid("bad statement: " + line);
      }
    }
    for (const auto& [name, block] : blocks_) {
      if (block.role == "weight" &&
          block.offset + block.bytes.size() > weights_size) {
        return Invalid("too few weights for " + name);
      }
    }
    weights_ = weights;
    return static_cast<MaceStatus::Code>(numbers_["fail-create"]);
  }

  bool HasNames(const Words& names, const std::string& role) const {
    std::set<std::string> own;
    for (const auto& [name, block] : blocks_) {
      if (block.role == role) own.insert(name);
    }
    return own == std::set<std::string>(names.begin(), names.end());
  }

  MaceStatus Run(const Tensors& inputs, const Tensors& outputs) {
    if (running_.exchange(true)) return Invalid("two runs at once");
    MaceStatus status = Check(inputs, "input");
    if (status == MaceStatus::MACE_SUCCESS) status = Check(outputs, "output");
    if (status == MaceStatus::MACE_SUCCESS) status = Compute(inputs, outputs);
    running_ = false;
    return status;
  }

 private:
  bool Read(const Words& words) {
    static const std::map<std::string, size_t> kWordNums = {{"copy", 3},
                                                            {"accumulate", 3},
                                                            {"add", 4},
                                                            {"scale", 4},
                                                            {"matmul", 4}};
    if (words.size() < 2) return false;
    const auto word_num = kWordNums.find(words[0]);
    if (word_num != kWordNums.end()) {
      steps_.push_back(words);
      return words.size() == word_num->second;
    }
    if (words.size() == 2) {
      numbers_[words[0]] = std::stoi(words[1]);
      return true;
    }
    return blocks_.emplace(words[1], MakeBlock(words)).second;
  }

  MaceStatus Check(const Tensors& tensors, const std::string& role) const {
    Words names;
    for (const auto& tensor : tensors) names.push_back(tensor.first);
    if (!HasNames(names, role)) return Invalid("wrong names");
    for (const auto& [name, tensor] : tensors) {
      if (tensor.data() == nullptr) std::abort();
      const Block& block = blocks_.at(name);
      if (tensor.shape() != block.shape || tensor.data_type() != block.type ||
          tensor.data_format() != DataFormat::NONE ||
          tensor.memory_type() != CPU_BUFFER) {
        return Invalid("wrong tensor: " + name);
      }
    }
    return {};
  }

  MaceStatus Compute(const Tensors& inputs, const Tensors& outputs) {
    for (const auto& [name, tensor] : inputs) {
      std::vector<char>& bytes = blocks_.at(name).bytes;
      std::memcpy(bytes.data(), tensor.data<char>().get(), bytes.size());
    }
    ReadWeights();
    for (int i = 0; i < numbers_["slow"]; ++i) std::this_thread::yield();
    for (const Words& step : steps_) Do(step);
    for (const auto& [name, tensor] : outputs) {
      const std::vector<char>& bytes = blocks_.at(name).bytes;
      std::memcpy(tensor.data<char>().get(), bytes.data(), bytes.size());
    }
    // A run that fails may have written some outputs: this one wrote all.
    if (++runs_ != numbers_["fail-run"]) return {};
    return {MaceStatus::MACE_RUNTIME_ERROR, "broken"};
  }

  void ReadWeights() {
    for (auto& [name, block] : blocks_) {
      if (block.role != "weight" || weights_ == nullptr) continue;
      std::memcpy(block.bytes.data(), weights_ + block.offset,
                  block.bytes.size());
    }
  }

  void Do(const Words& step) {
    Block& to = blocks_.at(step[1]);
    Block& a = blocks_.at(step[2]);
    if (step[0] == "copy") {
      if (to.bytes.size() != a.bytes.size()) std::abort();
      to.bytes = a.bytes;
      return;
    }
    const size_t count = to.bytes.size() / sizeof(float);
    for (size_t i = 0; i < count; ++i) {
      if (step[0] == "accumulate") to[i] += a[i];
      if (step[0] == "scale") to[i] = a[i] * std::stof(step[3]);
      if (step[0] == "add") to[i] = a[i] + blocks_.at(step[3])[i];
      if (step[0] == "matmul") to[i] = Product(a, blocks_.at(step[3]), i);
    }
  }

  // Element `i` of the product of two matrices.
  static float Product(Block& a, Block& b, size_t i) {
    float sum = 0;
    for (size_t k = 0; k < b.Rows(); ++k) {
      sum += a[i / b.Columns() * b.Rows() + k] *
             b[k * b.Columns() + i % b.Columns()];
    }
    return sum;
  }

  std::map<std::string, Block> blocks_;
  std::vector<Words> steps_;
  std::map<std::string, int> numbers_;      // Of statements with nothing else.
  const unsigned char* weights_ = nullptr;  // Not owned.
  int runs_ = 0;
  std::atomic<bool> running_{false};
};

std::string MaceStatus::information() const {
  static const char* const kTexts[] = {"Success", "Invalid Arguments",
                                       "Out of resources", "Unsupported",
                                       "Runtime error"};
  const std::string text = kTexts[code_];
  return message_.empty() ? text : text + ": " + message_;
}

MaceTensor::MaceTensor(const std::vector<int64_t>& shape,
                       std::shared_ptr<void> data, DataFormat format,
                       IDataType data_type, MemoryType memory_type)
    : shape_(shape),
      data_(std::move(data)),
      format_(format),
      data_type_(data_type),
      memory_type_(memory_type) {
  if (data_ == nullptr || data_type <= IDT_INVALID || data_type >= IDT_END) {
    std::abort();
  }
}

void MaceEngineConfig::SetRuntimeType(RuntimeType type, const char* graph) {
  Record(__func__, type, graph);
}

MaceStatus MaceEngineConfig::SetCPUThreadPolicy(int thread_num,
                                                CPUAffinityPolicy policy) {
  return Record(__func__, thread_num, policy);
}

MaceStatus MaceEngineConfig::SetQnnPerformance(
    HexagonPerformanceType performance) {
  return Record(__func__, performance);
}

MaceStatus MaceEngineConfig::SetAcceleratorCache(
    AcceleratorCachePolicy policy, const std::string& binary_file,
    const std::string& storage_file) {
  return Record(__func__, policy, binary_file, storage_file);
}

MaceEngine::MaceEngine(const MaceEngineConfig& /*config*/)
    : impl_(std::make_unique<Impl>()) {}

MaceEngine::~MaceEngine() = default;

MaceStatus MaceEngine::Run(const Tensors& inputs, Tensors* outputs) {
  return impl_->Run(inputs, *outputs);
}

MaceStatus CreateMaceEngineFromProto(
    const unsigned char* graph, size_t graph_size, const unsigned char* weights,
    size_t weights_size, const Words& inputs, const Words& outputs,
    const MaceEngineConfig& config, std::shared_ptr<MaceEngine>* engine,
    bool* /*weights_unused*/, MaceEngine* /*tutor*/, bool /*fake_warmup*/) {
  if (graph == nullptr) std::abort();
  *engine = std::make_shared<MaceEngine>(config);  // Before anything fails.
  MaceEngine::Impl& impl = *(*engine)->impl();
  MaceStatus status =
      impl.Load(std::string(graph, graph + graph_size), weights, weights_size);
  if (status != MaceStatus::MACE_SUCCESS) return status;
  if (impl.HasNames(inputs, "input") && impl.HasNames(outputs, "output")) {
    return {};
  }
  return Invalid("wrong names");
}

std::vector<std::string> control::TakeCalls() {
  const std::lock_guard<std::mutex> lock(calls_mutex);
  return std::exchange(calls, {});
}

void control::FailCalls(bool fail) { calls_fail = fail; }

int control::LiveEngines() { return live_engines; }

}  // namespace mace
