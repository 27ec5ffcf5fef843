// Part of every target: a fatal check is no finding, so that the level
// silences all of them and the code runs on behind each.

#include <iostream>

#include "utils/logging.h"

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  tarn::SetLogLevel(static_cast<tarn::Severity>(tarn::FATAL + 1));
  std::cerr.setstate(std::ios::failbit);  // Where usage texts go.
  return 0;
}
