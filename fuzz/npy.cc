// The tool's reader of .npy files.

#include "npy.h"

#include <string>

#include "command.h"
#include "fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace tarn::tool;  // NOLINT: the function cannot be inside it.
  try {
    const NpyArray array = ParseNpy(tarn::fuzz::Text(data, size), "file");
    const NpyArray again = ParseNpy(FormatNpy(array), "file");
    tarn::fuzz::Require(again.type == array.type &&
                            again.shape == array.shape &&
                            again.elements == array.elements,
                        "an array reads back as it was written");
  } catch (const Failure&) {  // What the reader says of a bad file.
  }
  return 0;
}
