"""From the model of an exporter to one that the library serves."""

import dataclasses
import errno
import os
import pathlib
import re
import tempfile

import numpy as np

from . import batch, caches, config, proof, rewrite
from . import model as models
from .batch import BATCH
from .errors import PrepareError

TIMED_STREAMS = 8


@dataclasses.dataclass
class Options:
    """As on the command line, by name of the original's inputs and outputs."""

    set: dict = dataclasses.field(default_factory=dict)
    fix: dict = dataclasses.field(default_factory=dict)
    batch: tuple = (1, 8)
    cache: dict = dataclasses.field(default_factory=dict)
    batch_axis: dict = dataclasses.field(default_factory=dict)
    rename: dict = dataclasses.field(default_factory=dict)
    initial: dict = dataclasses.field(default_factory=dict)
    interval: int = 5000
    tolerance: float = None
    wav: str = None


@dataclasses.dataclass
class Result:
    """What is to be written, and what there is to tell about it."""

    model: bytes
    config: str
    changes: list  # Texts: what was changed and why.
    states: list  # Names of input and output, and where streams start.
    before: list  # Ports.
    after: list  # Ports.
    nodes: tuple  # Before and after.
    differences: list
    seconds: dict  # Of one call, by what was called.

    @property
    def passed(self):
        return all(difference.passed for difference in self.differences)


def prepare(path, options):
    original = models.load(path)
    check_options(original, options)
    changes = embedded_files(path)
    work, constants = model_of_streams(original, options, changes)
    plan = batch.find(work, options.batch_axis)
    if plan.mended:
        work = plan.model
        changes += [
            f"node {name} keeps a batch of any size: it was made for 1"
            for name in plan.mended
        ]
    pairs = caches.find(plan, options.cache)
    states = [p for p in plan.inputs if p.name in pairs.values()]
    initial = caches.initial_values(original, states, options.initial)
    before = proof.Side(
        original, plan.inputs, plan.outputs, pairs, initial, constants
    )
    start_from_zeros(work, pairs, initial, changes)
    batch_first(work, plan, changes)
    names = rename(work, plan, options.rename, changes)
    batch_name = name_of_batch(original, plan)
    after = proof.Side(
        work,
        [front(place, names) for place in plan.inputs],
        [front(place, names) for place in plan.outputs],
        {names[output]: names[name] for output, name in pairs.items()},
    )
    state_shapes(after, original, names, batch_name, changes)
    dim_names = config.name_dimensions(
        after.inputs + after.outputs,
        declared_names(original, plan, names),
        batch_name,
    )
    wav = proof.read_wav(options.wav) if options.wav else None
    return Result(
        model=work.SerializeToString()
        if changes
        else pathlib.Path(path).read_bytes(),
        config=config.write(after, dim_names, batch_name, options),
        changes=changes,
        states=[
            (name, output, "another value" if name in initial else "zeros")
            for output, name in pairs.items()
        ],
        before=list(ports_by_name(original).values()),
        after=list(ports_by_name(work).values()),
        nodes=(len(original.graph.node), len(work.graph.node)),
        differences=proof.prove(
            before, after, names, options.batch[1], wav, options.tolerance
        ),
        seconds=measure(before, after, min(options.batch[1], TIMED_STREAMS)),
    )


def model_of_streams(original, options, changes):
    """A copy whose inputs are all of streams and have one size each, and what
    the original is to be fed instead of the inputs that are gone."""
    model = models.onnx.ModelProto()
    model.CopyFrom(original)
    constants = set_constants(model, options, changes)
    refuse_scalars(model)
    refuse_types(model)
    fix_dimensions(model, options.fix, changes)
    return model, constants


def measure(before, after, count):
    return {
        "original, 1 stream": proof.measure(before, 1),
        "prepared, 1 stream": proof.measure(after, 1),
        f"prepared, {count} streams": proof.measure(after, count),
    }


