#ifndef TARN_UTILS_DEVICE_UTILS_H_
#define TARN_UTILS_DEVICE_UTILS_H_

#include <cstdint>

#include "base/tarn-tensor.h"
#include "utils/export.h"
#include "utils/tarn-device.h"

namespace tarn {

enum MemCopyDirection : int32_t {
  HOST_TO_HOST = 0,
  HOST_TO_DEVICE = 1,
  DEVICE_TO_DEVICE = 2,
  DEVICE_TO_HOST = 3,
};

// Memory on the host and on accelerators. This build has no accelerator: every
// device-side path is FATAL. Sizes are in bytes; size 0 does nothing. All
// functions keep no state and may be called from any thread.

// Makes `device` the one that the calling thread works on; FATAL for CUDA.
TARN_EXPORT void SetActiveDevice(const Device& device);

// Null for size 0, else FATAL.
TARN_EXPORT void* MallocOnDevice(unsigned int size);

// Always FATAL.
TARN_EXPORT void FreeOnDevice(void* ptr);

// Sets `size` bytes at `dst` to `value`. FATAL for a null `dst`.
TARN_EXPORT void MemorySet(void* dst, unsigned char value, unsigned int size,
                           Tensor::Location location);

// Copies `size` bytes between blocks that don't overlap. FATAL for a null
// pointer.
TARN_EXPORT void MemoryCopy(void* dst, void* src, unsigned int size,
                            MemCopyDirection direction);

}  // namespace tarn

#endif  // TARN_UTILS_DEVICE_UTILS_H_
