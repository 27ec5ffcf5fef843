#ifndef TARN_BASE_BASE_MODEL_OPTIONS_H_
#define TARN_BASE_BASE_MODEL_OPTIONS_H_

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "utils/export.h"
#include "utils/finding.h"

namespace tarn {

class Reporter;

// The description of one model as written in its configuration file. A plain
// record that checks nothing; ModelInfo does.
struct TARN_EXPORT ModelOptions {
  ModelOptions() = default;

  // Reads the file at `path`; `scrambled` as for ParseOptions. Every problem is
  // logged as an ERROR and the field concerned keeps its default.
  ModelOptions(std::string path, bool scrambled);

  // The same without a word in the log: problems are added to `findings`.
  ModelOptions(std::string path, bool scrambled,
               std::vector<Finding>& findings);

  // One entry per input, such as feats:[-1,20,40];lens:[-1]. The shape gives
  // each dimension's size, -1 for a dynamic one; the format gives each its
  // name, the data type is that of the elements.
  std::string inputs_shape;
  std::string inputs_format;
  std::string inputs_dtype;

  // The same for every output.
  std::string outputs_shape;
  std::string outputs_format;
  std::string outputs_dtype;

  // <output>:<input>: what the model leaves in the output goes into the input
  // at the stream's next inference. The other three are keyed by the input.
  std::string caches_pair;
  std::string caches_shape;
  std::string caches_format;
  std::string caches_dtype;

  // Name of the batch dimension; empty when there is none.
  std::string batch_dim;
  // Ranges of the dynamic dimensions: batch-size:1-8;time-step:4-16.
  std::string dynamic_dims;

  // Whether several threads run inferences on the model.
  bool multi_threads = false;
  // Whether a thread of the model's own computes them.
  bool infer_thread = false;
  // How long that thread waits for a batch to fill, in microseconds.
  int32_t infer_interval = 0;
  // Threads the engine uses inside one inference; 0 is the engine's default.
  int32_t num_execute_threads = 0;

  // The line of the file that gave each option, by option name; for findings.
  std::map<std::string, int32_t> lines;

 private:
  void ReadFile(const std::string& path, bool scrambled,
                const Reporter& reporter);
};

}  // namespace tarn

#endif  // TARN_BASE_BASE_MODEL_OPTIONS_H_
