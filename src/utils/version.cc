#include "utils/version.h"

namespace tarn {

const char* Version() { return TARN_VERSION; }

}  // namespace tarn
