#ifndef TOOLS_TARN_LOAD_MODEL_H_
#define TOOLS_TARN_LOAD_MODEL_H_

#include <memory>
#include <string>

#include "command.h"
#include "tarn.h"

namespace tarn::tool {

// A description that has been checked, with the network that it describes.
struct CheckedModel {
  ModelOptions options;
  std::shared_ptr<const ModelInfo> info;
};

// Reads and checks a description and its network. Throws a Failure that names
// the first problem and points at `tarn check`.
CheckedModel CheckOrFail(const ModelArguments& arguments);

// Loads what CheckOrFail() has accepted; `options` may have been changed in
// their scheduling.
std::unique_ptr<Model> LoadModel(const ModelArguments& arguments,
                                 const ModelOptions& options);

}  // namespace tarn::tool

#endif  // TOOLS_TARN_LOAD_MODEL_H_
