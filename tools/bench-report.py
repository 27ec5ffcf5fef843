#!/usr/bin/env python3
"""Writes what the benchmarks have measured as tables and plots.

usage: bench-report.py DIRECTORY

Reads DIRECTORY's *-bench.json, which Google Benchmark wrote, and the stripped
library libtarn.so in it. Writes report.md, which says of every goal whether it
was reached, and the plots that it shows, into DIRECTORY too. A missing
benchmark is an error.
"""

import dataclasses
import json
import math
import os
import pathlib
import sys

from matplotlib import pyplot


@dataclasses.dataclass
class Goal:
    what: str
    counter: str
    limit: float
    benchmarks: list
    unit: str = ""
    at_least: bool = False

    def reached(self, value):
        return value >= self.limit if self.at_least else value <= self.limit


def each(prefix, *ends):
    return [f"{prefix}/{end}" for end in ends]


SERIAL = "serial request over a bare run"
THREADS = "64 caller threads over bare batches of 64"
TOGETHER = "streams of one thread over bare batches of 64"
STREAMS = (64, 256, 1024)
ALLOCATING = (
    each("SerialAllocations", "add", "gru_2x256"),
    each("BatchedAllocations", "add", "gru_2x256"),
)

GOALS = (
    Goal(SERIAL, "ratio", 1.3, ["SerialRequest/add"]),
    Goal(SERIAL, "ratio", 1.01, ["SerialRequest/gru_2x256"]),
    Goal(THREADS, "ratio", 0.95, ["Threads/gru_2x256/64"], at_least=True),
    Goal(THREADS, "ratio", 0.97, ["Threads/conformer/64"], at_least=True),
    Goal(THREADS, "ratio", 0.60, ["Threads/gru_1x64/64"], at_least=True),
    Goal(
        TOGETHER,
        "ratio",
        0.97,
        each("Together/gru_2x256", *STREAMS),
        at_least=True,
    ),
    Goal(
        TOGETHER,
        "ratio",
        0.85,
        each("Together/gru_1x64", *STREAMS),
        at_least=True,
    ),
    Goal(TOGETHER, "ratio", 0.06, each("Together/add", *STREAMS), at_least=True),
    Goal(
        "streams of one thread",
        "library",
        1e6,
        each("Together/add", *STREAMS),
        "requests/s",
        at_least=True,
    ),
    Goal(
        "99th percentile of the latency over interval and 1.3 batches",
        "ratio",
        1,
        [
            "LiveStreams/gru_2x256/2000",
            "LiveStreams/gru_1x64/2000",
            "LiveStreams/voice_activity/2000",
        ],
    ),
    Goal("copying rows over one memcpy", "ratio", 1.15, ["Gather", "Scatter"]),
    Goal("allocations beyond a bare run's", "difference", 12, ALLOCATING[0]),
    Goal("allocations beyond a bare run's", "difference", 16, ALLOCATING[1]),
    Goal(
        "tensor allocations beyond a bare run's",
        "tensor_difference",
        0,
        ALLOCATING[0] + ALLOCATING[1],
    ),
    Goal(
        "request of one of many streams over that of one",
        "ratio",
        1.1,
        each("StreamNum/add", 16, 256, 4096)
        + each("StreamNum/gru_1x64", 16, 256, 4096),
    ),
    Goal(
        "resident memory of an idle stream beyond its tensors",
        "difference",
        4096,
        each("IdleStream", "add_serial", "gru_2x256_serial", "gru_2x256"),
        "bytes",
    ),
    Goal("size of the library", "library", 300, ["LibrarySize"], "KiB"),
    Goal(
        "loading time beyond a bare session's",
        "difference",
        1,
        ["LoadTime"],
        "ms",
    ),
    Goal(
        "peak of the heap while loading beyond a bare session's",
        "difference",
        1,
        ["LoadPeak"],
        "copies of the file",
    ),
)


def read_results(directory):
    """The benchmarks by name and, in the order read, their files' contexts."""
    results, contexts = {}, []
    for path in sorted(directory.glob("*-bench.json")):
        content = json.loads(path.read_text(encoding="utf-8"))
        contexts.append(content["context"])
        for benchmark in content["benchmarks"]:
            results[benchmark["name"].split("/iterations:")[0]] = benchmark
    library = directory / "libtarn.so"
    if library.exists():
        results["LibrarySize"] = {"library": library.stat().st_size / 1024}
    return results, contexts


def text_of(value):
    return f"{value:,.0f}" if abs(value) >= 1000 else f"{value:.4g}"


def quartiles_of(result, counter):
    if f"{counter}_q1" not in result:
        return ""
    first, third = result[f"{counter}_q1"], result[f"{counter}_q3"]
    return f"{text_of(first)} to {text_of(third)}"


def table(header, rows):
    yield f"| {' | '.join(header)} |"
    yield f"|{'---|' * len(header)}"
    for row in rows:
        yield f"| {' | '.join(row)} |"


