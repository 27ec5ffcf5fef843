#!/usr/bin/env python3
"""Makes the models that the benchmarks run, with their configuration files.

usage: make-bench-models.py OUTPUT_DIR

add           y = x + 1 over 160 floats, without batch dimension
gru           two GRU layers of 256 units over 10 frames of 80 features, the
              hidden state of each layer in a cache, batches of any size
gru-serial    the same network for one stream, without batch dimension
"""

import pathlib
import sys

import numpy as np
import onnx
from onnx import TensorProto, helper, numpy_helper

FRAMES = 10
FEATURES = 80
UNITS = 256
LAYERS = 2

ADD_CONF = """\
# One request at a time, computed in its caller's thread.
--inputs-format=x:[dim]
--inputs-shape=x:[160]
--inputs-dtype=x:FLOAT32
--outputs-format=y:[dim]
--outputs-shape=y:[160]
--outputs-dtype=y:FLOAT32
--num-execute-threads=1
"""

GRU_CONF = """\
--inputs-format=feats:[batch, frame, feature]
--inputs-shape=feats:[{batch}, 10, 80]
--inputs-dtype=feats:FLOAT32
--outputs-format=encoded:[batch, frame, unit]
--outputs-shape=encoded:[{batch}, 10, 256]
--outputs-dtype=encoded:FLOAT32
--caches-pair=hidden-0-next:hidden-0; hidden-1-next:hidden-1
--caches-format=hidden-0:[batch, unit]; hidden-1:[batch, unit]
--caches-shape=hidden-0:[{batch}, 256]; hidden-1:[{batch}, 256]
--caches-dtype=hidden-0:FLOAT32; hidden-1:FLOAT32
"""

# "batch" is not named as the batch dimension: that would ask for batching.
GRU_SERIAL_CONF = (
    "# One request at a time, computed in its caller's thread.\n"
    + GRU_CONF.format(batch=1)
    + "--num-execute-threads=1\n"
)

# For 64 streams: while one half is computed, the other half comes back.
GRU_BATCH_CONF = (
    "# Many streams, batched by the inference thread.\n"
    + GRU_CONF.format(batch=-1)
    + """\
--batch-dim=batch
--dynamic-dims=batch:1-32
--multi-threads=true
--infer-thread=true
--infer-interval=1000
--num-execute-threads=2
"""
)


def tensor(name, shape):
    return helper.make_tensor_value_info(name, TensorProto.FLOAT, shape)


def make_model(name, nodes, inputs, outputs, constants):
    initializers = [numpy_helper.from_array(v, k) for k, v in constants.items()]
    graph = helper.make_graph(nodes, name, inputs, outputs, initializers)
    opset = helper.make_opsetid("", 17)
    model = helper.make_model(graph, opset_imports=[opset], ir_version=8)
    onnx.checker.check_model(model)
    return model


def make_add():
    return make_model(
        "add",
        [helper.make_node("Add", ["x", "one"], ["y"])],
        [tensor("x", [160])],
        [tensor("y", [160])],
        {"one": np.ones(1, np.float32)},
    )


def make_gru(batch):
    """The engine's GRU has frames first and directions beside the batch;
    outside the graph the batch comes first everywhere."""
    generator = np.random.default_rng(1)

    def weights(*shape):
        return generator.uniform(-0.06, 0.06, shape).astype(np.float32)

    inputs = [tensor("feats", [batch, FRAMES, FEATURES])]
    outputs = [tensor("encoded", [batch, FRAMES, UNITS])]
    constants = {"axis-0": np.array([0]), "axis-1": np.array([1])}
    nodes = [helper.make_node("Transpose", ["feats"], ["x-0"], perm=[1, 0, 2])]
    for i in range(LAYERS):
        cache, new_cache = f"hidden-{i}", f"hidden-{i}-next"
        inputs.append(tensor(cache, [batch, UNITS]))
        outputs.append(tensor(new_cache, [batch, UNITS]))
        width = FEATURES if i == 0 else UNITS
        constants[f"w-{i}"] = weights(1, 3 * UNITS, width)
        constants[f"r-{i}"] = weights(1, 3 * UNITS, UNITS)
        constants[f"b-{i}"] = weights(1, 6 * UNITS)
        gru_inputs = [f"x-{i}", f"w-{i}", f"r-{i}", f"b-{i}", "", f"h-{i}"]
        nodes += [
            helper.make_node("Unsqueeze", [cache, "axis-0"], [f"h-{i}"]),
            helper.make_node(
                "GRU", gru_inputs, [f"y-{i}", f"h-{i}-next"], hidden_size=UNITS
            ),
            helper.make_node("Squeeze", [f"h-{i}-next", "axis-0"], [new_cache]),
            helper.make_node("Squeeze", [f"y-{i}", "axis-1"], [f"x-{i + 1}"]),
        ]
    nodes.append(
        helper.make_node(
            "Transpose", [f"x-{LAYERS}"], ["encoded"], perm=[1, 0, 2]
        )
    )
    return make_model("gru", nodes, inputs, outputs, constants)


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    directory = pathlib.Path(sys.argv[1])
    directory.mkdir(parents=True, exist_ok=True)
    for name, model, conf in (
        ("add", make_add(), ADD_CONF),
        ("gru", make_gru("batch"), GRU_BATCH_CONF),
        ("gru-serial", make_gru(1), GRU_SERIAL_CONF),
    ):
        onnx.save(model, directory / f"{name}.onnx")
        (directory / f"{name}.conf").write_text(conf, encoding="ascii")


if __name__ == "__main__":
    main()
