#include "npy.h"

#include <algorithm>
#include <limits>
#include <map>

#include <nlohmann/json.hpp>

#include "command.h"

namespace tarn::tool {

namespace {

constexpr char kMagic[] = "\x93NUMPY";
constexpr size_t kMagicSize = sizeof(kMagic) - 1;
constexpr size_t kMaxHeaderSize = 65535;  // All that version 1.0 allows.
constexpr size_t kMaxRank = 64;           // As in NumPy.

// The types by their kind and size; a byte order comes before them.
const std::map<std::string, Tensor::DataType>& Types() {
  static const std::map<std::string, Tensor::DataType> types{
      {"f4", Tensor::FLOAT32}, {"f8", Tensor::FLOAT64}, {"f2", Tensor::FLOAT16},
      {"i4", Tensor::INT32},   {"i8", Tensor::INT64},   {"i2", Tensor::INT16},
      {"i1", Tensor::INT8},    {"u4", Tensor::INT32},   {"u8", Tensor::INT64},
      {"u2", Tensor::INT16},   {"u1", Tensor::INT8}};
  return types;
}

// The header is a Python dictionary such as
// {'descr': '<f4', 'fortran_order': False, 'shape': (3, 80), }
// JSON has other quotes, brackets and truth values, and no trailing commas.
std::string JsonOf(const std::string& python) {
  std::string json;
  bool after_comma = false;
  for (char c : python) {
    if (c == '\'') c = '"';
    if (c == '(') c = '[';
    if (c == ')') c = ']';
    const bool closes = c == ']' || c == '}';
    if (closes && after_comma) json.erase(json.find_last_of(','));
    if (c != ' ' && c != '\n') after_comma = c == ',';
    json += c;
  }
  const size_t word = json.find_first_of("TF");
  if (word != std::string::npos) json[word] = json[word] == 'T' ? 't' : 'f';
  return json;
}

struct Header {
  std::string descr;
  bool fortran_order;
  std::vector<size_t> shape;
};

bool IsShape(const nlohmann::json& value) {
  return value.is_array() && value.size() <= kMaxRank &&
         std::all_of(value.begin(), value.end(), [](const auto& size) {
           return size.is_number_unsigned();
         });
}

Header ParseHeader(const std::string& text, const std::string& name) {
  const auto header = nlohmann::json::parse(JsonOf(text), nullptr, false);
  const auto has = [&](const char* key) { return header.contains(key); };
  if (!header.is_object() || header.size() != 3 || !has("descr") ||
      !header["descr"].is_string() || !has("fortran_order") ||
      !header["fortran_order"].is_boolean() || !has("shape") ||
      !IsShape(header["shape"])) {
    throw Failure(name +
                  ": malformed .npy header, expected a dictionary of descr, "
                  "fortran_order and shape");
  }
  return {header["descr"], header["fortran_order"], header["shape"]};
}

// The little-endian number of `size` bytes.
size_t Number(const std::string& bytes, size_t position, size_t size) {
  size_t number = 0;
  for (size_t i = size; i-- > 0;) {
    number = number << 8 | static_cast<unsigned char>(bytes[position + i]);
  }
  return number;
}

Tensor::DataType TypeOf(const std::string& descr, const std::string& name) {
  const std::string kind = descr.empty() ? "" : descr.substr(1);
  const auto found = Types().find(kind);
  if (found == Types().end()) {
    throw Failure(name + ": elements of type " + descr +
                  ", expected a real or integer type of at most 8 bytes");
  }
  if (descr[0] != '<' && kind.back() != '1') {
    throw Failure(name + ": elements of type " + descr +
                  ", expected little-endian ones, <" + kind);
  }
  return found->second;
}

// Of elements of the shape; the largest number there is where it is beyond.
size_t ByteNum(const std::vector<size_t>& shape, size_t element_size) {
  size_t number = element_size;
  for (size_t size : shape) {
    if (__builtin_mul_overflow(number, size, &number)) {
      return std::numeric_limits<size_t>::max();
    }
  }
  return number;
}

}  // namespace

NpyArray ParseNpy(const std::string& bytes, const std::string& name) {
  if (bytes.size() < kMagicSize + 2 || bytes.rfind(kMagic, 0) != 0) {
    throw Failure(name + ": expected a .npy file");
  }
  const int version = static_cast<unsigned char>(bytes[kMagicSize]);
  if (version < 1 || version > 3) {
    throw Failure(name + ": .npy format version " + std::to_string(version) +
                  ", expected 1 to 3");
  }
  // Its size comes before the header.
  const size_t size_size = version == 1 ? 2 : 4;
  const size_t begin = kMagicSize + 2 + size_size;
  const size_t header_size =
      bytes.size() < begin ? 0 : Number(bytes, kMagicSize + 2, size_size);
  if (bytes.size() < begin || bytes.size() - begin < header_size) {
    throw Failure(name + ": ends within its .npy header");
  }
  if (header_size > kMaxHeaderSize) {
    throw Failure(name + ": .npy header of " + std::to_string(header_size) +
                  " bytes, expected at most " + std::to_string(kMaxHeaderSize));
  }
  const Header header = ParseHeader(bytes.substr(begin, header_size), name);
  NpyArray array{TypeOf(header.descr, name), header.shape, {}};
  if (header.fortran_order) {
    throw Failure(name + ": Fortran order, expected C order");
  }
  array.elements = bytes.substr(begin + header_size);
  const size_t expected =
      ByteNum(array.shape, Tensor().GetElementSize(array.type));
  if (array.elements.size() != expected) {
    throw Failure(name + ": " + std::to_string(array.elements.size()) +
                  " bytes of elements, expected " + std::to_string(expected) +
                  " for shape " + FormatTuple(array.shape));
  }
  return array;
}

std::string FormatNpy(const NpyArray& array) {
  std::string descr;
  for (const auto& [kind, type] : Types()) {
    if (type == array.type && kind[0] != 'u') descr = '<' + kind;
  }
  std::string header =
      "{'descr': '" + descr +
      "', 'fortran_order': False, 'shape': " + FormatTuple(array.shape) + ", }";
  // The elements begin at a multiple of 64 bytes.
  const size_t begin = kMagicSize + 4;
  header.append(63 - (begin + header.size()) % 64, ' ');
  header += '\n';
  const std::string prefix{1, 0, static_cast<char>(header.size() & 0xFF),
                           static_cast<char>(header.size() >> 8)};
  return kMagic + prefix + header + array.elements;
}

std::string FormatTuple(const std::vector<size_t>& shape) {
  std::string text;
  for (size_t size : shape) {
    if (!text.empty()) text += ", ";
    text += std::to_string(size);
  }
  return '(' + text + (shape.size() == 1 ? ",)" : ")");
}

}  // namespace tarn::tool
