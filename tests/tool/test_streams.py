"""tarn run and tarn verify, compared with ONNX Runtime's Python interface."""

import json
import os
import pty
import re
import signal
import struct
import subprocess
import wave

import numpy as np
import onnx
import onnxruntime as ort
import pytest
from conftest import TOOL
from onnx import TensorProto, helper

NAMES = ["accumulator-single", "accumulator", "accumulator-4", "types"]
NAMES += ["caches", "lookup-single"]
BATCHING = "--infer-thread=true\n--infer-interval=1000\n"


def dtype_of(port):
    name = port.type[len("tensor(") : -1]
    return np.dtype({"float": "float32", "double": "float64"}.get(name, name))


class BareStream:
    """A stream on the engine alone, one row at a time."""

    def __init__(self, models, name):
        conf = (models / f"{name}.conf").read_text()
        level = ort.GraphOptimizationLevel.ORT_ENABLE_EXTENDED
        options = ort.SessionOptions()
        options.graph_optimization_level = level
        options.intra_op_num_threads = 1
        options.enable_cpu_mem_arena = False
        options.enable_mem_pattern = False
        path = str(models / f"{name}.onnx")
        self.session = ort.InferenceSession(path, options)
        ports = self.session.get_inputs()
        self.types = {port.name: dtype_of(port) for port in ports}
        pairs = re.search("(?<=caches-pair=).*|$", conf)[0]
        self.caches = dict(re.findall("([^:;]+):([^:;]+)", pairs))
        names = [port.name for port in self.session.get_outputs()]
        self.outputs = [name for name in names if name not in self.caches]
        size = ports[0].shape[0]
        self.rows = size if isinstance(size, int) else 1
        self.has_batch = "--batch-dim" in conf

    def chunks(self, count):
        """Inputs for as many chunks: numbers of 0..3, which all types have."""
        generator = np.random.default_rng(count)
        return {
            name: (generator.random((count, 3)) * 3).astype(dtype)
            for name, dtype in self.types.items()
            if name not in self.caches.values()
        }

    def run(self, stacked):
        """The outputs, stacked."""
        outputs = {name: [] for name in self.outputs}
        old = self.caches.values()
        state = {name: np.zeros(3, self.types[name]) for name in old}
        for chunk in zip(*stacked.values()):
            feed = {**dict(zip(stacked, chunk)), **state}
            if self.has_batch:
                feed = {k: np.stack([v] * self.rows) for k, v in feed.items()}
            names = [*outputs, *self.caches]
            results = dict(zip(names, self.session.run(names, feed)))
            if self.has_batch:
                results = {k: v[0] for k, v in results.items()}
            state = {v: results[k] for k, v in self.caches.items()}
            for name, stack in outputs.items():
                stack.append(results[name])
        return {name: np.stack(stack) for name, stack in outputs.items()}


@pytest.fixture
def described(models, tmp_path):
    """The arguments CONFIG MODEL of a test model, with lines added."""

    def describe(name, extra=""):
        conf = tmp_path / f"{name}.conf"
        conf.write_text((models / f"{name}.conf").read_text() + extra)
        return conf, models / f"{name}.onnx"

    return describe


@pytest.fixture
def save(tmp_path):
    """The options that give arrays to an input, a stream each."""

    def save(name, *arrays):
        options = []
        for i, array in enumerate(arrays):
            path = tmp_path / f"{name}-{i}.npy"
            np.save(path, array)
            options += ["--input", f"{name}={path}"]
        return options

    return save


@pytest.mark.parametrize("extra", ["", BATCHING])
@pytest.mark.parametrize("name", NAMES)
def test_run_equals_the_bare_engine(
    tarn, models, described, save, tmp_path, name, extra
):
    bare = BareStream(models, name)
    streams = [bare.chunks(count) for count in (7, 3, 5, 1, 6)]
    options = []
    for port in streams[0]:
        options += save(port, *(stream[port] for stream in streams))
    out = tmp_path / "out"
    result = tarn(
        "run", *described(name, extra), *options, "--output-dir", out, "--json"
    )
    assert result.status == 0, result.err
    assert [s["chunks"] for s in result.json()["streams"]] == [7, 3, 5, 1, 6]
    for i, stream in enumerate(streams):
        for port, expected in bare.run(stream).items():
            array = np.load(out / str(i) / f"{port}.npy")
            assert array.shape == expected.shape
            assert array.tobytes() == expected.tobytes(), (i, port)


