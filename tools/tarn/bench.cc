// How fast is a model with the library, how many streams can it serve, and how
// should it be scheduled?

#include <algorithm>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "bench-html.h"
#include "bench-measure.h"
#include "bench-report.h"
#include "bench-tune.h"
#include "command.h"
#include "config-file.h"
#include "safe-file.h"

namespace tarn::tool {

namespace bench {

namespace {

constexpr int kMostDefaultThreads = 64;

int ThreadNum(const Setup& setup) {
  if (setup.asked.threads > 0) return setup.asked.threads;
  return std::min(2 * BatchRange(*setup.model.info).second,
                  kMostDefaultThreads);
}

void MeasureClosedLoop(const Setup& setup, MeasuredModel& model,
                       Report& report) {
  const int most = ThreadNum(setup);
  for (int threads = 1; !setup.interrupt.IsRaised();
       threads = std::min(2 * threads, most)) {
    const Measurement step = model.Measure(threads, /*chunk_ms=*/0);
    if (step.requests > 0) report.steps.push_back(step);
    if (threads == most) return;
  }
}

void JudgePace(const Measurement& step, Report& report) {
  const std::string streams = StreamNum(step.streams) + ": ";
  if (step.PaceKept()) {
    report.verdict.push_back(streams + "the machine kept the pace");
    return;
  }
  report.held = false;
  report.verdict.push_back(
      streams + "the machine could not keep the pace: of " +
      std::to_string(step.requests + step.undone) + " chunks due " +
      std::to_string(step.late) + " took longer than a chunk lasts and " +
      std::to_string(step.undone) + " were not computed; latencies would " +
      "grow for as long as it went on, and are not given");
}

void JudgeDeadline(const Measurement& step, double deadline_ms,
                   Report& report) {
  const bool holds = step.Holds(deadline_ms);
  report.held = report.held && holds;
  report.verdict.push_back("p99 " + Figure(step.latency.Percentile(99)) +
                           " ms: " + (holds ? "within" : "over") +
                           " the deadline of " + Figure(deadline_ms) + " ms");
}

void MeasureRealTime(const Setup& setup, MeasuredModel& model, int streams,
                     Report& report) {
  if (setup.interrupt.IsRaised()) return;
  const Measurement step = model.Measure(streams, setup.asked.chunk_ms);
  if (step.requests + step.undone == 0) return;
  report.steps.push_back(step);
  JudgePace(step, report);
  if (setup.asked.deadline_ms > 0 && step.PaceKept()) {
    JudgeDeadline(step, setup.asked.deadline_ms, report);
  }
}

void MeasureMostStreams(const Setup& setup, MeasuredModel& model,
                        Report& report) {
  const std::optional<Measurement> best =
      SearchStreams(setup, model, /*at_least=*/1, report.steps);
  report.most_streams = best ? best->streams : 0;
  report.held = best.has_value();
  const bool limited = report.most_streams == setup.asked.max_streams;
  report.verdict.push_back(
      "most streams within " + Figure(setup.asked.deadline_ms) +
      " ms: " + std::to_string(*report.most_streams) +
      (limited ? " (the search ended at --max-streams)" : ""));
}

// Measures the winner again, with fewer streams until they hold: that of many
// trials which did best was lucky, too.
void ConfirmWinner(const Setup& setup, MeasuredModel& model, Report& report) {
  report.verdict.emplace_back("once more, with fewer streams until they hold:");
  report.held = false;
  for (int streams = *report.most_streams; streams > 0 && !report.held;
       streams -= std::max(1, streams / 8)) {
    report.held = !setup.interrupt.IsRaised();
    MeasureRealTime(setup, model, streams, report);
    report.most_streams = report.held ? streams : 0;
  }
}

// Measures what was asked for, but tuning; returns the model, for its log.
std::unique_ptr<MeasuredModel> Measure(const Setup& setup, Report& report) {
  const BenchOptions& asked = setup.asked;
  auto model = std::make_unique<MeasuredModel>(setup, setup.model.options);
  if (asked.streams > 0) {
    MeasureRealTime(setup, *model, asked.streams, report);
  } else if (asked.deadline_ms > 0) {
    MeasureMostStreams(setup, *model, report);
  } else {
    MeasureClosedLoop(setup, *model, report);
  }
  return model;
}

// Writes the best scheduling, if there is one; returns its model.
std::unique_ptr<MeasuredModel> MeasureTuned(const Setup& setup,
                                            Report& report) {
  const std::optional<ModelOptions> best = Tune(setup, report);
  if (!best || setup.interrupt.IsRaised()) {
    report.held = false;
    report.verdict.emplace_back("no configuration was written");
    return nullptr;
  }
  auto model = std::make_unique<MeasuredModel>(setup, *best);
  ConfirmWinner(setup, *model, report);
  WriteFile(setup.asked.output, ConfigText(*best, {}));
  return model;
}

void WriteFiles(const Setup& setup, const Report& report) {
  const BenchOptions& asked = setup.asked;
  if (!asked.csv.empty()) WriteFile(asked.csv, ReportCsv(report));
  if (!asked.html.empty()) WriteFile(asked.html, ReportHtml(setup, report));
}

Status Bench(const BenchOptions& asked) {
  const Interrupt interrupt;
  Setup setup = MakeSetup(asked, interrupt);
  Report report;
  report.bare = MeasureBare(setup);
  for (const std::string& warning : setup.warnings) {
    std::cerr << "tarn: warning: " << warning << '\n';
  }
  const std::unique_ptr<MeasuredModel> model =
      asked.tune ? MeasureTuned(setup, report) : Measure(setup, report);
  if (interrupt.IsRaised()) {
    report.verdict.emplace_back("interrupted: these are the figures so far");
  }
  if (asked.json) {
    std::cout << ReportJson(setup, report).dump(2) << '\n';
  } else {
    PrintReport(setup, report, std::cout);
  }
  WriteFiles(setup, report);
  if (!asked.trace.empty() && model) model->log().WriteTrace(asked.trace);
  return report.held ? kYes : kNo;
}

// CLI::Range takes a NaN.
CLI::Validator Within(double min, double max) {
  const std::string range =
      CLI::detail::to_string(min) + " to " + CLI::detail::to_string(max);
  return CLI::Validator(
      [=](std::string& text) {
        double value = 0;
        return CLI::detail::lexical_cast(text, value) && value >= min &&
                       value <= max
                   ? std::string()
                   : "expected a number from " + range + ": " + text;
      },
      range);
}

void AddLoadOptions(CLI::App& command, BenchOptions& options) {
  command
      .add_option("--fix,--dim", options.dims,
                  "NAME=SIZE of a dynamic dimension; the largest if absent")
      ->check(CheckAssignment)
      ->allow_extra_args(false);
  command.add_option("--seconds", options.seconds, "Length of a step")
      ->check(Within(0.01, 86400.0))
      ->capture_default_str();
  auto* threads =
      command
          .add_option("--threads", options.threads,
                      "Closed loop: 1, 2, 4 ... up to so many callers")
          ->check(CLI::Range(1, 4096));
  auto* chunk = command
                    .add_option("--chunk-ms", options.chunk_ms,
                                "Audio in one request, in milliseconds")
                    ->check(Within(0.1, 60000.0));
  command
      .add_option("--streams", options.streams,
                  "Real time: so many streams of live audio")
      ->check(CLI::Range(1, 4096))
      ->needs(chunk)
      ->excludes(threads);
  command
      .add_option("--jitter-ms", options.jitter_ms,
                  "Chunks come up to so much later, at random")
      ->check(Within(0.0, 60000.0))
      ->needs(chunk);
  command.add_option("--seed", options.seed, "Of inputs, phases and jitter")
      ->capture_default_str();
  command
      .add_option("--deadline-ms", options.deadline_ms,
                  "What p99 is held against; without --streams, the most "
                  "streams that hold it are searched")
      ->check(Within(0.01, 60000.0))
      ->needs(chunk)
      ->excludes(threads);
  command
      .add_option("--max-streams", options.max_streams, "Where the search ends")
      ->check(CLI::Range(1, 4096))
      ->capture_default_str();
}

void AddTuneOptions(CLI::App& command, BenchOptions& options) {
  auto* output = command.add_option("-o,--output", options.output,
                                    "Configuration file that --tune writes");
  auto* tune =
      command
          .add_flag("--tune", options.tune,
                    "Search batch size, interval and engine threads for the "
                    "most streams within the deadline")
          ->needs("--deadline-ms")
          ->needs(output)
          ->excludes("--streams");
  output->needs(tune);
  command
      .add_option("--max-batch", options.max_batch,
                  "Largest batch size to try, instead of that described")
      ->check(CLI::Range(1, 65536))
      ->needs(tune);
}

void AddOutputOptions(CLI::App& command, BenchOptions& options) {
  command.add_flag("--json", options.json, "Print a document for programs");
  command.add_option("--csv", options.csv, "Write one line per step");
  command.add_option("--html", options.html, "Write a page with plots");
  command.add_option("--trace", options.trace,
                     "Write the last step's requests as a Chrome trace; a "
                     "step then ends after 50000 of them");
}

}  // namespace

}  // namespace bench

void AddBench(CLI::App& app, Status& status) {
  CLI::App* command = app.add_subcommand(
      "bench", "How fast a model is, and how many streams it serves");
  const auto options = std::make_shared<bench::BenchOptions>();
  AddModelArguments(*command, options->model);
  bench::AddLoadOptions(*command, *options);
  bench::AddTuneOptions(*command, *options);
  bench::AddOutputOptions(*command, *options);
  command->callback([options, &status] { status = bench::Bench(*options); });
}

}  // namespace tarn::tool