def goal_rows(goal, results):
    sign = "≥" if goal.at_least else "≤"
    for name in goal.benchmarks:
        value = results[name][goal.counter]
        yield (
            goal.what,
            name,
            f"{sign} {text_of(goal.limit)} {goal.unit}".strip(),
            text_of(value),
            quartiles_of(results[name], goal.counter),
            "yes" if goal.reached(value) else "**no**",
        )


def result_row(name, result):
    return (
        name,
        result["label"],
        text_of(result["library"]),
        text_of(result["base"]),
        text_of(result["ratio"]),
        quartiles_of(result, "ratio"),
    )


def processor():
    for line in pathlib.Path("/proc/cpuinfo").read_text().splitlines():
        if line.startswith("model name"):
            return line.split(":")[1].strip()
    return "an unnamed processor"


def introduction(contexts):
    first, last = contexts[0], contexts[-1]
    yield "## Measured"
    yield ""
    load = max(context["load_avg"][0] for context in contexts)
    yield (
        f"{processor()}, {first['num_cpus']} cores, from {first['date'][:16]} "
        f"to {last['date'][:16]}; the load average was {load:.2g} at most. "
        "Medians of the rounds, and their quartiles."
    )
    if os.environ.get("TARN_BENCH_QUICK"):
        yield ""
        yield "**A quick run: the figures show no more than that all works.**"
    yield ""


def report(results, contexts, plots):
    yield from introduction(contexts)
    yield from table(
        ("what", "benchmark", "goal", "measured", "quartiles", "reached"),
        (row for goal in GOALS for row in goal_rows(goal, results)),
    )
    for name, title in plots.items():
        yield ""
        yield f"![{title}]({name})"
    yield ""
    yield "Both sides of every benchmark:"
    yield ""
    yield from table(
        ("benchmark", "unit", "library", "base", "ratio", "quartiles"),
        (
            result_row(name, result)
            for name, result in results.items()
            if "ratio" in result
        ),
    )


@dataclasses.dataclass
class Plot:
    title: str
    x_label: str
    y_label: str
    lines: dict  # Points (x, y) by name.


def series(results, prefix, counter, scale=1, up_to=math.inf):
    """The counter over the benchmarks' numbers, smallest first."""
    points = []
    for name, result in results.items():
        head, _, number = name.rpartition("/")
        if head == prefix and float(number) <= up_to:
            points.append((float(number), scale * result[counter]))
    return sorted(points)


def plots_of(results):
    together, threads = "Together/gru_2x256", "Threads/gru_2x256"
    live = "LiveStreams/gru_2x256"
    return {
        "performance-batch.svg": Plot(
            "GRU 2x256: throughput over the size of the batch",
            "streams in a batch, all from one thread",
            "requests/s",
            {
                "bare": series(results, together, "base", up_to=64),
                "library": series(results, together, "library", up_to=64),
            },
        ),
        "performance-threads.svg": Plot(
            "GRU 2x256: throughput over the number of caller threads",
            "caller threads, with a stream each",
            "requests/s",
            {
                "bare batches of that size": series(results, threads, "base"),
                "library": series(results, threads, "library"),
            },
        ),
        "performance-latency.svg": Plot(
            "GRU 2x256: latency of 64 live streams over the infer-interval",
            "infer-interval in microseconds",
            "ms",
            {
                "99th percentile": series(results, live, "library", 1e-3),
                "median": series(results, live, "median", 1e-3),
                "interval and 1.3 batches": series(results, live, "base", 1e-3),
            },
        ),
    }


def draw(plot, path):
    """A line chart: logarithmic to the right, upwards from zero."""
    pyplot.rcParams["svg.fonttype"] = "none"
    figure, axes = pyplot.subplots(figsize=(7, 4), layout="constrained")
    for name, line in plot.lines.items():
        axes.plot(*zip(*line), marker="o", label=name)
    axes.set(title=plot.title, xlabel=plot.x_label, ylabel=plot.y_label)
    axes.set_xscale("log", base=2)
    axes.set_xticks(sorted({x for line in plot.lines.values() for x, _ in line}))
    axes.xaxis.set_major_formatter("{x:,.0f}")
    axes.yaxis.set_major_formatter("{x:,.0f}")
    axes.set_ylim(bottom=0)
    axes.grid(alpha=0.3)
    axes.legend()
    figure.savefig(path, metadata={"Date": None})
    pyplot.close(figure)


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    directory = pathlib.Path(sys.argv[1])
    results, contexts = read_results(directory)
    missing = {name for goal in GOALS for name in goal.benchmarks}
    missing -= results.keys()
    if missing:
        sys.exit(f"{directory}: expected results of {', '.join(sorted(missing))}")
    plots = plots_of(results)
    for name, plot in plots.items():
        draw(plot, directory / name)
    titles = {name: plot.title for name, plot in plots.items()}
    if (directory / "profile.svg").exists():  # Of scripts/bench --profile.
        titles["profile.svg"] = "Where the time goes: flame graph"
    lines = report(results, contexts, titles)
    (directory / "report.md").write_text("\n".join(lines) + "\n", encoding="utf-8")


if __name__ == "__main__":
    main()
