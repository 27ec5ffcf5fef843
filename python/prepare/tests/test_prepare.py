"""Each awkward model goes through the tool; what it gives for several streams
in batches must be what the original gives for each stream alone."""

import dataclasses
import os
import pathlib
import re
import subprocess
import sys
import wave

import awkward
import numpy as np
import onnx
import onnxruntime
import pytest

from tarn_prepare import caches, cli, prepare, proof

RUN_STREAMS = os.environ.get("TARN_RUN_STREAMS")
CHECK = os.environ.get("TARN_TOOL")  # The tool that checks descriptions.
PACKAGE = pathlib.Path(cli.__file__).parent.parent
CHUNKS = (5, 2, 4, 3)  # Of each stream.


LSTM = "--fix sequence=3"
RATE = "--fix input.1=16 --set sr="


@dataclasses.dataclass
class Case:
    """A model, how to prepare it, and what the tool has to find out."""

    model: onnx.ModelProto
    arguments: str
    shapes: dict  # Of the inputs for one stream, states included.
    caches: dict  # Output to input.
    axes: dict = dataclasses.field(default_factory=dict)  # 0 if not given.
    constants: dict = dataclasses.field(default_factory=dict)
    initial: dict = dataclasses.field(default_factory=dict)
    external: bool = False
    tolerance: float = 1e-5


def lstm_case(**options):
    external = options.pop("external", False)
    half = options.get("dtype") == np.float16
    return Case(
        awkward.torch_lstm(**options),
        LSTM,
        {"input": [1, 3, 5], "h0": [2, 1, 4], "c0": [2, 1, 4]},
        {"hn": "h0", "cn": "c0"},
        {"h0": 1, "c0": 1, "hn": 1, "cn": 1},
        external=external,
        tolerance=1e-2 if half else 1e-5,
    )


def rate_case(rate):
    return Case(
        awkward.rate_switch(),
        f"{RATE}{rate}",
        {"input": [1, 16], "state": [2, 1, 4]},
        {"stateN": "state"},
        {"state": 1, "stateN": 1},
        {"sr": np.array(rate)},
    )


CASES = {
    "lstm": lstm_case(),
    "lstm-opset-11": lstm_case(opset=11),
    "lstm-opset-21": lstm_case(opset=21),
    "lstm-external": lstm_case(external=True),
    "lstm-float16": lstm_case(dtype=np.float16),
    "gru-batch-1": Case(
        awkward.keras_gru(),
        "--rename state_in:0=memory",
        {"serving_x:0": [1, 3, 5], "state_in:0": [1, 4]},
        {"state_out:0": "state_in:0"},
        {"squeezed": None},
    ),
    "rate-16k": rate_case(16000),
    "rate-8k": rate_case(8000),
    "convolution": Case(
        awkward.convolution(),
        "",
        {"feats": [1, 3, 4], "cache.a": [1, 3, 2], "cache.b": [1, 3, 2]},
        {"r_cache": "cache.a", "q_cache": "cache.b"},
        initial={"cache.a": 0.5},
    ),
    "attention": Case(
        awkward.attention(),
        "--fix T=2 --fix P=6 --initial count=7",
        {
            "x": [2, 1, 4],
            "past.0.key": [6, 1, 4],
            "past.0.value": [6, 1, 4],
            "count": [1],
        },
        {
            "present.0.key": "past.0.key",
            "present.0.value": "past.0.value",
            "new_count": "count",
        },
        {"x": 1, "past.0.key": 1, "past.0.value": 1, "y": 1},
        initial={"count": 7},
    ),
    "batch-last": Case(
        awkward.batch_last(),
        "--batch-axis ring=2 --batch 1-3",
        {"x": [4, 3, 1], "ring": [4, 3, 1]},
        {"ring_next": "ring"},
        {"x": 2, "ring": 2, "ring_next": 2, "y": 1, "mean": 2},
    ),
    "fitting": Case(
        awkward.fitting(),
        "",
        {"x": [1, 4], "sum_in": [1, 4]},
        {"sum_out": "sum_in"},
    ),
}


def tool(model, directory, arguments=""):
    """Status, and the files that the tool was to write."""
    paths = [str(directory / name) for name in ("out.onnx", "out.conf")]
    status = cli.main(
        [str(model), "-o", paths[0], "--config", paths[1], *arguments.split()]
    )
    if status == 0 and CHECK:
        command = [CHECK, "check", paths[1], paths[0]]
        checked = subprocess.run(command, capture_output=True, text=True)
        assert checked.returncode == 0, checked.stdout
    return status, paths


def read_config(path):
    lines = open(path).read().splitlines()
    return dict(line[2:].split("=", 1) for line in lines)


