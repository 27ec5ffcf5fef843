"""The commands that describe: inspect, init, check, scramble, unscramble."""

import json

import numpy as np
import onnx
import pytest
from onnx import TensorProto, helper, numpy_helper

DESCRIBABLE = """accumulator accumulator-4 accumulator-single caches types
first-frame frames frames-single lookup-4 lookup-single""".split()


def text_of(result):
    assert result.status == 0, result.err
    return result.out


def options_of(config):
    """Options by name of a configuration's text."""
    lines = [x for x in config.splitlines() if x and not x.startswith("#")]
    return dict(line[2:].split("=", 1) for line in lines)


def save(path, nodes, inputs, outputs, constants=()):
    """Writes a network of floats; inputs and outputs are shapes by name."""

    def ports(shapes):
        return [
            helper.make_tensor_value_info(name, TensorProto.FLOAT, shape)
            for name, shape in shapes.items()
        ]

    graph = helper.make_graph(
        [helper.make_node(op, i.split(), [o], **a) for op, i, o, a in nodes],
        "test",
        ports(inputs),
        ports(outputs),
        [numpy_helper.from_array(v, k) for k, v in dict(constants).items()],
    )
    opsets = [helper.make_opsetid("", 17)]
    onnx.save(
        helper.make_model(graph, opset_imports=opsets, ir_version=8), path
    )
    return path


@pytest.fixture
def stream(tmp_path):
    """Makes a network that adds what it gets to a state of a given name."""

    def make(old="h0", new="hn", shape=("n", 2), data=("x", "y")):
        x, y = data
        return save(
            tmp_path / "stream.onnx",
            [("Add", f"{x} {old}", new, {}), ("Neg", new, y, {})],
            {x: shape, old: shape},
            {y: shape, new: shape},
        )

    return make


@pytest.fixture
def halved(tmp_path):
    """A network of frames that keeps every other one."""
    bounds = {"one": [1], "zero": [0], "end": [2**31], "two": [2]}
    return save(
        tmp_path / "halved.onnx",
        [("Slice", "feats zero end one two", "kept", {})],
        {"feats": ["B", "T", 2]},
        {"kept": ["B", "T/2, even", 2]},
        {name: np.array(value) for name, value in bounds.items()},
    )


def run_on_zeros(tarn, config, model, folder):
    """Runs one stream of two chunks with a size of 2 for what is dynamic."""
    options = options_of(config.read_text())
    dtypes = dict(x.split(":") for x in options["inputs-dtype"].split(";"))
    arguments = []
    for entry in options["inputs-shape"].split(";"):
        name, shape = entry.split(":")
        sizes = [2 if n == -1 else n for n in json.loads(shape)]
        sizes = sizes[1:] if "batch-dim" in options else sizes
        array = np.zeros([2, *sizes], dtypes[name].lower())
        np.save(folder / f"{name}.npy", array)
        arguments += ["--input", f"{name}={folder / name}.npy"]
    return tarn("run", config, model, *arguments)


@pytest.mark.parametrize("name", DESCRIBABLE)
def test_what_init_writes_is_accepted_and_runs(tarn, models, tmp_path, name):
    config, model = tmp_path / "model.conf", models / f"{name}.onnx"
    text_of(tarn("init", model, "-o", config))
    text_of(tarn("check", config, model))
    text_of(run_on_zeros(tarn, config, model, tmp_path))


def test_init_finds_what_the_networks_author_wrote(tarn, models):
    for name in ("caches", "accumulator", "accumulator-4"):
        written = options_of((models / f"{name}.conf").read_text())
        guessed = options_of(text_of(tarn("init", models / f"{name}.onnx")))
        for key in ("caches-pair", "batch-dim", "inputs-dtype"):
            assert set(guessed[key].split(";")) == set(written[key].split(";"))


@pytest.mark.parametrize(
    "name, obstacle",
    [("scalar", "scalar"), ("string", "string"), ("sequence", "sequence")],
)
def test_what_cannot_be_described_is_named(
    tarn, models, tmp_path, name, obstacle
):
    model, config = models / f"{name}.onnx", tmp_path / "model.conf"
    for port in tarn("inspect", "--json", model).json()["inputs"]:
        assert obstacle in port["obstacle"]
    result = tarn("init", model, "-o", config)
    assert (result.status, config.exists()) == (1, False)
    assert obstacle in result.err and "x: " in result.err