def test_run_cuts_audio_into_chunks(tarn, models, described, tmp_path):
    left, right = np.arange(-5, 5), np.arange(10) * 3
    with wave.open(str(tmp_path / "a.wav"), "wb") as file:
        file.setparams((2, 2, 8000, 0, "NONE", ""))
        file.writeframes(np.stack([left, right], 1).astype("<i2").tobytes())
    result = tarn(
        "run", *described("accumulator-single"), "--wav", tmp_path / "a.wav",
        "--output-dir", tmp_path, "--json",
    )  # fmt: skip
    samples = np.append((left + right) / 2 / 32768, [0, 0]).astype(np.float32)
    expected = BareStream(models, "accumulator-single").run(
        {"x": samples.reshape(4, 3)}
    )
    np.testing.assert_array_equal(np.load(tmp_path / "0/y.npy"), expected["y"])
    assert result.json()["streams"][0]["sample_rate"] == 8000
    assert result.json()["streams"][0]["audio_seconds"] == 10 / 8000
    assert result.json()["real_time_factor"] > 0


def npy(header, elements=b"", version=1):
    size = struct.pack("<H" if version == 1 else "<I", len(header))
    return b"\x93NUMPY" + bytes([version, 0]) + size + header + elements


def header(descr="'<f4'", order="False", shape="(2, 3)"):
    return (
        f"{{'descr': {descr}, 'fortran_order': {order}, 'shape': {shape}}}"
    ).encode()


ROWS = bytes(24)


@pytest.mark.parametrize(
    ("content", "sentence"),
    [
        (b"", "expected a .npy file"),
        (b"RIFF" + ROWS, "expected a .npy file"),
        (npy(header(), ROWS, version=4), "format version 4, expected 1 to 3"),
        (npy(header())[:30], "ends within its .npy header"),
        (npy(header())[:9], "ends within its .npy header"),
        (npy(b"", ROWS), "malformed .npy header"),
        (npy(b"{" * 60000, ROWS), "malformed .npy header"),
        (npy(header() + b"x", ROWS), "malformed .npy header"),
        (npy(header(descr="[('a', '<f4')]"), ROWS), "malformed .npy header"),
        (npy(header(order="Maybe"), ROWS), "malformed .npy header"),
        (npy(header(shape="(2, -3)"), ROWS), "malformed .npy header"),
        (npy(header(shape="(2 3)"), ROWS), "malformed .npy header"),
        (npy(header(shape="(2, " + "9" * 30 + ")")), "malformed .npy header"),
        (npy(header(shape="(" + "1, " * 65 + ")")), "malformed .npy header"),
        (npy(header() + b" " * 99999, ROWS, 2), "header of 100056 bytes"),
        (npy(header(order="True"), ROWS), "Fortran order, expected C order"),
        (npy(header(descr="'>f4'"), ROWS), "expected little-endian ones, <f4"),
        (npy(header(descr="'<U4'"), ROWS), "elements of type <U4"),
        (npy(header(descr="'|O'"), ROWS), "elements of type |O"),
        (npy(header(descr="'<f8'"), ROWS * 2), "expected FLOAT32 for input x"),
        (npy(header(), ROWS[:-1]), "23 bytes of elements, expected 24"),
        (npy(header(), ROWS + b"x"), "25 bytes of elements, expected 24"),
        (npy(header(shape="(999999999999, 3)")), "0 bytes of elements"),
        (npy(header(shape="(99999999999999999, 999999)")), "0 bytes"),
        (npy(header(shape="(3, 2)"), ROWS), "(3, 2), expected (chunks, 3)"),
        (npy(header(shape="(6,)"), ROWS), "(6,), expected (chunks, 3)"),
        (npy(header(shape="()"), ROWS[:4]), "(), expected (chunks, 3)"),
    ],
)  # fmt: skip
def test_bad_npy_is_one_clear_sentence(
    tarn, described, tmp_path, content, sentence
):
    (tmp_path / "x.npy").write_bytes(content)
    result = tarn(
        "run", *described("accumulator-single"),
        "--input", f"x={tmp_path / 'x.npy'}", "--output-dir", tmp_path / "out",
    )  # fmt: skip
    assert result.status == 1
    assert result.err.startswith(f"tarn: {tmp_path / 'x.npy'}: ")
    assert sentence in result.err
    assert result.err.count("\n") == 1
    assert not (tmp_path / "out").exists()