def read_caches(path):
    """Input by output."""
    pairs = read_config(path)["caches-pair"].split(";")
    return dict(pair.split(":") for pair in pairs)


def make_streams(case, types):
    random = np.random.default_rng(5)
    return [
        [
            {
                name: (random.standard_normal(shape) * 0.5).astype(types[name])
                for name, shape in case.shapes.items()
                if name not in case.caches.values()
            }
            for _ in range(length)
        ]
        for length in CHUNKS
    ]


def input_types(session):
    kinds = {
        "tensor(float)": "f4",
        "tensor(float16)": "f2",
        "tensor(int64)": "i8",
    }
    return {i.name: np.dtype(kinds[i.type]) for i in session.get_inputs()}


def run_original(case, session, chunks):
    """Rows of the outputs that are no states, by chunk."""
    types = input_types(session)
    states = {
        name: np.full(case.shapes[name], case.initial.get(name, 0), types[name])
        for name in case.caches.values()
    }
    names = [output.name for output in session.get_outputs()]
    rows = []
    for chunk in chunks:
        feeds = {**case.constants, **states, **chunk}
        results = dict(zip(names, session.run(names, feeds)))
        states = {i: results.pop(o) for o, i in case.caches.items()}
        rows.append(
            {
                n: a
                if case.axes.get(n, 0) is None
                else a.take(0, case.axes.get(n, 0))
                for n, a in results.items()
            }
        )
    return rows


def run_engine(paths, streams, _):
    """Batches of all streams that still have chunks, as the library stacks
    them, with the states that the configuration names."""
    session = onnxruntime.InferenceSession(paths[0])
    pairs = read_caches(paths[1])
    types = input_types(session)
    shapes = {i.name: i.shape[1:] for i in session.get_inputs()}
    names = [output.name for output in session.get_outputs()]
    states = [
        {n: np.zeros(shapes[n], types[n]) for n in pairs.values()}
        for _ in streams
    ]
    rows = [[] for _ in streams]
    for step in range(max(map(len, streams))):
        group = [i for i, s in enumerate(streams) if step < len(s)]
        inputs = [{**streams[i][step], **states[i]} for i in group]
        feeds = {n: np.stack([row[n] for row in inputs]) for n in shapes}
        results = dict(zip(names, session.run(names, feeds)))
        for k, i in enumerate(group):
            row = {name: array[k] for name, array in results.items()}
            states[i] = {n: row.pop(o) for o, n in pairs.items()}
            rows[i].append(row)
    return rows


def run_library(paths, streams, directory):
    if not RUN_STREAMS:
        pytest.skip("TARN_RUN_STREAMS does not name the program run-streams")
    for i, chunks in enumerate(streams):
        (directory / str(i)).mkdir()
        for name in chunks[0]:
            data = b"".join(chunk[name].tobytes() for chunk in chunks)
            (directory / str(i) / name).write_bytes(data)
    program = [RUN_STREAMS, paths[1], paths[0], directory, str(len(streams))]
    done = subprocess.run(program, capture_output=True, text=True)
    assert done.returncode == 0, done.stdout + done.stderr
    assert int(done.stdout) > 1, "nothing was computed together"
    session = onnxruntime.InferenceSession(paths[0])
    states = read_caches(paths[1])
    rows = [[{} for _ in chunks] for chunks in streams]
    for output in session.get_outputs():
        if output.name in states:
            continue
        dtype = {"tensor(float16)": "f2", "tensor(float)": "f4"}[output.type]
        for i, chunks in enumerate(rows):
            data = np.fromfile(directory / str(i) / output.name, dtype)
            for row, part in zip(chunks, np.split(data, len(chunks))):
                row[output.name] = part.reshape(output.shape[1:])
    return rows


@pytest.mark.parametrize("run", [run_engine, run_library])
@pytest.mark.parametrize("name", CASES)
def test_batched_equals_alone(name, run, tmp_path):
    case = CASES[name]
    path = awkward.save(case.model, tmp_path / "model.onnx", case.external)
    status, paths = tool(path, tmp_path, f"{case.arguments} --interval 20000")
    assert status == 0
    original = onnxruntime.InferenceSession(path)
    streams = make_streams(case, input_types(original))
    rows = [
        [
            {
                n.replace(":", "_"): a.take(0, case.axes.get(n, 0))
                for n, a in chunk.items()
            }
            for chunk in chunks
        ]
        for chunks in streams
    ]
    for chunks, actual in zip(streams, run(paths, rows, tmp_path)):
        expected = run_original(case, original, chunks)
        assert len(actual) == len(expected)
        for row, other in zip(expected, actual):
            row = {n.replace(":", "_"): a for n, a in row.items()}
            assert row.keys() == other.keys()
            for output, array in row.items():
                np.testing.assert_allclose(
                    other[output],
                    array,
                    atol=case.tolerance,
                    rtol=case.tolerance,
                )