def test_inspect_lists_ports_and_file(tarn, models):
    network = tarn("inspect", "--json", models / "types.onnx").json()
    assert (network["opsets"], network["ir_version"]) == ({"ai.onnx": 17}, 8)
    ports = {port["name"]: port for port in network["inputs"]}
    assert ports["x-uint16"] == {
        "name": "x-uint16",
        "type": "uint16",
        "dtype": "INT16",
        "shape": ["batch", 3],
        "bytes_per_item": 6,
    }
    lines = text_of(tarn("inspect", models / "types.onnx")).splitlines()
    row = next(x for x in lines if "x-uint16" in x)
    title = next(x for x in lines if "bytes per item" in x)
    assert row.index("INT16") == title.index("described as")


def test_inspect_tells_unknown_rank_from_scalar(tarn, tmp_path):
    path = save(
        tmp_path / "rank.onnx", [("Neg", "x", "y", {})], {"x": None}, {"y": []}
    )
    network = tarn("inspect", "--json", path).json()
    assert "rank" in network["inputs"][0]["obstacle"]
    assert "scalar" in network["outputs"][0]["obstacle"]


@pytest.mark.parametrize(
    "old, new",
    [
        ("h0", "hn"),
        ("x_in", "x_out"),
        ("mem", "mem_out"),
        ("mem", "new_mem"),
        ("mem", "next_mem"),
        ("mem", "mem-next"),
        ("state", "stateN"),
        ("stateN", "stateN_out"),
        ("past_key_values.0.key", "present.0.key"),
        ("mem_old", "mem_new"),
    ],
)
def test_caches_are_known_by_name(tarn, stream, old, new):
    options = options_of(text_of(tarn("init", stream(old, new))))
    assert options["caches-pair"] == f"{new}:{old}"
    assert options["dynamic-dims"] == "n:1-16"


def test_data_is_no_cache(tarn, stream):
    path = stream("memory", "kept", data=("audio", "audio_out"))
    result = tarn("init", path)
    assert "caches-pair" not in options_of(text_of(result))
    assert "--cache kept:memory" in result.err  # It could be one.


@pytest.mark.parametrize(
    "arguments, expected",
    [
        (["--cache", "y:h0"], {"caches-pair": "y:h0"}),
        (["--cache", "none"], {"caches-pair": None}),
        (["--batch", "none", "--cache", "none"], {"batch-dim": None}),
        (["--batch", "rows:2-4"], {"dynamic-dims": "rows:2-4"}),
        (["--dynamic", "n:1-8"], {"dynamic-dims": "n:1-8"}),
        (["--name", "x.1=feat"], {"inputs-format": "x:[n, feat]"}),
    ],
)
def test_guesses_can_be_overruled(tarn, stream, arguments, expected):
    options = options_of(text_of(tarn("init", stream(), *arguments)))
    assert {key: options.get(key) for key in expected} == expected


@pytest.mark.parametrize(
    "shape, batch",
    [((None, 2), "batch"), (("T", 2), None), ((4, 2), "batch"), ((4,), None)],
)
def test_batch_is_guessed_from_first_dimensions(tarn, stream, shape, batch):
    arguments = [] if shape[0] != "T" else ["--cache", "none"]
    options = options_of(text_of(tarn("init", stream(shape=shape), *arguments)))
    assert options.get("batch-dim") == batch
    assert options["infer-thread"] == ("true" if batch else "false")


def test_ranges_of_outputs_follow_from_inputs(tarn, halved, tmp_path):
    config = tmp_path / "model.conf"
    text_of(tarn("init", halved, "-o", config, "--dynamic", "T:3-20"))
    text_of(tarn("check", config, halved))
    ranges = options_of(config.read_text())["dynamic-dims"].split(";")
    assert set(ranges) == {"B:1-16", "T:3-20", "T/2__even:2-10"}


REFUSED = [
    (1, "--dynamic", ["--dynamic", "gone:1-2"], "gone is no dynamic dimension"),
    (1, "--cache", ["--cache", "gone:h0"], "no output gone"),
    (1, "--name", ["--name", "x.7=a"], "no dimension x.7"),
    (1, "streaming", ["--batch", "none"], "tarn-prepare --fix n=SIZE"),
    (2, "range", ["--dynamic", "n:4-1"], "NAME:MIN-MAX"),
    (2, "name", ["--name", "x.0=a,b"], "name of a dimension"),
    (2, "cache", ["--cache", "hn"], "OUTPUT:INPUT"),
]


@pytest.mark.parametrize(
    "status, arguments, said",
    [(status, a, said) for status, _, a, said in REFUSED],
    ids=[name for _, name, _, _ in REFUSED],
)
def test_init_refuses(tarn, stream, tmp_path, status, arguments, said):
    config = tmp_path / "model.conf"
    result = tarn("init", stream(), "-o", config, *arguments)
    assert (result.status, result.out) == (status, "")
    assert said in result.err and not config.exists()


