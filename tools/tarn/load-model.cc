#include "load-model.h"

#include <vector>

#include "base/base-model-info.h"

namespace tarn::tool {

namespace {

// "model.conf:7: what was found".
std::string Describe(const Finding& finding, const std::string& config) {
  const std::string place =
      finding.line > 0 ? config + ":" + std::to_string(finding.line) : config;
  return place + ": " + finding.found;
}

}  // namespace

CheckedModel CheckOrFail(const ModelArguments& arguments) {
  std::vector<Finding> findings;
  const ModelOptions options(arguments.config, arguments.scrambled, findings);
  for (const Finding& finding :
       CheckModel(options, arguments.backend, arguments.device, arguments.model,
                  "", "")) {
    findings.push_back(finding);
  }
  for (const Finding& finding : findings) {
    if (finding.severity < ERROR) continue;
    throw Failure(Describe(finding, arguments.config) +
                  " (tarn check tells all problems)");
  }
  return {options, std::make_shared<const ModelInfo>(options)};
}

std::unique_ptr<Model> LoadModel(const ModelArguments& arguments,
                                 const ModelOptions& options) {
  return std::unique_ptr<Model>(NewModel(
      options, arguments.backend, arguments.device, arguments.model, "", ""));
}

}  // namespace tarn::tool
