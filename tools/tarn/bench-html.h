#ifndef TOOLS_TARN_BENCH_HTML_H_
#define TOOLS_TARN_BENCH_HTML_H_

#include <string>

#include "bench-measure.h"
#include "bench-report.h"

namespace tarn::tool::bench {

// The report as one page that needs nothing else, with plots.
std::string ReportHtml(const Setup& setup, const Report& report);

}  // namespace tarn::tool::bench

#endif  // TOOLS_TARN_BENCH_HTML_H_
