#ifndef TARN_UTILS_TARN_DEVICE_H_
#define TARN_UTILS_TARN_DEVICE_H_

#include <cstdint>
#include <string>

#include "utils/export.h"

namespace tarn {

// The device a model runs on; a plain value.
struct TARN_EXPORT Device {
  // What sort of device it is.
  enum Kind : int32_t {
    CPU = 0,
    CUDA = 1,
    HTP = 2,
  };

  Device() = default;

  // Parses "cpu", "cuda" or "htp" in any case, with ":<number>" behind it for
  // another device than number 0. FATAL for any other text.
  explicit Device(const std::string& text);

  // "cpu", "cuda:" and the index, "htp", or "unknow" for any other kind.
  std::string ToString() const;

  Kind kind = CPU;    // CPU unless told otherwise.
  int32_t index = 0;  // Which one of its kind, from 0.
};

}  // namespace tarn

#endif  // TARN_UTILS_TARN_DEVICE_H_
