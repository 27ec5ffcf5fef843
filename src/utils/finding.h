#ifndef TARN_UTILS_FINDING_H_
#define TARN_UTILS_FINDING_H_

#include <cstdint>
#include <string>

#include "utils/export.h"
#include "utils/logging.h"

namespace tarn {

// One thing that is wrong with a model's description, or with the match of
// description and network. CheckModel() reports them.
struct TARN_EXPORT Finding {
  // FATAL: no model can be made. ERROR: a line of the configuration file was
  // not understood. WARNING: legal, but likely not meant.
  Severity severity = FATAL;
  std::string option;  // The option concerned; empty when it is no single one.
  int32_t line = 0;    // Where the configuration file gives it; 0: unknown.
  std::string rule;    // A fixed short name, such as "range-missing".
  std::string found;   // What was found, in the words of the library's log.
  std::string hint;    // What would mend it.
};

}  // namespace tarn

#endif  // TARN_UTILS_FINDING_H_