@pytest.mark.parametrize("width", [1, 2, 3, 4])
def test_reads_audio_of_any_width(width, tmp_path):
    path = str(tmp_path / "a.wav")
    # The top bytes of little-endian samples: 0, a half, minus a half.
    tops = [0x80, 0xC0, 0x40] if width == 1 else [0, 0x40, 0xC0]
    with wave.open(path, "wb") as file:
        file.setparams((1, width, 8000, 0, "NONE", ""))
        file.writeframes(b"".join(bytes([0] * (width - 1) + [t]) for t in tops))
    assert list(proof.read_wav(path)) == [0, 0.5, -0.5]


def test_a_fitting_model_is_copied(tmp_path):
    path = awkward.save(awkward.fitting(), tmp_path / "model.onnx")
    _, paths = tool(path, tmp_path, "--batch 2-64 --interval 7")
    assert open(paths[0], "rb").read() == path.read_bytes()
    config = read_config(paths[1])
    assert config["dynamic-dims"] == "batch:2-64"
    assert config["infer-interval"] == "7"
    assert config["caches-format"] == "sum_in:[batch, size-4]"


@pytest.mark.parametrize(
    "build, arguments, name, ops",
    [
        (awkward.rate_switch, RATE + "8000", "state", ["Gather", "Gather"]),
        (awkward.batch_last, "", "mean", ["Unsqueeze"]),
        (awkward.attention, "--fix T=2 --fix P=6", "y", ["Identity"]),
    ],
)
def test_free_transposes_are_folded(build, arguments, name, ops, tmp_path):
    path = awkward.save(build(), tmp_path / "model.onnx")
    _, paths = tool(path, tmp_path, arguments)
    nodes = onnx.load(paths[0]).graph.node
    assert ops == [n.op_type for n in nodes if name in [*n.input, *n.output]]


def scalar_output():
    g = awkward.Graph()
    x, s = g.input("x", ["batch", 4]), g.input("state", ["batch", 4])
    total = g.add("Add", x, s)
    g.output(g.add("ReduceMax", total, keepdims=0), "loudest", [])
    g.output(total, "state_out", ["batch", 4])
    return g.model()


def growing():
    g = awkward.Graph()
    x, past = g.input("x", ["batch", 2, 4]), g.input("past", ["batch", 6, 4])
    new = g.add("Concat", past, x, axis=1)
    g.output(g.add("Tanh", new), "y", ["batch", "longer", 4])
    g.output(new, "present", ["batch", "longer", 4])
    return g.model()


def stateless():
    g = awkward.Graph()
    g.output(g.add("Tanh", g.input("x", ["batch", 4])), "y", ["batch", 4])
    return g.model()


def bool_input():
    g = awkward.Graph()
    x = g.input("x", ["batch", 4], onnx.TensorProto.BOOL)
    g.output(x, "y", ["batch", 4], onnx.TensorProto.BOOL)
    return g.model()


def old():
    model = awkward.fitting()
    model.opset_import[0].version = 9
    return model


REFUSED = [
    (awkward.rate_switch, "", r"sr is a scalar.* give --set sr=.*16000"),
    (awkward.torch_lstm, "", r"dimension sequence of input .* --fix sequence="),
    (awkward.fixed_initial_state, "", r"node /GRU_1 \(GRU\) stands in the way"),
    (scalar_output, "", r"node /ReduceMax_1 \(ReduceMax\) stands in the way"),
    (growing, "", r"state past comes in as .*6, 4.*\[8, 4\].* --fix"),
    (stateless, "", r"give --cache <output>:<input>"),
    (bool_input, "", r"x has the type BOOL"),
    (old, "", r"opset is 9: export it with one of 11 to 21"),
    (lambda: awkward.keras_gru(batch=2), "", r"give --batch-axis|give others"),
    (awkward.fitting, "--set z=1", r"--set names z, .* give one of sum_in, x"),
    (awkward.fitting, "--fix time=1", r"--fix names time"),
    (awkward.fitting, "--cache y:z", r"--cache names z"),
    (
        awkward.torch_lstm,
        LSTM + " --cache hn:h0 --cache cn:h0",
        r"--cache names h0 more than once",
    ),
    (
        awkward.fitting,
        "--cache sum_out:sum_in --cache y:x",
        r"nothing is left for the host",
    ),
    (awkward.fitting, "--batch-axis x=2", r"no axis 2: give --batch-axis x="),
    (awkward.fitting, "--rename x=a;b", r"give one such as a_b"),
    (awkward.fitting, "--rename x=y", r"would be called y"),
    (awkward.fitting, "--initial x=1", r"x is no state"),
    (awkward.fitting, "--initial sum_in=[1,2]", r"give \[4\] or one number"),
    (awkward.fitting, "--batch 8-1", r"--batch 8-1 is no range"),
    (awkward.fitting, "--fix batch", r"--fix batch is not understood"),
    (awkward.fitting, "--wav missing.wav", r"give a PCM file"),
    (awkward.fitting, "--report /nowhere/r.html", r"cannot be written"),
    (awkward.fitting, "--report /tmp", r"/tmp cannot be written .*directory"),
    (awkward.torch_lstm, LSTM + " --initial h0=nan", r"initial value"),
]


