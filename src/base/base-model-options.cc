#include "base/base-model-options.h"

#include "utils/parse-options.h"
#include "utils/reporter.h"

namespace tarn {

ModelOptions::ModelOptions(std::string path, bool scrambled) {
  ReadFile(path, scrambled, Reporter());
}

ModelOptions::ModelOptions(std::string path, bool scrambled,
                           std::vector<Finding>& findings) {
  ReadFile(path, scrambled, Reporter(&findings));
}

void ModelOptions::ReadFile(const std::string& path, bool scrambled,
                            const Reporter& reporter) {
  ParseOptions options("options of model:\n");
  options.Register(
      "inputs-format", &inputs_format,
      "The format of inputs which describes the meaning of each dimension of "
      "all the inputs, e.g: feats:[batch-size, time-step, "
      "feat-dim];lens:[batch-size].");
  options.Register("inputs-shape", &inputs_shape,
                   "The size of each dimension of all the inputs, e.g: "
                   "feats:[4,20,40];lens:[4].");
  options.Register(
      "inputs-dtype", &inputs_dtype,
      "The data type of all the inputs, e.g: feats:FLOAT32;lens:INT32. "
      "Currently supported data types include: FLOAT32, FLOAT64, FLOAT16, "
      "INT32, INT64, INT16, INT8.");
  options.Register(
      "outputs-format", &outputs_format,
      "The format of outputs which describes the meaning of each dimension of "
      "all the outputs, e.g: logits:[batch-size, time-step, vocab-size].");
  options.Register("outputs-shape", &outputs_shape,
                   "The size of each dimension of all the outputs, e.g: "
                   "logits:[4,20,5000].");
  options.Register(
      "outputs-dtype", &outputs_dtype,
      "The data type of all the outputs, e.g: logits:FLOAT32. Currently "
      "supported data types include: FLOAT32, FLOAT64, FLOAT16, INT32, INT64, "
      "INT16, INT8.");
  // The text's end and the order of its example are as users know them.
  options.Register(
      "caches-pair", &caches_pair,
      "The cache consists of two parts: input and output. Among them, the "
      "input and output represent an input and output of the model "
      "respectively, and the output after inference will update the input. "
      "E.g: cache1:cache1-output, where cache1 is an input of model and "
      "cache1-output is an outputs of model. The data of cache1-output will be "
      "written back to the cach1");
  options.Register(
      "caches-format", &caches_format,
      "The format of caches which describes the meaning of each dimension of "
      "all the caches, e.g: cache1:[batch-size, cache-size].");
  options.Register("caches-shape", &caches_shape,
                   "The size of each dimension of cache's input part, e.g: "
                   "cache1:[4,20,246].");
  options.Register(
      "caches-dtype", &caches_dtype,
      "The data type of cache's input part, e.g: cache1:FLOAT32. Currently "
      "supported data types include: FLOAT32, FLOAT64, FLOAT16, INT32, INT64, "
      "INT16, INT8.");
  options.Register("batch-dim", &batch_dim,
                   "The name of batch dimension. It's empty string if there is "
                   "no batch dimension.");
  options.Register("dynamic-dims", &dynamic_dims,
                   "The dynamic range of dimensions, e.g: "
                   "batch-size:1-8;time-step:4-16.");
  options.Register("multi-threads", &multi_threads,
                   "whether there are multiple threads submitting inference "
                   "tasks to the model through proxys");
  options.Register("infer-thread", &infer_thread,
                   "inference in independent inference thread if true, "
                   "otherwise inference in the user's thread.");
  options.Register("infer-interval", &infer_interval,
                   "the interval between two inferences if the number of "
                   "proxys waitting is less than batch-size.");
  options.Register("num-execute-threads", &num_execute_threads,
                   "the max number of threads used to execute operation. The "
                   "value of 0 means use the default number of threads in "
                   "backend.");
  options.ReadConfigFile(path, scrambled, reporter);
  lines = options.lines();
}

}  // namespace tarn
