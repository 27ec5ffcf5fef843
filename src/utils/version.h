#ifndef TARN_UTILS_VERSION_H_
#define TARN_UTILS_VERSION_H_

#include "utils/export.h"

namespace tarn {

// The library's version, such as "0.1.0": that of the library which runs, not
// of the headers that a program was compiled with.
TARN_EXPORT const char* Version();

}  // namespace tarn

#endif  // TARN_UTILS_VERSION_H_
