#include "bench-html.h"

#include <algorithm>
#include <vector>

#include "bench-plot.h"

namespace tarn::tool::bench {

namespace {

constexpr char kHead[] = R"(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>tarn bench</title>
<style>
:root {
  color-scheme: light dark;
  --back: #fff; --text: #1c2024; --faint: #d9dde2; --soft: #5b6470;
  --c0: #0b6bcb; --c1: #c2410c; --c2: #15803d; --c3: #7c3aed; --c4: #a16207;
}
@media (prefers-color-scheme: dark) {
  :root {
    --back: #15181c; --text: #e6e9ed; --faint: #343b44; --soft: #a3adb9;
    --c0: #62b0ff; --c1: #ff9a5c; --c2: #5fd08a; --c3: #bd9bff; --c4: #e8c547;
  }
}
body {
  margin: 2rem auto; max-width: 84rem; padding: 0 1rem;
  background: var(--back); color: var(--text);
  font: 15px/1.5 system-ui, sans-serif;
}
h1 { margin-bottom: 0; }
h2 { margin: 2rem 0 .5rem; font-size: 1.15rem; }
dl { display: grid; grid-template-columns: max-content 1fr; gap: 0 1rem; }
dt { color: var(--soft); }
dd { margin: 0; overflow-wrap: anywhere; }
.plots { display: grid; gap: 1.5rem;
  grid-template-columns: repeat(auto-fit, minmax(min(100%, 32rem), 1fr)); }
.wide { overflow-x: auto; }
table { border-collapse: collapse; font-variant-numeric: tabular-nums; }
th, td { padding: .25rem .7rem; text-align: right; white-space: nowrap;
  border-bottom: 1px solid var(--faint); }
th { color: var(--soft); font-weight: 600; }
th:first-child, td:first-child { padding-left: 0; text-align: left; }
svg { width: 100%; }
svg text { fill: var(--text); font-size: 12px; }
svg .title { font-size: 15px; font-weight: 600; }
svg .axis { stroke: var(--soft); }
svg .grid { stroke: var(--faint); }
svg .c0 { stroke: var(--c0); fill: var(--c0); }
svg .c1 { stroke: var(--c1); fill: var(--c1); }
svg .c2 { stroke: var(--c2); fill: var(--c2); }
svg .c3 { stroke: var(--c3); fill: var(--c3); }
svg .c4 { stroke: var(--c4); fill: var(--c4); }
svg line:not(.grid):not(.axis), svg .line { stroke-width: 2; }
svg .line { fill: none; }
svg .reference { stroke-dasharray: 6 4; }
</style>
</head>
<body>
)";

std::string Element(const std::string& name, const std::string& text) {
  return "<" + name + ">" + Escape(text) + "</" + name + ">";
}

std::string Heading(const std::string& text) {
  return Element("h2", text) + "\n";
}

// A heading and a table; empty for a table without rows.
std::string Section(const std::string& heading, const Cells& cells) {
  if (cells.rows.empty()) return "";
  std::string html =
      Heading(heading) + "<div class=\"wide\"><table>\n<thead><tr>";
  for (const std::string& title : cells.titles) html += Element("th", title);
  html += "</tr></thead>\n<tbody>\n";
  for (const auto& row : cells.rows) {
    html += "<tr>";
    for (const std::string& cell : row) html += Element("td", cell);
    html += "</tr>\n";
  }
  return html + "</tbody>\n</table></div>\n";
}

std::string ConditionsHtml(const Setup& setup) {
  std::string html = "<dl>\n";
  for (const auto& [name, value] : Conditions(setup)) {
    html += Element("dt", name) + Element("dd", value) + "\n";
  }
  return html + "</dl>\n";
}

std::string Sentences(const std::string& heading,
                      const std::vector<std::string>& sentences) {
  if (sentences.empty()) return "";
  std::string html = Heading(heading);
  for (const std::string& sentence : sentences) {
    html += Element("p", sentence) + "\n";
  }
  return html;
}

// By the number of streams; the search does not measure them in that order.
std::vector<Measurement> ByStreams(std::vector<Measurement> steps) {
  std::stable_sort(steps.begin(), steps.end(),
                   [](const Measurement& a, const Measurement& b) {
                     return a.streams < b.streams;
                   });
  return steps;
}

template <typename Value>
Plot::Points Points(const std::vector<Measurement>& steps, Value value) {
  Plot::Points points;
  for (const Measurement& step : steps) {
    points.emplace_back(step.streams, value(step));
  }
  return points;
}

std::string LatencyByStreams(const Setup& setup, const Report& report) {
  Plot plot("Latency by number of streams", "streams", "latency (ms)",
            /*log_x=*/true);
  const std::vector<Measurement> steps = ByStreams(report.steps);
  for (const int percent : {50, 90, 99}) {
    plot.AddLine("p" + std::to_string(percent),
                 Points(steps, [percent](const Measurement& step) {
                   return step.KnownLatency().Percentile(percent);
                 }));
  }
  if (setup.asked.deadline_ms > 0) {
    plot.AddHorizontal("deadline", setup.asked.deadline_ms);
  }
  return plot.Svg();
}

std::string ThroughputByStreams(const Report& report) {
  Plot plot("Throughput by number of streams", "streams", "requests per second",
            /*log_x=*/true);
  plot.AddLine("library",
               Points(ByStreams(report.steps), [](const Measurement& step) {
                 return step.RequestsPerSecond();
               }));
  for (const Measurement& bare : report.bare) {
    plot.AddHorizontal("bare, batch " + std::to_string(bare.batch_size),
                       bare.RequestsPerSecond());
  }
  return plot.Svg();
}

std::string LatencyDistribution(const Setup& setup,
                                const Measurement& measurement) {
  Plot plot("Latency of " + StreamNum(measurement.streams), "latency (ms)",
            "requests within it (%)");
  const Distribution latency = measurement.KnownLatency();
  Plot::Points points;
  for (int percent = 1; percent <= 100; ++percent) {
    points.emplace_back(latency.Percentile(percent), percent);
  }
  plot.AddLine("requests", points);
  if (setup.asked.deadline_ms > 0) {
    plot.AddVertical("deadline", setup.asked.deadline_ms);
  }
  return plot.Svg();
}

std::string BatchSizes(const Measurement& measurement) {
  Plot plot("Batch sizes with " + StreamNum(measurement.streams),
            "requests in a batch", "requests (%)");
  Plot::Points points;
  for (const auto& [size, batches] : measurement.batch_sizes) {
    points.emplace_back(size, 100 * static_cast<double>(size * batches) /
                                  static_cast<double>(measurement.requests));
  }
  plot.AddBars("requests", points);
  return plot.Svg();
}

std::string PlotsHtml(const Setup& setup, const Report& report,
                      const Measurement& shown) {
  std::string html = "<div class=\"plots\">\n";
  if (report.steps.size() > 1) {
    html += LatencyByStreams(setup, report) + ThroughputByStreams(report);
  }
  return html + LatencyDistribution(setup, shown) + BatchSizes(shown) +
         "</div>\n";
}

}  // namespace

std::string ReportHtml(const Setup& setup, const Report& report) {
  const Measurement* shown = report.Shown();
  std::string html = kHead + Element("h1", "tarn bench") + "\n" +
                     ConditionsHtml(setup) +
                     Sentences("Warnings", setup.warnings) +
                     Sentences("Verdict", report.verdict);
  if (shown != nullptr) html += PlotsHtml(setup, report, *shown);
  html += Section("Throughput and latency", MeasurementCells(report));
  if (shown != nullptr) {
    const std::string streams = ", " + StreamNum(shown->streams);
    html += Section("Batch sizes" + streams, BatchSizeCells(*shown)) +
            Section("Latency by age of the stream" + streams, AgeCells(*shown));
  }
  return html + Section("Schedulings tried", TrialCells(report)) +
         "</body>\n</html>\n";
}

}  // namespace tarn::tool::bench
