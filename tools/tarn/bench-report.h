#ifndef TOOLS_TARN_BENCH_REPORT_H_
#define TOOLS_TARN_BENCH_REPORT_H_

#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "bench-measure.h"
#include "bench-stats.h"
#include "table.h"

namespace tarn::tool::bench {

// One scheduling that the search for the best one has tried.
struct Trial {
  int batch_size = 1;
  int interval_us = 0;
  int engine_threads = 0;
  int at_least = 1;      // The search began here.
  int most_streams = 0;  // Within the deadline; 0 when `at_least` is too many.
  std::optional<Measurement> best;  // With that many streams.
};

// All that one run of the tool has found.
struct Report {
  // The step that the details are given of: the last one that kept the pace,
  // of a search that with the most streams. Null without steps.
  const Measurement* Shown() const;

  std::vector<Measurement> bare;   // By ascending batch size.
  std::vector<Measurement> steps;  // In the order in which they were made.
  std::vector<Trial> trials;
  std::vector<std::string> verdict;  // Sentences.
  std::optional<int> most_streams;   // Of the search, if there was one.
  bool held = true;                  // Whether all that was asked for held.
};

// Titles and cells of a table, for a terminal or a page.
struct Cells {
  std::vector<std::string> titles;
  std::vector<std::vector<std::string>> rows;
};

// Three significant digits; "-" for NaN, which is unknown.
std::string Figure(double value);

// What was measured, as name and value.
std::vector<std::pair<std::string, std::string>> Conditions(const Setup& setup);

Cells MeasurementCells(const Report& report);
Cells TrialCells(const Report& report);
Cells BatchSizeCells(const Measurement& measurement);
Cells AgeCells(const Measurement& measurement);

// For people.
void PrintReport(const Setup& setup, const Report& report, std::ostream& os);

// For programs; unknown figures are null.
nlohmann::ordered_json ReportJson(const Setup& setup, const Report& report);

// One line per measurement; unknown figures are empty.
std::string ReportCsv(const Report& report);

}  // namespace tarn::tool::bench

#endif  // TOOLS_TARN_BENCH_REPORT_H_
