#ifndef TOOLS_TARN_STREAM_INPUTS_H_
#define TOOLS_TARN_STREAM_INPUTS_H_

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "npy.h"
#include "tarn.h"

namespace tarn::tool {

using Sizes = std::map<std::string, int>;  // Of dimensions, by name.

// All that one stream is given, chunk by chunk. It fits the description.
struct StreamInputs {
  std::map<std::string, NpyArray> arrays;  // By input; the first axis is the
                                           // chunk.
  size_t chunk_num = 0;
  Sizes sizes;          // Of every dynamic dimension but the batch dimension.
  std::string audio;    // The file that it was cut from, otherwise empty.
  int sample_rate = 0;  // Of that file, ...
  double seconds = 0;   // ... and how long it is.
};

// What is wrong with an option's text that is to be NAME=VALUE, if anything.
std::string CheckAssignment(const std::string& text);

// Sizes of dynamic dimensions, each NAME=SIZE. Throws a Failure for another
// name and for a size out of range.
Sizes ParseSizes(const std::vector<std::string>& texts, const ModelInfo& info);

// The names of all dynamic dimensions but the batch dimension.
std::vector<std::string> DynamicRowDimensions(const ModelInfo& info);

// Throws a Failure unless each of them has a size.
void CheckAllFixed(const Sizes& sizes, const ModelInfo& info);

// What is left of a shape or format of the description for one stream.
template <typename T>
std::vector<T> WithoutBatch(std::vector<T> dimensions, const ModelInfo& info) {
  if (info.HasBatchDimension()) dimensions.erase(dimensions.begin());
  return dimensions;
}

// Reads the streams from texts NAME=FILE: the first file of each input makes
// the first stream, and so on. `sizes` are those of dimensions that no input
// has. Throws a Failure for whatever does not fit the description.
std::vector<StreamInputs> ReadNpyStreams(const std::vector<std::string>& texts,
                                         const Sizes& sizes,
                                         const ModelInfo& info);

// Cuts audio files, a stream each, into chunks for the only input of a model.
// The last chunk is filled up with zeros, channels are averaged.
std::vector<StreamInputs> ReadAudioStreams(
    const std::vector<std::string>& paths, const Sizes& sizes,
    const ModelInfo& info);

// Throws a Failure where streams differ in the size of a dimension that an
// output has: no batch can hold both.
void CheckSizesAgree(const std::vector<StreamInputs>& streams,
                     const ModelInfo& info);

void FixSizes(const Sizes& sizes, Proxy& proxy);

// Gives a chunk to the stream's next inference.
void SetChunk(const StreamInputs& inputs, size_t chunk, Proxy& proxy);

}  // namespace tarn::tool

#endif  // TOOLS_TARN_STREAM_INPUTS_H_
