#ifndef TARN_UTILS_PARSE_DEVICE_H_
#define TARN_UTILS_PARSE_DEVICE_H_

#include <string>

#include "utils/reporter.h"
#include "utils/tarn-device.h"

namespace tarn {

// Parses a text as Device's constructor does. Returns false for any other text,
// with a FATAL report and with what was understood in `device`.
bool ParseDevice(const std::string& text, const Reporter& reporter,
                 Device& device);

}  // namespace tarn

#endif  // TARN_UTILS_PARSE_DEVICE_H_
