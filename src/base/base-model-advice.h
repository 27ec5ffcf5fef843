#ifndef TARN_BASE_BASE_MODEL_ADVICE_H_
#define TARN_BASE_BASE_MODEL_ADVICE_H_

#include <string>

#include "base/base-model-info.h"
#include "base/base-model-options.h"
#include "utils/reporter.h"

namespace tarn {

// Warns of settings that are legal but likely not meant, and reports sizes that
// the library finds bad only when it allocates. Not for the log: the library
// itself takes a consistent description as it is.
void GiveAdvice(const ModelOptions& options, const ModelInfo& info,
                const std::string& backend, const Reporter& reporter);

}  // namespace tarn

#endif  // TARN_BASE_BASE_MODEL_ADVICE_H_
