#include "utils/device-utils.h"

#include <cstring>

#include "utils/logging.h"

namespace tarn {

void SetActiveDevice(const Device& device) {
  if (device.kind == Device::CUDA) {
    TARN_LOG(FATAL) << "expect macro:ON_DEVICE_CUDA to be turned on.";
  }
}

void* MallocOnDevice(unsigned int size) {
  if (size > 0) TARN_LOG(FATAL) << "malloc memorys on unknow device.";
  return nullptr;
}

void FreeOnDevice(void* /*ptr*/) {
  TARN_LOG(FATAL) << "free memorys on unknow device.";
}

void MemorySet(void* dst, unsigned char value, unsigned int size,
               Tensor::Location location) {
  if (size == 0) return;
  if (dst == nullptr) {
    TARN_LOG(FATAL) << "the dst is nullptr.";
    return;  // Reached only when the log level silences fatal checks.
  }
  if (location == Tensor::DEVICE) {
    TARN_LOG(FATAL) << "set memorys on unknow device.";
    return;  // Reached only when the log level silences fatal checks.
  }
  std::memset(dst, value, size);
}

void MemoryCopy(void* dst, void* src, unsigned int size,
                MemCopyDirection direction) {
  if (size == 0) return;
  if (dst == nullptr || src == nullptr) {
    TARN_LOG(FATAL) << "the dst or src is nullptr.";
    return;  // Reached only when the log level silences fatal checks.
  }
  switch (direction) {
    case HOST_TO_DEVICE:
    case DEVICE_TO_DEVICE:
    case DEVICE_TO_HOST:
      TARN_LOG(FATAL) << "copy memorys on unknow device.";
      return;  // Reached only when the log level silences fatal checks.
    case HOST_TO_HOST:
      break;
  }
  std::memcpy(dst, src, size);
}

}  // namespace tarn
