#!/usr/bin/env python3
"""Makes the models that the benchmarks run, with their configuration files.

usage: make-bench-models.py OUTPUT_DIR

add         y = x + 1 over 160 floats
gru-1x64    one GRU layer of 64 units over 10 frames of 80 features, its
            hidden state in a cache
gru-2x256   the same with two layers of 256 units
conformer   5 conformer blocks of width 256, 7.6 million parameters, over 64
            frames of 80 features, which become 16; caches hold each block's
            attention keys and values of the 16 frames before, and its
            convolution's last 6 inputs

Each is made twice: for batches of 1 to 64 streams, computed by the inference
thread, and, with -serial in its name, for one stream without batch dimension,
computed in its caller's thread. The weights are the same at every run.
"""

import dataclasses
import math
import pathlib
import sys

import numpy as np
import onnx
from onnx import TensorProto, helper, numpy_helper

FEATURES = 80
MAX_BATCH = 64

GRU_FRAMES = 10

STACKED = 4  # Feature frames that become one frame of the conformer.
FRAMES = 16
CONTEXT = 16  # Frames before these to which attention reaches.
WIDTH = 256
HEADS = 4
INNER_WIDTH = 4 * WIDTH
BLOCKS = 5
KERNEL = 7


class Network:
    """A graph under construction. Shapes leave out the batch, which comes
    first everywhere."""

    def __init__(self, batch):
        self.batch = batch
        self.nodes = []
        self.constants = {}
        self.inputs = {}  # Shapes by name; caches as well.
        self.outputs = {}
        self.caches = {}  # Output by input.
        self.generator = np.random.default_rng(1)

    def add(self, op, inputs, outputs=1, **attributes):
        """Appends a node and returns its outputs' names, or the only one."""
        names = [f"{op}-{len(self.nodes)}-{i}" for i in range(outputs)]
        self.nodes.append(helper.make_node(op, inputs, names, **attributes))
        return names[0] if outputs == 1 else names

    def constant(self, value):
        name = f"constant-{len(self.constants)}"
        self.constants[name] = np.asarray(value)
        return name

    def integers(self, *values):
        return self.constant(np.array(values, np.int64))

    def weights(self, *shape):
        """Small enough that a signal neither dies nor explodes."""
        limit = 1 / math.sqrt(max(shape))
        values = self.generator.uniform(-limit, limit, shape)
        return self.constant(values.astype(np.float32))

    def input(self, name, *shape):
        self.inputs[name] = shape
        return name

    def cache(self, name, *shape):
        self.caches[name] = f"{name}-next"
        return self.input(name, *shape)

    def output(self, name, source, *shape):
        self.nodes.append(helper.make_node("Identity", [source], [name]))
        self.outputs[name] = shape

    def next_cache(self, name, source):
        self.output(self.caches[name], source, *self.inputs[name])

    def model(self):
        def infos(shapes):
            return [
                helper.make_tensor_value_info(
                    name, TensorProto.FLOAT, [self.batch, *shape]
                )
                for name, shape in shapes.items()
            ]

        graph = helper.make_graph(
            self.nodes,
            "bench",
            infos(self.inputs),
            infos(self.outputs),
            [numpy_helper.from_array(v, k) for k, v in self.constants.items()],
        )
        opset = helper.make_opsetid("", 17)
        model = helper.make_model(graph, opset_imports=[opset], ir_version=8)
        onnx.checker.check_model(model)
        return model


def make_add(network):
    x = network.input("x", 160)
    y = network.add("Add", [x, network.constant(np.ones(1, np.float32))])
    network.output("y", y, 160)


def make_gru(network, layers, units):
    """The engine's GRU has frames first and directions beside the batch."""
    x = network.input("feats", GRU_FRAMES, FEATURES)
    x = network.add("Transpose", [x], perm=[1, 0, 2])
    for i in range(layers):
        hidden = network.cache(f"hidden-{i}", units)
        width = FEATURES if i == 0 else units
        x, next_hidden = network.add(
            "GRU",
            [
                x,
                network.weights(1, 3 * units, width),
                network.weights(1, 3 * units, units),
                network.weights(1, 6 * units),
                "",
                network.add("Unsqueeze", [hidden, network.integers(0)]),
            ],
            outputs=2,
            hidden_size=units,
        )
        x = network.add("Squeeze", [x, network.integers(1)])
        next_hidden = network.add(
            "Squeeze", [next_hidden, network.integers(0)]
        )
        network.next_cache(hidden, next_hidden)
    encoded = network.add("Transpose", [x], perm=[1, 0, 2])
    network.output("encoded", encoded, GRU_FRAMES, units)


def linear(network, x, inputs, outputs):
    x = network.add("MatMul", [x, network.weights(inputs, outputs)])
    return network.add("Add", [x, network.weights(outputs)])


def norm(network, x):
    ones = network.constant(np.ones(WIDTH, np.float32))
    zeros = network.constant(np.zeros(WIDTH, np.float32))
    return network.add("LayerNormalization", [x, ones, zeros], axis=-1)


def swish(network, x):
    return network.add("Mul", [x, network.add("Sigmoid", [x])])


def feed_forward(network, x):
    x = swish(network, linear(network, norm(network, x), WIDTH, INNER_WIDTH))
    x = linear(network, x, INNER_WIDTH, WIDTH)
    return network.add("Mul", [x, network.constant(np.float32(0.5))])


