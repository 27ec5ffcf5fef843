#include "bench-report.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <limits>

#include "bench-process.h"
#include "config-file.h"

namespace tarn::tool::bench {

namespace {

using Json = nlohmann::ordered_json;

constexpr size_t kBarWidth = 40;
constexpr double kUnknown = std::numeric_limits<double>::quiet_NaN();

std::string LoadName(const Measurement& measurement) {
  switch (measurement.kind) {
    case Measurement::BARE:
      return "bare engine";
    case Measurement::CLOSED_LOOP:
      return "closed loop";
    case Measurement::REAL_TIME:
      return "real time";
  }
  return "";
}

Json DistributionJson(const Distribution& distribution) {
  return {{"count", distribution.count()},
          {"p50", distribution.Percentile(50)},
          {"p90", distribution.Percentile(90)},
          {"p99", distribution.Percentile(99)},
          {"max", distribution.Percentile(100)}};
}

Json AgesJson(const Measurement& measurement) {
  Json ages = Json::array();
  for (const Age& age : measurement.ages) {
    ages.push_back({{"first", age.first},
                    {"last", age.last},
                    {"latency_ms", DistributionJson(age.latency)}});
  }
  return ages;
}

Json BatchSizesJson(const Measurement& measurement) {
  Json sizes = Json::array();
  for (const auto& [size, batches] : measurement.batch_sizes) {
    sizes.push_back({{"size", size}, {"batches", batches}});
  }
  return sizes;
}

// The figures that have one value each, some in groups.
Json FiguresJson(const Measurement& measurement,
                 const std::vector<Measurement>& bare) {
  const bool real_time = measurement.kind == Measurement::REAL_TIME;
  const bool is_bare = measurement.kind == Measurement::BARE;
  Json json{
      {"load", LoadName(measurement)},
      {"streams", is_bare ? Json() : Json(measurement.streams)},
      {"batch_size", measurement.batch_size},
      {"seconds", measurement.seconds},
      {"requests", measurement.requests},
      {"chunks_due",
       real_time ? Json(measurement.requests + measurement.undone) : Json()},
      {"chunks_late", real_time ? Json(measurement.late) : Json()},
      {"chunks_undone", real_time ? Json(measurement.undone) : Json()},
      {"pace_kept", real_time ? Json(measurement.PaceKept()) : Json()},
      {"requests_per_second", measurement.RequestsPerSecond()},
      {"latency_ms", DistributionJson(measurement.KnownLatency())},
      {"queue_ms", DistributionJson(measurement.queue)},
      {"copy_ms", DistributionJson(measurement.copy)},
      {"compute_ms", DistributionJson(measurement.compute)},
      {"mean_batch_size", measurement.MeanBatchSize()},
      {"cpu_seconds", measurement.cpu_seconds},
      {"cpu_ms_per_request", measurement.CpuMsPerRequest()},
      {"cpu_seconds_per_audio_second", measurement.CpuPerAudio()},
      {"peak_memory_mb", measurement.peak_mb},
  };
  for (const Measurement& other : bare) {
    json["of_bare_batch_" + std::to_string(other.batch_size)] = {
        {"requests_per_second",
         measurement.RequestsPerSecond() / other.RequestsPerSecond()},
        {"cpu_ms_per_request",
         measurement.CpuMsPerRequest() / other.CpuMsPerRequest()}};
  }
  return json;
}

Json MeasurementsJson(const std::vector<Measurement>& measurements,
                      const std::vector<Measurement>& bare) {
  Json all = Json::array();
  for (const Measurement& measurement : measurements) {
    Json json = FiguresJson(measurement, bare);
    json["batch_sizes"] = BatchSizesJson(measurement);
    json["ages"] = measurement.PaceKept() ? AgesJson(measurement) : Json();
    all.push_back(json);
  }
  return all;
}

Json TrialsJson(const std::vector<Trial>& trials) {
  Json all = Json::array();
  for (const Trial& trial : trials) {
    all.push_back({{"batch_size", trial.batch_size},
                   {"infer_interval_us", trial.interval_us},
                   {"num_execute_threads", trial.engine_threads},
                   {"at_least", trial.at_least},
                   {"most_streams", trial.most_streams}});
  }
  return all;
}

// Bars for people who look for the shape of it.
Cells WithBars(Cells cells, size_t column) {
  cells.titles.emplace_back();
  for (auto& row : cells.rows) {
    const auto share = static_cast<size_t>(std::lround(std::stod(row[column])));
    row.push_back(std::string(share * kBarWidth / 100, '#'));
  }
  return cells;
}

void Print(const std::string& title, const Cells& cells, std::ostream& os) {
  if (cells.rows.empty()) return;
  os << '\n' << title << '\n';
  Table table(cells.titles);
  for (const auto& row : cells.rows) table.AddRow(row);
  table.Print(os);
}

std::string CsvCell(const Json& value) {
  if (value.is_null()) return "";
  if (value.is_number_float() && !std::isfinite(value.get<double>())) return "";
  return value.is_string() ? value.get<std::string>() : value.dump();
}

// "/latency_ms/p50" becomes "latency_ms_p50".
std::string CsvTitle(std::string path) {
  path.erase(0, 1);
  std::replace(path.begin(), path.end(), '/', '_');
  return path;
}

}  // namespace

const Measurement* Report::Shown() const {
  if (steps.empty()) return nullptr;
  const auto shown = std::find_if(
      steps.rbegin(), steps.rend(), [this](const Measurement& step) {
        return step.PaceKept() &&
               step.streams == most_streams.value_or(step.streams);
      });
  return shown == steps.rend() ? &steps.back() : &*shown;
}

std::string Figure(double value) {
  if (!std::isfinite(value)) return "-";
  const double size = std::fabs(value);
  const int decimals = size >= 99.95   ? 0
                       : size >= 9.995 ? 1
                       : size >= 0.995 ? 2
                                       : 3;
  std::array<char, 64> text = {};
  std::snprintf(text.data(), text.size(), "%.*f", decimals, value);
  return text.data();
}

std::vector<std::pair<std::string, std::string>> Conditions(
    const Setup& setup) {
  const BenchOptions& asked = setup.asked;
  std::vector<std::pair<std::string, std::string>> conditions = {
      {"model", asked.model.model},
      {"configuration", asked.model.config},
      {"machine", DescribeMachine()},
      {"engine", asked.model.backend + " on " + asked.model.device},
  };
  const auto texts = OptionTexts(setup.model.options);
  for (const auto& [name, value] : texts) {
    if (name.find("thread") != std::string::npos || name == "batch-dim" ||
        name == "dynamic-dims" || name == "infer-interval") {
      conditions.emplace_back(name, value.empty() ? "none" : value);
    }
  }
  for (const auto& [name, size] : setup.sizes) {
    conditions.emplace_back("size of " + name, std::to_string(size));
  }
  conditions.emplace_back("seconds per step", Figure(asked.seconds));
  conditions.emplace_back("seed", std::to_string(asked.seed));
  const auto add_ms = [&](const char* name, double ms) {
    if (ms > 0) conditions.emplace_back(name, Figure(ms) + " ms");
  };
  add_ms("chunk", asked.chunk_ms);
  add_ms("jitter", asked.jitter_ms);
  add_ms("deadline", asked.deadline_ms);
  return conditions;
}

Cells MeasurementCells(const Report& report) {
  Cells cells{{"load", "streams", "req/s", "p50 ms", "p90 ms", "p99 ms",
               "max ms", "queue p50", "compute p50", "batch", "CPU ms/req",
               "CPU s/audio s", "peak MB"},
              {}};
  for (const Measurement& bare : report.bare) {
    cells.titles.push_back("x bare " + std::to_string(bare.batch_size));
  }
  const auto add = [&](const Measurement& step) {
    const Distribution latency = step.KnownLatency();
    const bool bare = step.kind == Measurement::BARE;
    std::vector<std::string> row = {
        LoadName(step) +
            (bare ? ", batch " + std::to_string(step.batch_size) : "") +
            (step.PaceKept() ? "" : ", PACE LOST"),
        bare ? "-" : std::to_string(step.streams),
        Figure(step.RequestsPerSecond())};
    for (const double value :
         {latency.Percentile(50), latency.Percentile(90),
          latency.Percentile(99), latency.Percentile(100),
          step.queue.Percentile(50), step.compute.Percentile(50),
          step.MeanBatchSize(), step.CpuMsPerRequest(), step.CpuPerAudio(),
          step.peak_mb}) {
      row.push_back(Figure(value));
    }
    for (const Measurement& other : report.bare) {
      row.push_back(
          Figure(step.RequestsPerSecond() / other.RequestsPerSecond()));
    }
    cells.rows.push_back(row);
  };
  for (const Measurement& bare : report.bare) add(bare);
  for (const Measurement& step : report.steps) add(step);
  return cells;
}

Cells TrialCells(const Report& report) {
  Cells cells{{"batch size", "interval us", "engine threads", "streams",
               "p99 ms", "CPU s/audio s"},
              {}};
  for (const Trial& trial : report.trials) {
    cells.rows.push_back(
        {std::to_string(trial.batch_size), std::to_string(trial.interval_us),
         std::to_string(trial.engine_threads),
         trial.best ? std::to_string(trial.most_streams)
                    : "fewer than " + std::to_string(trial.at_least),
         Figure(trial.best ? trial.best->latency.Percentile(99) : kUnknown),
         Figure(trial.best ? trial.best->CpuPerAudio() : kUnknown)});
  }
  return cells;
}

Cells BatchSizeCells(const Measurement& measurement) {
  Cells cells{{"batch size", "batches", "% of requests"}, {}};
  for (const auto& [size, batches] : measurement.batch_sizes) {
    cells.rows.push_back({std::to_string(size), std::to_string(batches),
                          Figure(100 * static_cast<double>(size * batches) /
                                 static_cast<double>(measurement.requests))});
  }
  return cells;
}

Cells AgeCells(const Measurement& measurement) {
  Cells cells{
      {"place in stream", "requests", "p50 ms", "p90 ms", "p99 ms", "max ms"},
      {}};
  if (!measurement.PaceKept()) return cells;
  for (const Age& age : measurement.ages) {
    std::vector<std::string> row = {
        std::to_string(age.first) +
            (age.last > age.first ? " to " + std::to_string(age.last) : ""),
        std::to_string(age.latency.count())};
    for (const int percent : {50, 90, 99, 100}) {
      row.push_back(Figure(age.latency.Percentile(percent)));
    }
    cells.rows.push_back(row);
  }
  return cells;
}

void PrintReport(const Setup& setup, const Report& report, std::ostream& os) {
  for (const auto& [name, value] : Conditions(setup)) {
    os << name << ": " << value << '\n';
  }
  Print("Throughput and latency", MeasurementCells(report), os);
  const Measurement* shown = report.Shown();
  if (shown != nullptr) {
    const std::string streams = ", " + StreamNum(shown->streams);
    Print("Batch sizes" + streams, WithBars(BatchSizeCells(*shown), 2), os);
    Print("Latency by age of the stream" + streams, AgeCells(*shown), os);
  }
  Print("Schedulings tried", TrialCells(report), os);
  if (!report.verdict.empty()) os << '\n';
  for (const std::string& sentence : report.verdict) os << sentence << '\n';
}

Json ReportJson(const Setup& setup, const Report& report) {
  Json conditions;
  for (const auto& [name, value] : Conditions(setup)) conditions[name] = value;
  return {{"conditions", conditions},
          {"warnings", setup.warnings},
          {"bare", MeasurementsJson(report.bare, report.bare)},
          {"steps", MeasurementsJson(report.steps, report.bare)},
          {"trials", TrialsJson(report.trials)},
          {"most_streams",
           report.most_streams ? Json(*report.most_streams) : Json()},
          {"held", report.held},
          {"interrupted", setup.interrupt.IsRaised()},
          {"verdict", report.verdict}};
}

std::string ReportCsv(const Report& report) {
  std::string titles;
  std::string lines;
  for (const auto* measurements : {&report.bare, &report.steps}) {
    for (const Measurement& measurement : *measurements) {
      titles.clear();
      const char* comma = "";
      const Json figures = FiguresJson(measurement, report.bare).flatten();
      for (const auto& [path, value] : figures.items()) {
        titles += comma + CsvTitle(path);
        lines += comma + CsvCell(value);
        comma = ",";
      }
      lines += '\n';
    }
  }
  return titles + '\n' + lines;
}

}  // namespace tarn::tool::bench
