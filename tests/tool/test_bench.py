"""tarn bench: figures that agree with each other, and files that parse."""

import csv
import html.parser
import re
import signal
import subprocess
import time
from xml.etree import ElementTree

import pytest
from conftest import TOOL

SHORT = ("--seconds", "0.2")
LIVE = (*SHORT, "--chunk-ms", "20")
SCHEDULING = {"batch-dim", "dynamic-dims", "multi-threads", "infer-thread"} | {
    "infer-interval",
    "num-execute-threads",
}


@pytest.fixture
def bench(tarn, models):
    def run(model, *arguments):
        files = models / f"{model}.conf", models / f"{model}.onnx"
        return tarn("bench", *files, *arguments)

    return run


def check_step(step, batch_limit):
    """What one measurement says must fit together."""
    batches = {each["size"]: each["batches"] for each in step["batch_sizes"]}
    requests = step["requests"]
    assert requests > 0
    assert sum(size * count for size, count in batches.items()) == requests
    assert max(batches) <= min(batch_limit, step["streams"])
    assert step["mean_batch_size"] == pytest.approx(
        requests / sum(batches.values())
    )
    assert step["requests_per_second"] == pytest.approx(
        requests / step["seconds"]
    )
    for name in ("latency_ms", "queue_ms", "copy_ms", "compute_ms"):
        figures = step[name]
        assert figures["count"] == requests
        percentiles = [figures[key] for key in ("p50", "p90", "p99", "max")]
        assert percentiles == sorted(percentiles)
    # A request takes at least as long as its parts.
    assert step["latency_ms"]["max"] >= step["compute_ms"]["p50"]
    assert sum(age["latency_ms"]["count"] for age in step["ages"]) == requests
    assert step["ages"][0]["last"] == 1
    assert step["ages"][0]["latency_ms"]["count"] == step["streams"]
    assert step["peak_memory_mb"] > 1
    assert step["cpu_seconds"] > 0


def test_closed_loop_doubles_the_callers(bench):
    report = bench("accumulator", *SHORT, "--threads", 6, "--json").json()
    assert [step["streams"] for step in report["steps"]] == [1, 2, 4, 6]
    for step in report["steps"]:
        check_step(step, batch_limit=4)
    assert [bare["batch_size"] for bare in report["bare"]] == [1, 4]
    for bare in report["bare"]:
        assert bare[f"of_bare_batch_{bare['batch_size']}"] == {
            "requests_per_second": 1,
            "cpu_ms_per_request": 1,
        }


def test_few_callers_do_not_wait_for_a_full_batch(bench):
    result = bench("accumulator-4", *SHORT, "--threads", 1, "--json")
    assert "measured with --infer-thread=true" in result.err
    check_step(result.json()["steps"][0], batch_limit=4)


@pytest.mark.parametrize("model", ["frames-single", "types", "first-frame"])
def test_takes_every_kind_of_model(bench, model):
    result = bench(model, *SHORT, "--threads", 2, "--json")
    assert result.status == 0, result.err
    check_step(result.json()["steps"][-1], batch_limit=4)


def test_real_time_accounts_for_every_chunk(bench):
    arguments = ("--streams", 8, "--jitter-ms", 5, "--json")
    report = bench("frames", *LIVE, "--fix", "time=2", *arguments).json()
    assert report["conditions"]["size of time"] == "2"
    (step,) = report["steps"]
    assert step["chunks_due"] == step["requests"] + step["chunks_undone"]
    # In 200 ms a chunk each 20 ms: ten, or nine where jitter delays the last.
    assert 8 * 9 <= step["chunks_due"] <= 8 * 10
    lost = step["chunks_late"] + step["chunks_undone"]
    assert step["pace_kept"] == (lost <= 0.01 * step["chunks_due"])
    assert report["held"] == step["pace_kept"]


def test_says_so_when_the_pace_is_lost(bench):
    arguments = ("--seconds", 0.2, "--chunk-ms", 0.1, "--streams", 64)
    result = bench("accumulator", *arguments, "--json")
    assert result.status == 1
    (step,) = result.json()["steps"]
    assert not step["pace_kept"]
    assert step["latency_ms"]["p50"] is None
    assert "could not keep the pace" in result.json()["verdict"][0]


def test_search_ends_at_its_limit_or_before(bench):
    arguments = ("--deadline-ms", 1000, "--max-streams", 3, "--json")
    report = bench("accumulator", *LIVE, *arguments).json()
    assert 0 <= report["most_streams"] <= 3
    assert report["held"] == (report["most_streams"] > 0)
    held = [step["streams"] for step in report["steps"] if step["pace_kept"]]
    assert report["most_streams"] == max(held, default=0)