def with_past(network, name, x, past):
    """x with the `past` frames before it, from a cache whose next value is
    the last `past` frames of both."""
    cache = network.cache(name, past, WIDTH)
    both = network.add("Concat", [cache, x], axis=1)
    bounds = [[-past], [2**31 - 1], [1]]  # Start, end and axis.
    latest = network.add(
        "Slice", [both, *(network.integers(*bound) for bound in bounds)]
    )
    network.next_cache(cache, latest)
    return both


def split_heads(network, x, perm):
    shape = network.integers(0, 0, HEADS, WIDTH // HEADS)
    x = network.add("Reshape", [x, shape])
    return network.add("Transpose", [x], perm=perm)


def attention(network, x, block):
    x = norm(network, x)
    query, key, value = (linear(network, x, WIDTH, WIDTH) for _ in range(3))
    key = with_past(network, f"key-{block}", key, CONTEXT)
    value = with_past(network, f"value-{block}", value, CONTEXT)
    scores = network.add(
        "MatMul",
        [
            split_heads(network, query, [0, 2, 1, 3]),
            split_heads(network, key, [0, 2, 3, 1]),
        ],
    )
    scale = network.constant(np.float32(1 / math.sqrt(WIDTH // HEADS)))
    scores = network.add("Mul", [scores, scale])
    weights = network.add("Softmax", [scores], axis=-1)
    value = split_heads(network, value, [0, 2, 1, 3])
    heads = network.add("MatMul", [weights, value])
    heads = network.add("Transpose", [heads], perm=[0, 2, 1, 3])
    joined = network.add("Reshape", [heads, network.integers(0, 0, WIDTH)])
    return linear(network, joined, WIDTH, WIDTH)


def convolution(network, x, block):
    x = linear(network, norm(network, x), WIDTH, 2 * WIDTH)
    x, gate = network.add("Split", [x], outputs=2, axis=-1)
    x = network.add("Mul", [x, network.add("Sigmoid", [gate])])
    x = with_past(network, f"conv-{block}", x, KERNEL - 1)
    x = network.add("Transpose", [x], perm=[0, 2, 1])
    weights = network.weights(WIDTH, 1, KERNEL)
    x = network.add("Conv", [x, weights], group=WIDTH, kernel_shape=[KERNEL])
    x = network.add("Transpose", [x], perm=[0, 2, 1])
    return linear(network, swish(network, norm(network, x)), WIDTH, WIDTH)


def make_conformer(network):
    stacked = network.integers(0, FRAMES, STACKED * FEATURES)
    feats = network.input("feats", STACKED * FRAMES, FEATURES)
    x = network.add("Reshape", [feats, stacked])
    x = linear(network, x, STACKED * FEATURES, WIDTH)
    for i in range(BLOCKS):
        x = network.add("Add", [x, feed_forward(network, x)])
        x = network.add("Add", [x, attention(network, x, i)])
        x = network.add("Add", [x, convolution(network, x, i)])
        x = network.add("Add", [x, feed_forward(network, x)])
        x = norm(network, x)
    network.output("encoded", x, FRAMES, WIDTH)


def make_conf(network, threads):
    """The batch has a name in a serial description, too, but is not named as
    the batch dimension there: that would ask for batching."""
    serial = network.batch == 1

    def describe(noun, shapes):
        def join(value):
            return "; ".join(f"{name}:{value(name)}" for name in shapes)

        def names(name):
            rest = [f"{name}-{i + 1}" for i in range(len(shapes[name]))]
            return f"[{', '.join(['batch', *rest])}]"

        yield f"{noun}-format", join(names)
        yield (
            f"{noun}-shape",
            join(lambda name: [1 if serial else -1, *shapes[name]]),
        )
        yield f"{noun}-dtype", join(lambda name: "FLOAT32")

    def without(shapes, names):
        return {k: v for k, v in shapes.items() if k not in names}

    caches = network.caches
    options = dict(describe("inputs", without(network.inputs, caches)))
    options.update(
        describe("outputs", without(network.outputs, caches.values()))
    )
    if caches:
        pairs = [f"{output}:{name}" for name, output in caches.items()]
        options["caches-pair"] = "; ".join(pairs)
        shapes = {name: network.inputs[name] for name in caches}
        options.update(describe("caches", shapes))
    if not serial:
        options["batch-dim"] = "batch"
        options["dynamic-dims"] = f"batch:1-{MAX_BATCH}"
        options["multi-threads"] = "true"
        options["infer-thread"] = "true"
        options["infer-interval"] = "1000"
    options["num-execute-threads"] = threads
    return "".join(f"--{name}={value}\n" for name, value in options.items())


@dataclasses.dataclass
class Kind:
    """Threads are those of one run of the engine on a batch."""

    make: callable
    threads: int


KINDS = {
    "add": Kind(make_add, 1),
    "gru-1x64": Kind(lambda network: make_gru(network, 1, 64), 1),
    "gru-2x256": Kind(lambda network: make_gru(network, 2, 256), 2),
    "conformer": Kind(make_conformer, 2),
}


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    directory = pathlib.Path(sys.argv[1])
    directory.mkdir(parents=True, exist_ok=True)
    for name, kind in KINDS.items():
        for suffix, batch, threads in (
            ("", "batch", kind.threads),
            ("-serial", 1, 1),
        ):
            network = Network(batch)
            kind.make(network)
            onnx.save(network.model(), directory / f"{name}{suffix}.onnx")
            conf = make_conf(network, threads)
            path = directory / f"{name}{suffix}.conf"
            path.write_text(conf, encoding="ascii")


if __name__ == "__main__":
    main()
