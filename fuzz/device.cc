// Device texts.

#include <string>

#include "fuzz.h"
#include "utils/tarn-device.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using tarn::Device;
  const Device device(tarn::fuzz::Text(data, size));
  const Device again(device.ToString());
  tarn::fuzz::Require(
      device.kind == again.kind &&
          (device.kind != Device::CUDA || device.index == again.index),
      "a device reads back as itself");
  return 0;
}
