// Runs streams from files through a model, all at once, each in a thread of
// its own, and writes what comes out to files.
//
// usage: run-streams CONFIG MODEL DIRECTORY STREAM_NUM
//
// Stream i reads DIRECTORY/i/<input> for each input, the raw elements of its
// chunks one after the other, and writes DIRECTORY/i/<output> likewise. Prints
// the size of the largest batch.

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tarn/tarn.h"

namespace {

class LargestBatch : public tarn::InferenceObserver {
 public:
  void OnEvent(Event event,
               const std::vector<tarn::BaseProxy*>& proxies) override {
    if (event == TAKEN) size_ = std::max(size_.load(), proxies.size());
  }
  size_t size() const { return size_; }

 private:
  std::atomic<size_t> size_{0};
};

size_t ByteNum(const tarn::Tensor& tensor) {
  return size_t{tensor.GetElementNum()} * tensor.GetElementSize();
}

// Fills every input with its next chunk. Returns whether there was one.
bool ReadChunk(tarn::Proxy& proxy, std::vector<std::ifstream>& files) {
  for (unsigned int i = 0; i < files.size(); ++i) {
    const std::string& name = proxy.GetInputName(i);
    tarn::Tensor tensor = proxy.CreateInput(name, proxy.GetInputShape(i));
    if (!files[i].read(tensor.Data<char>(),
                       static_cast<std::streamsize>(ByteNum(tensor)))) {
      return false;
    }
    proxy.SetInput(name, tensor);
  }
  return true;
}

void RunStream(tarn::Proxy& proxy, const std::string& directory) {
  std::vector<std::ifstream> inputs;
  std::vector<std::ofstream> outputs;
  for (unsigned int i = 0; i < proxy.GetInputNum(); ++i) {
    inputs.emplace_back(directory + proxy.GetInputName(i), std::ios::binary);
  }
  for (unsigned int i = 0; i < proxy.GetOutputNum(); ++i) {
    outputs.emplace_back(directory + proxy.GetOutputName(i), std::ios::binary);
  }
  while (ReadChunk(proxy, inputs) && proxy.Inference()) {
    for (unsigned int i = 0; i < outputs.size(); ++i) {
      const tarn::Tensor& tensor = proxy.GetOutput(proxy.GetOutputName(i));
      outputs[i].write(tensor.Data<char>(),
                       static_cast<std::streamsize>(ByteNum(tensor)));
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) {
    std::cerr << "usage: run-streams CONFIG MODEL DIRECTORY STREAM_NUM\n";
    return EXIT_FAILURE;
  }
  tarn::SetLogLevel(tarn::ERROR);
  const tarn::ModelOptions options(argv[1], /*scrambled=*/false);
  const std::unique_ptr<tarn::Model> model(
      tarn::NewModel(options, "onnx", "cpu", argv[2], "", ""));
  LargestBatch largest;
  tarn::SetObserver(model.get(), &largest);
  std::vector<std::thread> threads;
  for (int i = 0; i < std::atoi(argv[4]); ++i) {
    threads.emplace_back(
        [&model, path = std::string(argv[3]) + "/" + std::to_string(i) + "/"] {
          const std::unique_ptr<tarn::Proxy> proxy(model->NewProxy());
          RunStream(*proxy, path);
        });
  }
  for (std::thread& thread : threads) thread.join();
  tarn::SetObserver(model.get(), nullptr);
  std::cout << largest.size() << '\n';
  return EXIT_SUCCESS;
}