@pytest.mark.parametrize("version", [1, 2, 3])
def test_every_format_version_is_read(tarn, described, tmp_path, version):
    path = tmp_path / "x.npy"
    path.write_bytes(npy(header() + b" \n", ROWS, version))
    arguments = (*described("accumulator-single"), "--input", f"x={path}")
    assert tarn("run", *arguments).status == 0


@pytest.mark.parametrize(
    ("name", "sizes", "sentence"),
    [
        ("frames", [5, 5], ""),
        ("frames", [5, 1], "streams differ in the size of dimension time"),
        ("frames-single", [5, 1], ""),
        ("first-frame", [5, 1], ""),
        ("frames", [6], "(2, 6, 3), expected (chunks, 1-5, 3)"),
        ("frames", [0], "(2, 0, 3), expected (chunks, 1-5, 3)"),
    ],
)
def test_run_fixes_dynamic_dimensions(
    tarn, described, save, tmp_path, name, sizes, sentence
):
    arrays = [np.ones((2, size, 3), np.float32) for size in sizes]
    arguments = (*described(name, BATCHING), *save("feats", *arrays))
    result = tarn("run", *arguments, "--output-dir", tmp_path / "out")
    assert sentence in result.err
    assert result.status == (1 if sentence else 0)
    for i, size in enumerate(sizes if not sentence else []):
        doubled = np.load(tmp_path / "out" / str(i) / "doubled.npy")
        np.testing.assert_array_equal(doubled.reshape(2, -1, 3)[:, 0], 2)
        assert doubled.size == (6 if name == "first-frame" else 6 * size)


def test_wrong_use_and_bad_input_differ(tarn, described, save, tmp_path):
    model = described("accumulator-single")
    x = save("x", np.zeros((2, 3), np.float32))
    (tmp_path / "file").touch()
    for arguments, status, sentence in [
        ([], 2, "Exactly 1 option from [--input,--wav]"),
        (["--input", "x.npy"], 2, "expected NAME=VALUE"),
        ([*x, "--wav", "a.wav"], 2, "Exactly 1 option"),
        (["--input", "z=x.npy"], 1, "the model has no input z"),
        (["--input", "x=none.npy"], 1, "can't read none.npy"),
        (["--wav", "none.wav"], 1, "can't read audio file none.wav"),
        ([*x, "--fix", "feat=3"], 1, "feat is no dynamic dimension"),
        ([*x, "--output-dir", tmp_path / "file/out"], 1, "can't make folder"),
        ([*x, "--trace", tmp_path / "none/t.json"], 1, "can't write"),
    ]:
        result = tarn("run", *model, *arguments)
        assert result.status == status, arguments
        assert sentence in result.err
    result = tarn(
        "run", *described("types"), "--input", f"x-int8={tmp_path}/x-0.npy"
    )
    assert "expected one of each for every stream" in result.err


def test_failed_stream_keeps_whole_chunks(tarn, described, save, tmp_path):
    indices = np.array([[0, 1, 2], [2, 2, 2], [0, 9, 0], [0, 0, 0]])
    result = tarn(
        "run", *described("lookup-single"), *save("i", indices),
        "--output-dir", tmp_path / "out",
    )  # fmt: skip
    assert result.status == 1
    assert "stream 0 failed at chunk 2" in result.err
    assert [p.name for p in (tmp_path / "out/0").iterdir()] == ["y.npy"]
    y = np.load(tmp_path / "out/0/y.npy")
    np.testing.assert_array_equal(y, [[1, 10, 100], [101, 110, 200]])


def test_interrupted_run_keeps_whole_chunks(described, save, tmp_path):
    count = 3_000_000
    x = save("x", np.ones((count, 3), np.float32))
    terminal, stderr = pty.openpty()
    command = [TOOL, "run", *described("accumulator-single"), *x, "--json"]
    command += ["--output-dir", tmp_path]
    process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=stderr)
    while b"*" not in os.read(terminal, 1000):
        pass
    process.send_signal(signal.SIGINT)
    report = json.loads(process.communicate(timeout=60)[0])
    os.close(terminal)
    os.close(stderr)
    assert process.returncode == 1
    assert report["interrupted"]
    assert 0 < report["chunks"] < count
    y = np.load(tmp_path / "0/y.npy")[:, 0]
    assert np.array_equal(y, np.arange(report["chunks"]) * 2 + 1)


