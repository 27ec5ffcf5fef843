#ifndef TARN_MODEL_ONNX_SESSION_OPTIONS_H_
#define TARN_MODEL_ONNX_SESSION_OPTIONS_H_

#include <onnxruntime_cxx_api.h>

namespace tarn {

// How a network is run: by the backend, and by the bare sessions that it is
// compared with. One run uses that many threads, 0 for the engine's default.
inline Ort::SessionOptions OnnxSessionOptions(int thread_num) {
  Ort::SessionOptions options;
  options.SetIntraOpNumThreads(thread_num);
  options.SetGraphOptimizationLevel(ORT_ENABLE_EXTENDED);
  options.DisableCpuMemArena();
  options.DisableMemPattern();
  return options;
}

}  // namespace tarn

#endif  // TARN_MODEL_ONNX_SESSION_OPTIONS_H_