def test_rows_that_mix_are_no_batch(tarn, tmp_path):
    path = save(
        tmp_path / "mixed.onnx",
        [
            ("ReduceMean", "x", "mean", {"axes": [0], "keepdims": 1}),
            ("Add", "x mean", "y", {}),
        ],
        {"x": ["n", 2]},
        {"y": ["n", 2]},
    )
    config = tmp_path / "model.conf"
    result = tarn("init", path, "-o", config)
    assert (result.status, config.exists()) == (1, False)
    assert "output y differs" in result.err and "--batch none" in result.err


def test_json_of_init_holds_the_configuration(tarn, models):
    model = models / "caches.onnx"
    document = tarn("init", "--json", model).json()
    assert document["config"] == text_of(tarn("init", model))
    assert document["options"]["batch-dim"] == "batch"
    assert set(document["proof"]["relative_differences"].values()) == {0}


BROKEN = {
    "range missing": ("dynamic-dims=batch:1-4", "dynamic-dims=", "batch"),
    "range reversed": ("batch:1-4", "batch:4-1", "batch:4-1"),
    "type unknown": ("x:FLOAT32", "x:FLOAT31", "float31"),
    "shape too short": ("inputs-shape=x:[-1, 3]", "inputs-shape=x:[-1]", "x"),
    "option unknown": ("batch-dim", "batch-dimension", "batch-dimension"),
    "not in the network": ("sum-next:sum", "sum-last:sum", "sum-"),
}


@pytest.mark.parametrize("old, new, said", BROKEN.values(), ids=BROKEN)
def test_check_names_what_is_broken(tarn, models, tmp_path, old, new, said):
    config, model = tmp_path / "model.conf", models / "accumulator.onnx"
    whole = (models / "accumulator.conf").read_text()
    assert old in whole
    config.write_text(whole.replace(old, new))
    result = tarn("check", "--json", config, model)
    assert result.status == 1
    document = result.json()
    assert not document["accepted"]
    assert any(said in f["found"] for f in document["findings"])
    shown = tarn("check", config, model)
    assert shown.status == 1
    for finding in document["findings"]:
        assert finding["found"] in shown.out and finding["rule"] in shown.out


def test_check_finds_line_and_reads_scrambled(tarn, models, tmp_path):
    config, hidden = tmp_path / "model.conf", tmp_path / "model.hidden"
    whole = (models / "accumulator.conf").read_text()
    config.write_text("# First.\n" + whole.replace("x:FLOAT32", "x:TEXT"))
    text_of(tarn("scramble", config, hidden))
    findings = [
        tarn("check", "--json", *arguments).json()["findings"]
        for arguments in ([config], ["--scrambled", hidden])
    ]
    assert findings[0] == findings[1]
    assert findings[0][0]["line"] == 4


@pytest.mark.parametrize(
    "plain",
    ["", "\n", "--a=b\n", "# \u00e4\r\n\n--a=\t1\n\n", f"--x={'y' * 999}\n"],
)
def test_scrambled_files_come_back_whole(tarn, tmp_path, plain):
    paths = [tmp_path / name for name in ("plain", "hidden", "again")]
    paths[0].write_bytes(plain.encode())
    text_of(tarn("scramble", *paths[:2]))
    text_of(tarn("unscramble", *paths[1:]))
    assert paths[2].read_bytes() == plain.encode()
    assert len(plain) < 3 or paths[1].read_bytes() != plain.encode()


def test_scrambling_follows_the_format(tarn, tmp_path):
    plain, hidden = tmp_path / "plain", tmp_path / "hidden"
    plain.write_text("--multi-threads=true\n--a")  # The newline is added.
    text_of(tarn("scramble", plain, hidden))
    key = b"Qorvane-Tulp_Wexa"
    expected = b"".join(
        len(line).to_bytes(4, "little")
        + bytes(c ^ key[i % len(key)] for i, c in enumerate(line))
        for line in (b"--multi-threads=true", b"--a")
    )
    assert hidden.read_bytes() == expected


@pytest.mark.parametrize(
    "stored",
    [b"\x05\0\0\0ab", b"\x05\0", b"\xff\xff\xff\xff", b"--a=b\n", b"\1\0\0\0Q"],
)
def test_unscramble_refuses_what_is_not_scrambled(tarn, tmp_path, stored):
    hidden, plain = tmp_path / "hidden", tmp_path / "plain"
    hidden.write_bytes(stored)
    result = tarn("unscramble", hidden, plain)
    assert (result.status, plain.exists()) == (1, False)
    assert "is no scrambled configuration file: line 1" in result.err
