#include "network.h"

#include <array>

#include <onnxruntime_cxx_api.h>

#include "command.h"

namespace tarn::tool {

namespace {

struct ElementType {
  const char* name;
  std::optional<Tensor::DataType> data_type;
};

// By ONNX' numbers.
const std::array<ElementType, 23> kElementTypes = {{
    {"undefined", {}},
    {"float32", Tensor::FLOAT32},
    {"uint8", Tensor::INT8},
    {"int8", Tensor::INT8},
    {"uint16", Tensor::INT16},
    {"int16", Tensor::INT16},
    {"int32", Tensor::INT32},
    {"int64", Tensor::INT64},
    {"string", {}},
    {"bool", {}},
    {"float16", Tensor::FLOAT16},
    {"float64", Tensor::FLOAT64},
    {"uint32", Tensor::INT32},
    {"uint64", Tensor::INT64},
    {"complex64", {}},
    {"complex128", {}},
    {"bfloat16", {}},
    {"float8e4m3fn", {}},
    {"float8e4m3fnuz", {}},
    {"float8e5m2", {}},
    {"float8e5m2fnuz", {}},
    {"uint4", {}},
    {"int4", {}},
}};

ElementType ElementTypeOf(ONNXTensorElementDataType type) {
  const auto index = static_cast<size_t>(type);
  return index < kElementTypes.size() ? kElementTypes.at(index)
                                      : ElementType{"unknown", {}};
}

std::string KindOf(ONNXType type) {
  static const std::array<const char*, 7> kKinds = {
      "unknown", "tensor",        "sequence", "map",
      "opaque",  "sparse tensor", "optional"};
  const auto index = static_cast<size_t>(type);
  return index < kKinds.size() ? kKinds.at(index) : "unknown";
}

std::vector<Dimension> DimensionsOf(const Ort::TypeInfo& type) {
  const auto info = type.GetTensorTypeAndShapeInfo();
  const std::vector<int64_t> shape = info.GetShape();
  std::vector<const char*> names(shape.size());
  info.GetSymbolicDimensions(names.data(), names.size());
  std::vector<Dimension> dimensions;
  for (size_t i = 0; i < shape.size(); ++i) {
    dimensions.push_back({static_cast<int>(shape[i]), names[i]});
  }
  return dimensions;
}

bool IsLegalKey(const std::string& name) {
  return name.find_first_of(":;# \t\r\n") == std::string::npos;
}

// Why no description can hold the tensor; `is_shapeless`: the network is silent
// on its shape.
std::string ObstacleOf(const Port& port, bool is_shapeless) {
  if (!IsLegalKey(port.name)) {
    return "its name holds one of : ; # or a blank, which descriptions keep "
           "for themselves";
  }
  if (!port.data_type) {
    return "its elements are of type " + port.type +
           ", for which the library has none";
  }
  if (port.dimensions.empty()) {
    return is_shapeless ? "the network does not tell its rank"
                        : "it is a scalar, and no shape of zero dimensions "
                          "can be written";
  }
  for (const Dimension& dimension : port.dimensions) {
    if (dimension.size == 0) return "one of its dimensions has size 0";
  }
  return "";
}

Port MakePort(const std::string& name, const Ort::TypeInfo& type,
              const ModelFile& file) {
  Port port;
  port.name = name;
  if (type.GetONNXType() != ONNX_TYPE_TENSOR) {
    port.type = KindOf(type.GetONNXType());
    port.obstacle = "it is of type " + port.type + ", not a tensor";
    return port;
  }
  const ElementType element =
      ElementTypeOf(type.GetTensorTypeAndShapeInfo().GetElementType());
  port.type = element.name;
  port.data_type = element.data_type;
  port.dimensions = DimensionsOf(type);
  port.obstacle = ObstacleOf(port, file.shapeless.count(name) > 0);
  return port;
}

void ReadPorts(const Ort::Session& session, Network& network) {
  Ort::AllocatorWithDefaultOptions allocator;
  for (size_t i = 0; i < session.GetInputCount(); ++i) {
    network.inputs.push_back(
        MakePort(session.GetInputNameAllocated(i, allocator).get(),
                 session.GetInputTypeInfo(i), network.file));
  }
  for (size_t i = 0; i < session.GetOutputCount(); ++i) {
    network.outputs.push_back(
        MakePort(session.GetOutputNameAllocated(i, allocator).get(),
                 session.GetOutputTypeInfo(i), network.file));
  }
}

void ReadMetadata(const Ort::Session& session, Network& network) {
  Ort::AllocatorWithDefaultOptions allocator;
  const Ort::ModelMetadata metadata = session.GetModelMetadata();
  network.graph_name = metadata.GetGraphNameAllocated(allocator).get();
  network.description = metadata.GetDescriptionAllocated(allocator).get();
  for (const auto& key :
       metadata.GetCustomMetadataMapKeysAllocated(allocator)) {
    network.metadata[key.get()] =
        metadata.LookupCustomMetadataMapAllocated(key.get(), allocator).get();
  }
}

}  // namespace

Network ReadNetwork(const std::string& path) {
  Network network;
  network.path = path;
  try {
    const Ort::Env env(ORT_LOGGING_LEVEL_FATAL, "network");
    Ort::SessionOptions options;
    options.SetGraphOptimizationLevel(ORT_ENABLE_EXTENDED);
    const Ort::Session session(env, path.c_str(), options);
    network.file = ReadModelFile(path);
    ReadPorts(session, network);
    ReadMetadata(session, network);
  } catch (const Ort::Exception& exception) {
    throw Failure("can't load " + path + ": " + exception.what());
  }
  return network;
}

std::string LegalName(std::string name) {
  static const std::string kIllegal = ",:;[]# \t\r\n";
  for (char& c : name) {
    if (kIllegal.find(c) != std::string::npos) c = '_';
  }
  return name;
}

std::string ShapeText(const Port& port) {
  std::string text;
  for (const Dimension& dimension : port.dimensions) {
    if (!text.empty()) text += ", ";
    if (dimension.size >= 0) {
      text += std::to_string(dimension.size);
    } else {
      text += dimension.name.empty() ? "?" : dimension.name;
    }
  }
  return "[" + text + "]";
}

}  // namespace tarn::tool
