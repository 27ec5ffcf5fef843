#!/usr/bin/env python3
"""Makes the models that the tests run, with their configuration files.

usage: make-test-models.py OUTPUT_DIR

accumulator         sum-next = x + sum, y = sum-next + sum: an engine that
                    writes new state over the old gets y wrong; batches of 1-4
accumulator-4       the same in batches of exactly 4
accumulator-single  the same without batch dimension
caches              three caches of one shape and type that differ in meaning
types               reverses a row of each element type
first-frame         twice the first of 1-5 frames, in batches of 1-4
frames              each of 1-5 frames doubled, in batches of 1-4
frames-single       the same without batch dimension
lookup-4            y = sum-next = table[i] + sum in batches of exactly 4; the
                    run fails for an i outside the table
lookup-single       the same without batch dimension
scalar, string, sequence
                    what no description can ask for; their configuration files
                    say floats of shape [1]
"""

import dataclasses
import pathlib
import sys

import numpy as np
import onnx
from onnx import TensorProto, helper, numpy_helper

# Sizes by dimension name: a number, or the range of a dynamic one.
SINGLE = {"feat": 3, "time": (1, 5)}
BATCHED = {**SINGLE, "batch": (1, 4)}
BATCH_OF_4 = {**SINGLE, "batch": 4}

# Element types and what the library calls them. It has no unsigned ones.
DTYPES = {
    "float": "FLOAT32",
    "double": "FLOAT64",
    "float16": "FLOAT16",
    "int32": "INT32",
    "int64": "INT64",
    "int16": "INT16",
    "int8": "INT8",
    "uint8": "INT8",
    "uint16": "INT16",
    "uint32": "INT32",
    "uint64": "INT64",
}


@dataclasses.dataclass
class Port:
    """An input or output: a name, a type, and the names of its dimensions."""

    name: str
    format: str
    type: str = "float"


@dataclasses.dataclass
class Network:
    """Ports are in session order; caches map output to input ports."""

    nodes: list
    inputs: list
    outputs: list
    caches: dict = dataclasses.field(default_factory=dict)
    constants: dict = dataclasses.field(default_factory=dict)


def node(op, inputs, output, **attributes):
    return helper.make_node(op, inputs.split(), [output], **attributes)


def make_model(network, sizes):
    def value_info(port):
        if isinstance(port, onnx.ValueInfoProto):
            return port
        dimensions = port.format.split()
        shape = [d if is_dynamic(sizes[d]) else sizes[d] for d in dimensions]
        type_code = TensorProto.DataType.Value(port.type.upper())
        return helper.make_tensor_value_info(port.name, type_code, shape)

    graph = helper.make_graph(
        network.nodes,
        "test",
        [value_info(port) for port in network.inputs],
        [value_info(port) for port in network.outputs],
        [numpy_helper.from_array(v, k) for k, v in network.constants.items()],
    )
    opset = helper.make_opsetid("", 17)
    model = helper.make_model(graph, opset_imports=[opset], ir_version=8)
    onnx.checker.check_model(model)
    return model


def is_dynamic(size):
    return isinstance(size, tuple)


def make_conf(network, sizes):
    def is_cache(port):
        return (
            port.name in network.caches or port.name in network.caches.values()
        )

    inputs = [port for port in network.inputs if not is_cache(port)]
    outputs = [port for port in network.outputs if not is_cache(port)]
    caches = [port for port in network.inputs if is_cache(port)]
    options = describe("inputs", inputs, sizes)
    options.update(describe("outputs", outputs, sizes))
    if caches:
        pairs = [":".join(pair) for pair in network.caches.items()]
        options["caches-pair"] = ";".join(pairs)
        options.update(describe("caches", caches, sizes))
    if "batch" in sizes:
        options["batch-dim"] = "batch"
        options["multi-threads"] = "true"
    dimensions = {d for port in inputs for d in port.format.split()}
    ranges = {d: sizes[d] for d in sorted(dimensions) if is_dynamic(sizes[d])}
    if ranges:
        options["dynamic-dims"] = ";".join(
            f"{d}:{low}-{high}" for d, (low, high) in ranges.items()
        )
    options["num-execute-threads"] = "1"
    return "".join(f"--{key}={value}\n" for key, value in options.items())


def describe(noun, ports, sizes):
    def size_of(dimension):
        return -1 if is_dynamic(sizes[dimension]) else sizes[dimension]

    def join(value):
        return ";".join(f"{port.name}:{value(port)}" for port in ports)

    return {
        f"{noun}-format": join(lambda p: f"[{', '.join(p.format.split())}]"),
        f"{noun}-shape": join(
            lambda p: str([size_of(d) for d in p.format.split()])
        ),
        f"{noun}-dtype": join(lambda p: DTYPES[p.type]),
    }


