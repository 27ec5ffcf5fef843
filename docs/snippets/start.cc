#include <cstdio>
#include <exception>
#include <memory>

#include <tarn/tarn.h>

// Runs three chunks of ones through one stream.
int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s CONFIG MODEL\n", argv[0]);
    return 2;
  }
  std::setvbuf(stdout, nullptr, _IOLBF, 0);  // A fatal line must not get lost.
  try {
    const tarn::ModelOptions options(argv[1], /*scrambled=*/false);
    const std::unique_ptr<tarn::Model> model(
        tarn::NewModel(options, "onnx", "cpu", argv[2], "", ""));
    const std::unique_ptr<tarn::Proxy> stream(model->NewProxy());
    for (int i = 0; i < 3; ++i) {
      tarn::Tensor x = stream->CreateInput("x", stream->GetInputShape("x"));
      x.Fill(1.0F);
      stream->SetInput("x", x);
      if (!stream->Inference()) return 1;  // The log says why.
      std::printf("%g\n", *stream->GetOutput("y").Data<float>());
    }
  } catch (const std::exception& error) {  // The engine can't load the file.
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
  return 0;
}