def test_trace_has_the_spans_of_all_requests(tarn, described, save, tmp_path):
    inputs = save("x", *(np.ones((n, 3), np.float32) for n in (3, 2)))
    trace = tmp_path / "trace.json"
    model = described("accumulator")
    result = tarn("run", *model, *inputs, "--trace", trace, "--json")
    (warning,) = result.json()["warnings"]
    assert "running with infer-thread=true" in warning
    assert warning in result.err
    events = json.loads(trace.read_text())["traceEvents"]
    spans = [event for event in events if event["ph"] == "X"]
    for name in ("queued", "gathered", "computed", "scattered"):
        of_streams = [s["tid"] for s in spans if s["name"] == name]
        assert sorted(map(of_streams.count, {*of_streams})) == [2, 3]
    sizes = [s["args"]["size"] for s in spans if s["name"] == "batch"]
    assert sum(sizes) == 5
    assert 5 / len(sizes) == result.json()["mean_batch_size"]
    assert all(span["ts"] >= 0 and span["dur"] >= 0 for span in spans)


@pytest.mark.parametrize("extra", ["", BATCHING])
@pytest.mark.parametrize(
    "name",
    [*NAMES, "first-frame", "frames", "frames-single", "lookup-4"],
)
def test_verify_accepts_models_of_independent_rows(
    tarn, described, name, extra
):
    result = tarn("verify", *described(name, extra), "--json")
    report = result.json()
    assert result.status == 0, report
    assert all(t["same_bits"] for t in report["tensors"].values())
    is_single = name.endswith("-single")
    assert report["largest_batch"] == (1 if is_single else 4)
    assert report["resets"] > 0
    assert report["drops"] > 0


def rows_depend():
    """other = x - mean of x over the batch."""
    return [
        helper.make_node("ReduceMean", ["x"], ["mean"], axes=[0]),
        helper.make_node("Sub", ["x", "mean"], ["other"]),
    ]


def batch_size_matters():
    """other = x * (1 + batch size / 1000)."""
    thousandth = helper.make_tensor("t", TensorProto.FLOAT, [1], [0.001])
    return [
        helper.make_node("Shape", ["x"], ["size"], end=1),
        helper.make_node("Cast", ["size"], ["real"], to=TensorProto.FLOAT),
        helper.make_node("Constant", [], ["t"], value=thousandth),
        helper.make_node("Mul", ["real", "t"], ["part"]),
        helper.make_node("Mul", ["x", "part"], ["more"]),
        helper.make_node("Add", ["x", "more"], ["other"]),
    ]


@pytest.mark.parametrize("extra", ["", BATCHING])
@pytest.mark.parametrize(
    ("nodes", "options", "same_bits", "objection"),
    [
        (rows_depend, ["--tolerance", "9"], False, "is not what the engine"),
        (batch_size_matters, [], True, ", is off from a batch of one by 0.003"),
        (batch_size_matters, ["--tolerance", "0.01"], True, None),
    ],
)
def test_verify_names_the_tensor_that_batching_changes(
    tarn, described, tmp_path, nodes, options, same_bits, objection, extra
):
    ports = [
        helper.make_tensor_value_info(name, TensorProto.FLOAT, ["batch", 3])
        for name in ("x", "same", "other")
    ]
    same = helper.make_node("Identity", ["x"], ["same"])
    graph = helper.make_graph([same, *nodes()], "g", ports[:1], ports[1:])
    opset = helper.make_opsetid("", 17)
    model = helper.make_model(graph, opset_imports=[opset], ir_version=8)
    onnx.save(model, tmp_path / "m.onnx")
    conf = tmp_path / "m.conf"
    conf.write_text(
        "--inputs-format=x:[batch,feat]\n--inputs-shape=x:[-1,3]\n"
        "--inputs-dtype=x:FLOAT32\n"
        "--outputs-format=same:[batch,feat];other:[batch,feat]\n"
        "--outputs-shape=same:[-1,3];other:[-1,3]\n"
        "--outputs-dtype=same:FLOAT32;other:FLOAT32\n"
        "--batch-dim=batch\n--multi-threads=true\n--dynamic-dims=batch:1-4\n"
        "--num-execute-threads=1\n" + extra
    )
    result = tarn("verify", conf, tmp_path / "m.onnx", "--json", *options)
    report = result.json()
    assert report["tensors"]["same"]["same_bits"]
    assert report["tensors"]["same"]["difference"] == 0
    assert report["tensors"]["other"]["same_bits"] == same_bits
    assert result.status == (1 if objection else 0)
    if objection:
        assert report["objection"].startswith("output other of stream ")
        assert objection in report["objection"]
