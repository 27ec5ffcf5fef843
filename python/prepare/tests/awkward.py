"""Streaming models as exporters leave them, in small.

usage: awkward.py FUNCTION OUTPUT, to look at one
"""

import sys

import numpy as np
import onnx
from onnx import TensorProto, helper, numpy_helper

BATCH = "batch_size"


class Graph:
    """Collects a graph; weights are random and small."""

    def __init__(self, opset=17, dtype=np.float32):
        self.opset, self.dtype = opset, np.dtype(dtype)
        self.type = helper.np_dtype_to_tensor_dtype(self.dtype)
        self.random = np.random.default_rng(0)
        self.nodes, self.inputs, self.outputs, self.values = [], [], [], []

    def input(self, name, dims, type_=None):
        self.inputs.append(
            helper.make_tensor_value_info(name, type_ or self.type, dims)
        )
        return name

    def output(self, value, name, dims=None, type_=None):
        """Renames a value, whose users must all be there. Dims of None: the
        exporter could not infer the shape."""
        for node in self.nodes:
            for names in (node.input, node.output):
                names[:] = [name if n == value else n for n in names]
        if not any(name in node.output for node in self.nodes):
            self.nodes.append(helper.make_node("Identity", [value], [name]))
        self.outputs.append(
            helper.make_tensor_value_info(name, type_ or self.type, dims)
        )

    def const(self, array):
        name = f"const_{len(self.values)}"
        self.values.append(numpy_helper.from_array(np.asarray(array), name))
        return name

    def ints(self, *values):
        return self.const(np.array(values, np.int64))

    def weight(self, *shape):
        array = self.random.standard_normal(shape) * 0.4
        return self.const(array.astype(self.dtype))

    def add(self, op, *inputs, outputs=1, **attributes):
        index = len(self.nodes)
        names = [f"t{index}_{i}" for i in range(outputs)]
        self.nodes.append(
            helper.make_node(
                op, inputs, names, name=f"/{op}_{index}", **attributes
            )
        )
        return names[0] if outputs == 1 else names

    def axes_op(self, op, x, *axes):
        if self.opset < 13:
            return self.add(op, x, axes=axes)
        return self.add(op, x, self.ints(*axes))

    def slice(self, x, begin, end, axis):
        return self.add(
            "Slice", x, self.ints(begin), self.ints(end), self.ints(axis)
        )

    def rnn(self, op, x, size, hidden, *states):
        """One layer; x is [time, batch, size], states [1, batch, hidden]."""
        gates = {"LSTM": 4, "GRU": 3}[op] * hidden
        y, *new = self.add(
            op,
            x,
            self.weight(1, gates, size),
            self.weight(1, gates, hidden),
            self.weight(1, 2 * gates),
            "",
            *states,
            outputs=1 + len(states),
            hidden_size=hidden,
        )
        return self.axes_op("Squeeze", y, 1), new

    def model(self, **metadata):
        graph = helper.make_graph(
            self.nodes, "g", self.inputs, self.outputs, self.values
        )
        model = helper.make_model(
            graph,
            opset_imports=[helper.make_opsetid("", self.opset)],
            ir_version=8,
        )
        helper.set_model_props(model, metadata)
        return model


def torch_lstm(opset=17, dtype=np.float32):
    """Two layers, states (layers, batch, hidden), a name for every dimension
    and two for the batch."""
    g = Graph(opset, dtype)
    x = g.input("input", ["batch", "sequence", 5])
    h = g.input("h0", [2, "batch_h", 4])
    c = g.input("c0", [2, "batch_h", 4])
    y, size, new = g.add("Transpose", x, perm=[1, 0, 2]), 5, []
    for layer in range(2):
        states = [g.slice(s, layer, layer + 1, 0) for s in (h, c)]
        y, states = g.rnn("LSTM", y, size, 4, *states)
        size = 4
        new.append(states)
    g.output(g.add("Transpose", y, perm=[1, 0, 2]), "output", ["a", "b", 4])
    for name, states in zip(("hn", "cn"), zip(*new)):
        g.output(g.add("Concat", *states, axis=0), name, ["d", "batch_h", 4])
    return g.model()


def keras_gru(batch=1):
    """Batch fixed at 1 and written into reshapes; names with colons."""
    g = Graph(13)
    x = g.input("serving_x:0", [batch, 3, 5])
    h = g.input("state_in:0", [batch, 4])
    flat = g.add("Reshape", x, g.ints(3, 5))
    dense = g.add("MatMul", flat, g.weight(5, 6))
    y = g.add("Reshape", dense, g.ints(1, 3, 6))
    y = g.add("Transpose", y, perm=[1, 0, 2])
    y, (h,) = g.rnn("GRU", y, 6, 4, g.add("Reshape", h, g.ints(1, 1, 4)))
    y = g.add("Transpose", y, perm=[1, 0, 2])
    g.output(g.add("Squeeze", y), "squeezed", [3, 4])
    g.output(g.add("Reshape", y, g.ints(1, 12)), "y:0", [1, 12])
    g.output(g.add("Reshape", h, g.ints(1, 4)), "state_out:0", [1, 4])
    return g.model()


