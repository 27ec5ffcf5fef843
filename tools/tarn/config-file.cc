#include "config-file.h"

#include <sstream>

namespace tarn::tool {

namespace {

std::string BoolText(bool value) { return value ? "true" : "false"; }

std::string AsComment(const std::string& text) {
  std::istringstream lines(text);
  std::string comment;
  for (std::string line; std::getline(lines, line);) {
    comment += "# " + line + "\n";
  }
  return comment;
}

}  // namespace

std::vector<std::pair<std::string, std::string>> OptionTexts(
    const ModelOptions& options) {
  return {
      {"inputs-format", options.inputs_format},
      {"inputs-shape", options.inputs_shape},
      {"inputs-dtype", options.inputs_dtype},
      {"outputs-format", options.outputs_format},
      {"outputs-shape", options.outputs_shape},
      {"outputs-dtype", options.outputs_dtype},
      {"caches-pair", options.caches_pair},
      {"caches-format", options.caches_format},
      {"caches-shape", options.caches_shape},
      {"caches-dtype", options.caches_dtype},
      {"batch-dim", options.batch_dim},
      {"dynamic-dims", options.dynamic_dims},
      {"multi-threads", BoolText(options.multi_threads)},
      {"infer-thread", BoolText(options.infer_thread)},
      {"infer-interval", std::to_string(options.infer_interval)},
      {"num-execute-threads", std::to_string(options.num_execute_threads)},
  };
}

std::string ConfigText(const ModelOptions& options,
                       const std::map<std::string, std::string>& comments) {
  const auto comment_of = [&](const std::string& name) {
    const auto comment = comments.find(name);
    return comment == comments.end() ? "" : AsComment(comment->second);
  };
  std::string text = comment_of("");
  for (const auto& [name, value] : OptionTexts(options)) {
    text += comment_of(name);
    if (!value.empty()) text += "--" + name + "=" + value + "\n";
  }
  return text;
}

}  // namespace tarn::tool
