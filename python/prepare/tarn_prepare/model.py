"""Reading models, asking about their inputs and outputs, running them."""

import dataclasses
import pathlib

import numpy as np
import onnx
import onnxruntime
from google.protobuf.message import DecodeError
from onnx import TensorProto, external_data_helper, helper
from onnxruntime.capi import onnxruntime_pybind11_state

from .errors import PrepareError

OPSETS = range(11, 22)
MAX_BYTES = 2**31

# What a description calls the element types; it has no unsigned ones.
DTYPES = {
    TensorProto.FLOAT: "FLOAT32",
    TensorProto.DOUBLE: "FLOAT64",
    TensorProto.FLOAT16: "FLOAT16",
    TensorProto.INT64: "INT64",
    TensorProto.UINT64: "INT64",
    TensorProto.INT32: "INT32",
    TensorProto.UINT32: "INT32",
    TensorProto.INT16: "INT16",
    TensorProto.UINT16: "INT16",
    TensorProto.INT8: "INT8",
    TensorProto.UINT8: "INT8",
}


@dataclasses.dataclass
class Port:
    """An input or output. A dimension is its size, or its name where it is
    dynamic; one without name is called after its place, as in x.1. The
    dimensions of an output may be unknown."""

    name: str
    type: int
    dims: list

    @property
    def dtype(self):
        return helper.tensor_dtype_to_np_dtype(self.type)


def load(path):
    """The model with all of its weights in memory."""
    try:
        model = onnx.load(path, load_external_data=False)
    except OSError as error:
        raise PrepareError(
            f"{path} cannot be read ({error.strerror}): give an ONNX file"
        ) from error
    except DecodeError as error:
        raise PrepareError(f"{path} is not an ONNX file: give one") from error
    if not model.graph.node:
        raise PrepareError(f"{path} is not an ONNX file: give one")
    check_opset(model)
    load_external_data(model, pathlib.Path(path).parent)
    if sum(len(t.raw_data) for t in model.graph.initializer) >= MAX_BYTES:
        raise PrepareError(
            f"{path} has weights of 2 GB or more, which one file cannot hold:"
            " give a smaller model, such as one of 16-bit floats"
        )
    check(model, path)
    return model


def check_opset(model):
    versions = [
        o.version for o in model.opset_import if o.domain in ("", "ai.onnx")
    ]
    if not versions or versions[0] not in OPSETS:
        raise PrepareError(
            f"the model's opset is {versions[0] if versions else 'missing'}:"
            f" export it with one of {OPSETS[0]} to {OPSETS[-1]}"
        )


def opset(model):
    return next(
        o.version for o in model.opset_import if o.domain in ("", "ai.onnx")
    )


def external_files(model):
    """The files beside the model that hold its weights."""
    return sorted(
        {
            external_data_helper.ExternalDataInfo(tensor).location
            for tensor in model.graph.initializer
            if external_data_helper.uses_external_data(tensor)
        }
    )


def load_external_data(model, directory):
    for name in external_files(model):
        if not (directory / name).is_file():
            raise PrepareError(
                f"the model's weights are missing: put {name} into {directory}"
            )
    try:
        external_data_helper.load_external_data_for_model(model, str(directory))
    except (OSError, ValueError, onnx.checker.ValidationError) as error:
        raise PrepareError(
            f"the model's weights in {directory} cannot be read"
            f" ({first_line(error)}): give the files that were exported with it"
        ) from error


def check(model, path):
    try:
        new_session(model)
    except ENGINE_ERRORS as error:
        raise PrepareError(
            f"the engine cannot load {path} ({first_line(error)}):"
            " give a model that it runs"
        ) from error


# The engine's exceptions derive from nothing that is theirs alone.
ENGINE_ERRORS = tuple(
    value
    for value in vars(onnxruntime_pybind11_state).values()
    if isinstance(value, type) and issubclass(value, Exception)
)


def first_line(error):
    return str(error).strip().splitlines()[0]


def new_session(model, optimise=True):
    options = onnxruntime.SessionOptions()
    options.log_severity_level = 4
    options.intra_op_num_threads = 1
    if not optimise:
        options.graph_optimization_level = (
            onnxruntime.GraphOptimizationLevel.ORT_DISABLE_ALL
        )
    return onnxruntime.InferenceSession(
        model.SerializeToString(), options, providers=["CPUExecutionProvider"]
    )


def run(session, feeds):
    """The outputs by name."""
    names = [output.name for output in session.get_outputs()]
    return dict(zip(names, session.run(names, feeds)))


def input_ports(model):
    """Inputs that are to be fed: those that have no value in the model."""
    values = {tensor.name for tensor in model.graph.initializer}
    return [
        port_of(value)
        for value in model.graph.input
        if value.name not in values
    ]


def output_ports(model):
    return [port_of(value) for value in model.graph.output]


def port_of(value):
    tensor = value.type.tensor_type
    dims = None
    if tensor.HasField("shape"):
        dims = [
            dim.dim_value
            if dim.HasField("dim_value")
            else dim.dim_param or f"{value.name}.{axis}"
            for axis, dim in enumerate(tensor.shape.dim)
        ]
    return Port(value.name, tensor.elem_type, dims)


def subgraphs(node):
    for attribute in node.attribute:
        if attribute.type == onnx.AttributeProto.GRAPH:
            yield attribute.g
        yield from attribute.graphs


def names_used(node):
    """What a node reads, its subgraphs included."""
    names = set(node.input)
    for graph in subgraphs(node):
        names.update(value.name for value in graph.output)
        for inner in graph.node:
            names |= names_used(inner)
    return names


def cut(model, tensors):
    """The part of the model that computes some of its tensors."""
    needed, nodes = set(tensors), []
    for node in reversed(model.graph.node):
        if needed.intersection(node.output):
            nodes.insert(0, node)
            needed |= names_used(node)
    part = onnx.ModelProto(
        ir_version=model.ir_version,
        opset_import=model.opset_import,
        functions=model.functions,
    )
    graph = part.graph
    graph.name = model.graph.name
    graph.node.extend(nodes)
    graph.input.extend(v for v in model.graph.input if v.name in needed)
    graph.initializer.extend(
        t for t in model.graph.initializer if t.name in needed
    )
    graph.output.extend(onnx.ValueInfoProto(name=name) for name in tensors)
    return part


def evaluate(model, tensor):
    """The value of a tensor that depends on no input, or None."""
    for initializer in model.graph.initializer:
        if initializer.name == tensor:
            return onnx.numpy_helper.to_array(initializer)
    part = cut(model, [tensor])
    if not part.graph.node or input_ports(part):
        return None
    return np.asarray(run(new_session(part, optimise=False), {})[tensor])