def accumulator(row):
    return Network(
        [
            node("Add", "x sum", "sum-next"),
            node("Add", "sum-next sum", "y"),
        ],
        [Port("sum", row), Port("x", row)],
        [Port("y", row), Port("sum-next", row)],
        {"sum-next": "sum"},
    )


def caches():
    """Named as in real streaming encoders: one cache's name is a prefix of
    another's, and the output sides sort differently from the input sides."""
    channel = "cache_last_channel"
    length = "cache_last_channel_len"
    time = "cache_last_time"

    def ports(names):
        return [Port(name, "batch feat", "int64") for name in names.split()]

    return Network(
        [
            node("Add", f"x {channel}", f"{channel}_next"),
            node("Add", f"one {length}", f"{length}_next"),
            node("Identity", "x", f"{time}_next"),
            node("Identity", channel, "total"),
            node("Identity", length, "count"),
            node("Identity", time, "last"),
        ],
        ports(f"{time} x {length} {channel}"),
        ports(f"{time}_next total {channel}_next last {length}_next count"),
        {f"{name}_next": name for name in (channel, length, time)},
        {"one": np.ones(1, np.int64)},
    )


def types():
    """The session's order is that of DTYPES, and its reverse for outputs; the
    description's is that of the names."""
    return Network(
        [
            node("Gather", f"x-{name} backwards", f"y-{name}", axis=1)
            for name in DTYPES
        ],
        [Port(f"x-{name}", "batch feat", name) for name in DTYPES],
        [Port(f"y-{name}", "batch feat", name) for name in reversed(DTYPES)],
        constants={"backwards": np.array([2, 1, 0])},
    )


def frames(row):
    return Network(
        [node("Add", "feats feats", "doubled")],
        [Port("feats", row)],
        [Port("doubled", row)],
    )


def first_frame():
    return Network(
        [
            node("Gather", "feats zero", "first", axis=1),
            node("Add", "first first", "doubled"),
        ],
        [Port("feats", "batch time feat")],
        [Port("doubled", "batch feat")],
        constants={"zero": np.array(0)},
    )


def lookup(row):
    return Network(
        [
            node("Gather", "table i", "value"),
            node("Add", "value sum", "sum-next"),
            node("Identity", "sum-next", "y"),
        ],
        [Port("i", row, "int64"), Port("sum", row)],
        [Port("sum-next", row), Port("y", row)],
        {"sum-next": "sum"},
        {"table": np.array([1, 10, 100], np.float32)},
    )


def odd(value_type):
    """An input and an output of the type and an operation between them."""
    x = onnx.ValueInfoProto(name="x", type=value_type)
    y = onnx.ValueInfoProto(name="y", type=value_type)
    return Network([node("Identity", "x", "y")], [x], [y])


def odd_types():
    sequence = helper.make_tensor_sequence_value_info
    return {
        "scalar": helper.make_tensor_type_proto(TensorProto.FLOAT, []),
        "string": helper.make_tensor_type_proto(TensorProto.STRING, [1]),
        "sequence": sequence("", TensorProto.FLOAT, [1]).type,
    }


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    directory = pathlib.Path(sys.argv[1])
    directory.mkdir(parents=True, exist_ok=True)

    def save(name, model, conf):
        onnx.save(model, directory / f"{name}.onnx")
        (directory / f"{name}.conf").write_text(conf, encoding="ascii")

    for name, network, sizes in (
        ("accumulator", accumulator("batch feat"), BATCHED),
        ("accumulator-4", accumulator("batch feat"), BATCH_OF_4),
        ("accumulator-single", accumulator("feat"), SINGLE),
        ("caches", caches(), BATCHED),
        ("types", types(), BATCHED),
        ("first-frame", first_frame(), BATCHED),
        ("frames", frames("batch time feat"), BATCHED),
        ("frames-single", frames("time feat"), SINGLE),
        ("lookup-4", lookup("batch feat"), BATCH_OF_4),
        ("lookup-single", lookup("feat"), SINGLE),
    ):
        save(name, make_model(network, sizes), make_conf(network, sizes))
    plain = Network([], [Port("x", "one")], [Port("y", "one")])
    for name, value_type in odd_types().items():
        conf = make_conf(plain, {"one": 1})
        save(name, make_model(odd(value_type), SINGLE), conf)


if __name__ == "__main__":
    main()
