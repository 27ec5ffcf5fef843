#include "model-file.h"

#include <fstream>

#include "command.h"

namespace tarn::tool {

namespace {

// A message of the protobuf wire format in a file: fields, each a number and a
// value. What a field holds may be read until the next one is asked for.
class Message {
 public:
  // From the present position of `is` up to `end`.
  Message(std::istream& is, std::streamoff end)
      : is_(is), next_(is.tellg()), end_(end) {}

  // Goes on to the next field. Returns false at the end; throws a Failure where
  // the bytes are no message.
  bool Next();

  uint64_t number() const { return number_; }
  uint64_t value() const { return value_; }  // Of an integer field.
  std::string Text();
  Message Nested() { return {is_, next_}; }

 private:
  uint64_t Varint();

  std::istream& is_;
  std::streamoff next_;  // Where the next field begins.
  std::streamoff end_;
  uint64_t number_ = 0;
  uint64_t value_ = 0;
};

bool Message::Next() {
  if (next_ >= end_) return false;
  is_.seekg(next_);
  const uint64_t key = Varint();
  number_ = key >> 3;
  uint64_t size = 0;
  switch (key & 7) {
    case 0:
      value_ = Varint();
      break;
    case 1:
      size = 8;
      break;
    case 2:
      size = Varint();
      break;
    case 5:
      size = 4;
      break;
    default:
      throw Failure("unknown kind of field");
  }
  const std::streamoff start = is_.tellg();
  if (start > end_ || size > static_cast<uint64_t>(end_ - start)) {
    throw Failure("a field is cut off");
  }
  next_ = start + static_cast<std::streamoff>(size);
  return true;
}

// Groups of 7 bits, the least significant first; bit 7 says that more follow.
uint64_t Message::Varint() {
  uint64_t value = 0;
  for (unsigned int shift = 0; shift < 64; shift += 7) {
    const int byte = is_.get();
    if (byte == EOF) break;
    value |= (static_cast<uint64_t>(byte) & 0x7F) << shift;
    if (byte < 0x80) return value;
  }
  throw Failure("a number is cut off");
}

std::string Message::Text() {
  std::string text(static_cast<size_t>(next_ - is_.tellg()), '\0');
  is_.read(text.data(), static_cast<std::streamsize>(text.size()));
  return text;
}

// ONNX' numbers for the fields that are read.
enum ModelField : uint64_t {
  kIrVersion = 1,
  kProducerName = 2,
  kProducerVersion = 3,
  kDomain = 4,
  kVersion = 5,
  kGraph = 7,
  kOpsetImport = 8,
};
enum OpsetField : uint64_t { kOpsetDomain = 1, kOpsetVersion = 2 };
enum GraphField : uint64_t { kInput = 11, kOutput = 12 };
enum ValueField : uint64_t { kName = 1, kType = 2 };
enum TypeField : uint64_t { kTensorType = 1 };
enum TensorField : uint64_t { kShape = 2 };

void ReadOpset(Message opset, ModelFile& file) {
  std::string domain;
  uint64_t version = 0;
  while (opset.Next()) {
    if (opset.number() == kOpsetDomain) domain = opset.Text();
    if (opset.number() == kOpsetVersion) version = opset.value();
  }
  file.opsets[domain.empty() ? "ai.onnx" : domain] = version;
}

bool HasField(Message message, uint64_t number) {
  while (message.Next()) {
    if (message.number() == number) return true;
  }
  return false;
}

bool HasShape(Message type) {
  while (type.Next()) {
    if (type.number() == kTensorType) return HasField(type.Nested(), kShape);
  }
  return false;
}

void ReadPort(Message port, ModelFile& file) {
  std::string name;
  bool has_shape = false;
  while (port.Next()) {
    if (port.number() == kName) name = port.Text();
    if (port.number() == kType) has_shape = HasShape(port.Nested());
  }
  if (!has_shape) file.shapeless.insert(name);
}

void ReadGraph(Message graph, ModelFile& file) {
  while (graph.Next()) {
    if (graph.number() == kInput || graph.number() == kOutput) {
      ReadPort(graph.Nested(), file);
    }
  }
}

void ReadField(Message& model, ModelFile& file) {
  switch (model.number()) {
    case kIrVersion:
      file.ir_version = model.value();
      break;
    case kProducerName:
      file.producer_name = model.Text();
      break;
    case kProducerVersion:
      file.producer_version = model.Text();
      break;
    case kDomain:
      file.domain = model.Text();
      break;
    case kVersion:
      file.version = model.value();
      break;
    case kGraph:
      ReadGraph(model.Nested(), file);
      break;
    case kOpsetImport:
      ReadOpset(model.Nested(), file);
      break;
    default:
      break;
  }
}

}  // namespace

ModelFile ReadModelFile(const std::string& path) {
  std::ifstream is(path, std::ios::binary | std::ios::ate);
  const std::streamoff size = is.tellg();
  is.seekg(0);
  if (!is) throw Failure("can't read " + path);
  ModelFile file;
  try {
    Message model(is, size);
    while (model.Next()) ReadField(model, file);
  } catch (const Failure& failure) {
    throw Failure(path + " is no ONNX file: " + failure.what());
  }
  return file;
}

}  // namespace tarn::tool
