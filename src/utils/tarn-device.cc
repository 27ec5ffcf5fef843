#include "utils/tarn-device.h"

#include <cctype>
#include <stdexcept>

#include "utils/parse-device.h"

namespace tarn {

namespace {

bool ParseKind(const std::string& name, Device::Kind& kind) {
  if (name == "cpu") {
    kind = Device::CPU;
  } else if (name == "cuda") {
    kind = Device::CUDA;
  } else if (name == "htp") {
    kind = Device::HTP;
  } else {
    return false;
  }
  return true;
}

// Reads the leading number of `text`; whatever follows it is ignored.
bool ParseIndex(const std::string& text, int32_t& index) {
  try {
    index = std::stoi(text);
    return true;
  } catch (const std::logic_error&) {  // No number, or one beyond int.
    return false;
  }
}

}  // namespace

bool ParseDevice(const std::string& text, const Reporter& reporter,
                 Device& device) {
  std::string lower = text;
  for (char& c : lower) {
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  const size_t colon = lower.find(':');
  const bool numbered = colon != std::string::npos;
  const bool valid =
      ParseKind(lower.substr(0, colon), device.kind) &&
      ParseIndex(numbered ? lower.substr(colon + 1) : "0", device.index);
  if (!valid) {
    reporter.As("Device").Report(FATAL, {"device", "use cpu, cuda:0 or htp"})
        << "invalid device: '" << text << "'.";
  }
  return valid;
}

Device::Device(const std::string& text) {
  ParseDevice(text, Reporter(), *this);
}

std::string Device::ToString() const {
  switch (kind) {
    case CPU:
      return "cpu";
    case CUDA:
      return "cuda:" + std::to_string(index);
    case HTP:
      return "htp";
  }
  return "unknow";
}

}  // namespace tarn
