// A classifier without state: every line of a file is a clip of its own, and
// clips of any length are classified at once, in batches.

#include <algorithm>
#include <cstdio>
#include <exception>
#include <fstream>
#include <future>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "tarn/tarn.h"

namespace {

std::vector<float> ReadNumbers(const std::string& line) {
  std::istringstream text(line);
  std::vector<float> numbers;
  for (float number = 0; text >> number;) numbers.push_back(number);
  return numbers;
}

// The class with the highest score; -1 for a clip that the model does not take.
int Classify(tarn::Model& model, const std::vector<float>& features) {
  const std::unique_ptr<tarn::Proxy> clip(model.NewProxy());
  const std::string input = clip->GetInputName(0);
  const std::string time = clip->GetInputFormat(0)[0];
  const std::string width = clip->GetInputFormat(0)[1];
  const int frames =
      static_cast<int>(features.size()) / clip->GetDimension(width);
  const auto range = clip->GetDimensionRange(time);
  if (frames < range.first || frames > range.second) return -1;
  clip->FixDimension(time, frames);
  tarn::Tensor tensor = clip->CreateInput(input, clip->GetInputShape(input));
  std::copy_n(features.begin(), tensor.GetElementNum(), tensor.Data<float>());
  clip->SetInput(input, tensor);
  if (!clip->Inference()) return -1;  // The log says why.
  const tarn::Tensor& scores = clip->GetOutput(clip->GetOutputName(0));
  const float* first = scores.Data<float>();
  const float* last = first + scores.GetElementNum();
  return static_cast<int>(std::max_element(first, last) - first);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: %s CONFIG MODEL FEATURES\n", argv[0]);
    return 2;
  }
  std::setvbuf(stdout, nullptr, _IOLBF, 0);  // A fatal line must not get lost.
  tarn::SetLogLevel(tarn::ERROR);
  try {
    tarn::ModelOptions options(argv[1], /*scrambled=*/false);
    options.multi_threads = true;
    options.infer_thread = true;  // Computes what waits, up to a batch at once.
    options.infer_interval = 2000;
    const std::unique_ptr<tarn::Model> model(
        tarn::NewModel(options, "onnx", "cpu", argv[2], "", ""));
    std::ifstream file(argv[3]);
    std::vector<std::future<int>> classes;
    for (std::string line; std::getline(file, line);) {
      classes.push_back(std::async(std::launch::async, [&model, line] {
        return Classify(*model, ReadNumbers(line));
      }));
    }
    for (size_t i = 0; i < classes.size(); ++i) {
      std::printf("clip %zu: class %d\n", i + 1, classes[i].get());
    }
    return classes.empty() ? 1 : 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
    return 1;
  }
}
