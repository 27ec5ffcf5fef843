#include "mace/public/mace.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <set>
#include <sstream>
#include <thread>
#include <utility>

#include "control.h"

namespace mace {

namespace {

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

size_t ElementSize(IDataType type) {
  if (type == IDT_FLOAT || type == IDT_INT32) return 4;
  return type == IDT_UINT8 || type == IDT_INT8 ? 1 : 2;
}

// A named tensor of a graph, with its present contents.
struct Block {
  enum Role { INPUT, OUTPUT, WEIGHT };

  bool IsMatrix() const { return shape.size() == 2; }
  float* Floats() { return reinterpret_cast<float*>(bytes.data()); }

  Role role = INPUT;
  IDataType type = IDT_FLOAT;
  size_t offset = 0;  // Of a weight, in bytes.
  std::vector<int64_t> shape;
  std::vector<char> bytes;
};

struct Step {
  std::string operation;
  std::vector<Block*> operands;  // The result first.
  float factor = 1;
};

using Tensors = std::map<std::string, MaceTensor>;

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
      std::string statement;
      words >> statement;
      if (!Read(statement, words)) return Invalid("bad statement: " + line);
    }
    for (const auto& [name, block] : blocks_) {
      if (block.role == Block::WEIGHT &&
          block.offset + block.bytes.size() > weights_size) {
        return Invalid("too few weights for " + name);
      }
    }
    weights_ = weights;
    return create_status_;
  }

  bool HasNames(const std::vector<std::string>& names, Block::Role role) const {
    std::set<std::string> own;
    for (const auto& [name, block] : blocks_) {
      if (block.role == role) own.insert(name);
    }
    return own == std::set<std::string>(names.begin(), names.end());
  }

  MaceStatus Run(const Tensors& inputs, const Tensors& outputs) {
    if (running_.exchange(true)) {
      return {MaceStatus::MACE_RUNTIME_ERROR, "two runs at once"};
    }
    const MaceStatus status = RunAlone(inputs, outputs);
    running_ = false;
    return status;
  }

 private:
  bool Read(const std::string& statement, std::istringstream& words) {
    if (statement == "input") return ReadBlock(Block::INPUT, words);
    if (statement == "output") return ReadBlock(Block::OUTPUT, words);
    if (statement == "weight") return ReadBlock(Block::WEIGHT, words);
    if (statement == "slow") return static_cast<bool>(words >> yields_);
    if (statement == "fail-create") return ReadStatus(words, create_status_);
    if (statement == "fail-run") {
      return words >> failing_run_ && ReadStatus(words, run_status_);
    }
    return ReadStep(statement, words);
  }

  bool ReadBlock(Block::Role role, std::istringstream& words) {
    Block block;
    std::string name;
    int number = 0;
    words >> name >> number;
    block.role = role;
    if (role == Block::WEIGHT) {
      block.offset = static_cast<size_t>(number) * sizeof(float);
    } else {
      block.type = static_cast<IDataType>(number);
    }
    size_t size = ElementSize(block.type);
    for (int64_t dimension = 0; words >> dimension;) {
      block.shape.push_back(dimension);
      size *= static_cast<size_t>(dimension);
    }
    block.bytes.resize(size);
    return words.eof() && blocks_.emplace(name, block).second;
  }

  static bool ReadStatus(std::istringstream& words, MaceStatus& status) {
    int code = 0;
    std::string text;
    if (!(words >> code >> text)) return false;
    status = MaceStatus(static_cast<MaceStatus::Code>(code), text);
    return true;
  }

  bool ReadStep(const std::string& operation, std::istringstream& words) {
    static const std::map<std::string, size_t> kOperandNums = {
        {"copy", 2}, {"add", 3}, {"scale", 2}, {"matmul", 3}};
    const auto operand_num = kOperandNums.find(operation);
    if (operand_num == kOperandNums.end()) return false;
    Step step = {operation, {}};
    for (size_t i = 0; i < operand_num->second; ++i) {
      std::string name;
      words >> name;
      const auto block = blocks_.find(name);
      if (block == blocks_.end()) return false;
      step.operands.push_back(&block->second);
    }
    if (operation == "scale" && !(words >> step.factor)) return false;
    steps_.push_back(step);
    return HaveMatchingSizes(step);
  }

  static bool HaveMatchingSizes(const Step& step) {
    const Block& to = *step.operands[0];
    const Block& a = *step.operands[1];
    const Block& b = *step.operands.back();
    if (step.operation != "matmul") {
      return to.bytes.size() == a.bytes.size() &&
             to.bytes.size() == b.bytes.size();
    }
    return to.IsMatrix() && a.IsMatrix() && b.IsMatrix() &&
           to.shape[0] == a.shape[0] && to.shape[1] == b.shape[1] &&
           a.shape[1] == b.shape[0];
  }

  MaceStatus RunAlone(const Tensors& inputs, const Tensors& outputs) {
    MaceStatus status = Check(inputs, Block::INPUT);
    if (status == MaceStatus::MACE_SUCCESS) {
      status = Check(outputs, Block::OUTPUT);
    }
    if (status != MaceStatus::MACE_SUCCESS) return status;
    for (const auto& [name, tensor] : inputs) {
      std::vector<char>& bytes = blocks_.at(name).bytes;
      std::memcpy(bytes.data(), tensor.data<char>().get(), bytes.size());
    }
    ReadWeights();
    for (int i = 0; i < yields_; ++i) std::this_thread::yield();
    for (const Step& step : steps_) Do(step);
    for (const auto& [name, tensor] : outputs) {
      const std::vector<char>& bytes = blocks_.at(name).bytes;
      std::memcpy(tensor.data<char>().get(), bytes.data(), bytes.size());
    }
    // A run that fails may have written some outputs: this one wrote all.
    return ++runs_ == failing_run_ ? run_status_ : MaceStatus();
  }

  MaceStatus Check(const Tensors& tensors, Block::Role role) const {
    std::vector<std::string> names;
    for (const auto& tensor : tensors) names.push_back(tensor.first);
    if (!HasNames(names, role)) return Invalid("wrong names");
    for (const auto& [name, tensor] : tensors) {
      const Block& block = blocks_.at(name);
      if (tensor.shape() != block.shape || tensor.data_type() != block.type ||
          tensor.data_format() != DataFormat::NONE ||
          tensor.memory_type() != CPU_BUFFER) {
        return Invalid("wrong tensor: " + name);
      }
    }
    return {};
  }

  void ReadWeights() {
    if (weights_ == nullptr) return;
    for (auto& [name, block] : blocks_) {
      if (block.role != Block::WEIGHT) continue;
      std::memcpy(block.bytes.data(), weights_ + block.offset,
                  block.bytes.size());
    }
  }

  static void Do(const Step& step) {
    Block& to = *step.operands[0];
    Block& a = *step.operands[1];
    Block& b = *step.operands.back();
    if (step.operation == "copy") to.bytes = a.bytes;
    if (step.operation == "matmul") MultiplyMatrices(a, b, to);
    for (size_t i = 0; i < to.bytes.size() / sizeof(float); ++i) {
      float& result = to.Floats()[i];
      if (step.operation == "add") result = a.Floats()[i] + b.Floats()[i];
      if (step.operation == "scale") result = a.Floats()[i] * step.factor;
    }
  }

  static void MultiplyMatrices(Block& a, Block& b, Block& to) {
    const auto inner = static_cast<size_t>(b.shape[0]);
    const auto columns = static_cast<size_t>(b.shape[1]);
    for (size_t i = 0; i < to.bytes.size() / sizeof(float); ++i) {
      float sum = 0;
      for (size_t k = 0; k < inner; ++k) {
        sum += a.Floats()[i / columns * inner + k] *
               b.Floats()[k * columns + i % columns];
      }
      to.Floats()[i] = sum;
    }
  }

  std::map<std::string, Block> blocks_;
  std::vector<Step> steps_;
  const unsigned char* weights_ = nullptr;  // Not owned.
  int yields_ = 0;
  int runs_ = 0;
  int failing_run_ = 0;
  MaceStatus create_status_;
  MaceStatus run_status_;
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
    size_t weights_size, const std::vector<std::string>& inputs,
    const std::vector<std::string>& outputs, const MaceEngineConfig& config,
    std::shared_ptr<MaceEngine>* engine, bool* /*weights_unused*/,
    MaceEngine* /*tutor*/, bool /*fake_warmup*/) {
  if (graph == nullptr) std::abort();
  *engine = std::make_shared<MaceEngine>(config);  // Before anything fails.
  MaceEngine::Impl& impl = *(*engine)->impl();
  const MaceStatus status =
      impl.Load(std::string(graph, graph + graph_size), weights, weights_size);
  if (status != MaceStatus::MACE_SUCCESS) return status;
  if (!impl.HasNames(inputs, Block::INPUT) ||
      !impl.HasNames(outputs, Block::OUTPUT)) {
    return Invalid("wrong names");
  }
  return {};
}

std::vector<std::string> control::TakeCalls() {
  const std::lock_guard<std::mutex> lock(calls_mutex);
  return std::exchange(calls, {});
}

void control::FailCalls(bool fail) { calls_fail = fail; }

int control::LiveEngines() { return live_engines; }

}  // namespace mace