@pytest.mark.parametrize("build, arguments, message", REFUSED)
def test_refuses_with_one_sentence(build, arguments, message, tmp_path, capsys):
    path = awkward.save(build(), tmp_path / "model.onnx")
    assert_refused(path, arguments, message, capsys)


@pytest.mark.parametrize(
    "content, message",
    [(None, "cannot be read"), (b"RIFF", "not an ONNX"), (b"", "not an ONNX")],
)
def test_refuses_what_is_no_model(content, message, tmp_path, capsys):
    path = tmp_path / "model.onnx"
    if content is not None:
        path.write_bytes(content)
    assert_refused(path, "", message, capsys)


def test_refuses_missing_external_data(tmp_path, capsys):
    path = awkward.save(awkward.torch_lstm(), tmp_path / "model.onnx", True)
    (tmp_path / "weights.bin").unlink()
    assert_refused(path, LSTM, "put weights.bin into", capsys)


def test_writes_nothing_unless_proven(tmp_path, capsys, monkeypatch):
    """Without the offset the prepared model starts from another state."""
    monkeypatch.setattr(prepare, "start_from_zeros", lambda *_: None)
    path = awkward.save(awkward.convolution(), tmp_path / "model.onnx")
    assert_refused(path, "", "nothing was written", capsys)


def assert_refused(path, arguments, message, capsys):
    before = set(path.parent.iterdir())
    status, _ = tool(path, path.parent, arguments)
    error = capsys.readouterr().err
    assert status == 1
    assert error.count("\n") == 1 and error.startswith("tarn-prepare: ")
    assert re.search(message, error), error
    assert set(path.parent.iterdir()) == before


@pytest.mark.parametrize(
    "expected, actual, absolute",
    [
        ([1, -2], [1, -2], 0),
        ([1, -2], [1.5, -2], 0.5),
        ([np.nan, np.inf], [np.nan, np.inf], 0),
        ([np.nan, 1], [1, 1], np.inf),
        ([np.inf], [1], np.inf),
    ],
)
def test_differences(expected, actual, absolute):
    difference = proof.Difference("y", "output", 1e-3)
    difference.add(np.array(expected, np.float32), np.array(actual, np.float32))
    assert difference.absolute == absolute
    assert difference.passed == (absolute == 0)


@pytest.mark.parametrize(
    "input_, output",
    [
        ("h0", "hn"),
        ("state", "stateN"),
        ("past_key_values.3.value", "present.3.value"),
        ("encoder_cache_in", "encoder_cache_out"),
        ("len", "new_len"),
        ("samples", "samples_next"),
        ("prevMemory", "nextMemory"),
    ],
)
def test_names_of_states(input_, output):
    keys = [caches.words(name) for name in (input_, output)]
    assert keys[0] == keys[1] or keys[0] == (*keys[1], "0")


def test_audio_and_report_and_module(tmp_path):
    """As a program of its own, with real audio, and a page without links."""
    path = awkward.save(awkward.rate_switch(), tmp_path / "model.onnx")
    with wave.open(str(tmp_path / "a.wav"), "wb") as file:
        file.setparams((2, 2, 16000, 0, "NONE", ""))
        file.writeframes(np.arange(-500, 500, dtype="<i2").tobytes())
    command = [
        sys.executable,
        "-m",
        "tarn_prepare",
        path,
        "-o",
        "o",
        "--config",
        "c",
    ]
    command += f"{RATE}8000 --wav a.wav --report r.html".split()
    done = subprocess.run(
        command,
        cwd=tmp_path,
        capture_output=True,
        text=True,
        env={**os.environ, "PYTHONPATH": str(PACKAGE)},
    )
    assert done.returncode == 0, done.stderr
    page = (tmp_path / "r.html").read_text()
    assert "input sr is the constant 8000" in page
    assert "http" not in page and "src=" not in page