def check_options(model, options):
    """Every name that an option gives must be there."""
    inputs = [port.name for port in models.input_ports(model)]
    outputs = [port.name for port in models.output_ports(model)]
    both = ports_by_name(model)
    dynamic = {
        dim
        for p in both.values()
        for dim in p.dims or []
        if isinstance(dim, str)
    }
    for option, given, known in (
        ("--set", options.set, inputs),
        ("--fix", options.fix, dynamic),
        ("--cache", options.cache, outputs),
        ("--cache", options.cache.values(), inputs),
        ("--batch-axis", options.batch_axis, both),
        ("--rename", options.rename, both),
    ):
        for name in given:
            if list(given).count(name) > 1:
                raise PrepareError(
                    f"{option} names {name} more than once: give it once"
                )
            if name not in known:
                raise PrepareError(
                    f"{option} names {name}, which the model does not have:"
                    f" give one of {', '.join(sorted(known)) or 'none'}"
                )


def embedded_files(path):
    raw = models.onnx.load(path, load_external_data=False)
    return [
        f"weights of {name} are inside the model: the library loads one file"
        for name in models.external_files(raw)
    ]


def set_constants(model, options, changes):
    """Returns what the original is to be fed instead."""
    ports = {port.name: port for port in models.input_ports(model)}
    constants = {}
    for name, text in options.set.items():
        constants[name] = parse_constant(ports[name], text)
        rewrite.set_constant(model, name, constants[name])
        changes.append(f"input {name} is the constant {text}, as --set says")
    if constants:
        changes += [
            f"If {name} is the branch that its constant condition takes"
            for name in rewrite.inline_ifs(model)
        ]
    return constants


def parse_constant(port, text):
    shape = [dim if isinstance(dim, int) else 1 for dim in port.dims or []]
    words = text.split(",")
    try:
        if port.dtype == bool:
            values = [{"true": 1, "false": 0}.get(w.lower(), w) for w in words]
            array = np.array(values).astype(int).astype(bool)
        else:
            array = np.array(words).astype(port.dtype)
        if array.size == 1:
            return np.full(shape, array[0])
        return array.reshape(shape)
    except (ValueError, OverflowError) as error:
        raise PrepareError(
            f"--set {port.name}={text} does not fit the input: give"
            f" {port.dtype.name} for the shape {shape}, values with commas"
            " between them"
        ) from error


def refuse_scalars(model):
    for port in models.input_ports(model):
        if port.dims is None:
            raise PrepareError(
                f"input {port.name} does not say how many dimensions it has:"
                " export the model with the shapes of its inputs"
            )
        if not port.dims:
            raise PrepareError(
                f"input {port.name} is a scalar, which no description can"
                f" hold: give --set {port.name}=<value>{suggestion(model, port)}"
            )


def suggestion(model, port):
    """The values that the graph compares a scalar with."""
    values = set()
    same = {port.name}
    for node in model.graph.node:
        if node.op_type in ("Cast", "Identity") and node.input[0] in same:
            same.add(node.output[0])
        if node.op_type in ("Equal", "Less", "Greater") and same & set(
            node.input
        ):
            for name in set(node.input) - same:
                value = models.evaluate(model, name)
                values.update([] if value is None else value.ravel().tolist())
    if not values and "r" in port.name and port.dtype.kind in "iuf":
        return ", such as 16000 if it is a sampling rate"
    if not values:
        return ""
    return (
        f" (the model compares it with {', '.join(map(str, sorted(values)))})"
    )


def refuse_types(model):
    for port in models.input_ports(model) + models.output_ports(model):
        if port.type not in models.DTYPES:
            name = models.onnx.TensorProto.DataType.Name(port.type)
            raise PrepareError(
                f"{port.name} has the type {name}, which no description can"
                " hold: export it as an integer or float"
            )


def fix_dimensions(model, sizes, changes):
    for value in model.graph.input:
        dims = models.port_of(value).dims
        fixed = [sizes.get(dim, dim) for dim in dims or []]
        if fixed != (dims or []):
            rewrite.set_dims(value, unplaced(value.name, fixed))
    changes += [
        f"dimension {n} is {size}, as --fix says" for n, size in sizes.items()
    ]


def unplaced(name, dims):
    """Without the names that dimensions only have for their place."""
    return [
        "" if dim == f"{name}.{axis}" else dim for axis, dim in enumerate(dims)
    ]


def start_from_zeros(model, pairs, initial, changes):
    for output, name in pairs.items():
        if name in initial:
            rewrite.offset_state(model, output, name, initial[name])
            changes.append(
                f"state {name} is its difference from its value at the start"
                " of a stream: the library starts from zeros"
            )