def rate_switch():
    """A scalar rate, an If on it, outputs of unknown shape, state (2, batch,
    hidden) joined of h and c."""
    g = Graph(16)
    x = g.input("input", [None, None])
    state = g.input("state", [2, None, 4])
    sr = g.input("sr", [], TensorProto.INT64)
    is_wide = g.add("Equal", sr, g.const(np.array(16000, np.int64)))
    branches = {}
    for name, stride in (("then_branch", 2), ("else_branch", 1)):
        inner = [
            helper.make_node("Unsqueeze", [x, g.ints(1)], ["framed"]),
            helper.make_node(
                "Conv", ["framed", g.weight(6, 1, 4)], [name], strides=[stride]
            ),
        ]
        value = helper.make_tensor_value_info(name, g.type, None)
        branches[name] = helper.make_graph(inner, name, [], [value])
    y = g.add("Transpose", g.add("If", is_wide, **branches), perm=[2, 0, 1])
    states = [
        g.axes_op(
            "Unsqueeze", g.add("Gather", state, g.const(np.array(i)), axis=0), 0
        )
        for i in range(2)
    ]
    y, new = g.rnn("LSTM", y, 6, 4, *states)
    g.output(g.add("ReduceMean", y, axes=[0, 2], keepdims=0), "mean")
    g.output(g.add("Transpose", y, perm=[1, 0, 2]), "output")
    g.output(g.add("Concat", *new, axis=0), "stateN")
    return g.model()


def convolution():
    """Caches of one shape whose names pair with nothing, of stacked layers;
    one starts at a value that the metadata tell."""
    g = Graph(15)
    y = g.input("feats", [BATCH, 3, 4])
    caches = [g.input(f"cache.{i}", [BATCH, 3, 2]) for i in "ab"]
    for cache, name in zip(caches, ("r_cache", "q_cache")):
        full = g.add("Concat", cache, y, axis=2)
        g.output(g.slice(full, -2, 2**31, 2), name, [1, 3, 2])
        y = g.add("Tanh", g.add("Conv", full, g.weight(3, 3, 3)))
    g.output(y, "out", [BATCH, 3, "time"])
    return g.model(**{"initial.cache.a": "0.5"})


def attention():
    """Keys and values with a time axis; the batch is dimension 1; a counter
    per stream."""
    g = Graph(18)
    x = g.input("x", ["T", "N", 4])
    past = [g.input(f"past.0.{n}", ["P", "N", 4]) for n in ("key", "value")]
    count = g.input("count", ["N"], TensorProto.INT64)
    present = []
    for name, old in zip(("key", "value"), past):
        new = g.add("Concat", old, g.add("MatMul", x, g.weight(4, 4)), axis=0)
        g.output(g.slice(new, 2, 2**31, 0), f"present.0.{name}", ["P2", "N", 4])
        present.append(g.add("Transpose", new, perm=[1, 0, 2]))
    key, value = present
    query = g.add("Transpose", x, perm=[1, 0, 2])
    scores = g.add("MatMul", query, g.add("Transpose", key, perm=[0, 2, 1]))
    y = g.add("MatMul", g.add("Softmax", scores, axis=2), value)
    g.output(g.add("Transpose", y, perm=[1, 0, 2]), "y", ["T", "N", 4])
    g.output(
        g.add("Add", count, g.ints(1)), "new_count", ["N"], TensorProto.INT64
    )
    return g.model()


def fitting():
    g = Graph()
    x = g.input("x", ["batch", 4])
    s = g.input("sum_in", ["batch", 4])
    total = g.add("Add", x, s)
    g.output(g.add("Tanh", total), "y", ["batch", 4])
    g.output(total, "sum_out", ["batch", 4])
    return g.model()


def batch_last():
    """The batch is dimension 2; an output whose batch a reader added to."""
    g = Graph(12)
    x = g.input("x", [4, 3, "streams"])
    s = g.input("ring", [4, 3, None])
    total = g.add("Add", x, s)
    y = g.add("Transpose", total, perm=[0, 2, 1])
    y = g.add("MatMul", y, g.weight(3, 2))
    g.output(y, "y")
    mean = g.add("ReduceMean", total, axes=[0, 1], keepdims=0)
    g.output(g.axes_op("Unsqueeze", mean, 0, 1), "mean", [1, 1, "streams"])
    g.output(g.add("Tanh", total), "ring_next", [4, 3, "streams_2"])
    return g.model()


def fixed_initial_state():
    """What stands in the way is a constant initial state for one stream."""
    g = Graph()
    x = g.input("x", [1, 3, 5])
    s = g.input("state", [1, 5])
    y = g.add("Transpose", x, perm=[1, 0, 2])
    y, _ = g.rnn("GRU", y, 5, 5, g.const(np.zeros((1, 1, 5), np.float32)))
    last = g.add("Gather", y, g.const(np.array(-1)), axis=0)
    g.output(g.add("Add", last, s), "state_out", [1, 5])
    g.output(g.add("Transpose", y, perm=[1, 0, 2]), "y", [1, 3, 5])
    return g.model()


def save(model, path, external=False):
    if external:
        copy = onnx.ModelProto.FromString(model.SerializeToString())
        onnx.save(
            copy,
            path,
            save_as_external_data=True,
            location="weights.bin",
            size_threshold=100,
        )
    else:
        onnx.save(model, path)
    return path


if __name__ == "__main__":
    save(globals()[sys.argv[1]](), sys.argv[2])
