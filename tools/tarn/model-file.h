#ifndef TOOLS_TARN_MODEL_FILE_H_
#define TOOLS_TARN_MODEL_FILE_H_

#include <cstdint>
#include <map>
#include <set>
#include <string>

namespace tarn::tool {

// What an ONNX file says that the engine's interface does not tell.
struct ModelFile {
  uint64_t ir_version = 0;
  std::string producer_name;
  std::string producer_version;
  std::string domain;
  uint64_t version = 0;                    // 0 where there is none.
  std::map<std::string, uint64_t> opsets;  // Versions by domain.
  std::set<std::string> shapeless;  // Inputs and outputs without a shape.
};

// Reads only these fields, so that weights cost nothing. Throws a Failure that
// names the file when it cannot be read or is no ONNX file.
ModelFile ReadModelFile(const std::string& path);

}  // namespace tarn::tool

#endif  // TOOLS_TARN_MODEL_FILE_H_
