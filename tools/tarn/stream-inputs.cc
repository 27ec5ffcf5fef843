#include "stream-inputs.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <numeric>
#include <utility>

#include <sndfile.hh>

#include "command.h"
#include "safe-file.h"
#include "utils/text-utils.h"

namespace tarn::tool {

namespace {

using Range = std::pair<size_t, size_t>;  // Smallest and largest size.

std::pair<std::string, std::string> Split(const std::string& assignment) {
  const size_t middle = assignment.find('=');
  return {assignment.substr(0, middle), assignment.substr(middle + 1)};
}

std::string ToString(const Range& range) {
  std::string first = std::to_string(range.first);
  if (range.first == range.second) return first;
  return first + '-' + std::to_string(range.second);
}

// The sizes that a chunk's axes may have, as far as `sizes` do not say.
std::vector<Range> ExpectedSizes(const std::string& input, const Sizes& sizes,
                                 const ModelInfo& info) {
  const auto format = WithoutBatch(info.GetInputFormat(input), info);
  const auto shape = WithoutBatch(info.GetInputShape(input), info);
  std::vector<Range> expected;
  for (size_t i = 0; i < shape.size(); ++i) {
    std::pair<int, int> range{shape[i], shape[i]};
    if (shape[i] == -1) {
      const auto fixed = sizes.find(format[i]);
      range = fixed == sizes.end()
                  ? info.GetDimensionRange(format[i])
                  : std::make_pair(fixed->second, fixed->second);
    }
    expected.emplace_back(range.first, range.second);
  }
  return expected;
}

bool Fits(const std::vector<size_t>& shape,
          const std::vector<Range>& expected) {
  return std::equal(shape.begin(), shape.end(), expected.begin(),
                    expected.end(), [](size_t size, const Range& range) {
                      return range.first <= size && size <= range.second;
                    });
}

std::string Describe(const std::vector<Range>& expected, bool any_chunk_num) {
  std::string text = any_chunk_num ? "chunks" : ToString(expected[0]);
  for (size_t i = 1; i < expected.size(); ++i) {
    text += ", " + ToString(expected[i]);
  }
  return '(' + text + (expected.size() == 1 ? ",)" : ")");
}

// Adds an input that must agree with the ones before it.
void AddArray(const std::string& input, const std::string& path, NpyArray array,
              const ModelInfo& info, StreamInputs& stream) {
  const Tensor::DataType type = info.GetInputDataType(input);
  if (array.type != type) {
    throw Failure(path + ": elements of type " +
                  ConvertDataTypeToString(array.type) + ", expected " +
                  ConvertDataTypeToString(type) + " for input " + input);
  }
  std::vector<Range> expected = ExpectedSizes(input, stream.sizes, info);
  const bool first = stream.arrays.empty();
  expected.insert(
      expected.begin(),
      first ? Range(0, SIZE_MAX) : Range(stream.chunk_num, stream.chunk_num));
  if (!Fits(array.shape, expected)) {
    throw Failure(path + ": shape " + FormatTuple(array.shape) + ", expected " +
                  Describe(expected, first) + " for input " + input);
  }
  stream.chunk_num = array.shape[0];
  const auto format = WithoutBatch(info.GetInputFormat(input), info);
  const auto shape = WithoutBatch(info.GetInputShape(input), info);
  for (size_t i = 0; i < shape.size(); ++i) {
    if (shape[i] != -1) continue;
    stream.sizes[format[i]] = static_cast<int>(array.shape[i + 1]);
  }
  stream.arrays.emplace(input, std::move(array));
}

// The paths of all streams, by input.
std::map<std::string, std::vector<std::string>> GroupByInput(
    const std::vector<std::string>& texts, const ModelInfo& info) {
  std::map<std::string, std::vector<std::string>> paths;
  for (unsigned int i = 0; i < info.GetInputNum(); ++i) {
    paths[info.GetInputName(i)];
  }
  for (const std::string& text : texts) {
    const auto [input, path] = Split(text);
    const auto found = paths.find(input);
    if (found == paths.end()) {
      throw Failure("--input " + text + ": the model has no input " + input);
    }
    found->second.push_back(path);
  }
  const auto& [first_input, first_paths] = *paths.begin();
  for (const auto& [input, its_paths] : paths) {
    if (its_paths.size() == first_paths.size()) continue;
    throw Failure("input " + input + " is given " +
                  std::to_string(its_paths.size()) + " times and input " +
                  first_input + " " + std::to_string(first_paths.size()) +
                  " times, expected one of each for every stream");
  }
  return paths;
}

// The samples of an audio file, the mean of its channels.
std::string ReadSamples(const std::string& path, StreamInputs& stream) {
  SndfileHandle file(path);
  if (file.error() != SF_ERR_NO_ERROR) {
    throw Failure("can't read audio file " + path + ": " + file.strError());
  }
  std::vector<float> frame(static_cast<size_t>(file.channels()));
  std::string samples;
  while (file.readf(frame.data(), 1) == 1) {
    const float sum = std::accumulate(frame.begin(), frame.end(), 0.0F);
    const float sample = sum / static_cast<float>(frame.size());
    samples.append(reinterpret_cast<const char*>(&sample), sizeof sample);
  }
  stream.audio = path;
  stream.sample_rate = file.samplerate();
  const size_t sample_num = samples.size() / sizeof(float);
  stream.seconds =
      static_cast<double>(sample_num) / static_cast<double>(file.samplerate());
  return samples;
}

// The shape of one chunk of audio, all of whose dimensions have a size.
std::vector<size_t> ChunkShape(const Sizes& sizes, const ModelInfo& info) {
  if (info.GetInputNum() != 1 || info.GetInputDataType(0) != Tensor::FLOAT32) {
    throw Failure("--wav: expected a model with one input, of type FLOAT32");
  }
  std::vector<size_t> shape;
  for (const Range& range : ExpectedSizes(info.GetInputName(0), sizes, info)) {
    shape.push_back(range.first);
  }
  return shape;
}

}  // namespace

std::string CheckAssignment(const std::string& text) {
  return text.find('=') == std::string::npos ? "expected NAME=VALUE: " + text
                                             : std::string();
}

Sizes ParseSizes(const std::vector<std::string>& texts, const ModelInfo& info) {
  const std::vector<std::string> names = DynamicRowDimensions(info);
  Sizes sizes;
  for (const std::string& text : texts) {
    const auto [name, value] = Split(text);
    if (std::find(names.begin(), names.end(), name) == names.end()) {
      throw Failure("--fix " + text + ": " + name +
                    " is no dynamic dimension of a stream");
    }
    const auto [min, max] = info.GetDimensionRange(name);
    int size = 0;
    if (!ConvertStringToInteger(value, size) || size < min || size > max) {
      throw Failure("--fix " + text + ": expected a size of " +
                    std::to_string(min) + '-' + std::to_string(max));
    }
    sizes[name] = size;
  }
  return sizes;
}

std::vector<std::string> DynamicRowDimensions(const ModelInfo& info) {
  std::vector<std::string> names;
  for (const auto& named_range : info.GetDimensionRanges()) {
    const std::string& name = named_range.first;
    if (name == info.batch_dim() || !info.HasDimension(name)) continue;
    if (info.GetDimension(name) == -1) names.push_back(name);
  }
  return names;
}

void CheckAllFixed(const Sizes& sizes, const ModelInfo& info) {
  for (const std::string& name : DynamicRowDimensions(info)) {
    if (sizes.count(name) > 0) continue;
    throw Failure("no input tells the size of the dynamic dimension " + name +
                  ", expected --fix " + name + "=SIZE");
  }
}

std::vector<StreamInputs> ReadNpyStreams(const std::vector<std::string>& texts,
                                         const Sizes& sizes,
                                         const ModelInfo& info) {
  const auto paths = GroupByInput(texts, info);
  std::vector<StreamInputs> streams(paths.begin()->second.size());
  for (size_t i = 0; i < streams.size(); ++i) {
    streams[i].sizes = sizes;
    for (const auto& [input, its_paths] : paths) {
      AddArray(input, its_paths[i],
               ParseNpy(ReadFile(its_paths[i]), its_paths[i]), info,
               streams[i]);
    }
    CheckAllFixed(streams[i].sizes, info);
  }
  return streams;
}

std::vector<StreamInputs> ReadAudioStreams(
    const std::vector<std::string>& paths, const Sizes& sizes,
    const ModelInfo& info) {
  CheckAllFixed(sizes, info);
  const std::vector<size_t> chunk = ChunkShape(sizes, info);
  const size_t chunk_bytes = std::accumulate(
      chunk.begin(), chunk.end(), sizeof(float), std::multiplies<>());
  std::vector<StreamInputs> streams(paths.size());
  for (size_t i = 0; i < streams.size(); ++i) {
    NpyArray array{Tensor::FLOAT32, chunk, ReadSamples(paths[i], streams[i])};
    const size_t chunk_num =
        (array.elements.size() + chunk_bytes - 1) / chunk_bytes;
    array.elements.resize(chunk_num * chunk_bytes);
    array.shape.insert(array.shape.begin(), chunk_num);
    streams[i].sizes = sizes;
    AddArray(info.GetInputName(0), paths[i], std::move(array), info,
             streams[i]);
  }
  return streams;
}

void CheckSizesAgree(const std::vector<StreamInputs>& streams,
                     const ModelInfo& info) {
  if (!info.HasBatchDimension()) return;
  for (unsigned int i = 0; i < info.GetOutputNum(); ++i) {
    for (const std::string& name : info.GetOutputFormat(i)) {
      for (const StreamInputs& stream : streams) {
        const auto size = stream.sizes.find(name);
        if (size == stream.sizes.end()) break;
        if (size->second == streams[0].sizes.at(name)) continue;
        throw Failure("streams differ in the size of dimension " + name +
                      ", which output " + info.GetOutputName(i) +
                      " has: they can't share a batch, run them one by one");
      }
    }
  }
}

void FixSizes(const Sizes& sizes, Proxy& proxy) {
  for (const auto& [name, size] : sizes) proxy.FixDimension(name, size);
}

void SetChunk(const StreamInputs& inputs, size_t chunk, Proxy& proxy) {
  for (const auto& [name, array] : inputs.arrays) {
    Tensor tensor = proxy.CreateInput(name, proxy.GetInputShape(name));
    const size_t size =
        size_t{tensor.GetElementNum()} * tensor.GetElementSize();
    std::memcpy(tensor.Data(), &array.elements[chunk * size], size);
    proxy.SetInput(name, tensor);
  }
}

}  // namespace tarn::tool
