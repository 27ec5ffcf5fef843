// A host that survives a bad model bundle: it checks each one that it is
// offered and makes a model of the first that is sound.

#include <algorithm>
#include <cstdio>
#include <exception>
#include <memory>
#include <vector>

#include "tarn/tarn.h"

namespace {

bool IsGrave(const tarn::Finding& finding) {
  return finding.severity >= tarn::ERROR;
}

// Says where each finding is, what was found and what would mend it.
void Print(const char* config, const std::vector<tarn::Finding>& findings) {
  for (const tarn::Finding& finding : findings) {
    std::printf("%s:%d: %s [%s]: %s\n", config, finding.line,
                finding.found.c_str(), finding.rule.c_str(),
                finding.hint.c_str());
  }
}

// Null for a bundle that is not sound.
std::unique_ptr<tarn::Model> Load(const char* config, const char* network) {
  std::vector<tarn::Finding> findings;
  const tarn::ModelOptions options(config, /*scrambled=*/false, findings);
  const std::vector<tarn::Finding> more =
      tarn::CheckModel(options, "onnx", "cpu", network, "", "");
  findings.insert(findings.end(), more.begin(), more.end());
  Print(config, findings);
  if (std::any_of(findings.begin(), findings.end(), IsGrave)) return nullptr;
  return std::unique_ptr<tarn::Model>(
      tarn::NewModel(options, "onnx", "cpu", network, "", ""));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3 || argc % 2 == 0) {
    std::fprintf(stderr, "usage: %s CONFIG MODEL [CONFIG MODEL]...\n", argv[0]);
    return 2;
  }
  std::setvbuf(stdout, nullptr, _IOLBF, 0);  // A fatal line must not get lost.
  tarn::SetLogLevel(tarn::ERROR);
  try {
    for (int i = 1; i < argc; i += 2) {
      const std::unique_ptr<tarn::Model> model = Load(argv[i], argv[i + 1]);
      std::printf("%s: %s\n", argv[i], model ? "sound, in use" : "rejected");
      if (model != nullptr) return 0;  // Here the host would serve it.
    }
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
  }
  return 1;
}
