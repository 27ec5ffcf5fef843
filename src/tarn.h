#ifndef TARN_TARN_H_
#define TARN_TARN_H_

// All that a host application needs: options, models, proxies, tensors, the
// log level and the version.

#include "base/base-model-options.h"
#include "base/base-model.h"
#include "base/base-proxy.h"
#include "base/tarn-functions.h"
#include "base/tarn-tensor.h"
#include "utils/logging.h"
#include "utils/version.h"

#endif  // TARN_TARN_H_