def test_csv_has_a_line_for_every_measurement(bench, tmp_path):
    path = tmp_path / "out.csv"
    result = bench("accumulator", *SHORT, "--threads", 2, "--csv", path)
    assert result.status == 0
    with path.open(newline="") as file:
        rows = list(csv.DictReader(file))
    loads = ["bare engine"] * 2 + ["closed loop"] * 2
    assert [row["load"] for row in rows] == loads
    assert [row["streams"] for row in rows] == ["", "", "1", "2"]
    assert all(None not in row and None not in row.values() for row in rows)
    assert all(float(row["latency_ms_p99"]) > 0 for row in rows)


class Page(html.parser.HTMLParser):
    """Checks that elements nest."""

    def __init__(self, text):
        super().__init__()
        self.open = []
        self.seen = []
        self.feed(text)
        assert not self.open

    def handle_starttag(self, tag, attrs):
        self.seen.append(tag)
        if tag != "meta":
            self.open.append(tag)

    def handle_endtag(self, tag):
        assert self.open.pop() == tag


def test_html_needs_no_other_file(bench, tmp_path):
    path = tmp_path / "<out>.html"
    result = bench(
        *("accumulator", *LIVE, "--deadline-ms", 1000, "--max-streams", 2),
        *("--html", path),
    )
    assert result.status in (0, 1), result.err
    text = path.read_text()
    page = Page(text)
    assert not {"script", "link", "img", "iframe"} & set(page.seen)
    addresses = set(re.findall(r"\w+://[^\"'\s]*|@import|url\(", text))
    assert addresses == {"http://www.w3.org/2000/svg"}
    images = re.findall(r"<svg.*?</svg>", text, flags=re.DOTALL)
    assert len(images) == 4
    for image in images:
        assert "nan" not in image
        ElementTree.fromstring(image)


def options_of(path):
    lines = [line for line in path.read_text().split("\n") if line[:2] == "--"]
    return dict(line[2:].split("=", 1) for line in lines)


@pytest.mark.parametrize("model", ["accumulator", "accumulator-4"])
def test_tune_writes_a_description(tarn, bench, models, tmp_path, model):
    best = tmp_path / "best.conf"
    limits = ("--seconds", 0.05, "--chunk-ms", 10, "--max-streams", 2)
    asked = ("--tune", "--deadline-ms", 1000, "-o", best)
    report = bench(model, *limits, *asked, "--json").json()
    assert tarn("check", best, models / f"{model}.onnx").status == 0
    before = options_of(models / f"{model}.conf")
    after = options_of(best)
    changed = {key for key in after if after[key] != before.get(key)}
    assert changed <= SCHEDULING
    assert set(before) <= set(after)
    winner = f"infer-interval {after['infer-interval']}, "
    assert any(winner in sentence for sentence in report["verdict"])
    sizes = {trial["batch_size"] for trial in report["trials"]}
    assert sizes == ({4} if model == "accumulator-4" else {1, 2, 4})


def test_interrupt_leaves_the_figures_so_far(models):
    files = [str(models / f"accumulator.{ext}") for ext in ("conf", "onnx")]
    with subprocess.Popen(
        [TOOL, "bench", *files, "--seconds", "600", "--json"],
        stdout=subprocess.PIPE,
        text=True,
    ) as process:
        # Until then Ctrl-C would end it as any program.
        while not catches_interrupt(process.pid):
            time.sleep(0.01)
        process.send_signal(signal.SIGINT)
        out, _ = process.communicate(timeout=60)
    assert process.returncode == 0
    assert '"interrupted": true' in out


def catches_interrupt(pid):
    with open(f"/proc/{pid}/status") as status:
        caught = re.search(r"^SigCgt:\s*(\w+)", status.read(), re.MULTILINE)
    return int(caught[1], 16) >> (signal.SIGINT - 1) & 1


@pytest.mark.parametrize(
    "arguments",
    [
        ("--seconds", "0"),
        ("--seconds", "nan"),
        ("--threads", "0"),
        ("--streams", "4"),
        ("--deadline-ms", "5"),
        ("--tune",),
        ("-o", "x.conf"),
        ("--chunk-ms", "20", "--streams", "2", "--threads", "2"),
        ("--fix", "time"),
    ],
)
def test_refuses_wrong_use(bench, arguments):
    assert bench("frames", *arguments).status == 2


@pytest.mark.parametrize("size", ["time=9", "batch=2", "nothing=1"])
def test_refuses_impossible_sizes(bench, size):
    result = bench("frames", "--fix", size)
    assert result.status == 1
    assert size in result.err