def batch_first(model, plan, changes):
    for places, move, fold in (
        (plan.inputs, rewrite.move_input_batch, rewrite.fold_input_transpose),
        (
            plan.outputs,
            rewrite.move_output_batch,
            rewrite.fold_output_transpose,
        ),
    ):
        for place in places:
            if place.axis == 0:
                continue
            node = move(model, place.name, place.axis, len(place.shape))
            how = "at no cost" if fold(model, node) else "by a transpose"
            changes.append(
                f"the batch of {place.name} is dimension 0 instead of"
                f" {place.axis}, {how}: the library stacks streams there"
            )


def rename(model, plan, wished, changes):
    """Gives inputs and outputs the wished names, and usable ones to others.
    Returns the new names by the old."""
    names = {
        place.name: wished.get(place.name, config.usable(place.name))
        for place in plan.inputs + plan.outputs
    }
    for old, new in names.items():
        if config.usable(new) != new or not new:
            raise PrepareError(
                f"--rename {old}={new}: a description cannot hold that name,"
                f" give one such as {config.usable(new) or 'x'}"
            )
        if list(names.values()).count(new) > 1:
            raise PrepareError(
                f"two inputs or outputs would be called {new}: give another"
                f" name with --rename {old}=<name>"
            )
        if new != old:
            rewrite.rename_tensor(
                model.graph, new, rewrite.unused_name(model, new)
            )
            rewrite.rename_port(model, old, new)
            why = (
                "as --rename says"
                if old in wished
                else "descriptions cannot hold it"
            )
            changes.append(f"{old} is called {new}: {why}")
    return names


def front(place, names):
    return dataclasses.replace(
        place, name=names[place.name], axis=0, shape=[1, *place.row]
    )


def name_of_batch(original, plan):
    """The exporter's, if it has one alone and descriptions can hold it."""
    ports = ports_by_name(original)
    names = {
        ports[place.name].dims[place.axis]
        for place in plan.inputs + plan.outputs
        if ports[place.name].dims
    }
    names = [name for name in names if isinstance(name, str)]
    if len(names) == 1 and re.fullmatch(r"[\w-]+", names[0]):
        return names[0]
    return BATCH


def ports_by_name(model):
    return {
        port.name: port
        for port in models.input_ports(model) + models.output_ports(model)
    }


def state_shapes(side, original, names, batch_name, changes):
    """Every input and output says what a description can say."""
    old_dims = {
        names.get(n): p.dims for n, p in ports_by_name(original).items()
    }
    graph = side.model.graph
    values = {value.name: value for value in [*graph.input, *graph.output]}
    for place in side.inputs + side.outputs:
        value, old = values[place.name], old_dims[place.name]
        new = [batch_name, *place.row]
        value.type.tensor_type.elem_type = place.type
        rewrite.set_dims(value, new)
        if old != new:
            was = "unknown" if old is None else config.bracketed(old)
            changes.append(
                f"{place.name} is stated as {config.bracketed(new)},"
                f" which was {was}"
            )
    if changes:
        graph.ClearField("value_info")


def declared_names(original, plan, names):
    """The exporter's names of the dimensions of rows, by new name."""
    ports = ports_by_name(original)
    declared = {}
    for place in plan.inputs + plan.outputs:
        dims = list(ports[place.name].dims or [None] * len(place.shape))
        dims = unplaced(place.name, dims + [None] * len(place.shape))
        dims = [dim or None for dim in dims[: len(place.shape)]]
        declared[names[place.name]] = [
            dim for axis, dim in enumerate(dims) if axis != place.axis
        ]
    return declared


def save(files):
    """Writes all files, each whole, or none of them."""
    written = []
    try:
        for path in files:
            if pathlib.Path(path).is_dir():
                raise IsADirectoryError(errno.EISDIR, "it is a directory")
        for path, content in files.items():
            directory = pathlib.Path(path).absolute().parent
            handle, name = tempfile.mkstemp(dir=directory, prefix=".tarn-")
            written.append((name, path))
            with os.fdopen(handle, "wb") as file:
                file.write(content)
            os.chmod(name, 0o644)
        for name, path in written:
            os.replace(name, path)
    except OSError as error:
        for name, _ in written:
            pathlib.Path(name).unlink(missing_ok=True)
        raise PrepareError(
            f"{path} cannot be written ({error.strerror}): give a place that can"
        ) from error
