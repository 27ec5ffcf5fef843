#include "utils/tarn-device.h"

#include <gtest/gtest.h>

#include <string>

#include "support/log.h"
#include "support/table.h"
#include "utils/device-utils.h"

namespace tarn {
namespace {

TEST(DeviceTest, ParsesNamesAndNumbers) {
  for (const auto& row : Rows(R"(
cpu | 0 0 cpu
Cpu:3 | 0 3 cpu
CUDA | 1 0 cuda:0
cuda:2x | 1 2 cuda:2
cuda: -1 | 1 -1 cuda:-1
htp:1:2 | 2 1 htp)")) {
    const Device device(row[0]);
    EXPECT_EQ(std::to_string(device.kind) + " " + std::to_string(device.index) +
                  " " + device.ToString(),
              row[1]);
  }
  Device device("cpu");
  device.kind = static_cast<Device::Kind>(3);  // NOLINT: out of range.
  EXPECT_EQ(device.ToString(), "unknow");
}

TEST(DeviceDeathTest, RejectsOtherTexts) {
  for (const std::string text : {"", "GPU", " cpu", "cpu ", ":1",
                                 "cuda:", "cuda:x", "cuda:2147483648"}) {
    ExpectFatal([&] { Device device(text); }, "invalid device: '" + text + "'.",
                "Device", "src/utils/tarn-device");
  }
}

TEST(MemoryTest, WorksOnTheHostAndIgnoresSizeZero) {
  char block[] = "abcd";
  MemorySet(block, 'x', 2, Tensor::HOST);
  MemoryCopy(block + 1, block + 3, 1, HOST_TO_HOST);
  const auto kOther =
      static_cast<MemCopyDirection>(4);  // NOLINT: out of range.
  MemoryCopy(block + 3, block, 1, kOther);
  EXPECT_STREQ(block, "xdcx");
  MemorySet(nullptr, 0, 0, Tensor::DEVICE);
  MemoryCopy(nullptr, nullptr, 0, HOST_TO_DEVICE);
  EXPECT_EQ(MallocOnDevice(0), nullptr);
  SetActiveDevice(Device("htp:1"));
}

TEST(MemoryDeathTest, RefusesDevicesAndNullPointers) {
  char b[2];
  const auto expect = [](const std::string& line, const Action& action) {
    ExpectFatalUnlessSilent(action, "FATAL " + line);
  };
  expect("SetActiveDevice: expect macro:ON_DEVICE_CUDA to be turned on.",
         [] { SetActiveDevice(Device("cuda:1")); });
  expect("MallocOnDevice: malloc memorys on unknow device.",
         [] { EXPECT_EQ(MallocOnDevice(1), nullptr); });
  expect("FreeOnDevice: free memorys on unknow device.",
         [] { FreeOnDevice(nullptr); });
  expect("MemorySet: the dst is nullptr.",
         [] { MemorySet(nullptr, 0, 1, Tensor::DEVICE); });
  expect("MemorySet: set memorys on unknow device.",
         [&] { MemorySet(b, 0, 1, Tensor::DEVICE); });
  expect("MemoryCopy: the dst or src is nullptr.",
         [&] { MemoryCopy(b, nullptr, 1, HOST_TO_DEVICE); });
  expect("MemoryCopy: the dst or src is nullptr.",
         [&] { MemoryCopy(nullptr, b, 1, HOST_TO_HOST); });
  for (const auto way : {HOST_TO_DEVICE, DEVICE_TO_DEVICE, DEVICE_TO_HOST}) {
    expect("MemoryCopy: copy memorys on unknow device.",
           [&] { MemoryCopy(b, b + 1, 1, way); });
  }
}

}  // namespace
}  // namespace tarn
