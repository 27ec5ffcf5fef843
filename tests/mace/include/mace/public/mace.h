// A stand-in for the MACE engine, for tests: what the backend uses of the
// engine's interface, under the same names and with the same numbers.

#ifndef MACE_PUBLIC_MACE_H_
#define MACE_PUBLIC_MACE_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#define MACE_API __attribute__((visibility("default")))

namespace mace {

enum RuntimeType { RT_CPU = 0, RT_HTP = 6 };
enum class DataFormat { NONE = 0, NHWC = 1, NCHW = 2, OIHW = 101 };
enum MemoryType { CPU_BUFFER = 0, GPU_BUFFER = 1 };
enum CPUAffinityPolicy { AFFINITY_NONE = 0, AFFINITY_BIG_ONLY = 1 };
enum AcceleratorCachePolicy {
  ACCELERATOR_CACHE_STORE = 1,
  ACCELERATOR_CACHE_LOAD = 2
};
enum HexagonPerformanceType { HEXAGON_BURST = 0, HEXAGON_BALANCED = 3 };
enum IDataType {
  IDT_INVALID = 0,
  IDT_FLOAT = 1,
  IDT_UINT8 = 2,
  IDT_HALF = 3,
  IDT_INT32 = 4,
  IDT_FLOAT16 = 5,
  IDT_BFLOAT16 = 6,
  IDT_INT16 = 7,
  IDT_INT8 = 8,
  IDT_END
};

class MACE_API MaceStatus {
 public:
  enum Code {
    MACE_SUCCESS = 0,
    MACE_INVALID_ARGS = 1,
    MACE_OUT_OF_RESOURCES = 2,
    MACE_UNSUPPORTED = 3,
    MACE_RUNTIME_ERROR = 4
  };

  MaceStatus() = default;
  MaceStatus(Code code,  // NOLINT(google-explicit-constructor)
             const std::string& message = "")
      : code_(code), message_(message) {}

  Code code() const { return code_; }
  // The code's text, and the message if there is one.
  std::string information() const;

  // Compare nothing but the codes.
  bool operator==(const MaceStatus& other) const {
    return code_ == other.code_;
  }
  bool operator!=(const MaceStatus& other) const {
    return code_ != other.code_;
  }

 private:
  Code code_ = MACE_SUCCESS;
  std::string message_;
};

// Copies share the data. The real one cannot be moved from either.
class MACE_API MaceTensor {
 public:
  MaceTensor() = default;
  // Aborts on null data, and on a type or format that tensors don't have.
  MaceTensor(const std::vector<int64_t>& shape, std::shared_ptr<void> data,
             DataFormat format = DataFormat::NHWC,
             IDataType data_type = IDT_FLOAT,
             MemoryType memory_type = CPU_BUFFER);
  MaceTensor(const MaceTensor& other) = default;
  MaceTensor& operator=(const MaceTensor& other) = default;

  const std::vector<int64_t>& shape() const { return shape_; }
  std::shared_ptr<float> data() const { return data<float>(); }
  template <typename T>
  std::shared_ptr<T> data() const {
    return std::static_pointer_cast<T>(data_);
  }
  DataFormat data_format() const { return format_; }
  IDataType data_type() const { return data_type_; }
  MemoryType memory_type() const { return memory_type_; }

 private:
  std::vector<int64_t> shape_;
  std::shared_ptr<void> data_;
  DataFormat format_ = DataFormat::NONE;
  IDataType data_type_ = IDT_INVALID;
  MemoryType memory_type_ = CPU_BUFFER;
};

class MACE_API MaceEngineConfig {
 public:
  MaceEngineConfig() = default;
  MaceEngineConfig(const MaceEngineConfig&) = delete;
  MaceEngineConfig& operator=(const MaceEngineConfig&) = delete;

  void SetRuntimeType(RuntimeType type, const char* graph = "default_graph");
  MaceStatus SetCPUThreadPolicy(int thread_num, CPUAffinityPolicy policy);
  MaceStatus SetQnnPerformance(HexagonPerformanceType performance);
  MaceStatus SetAcceleratorCache(AcceleratorCachePolicy policy,
                                 const std::string& binary_file,
                                 const std::string& storage_file);
};

class MACE_API MaceEngine {
 public:
  class Impl;

  explicit MaceEngine(const MaceEngineConfig& config);
  MaceEngine(const MaceEngine&) = delete;
  MaceEngine& operator=(const MaceEngine&) = delete;
  ~MaceEngine();

  MaceStatus Run(const std::map<std::string, MaceTensor>& inputs,
                 std::map<std::string, MaceTensor>* outputs);
  Impl* impl() { return impl_.get(); }

 private:
  std::unique_ptr<Impl> impl_;
};

MACE_API MaceStatus CreateMaceEngineFromProto(
    const unsigned char* graph, size_t graph_size, const unsigned char* weights,
    size_t weights_size, const std::vector<std::string>& inputs,
    const std::vector<std::string>& outputs, const MaceEngineConfig& config,
    std::shared_ptr<MaceEngine>* engine, bool* weights_unused = nullptr,
    MaceEngine* tutor = nullptr, bool fake_warmup = false);

}  // namespace mace

#endif  // MACE_PUBLIC_MACE_H_
