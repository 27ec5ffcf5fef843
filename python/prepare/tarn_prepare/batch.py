"""Finds where the batch stands in a model's inputs and outputs, by trial, and
lets a batch of fixed size 1 grow where the graph allows it."""

import dataclasses
import itertools
import re

import numpy as np

from . import model as models
from . import rewrite
from .errors import PrepareError

BATCH = "batch"
BATCH_NAME = re.compile(r"batch|^(b|n|bs|bsz|n_?streams?)$", re.IGNORECASE)
MAX_TRIALS = 256
MAX_CHOICES = 32
TRIAL_ROWS = 3
# How far rows of a batch may be from the same rows alone to count as equal.
TRIAL_TOLERANCE = {"float16": 3e-2, "float32": 1e-3, "float64": 1e-6}


@dataclasses.dataclass
class Place:
    """Where an input or output has its batch, and its shape for a batch of
    one."""

    name: str
    type: int
    axis: int
    shape: list

    @property
    def row(self):
        """The shape of one stream."""
        return [s for i, s in enumerate(self.shape) if i != self.axis]

    @property
    def dtype(self):
        return models.helper.tensor_dtype_to_np_dtype(self.type)


@dataclasses.dataclass
class Plan:
    """A model that takes any batch, and where it takes it."""

    model: object
    inputs: list
    outputs: list
    mended: list  # Names of the nodes that had a batch of 1 written in.


class NotBatchable(Exception):
    """A trial that failed, and how far into the graph it came."""

    def __init__(self, reason, position=0):
        super().__init__(reason)
        self.position = position


def find(model, forced):
    """The plan for a model whose other dimensions have sizes. `forced` holds
    axes by input or output name."""
    candidates = {
        port.name: candidate_axes(port, forced)
        for port in models.input_ports(model)
    }
    failures = []
    for axes in combinations(model, candidates):
        try:
            return try_axes(model, axes, forced)
        except NotBatchable as failure:
            failures.append(failure)
    raise PrepareError(str(max(failures, key=lambda f: f.position)))


def candidate_axes(port, forced):
    """The axes that may be the batch's, likeliest first."""
    if not port.dims:
        raise PrepareError(
            f"input {port.name} has no batch axis: give --set {port.name}=<value>"
        )
    rank = len(port.dims)
    if port.name in forced:
        if forced[port.name] not in range(rank):
            raise PrepareError(
                f"input {port.name} has no axis {forced[port.name]}:"
                f" give --batch-axis {port.name}=<0 to {rank - 1}>"
            )
        axes = [forced[port.name]]
    else:
        axes = axes_by_name(port) or axes_by_shape(port)
    unknown = [
        d
        for i, d in enumerate(port.dims)
        if isinstance(d, str) and [i] != axes[:1]
    ]
    if unknown:
        raise PrepareError(
            f"dimension {unknown[0]} of input {port.name} needs one size:"
            f" give --fix {unknown[0]}=<size>, or --batch-axis if it is the batch"
        )
    if not axes:
        raise PrepareError(
            f"no axis of input {port.name} {port.dims} can be the batch:"
            f" give --batch-axis {port.name}=<axis>"
        )
    return axes


def axes_by_name(port):
    return [
        axis
        for axis, dim in enumerate(port.dims)
        if isinstance(dim, str)
        and dim != f"{port.name}.{axis}"
        and BATCH_NAME.search(dim)
    ][:1]


def axes_by_shape(port):
    """What is still dynamic; in a fixed shape whatever has size 1."""
    dynamic = [i for i, dim in enumerate(port.dims) if isinstance(dim, str)]
    return dynamic or [i for i, dim in enumerate(port.dims) if dim == 1]


def combinations(model, candidates):
    """Inputs of one shape have their batch at one place."""
    groups = {}
    for port in models.input_ports(model):
        key = (tuple(map(str, port.dims)), tuple(candidates[port.name]))
        groups.setdefault(key, []).append(port.name)
    products = itertools.product(*(axes for _, axes in groups))
    for choice in itertools.islice(products, MAX_TRIALS):
        yield {
            name: axis
            for names, axis in zip(groups.values(), choice)
            for name in names
        }


def try_axes(model, axes, forced):
    """The plan with these input axes, or NotBatchable."""
    trial = Trial(model, axes)
    problem = trial.problem(forced)
    if not problem:
        return Plan(trial.model, trial.inputs, trial.outputs(forced), [])
    choices = 0  # How many reshapes leave open which of their 1s is meant.
    for choice in range(MAX_CHOICES):
        trial = Trial(model, axes)
        mender = Mender(trial, choice)
        mender.mend()
        problem = trial.problem(forced)
        if not problem:
            return Plan(
                trial.model, trial.inputs, trial.outputs(forced), mender.mended
            )
        choices = max(choices, mender.choices)
        if choice + 1 >= 2**choices:
            break
    raise trial.blame(problem)


class Trial:
    """A copy of a model with its batch dynamic, and what it gives for a few
    random rows alone and together."""

    def __init__(self, model, axes):
        self.model = models.onnx.ModelProto()
        self.model.CopyFrom(model)
        rewrite.name_nodes(self.model)
        self.inputs = []
        for value in self.model.graph.input:
            if value.name in axes:
                self._free_batch(value, axes[value.name])
        for value in self.model.graph.output:
            value.type.tensor_type.ClearField("shape")
        self.model.graph.ClearField("value_info")
        random = np.random.default_rng(1)
        self.rows = [random_row(self.inputs, random) for _ in range(TRIAL_ROWS)]

    def _free_batch(self, value, axis):
        shape = models.port_of(value).dims
        shape[axis] = 1
        self.inputs.append(
            Place(value.name, value.type.tensor_type.elem_type, axis, shape)
        )
        rewrite.set_dims(value, shape[:axis] + [BATCH] + shape[axis + 1 :])

    def run(self, tensors, count, model=None):
        """Values of tensors for the first rows together."""
        part = model or models.cut(self.model, tensors)
        feeds = {
            place.name: np.concatenate(
                [row[place.name] for row in self.rows[:count]], place.axis
            )
            for place in self.inputs
            if any(value.name == place.name for value in part.graph.input)
        }
        return models.run(models.new_session(part, optimise=False), feeds)

    def run_alone(self, tensors, row):
        if not tensors:
            return {}  # The engine takes no empty graph.
        part = models.cut(self.model, tensors)
        kept = {value.name for value in part.graph.input}
        feeds = {k: v for k, v in self.rows[row].items() if k in kept}
        return models.run(models.new_session(part, optimise=False), feeds)

    def problem(self, forced):
        """What is wrong with the outputs for 2 and 3 rows, or None."""
        names = [value.name for value in self.model.graph.output]
        try:
            alone = [self.run_alone(names, i) for i in range(TRIAL_ROWS)]
        except models.ENGINE_ERRORS as error:
            raise NotBatchable(
                f"the model does not run with these sizes"
                f" ({models.first_line(error)}): give others with --fix"
            ) from error
        self.alone = alone
        for count in range(2, TRIAL_ROWS + 1):
            try:
                together = self.run(names, count)
            except models.ENGINE_ERRORS as error:
                return error
            for name in names:
                parts = [row[name] for row in alone[:count]]
                axis = batch_axis(parts, together[name], forced.get(name))
                if axis is None:
                    return name
        self.together = together
        return None

    def outputs(self, forced):
        places = []
        for value in self.model.graph.output:
            parts = [row[value.name] for row in self.alone]
            axis = batch_axis(
                parts, self.together[value.name], forced.get(value.name)
            )
            places.append(
                Place(
                    value.name,
                    models.helper.np_dtype_to_tensor_dtype(parts[0].dtype),
                    axis,
                    list(parts[0].shape),
                )
            )
        return places

    def blame(self, problem):
        """Says which node stands in the way."""
        nodes, culprit = list(self.model.graph.node), None
        reason = f"output {problem} has no axis that follows the batch"
        while True:
            if isinstance(problem, Exception):
                culprit, reason = failed_node(nodes, problem)
                if culprit is None:
                    return NotBatchable(f"the model takes no batch: {reason}")
                nodes = nodes[:culprit]
            try:
                mixing = self.first_mixing(nodes)
                break
            except models.ENGINE_ERRORS as error:
                problem = error
        if mixing is not None:
            culprit, reason = mixing, "it mixes the streams of a batch"
        if culprit is None:
            return NotBatchable(
                f"{reason}: give --batch-axis, or export the model without it",
                len(self.model.graph.node),
            )
        node = self.model.graph.node[culprit]
        return NotBatchable(
            f"node {node.name} ({node.op_type}) stands in the way of a batch"
            f" ({reason}): export the model with a dynamic batch, or give"
            " --batch-axis if the batch stands elsewhere",
            culprit,
        )

    def first_mixing(self, nodes):
        """The index of the first node whose rows together are not its rows
        alone; None without such a node."""
        tensors = [name for node in nodes for name in node.output if name]
        if not tensors:
            return None
        alone = [self.run_alone(tensors, i) for i in range(2)]
        together = self.run(tensors, 2)
        for index, node in enumerate(nodes):
            for name in filter(None, node.output):
                parts = [row[name] for row in alone]
                if is_mixed(parts, together[name]) and not describes_shape(
                    node
                ):
                    return index
        return None


def describes_shape(node):
    return node.op_type in ("Shape", "Size", "ConstantOfShape")


def is_mixed(parts, together):
    """Whether a tensor with float values holds something else than each row's
    own. Integers may be shapes, which follow the batch in their own way."""
    if not isinstance(together, np.ndarray) or together.dtype.kind != "f":
        return False
    if together.size == parts[0].size:
        return not all(
            close(part, together.reshape(part.shape)) for part in parts
        )
    return outer_size(parts, together) is None


FAILED_NODE = re.compile(
    r"running (\S+) node\. Name:'([^']*)'|Node[: ]\(?([^)\s]+)\)?"
)


def failed_node(nodes, error):
    """The index of the node that the engine's message names, and the rest."""
    match = FAILED_NODE.search(str(error))
    name = match and (match[2] or match[3])
    message = str(error).split("Status Message:")[-1]
    reason = models.first_line(
        re.sub(r"\S+/\S+:\d+ .*?\)\s", "", message) or message
    )
    for index, node in enumerate(nodes):
        if node.name == name:
            return index, reason
    return None, reason


def random_row(places, random):
    """One stream's inputs: small numbers, so that indices and lengths hold."""
    return {
        place.name: random_array(place.shape, place.dtype, random)
        for place in places
    }


def random_array(shape, dtype, random):
    if dtype.kind in "iub":
        return random.integers(0, 2, shape).astype(dtype)
    return (random.standard_normal(shape) * 0.5).astype(dtype)


def close(a, b):
    if a.shape != b.shape:
        return False
    if a.dtype.kind != "f":
        return np.array_equal(a, b)
    scale = max(float(np.max(np.abs(a), initial=0)), 1e-6)
    tolerance = TRIAL_TOLERANCE[a.dtype.name] * scale
    return np.allclose(a, b, rtol=0, atol=tolerance, equal_nan=True)


def batch_axis(parts, together, forced=None):
    """The axis along which rows lie together as they are alone, or None."""
    if not isinstance(together, np.ndarray):
        return None
    for axis in range(together.ndim) if forced is None else [forced]:
        expected = list(parts[0].shape)
        if (
            len(expected) != together.ndim
            or axis >= together.ndim
            or expected[axis] != 1
        ):
            continue
        expected[axis] = len(parts)
        if list(together.shape) == expected and close(
            np.concatenate(parts, axis), together
        ):
            return axis
    return None


def outer_size(parts, together):
    """How many elements stand before the batch, in a tensor in which the
    batch may have been merged with its neighbours; None if it has none."""
    size = parts[0].size
    if together.size != size * len(parts):
        return None
    for outer in range(1, size + 1):
        if size % outer == 0:
            rows = together.reshape(outer, len(parts), -1)
            if all(
                close(part.reshape(outer, -1), rows[:, i])
                for i, part in enumerate(parts)
            ):
                return outer
    return None


class Mender:
    """Lets the batch through reshapes to constant shapes that were exported
    with a batch of 1, and through squeezes that took it away. Where a shape has several 1s that may be the batch, the
    bits of `choice` say whether it is the first or the last."""

    def __init__(self, trial, choice):
        self.trial = trial
        self.choice = choice
        self.choices = 0
        self.mended = []
        self.alone = self._run_alone()

    def _run_alone(self):
        """What goes into and comes out of reshapes, for two single rows."""
        made = {o for n in self.trial.model.graph.node for o in n.output}
        tensors = {
            name
            for node in self.trial.model.graph.node
            if node.op_type == "Reshape"
            for name in (node.input[0], node.output[0])
            if name in made
        }
        return [self.trial.run_alone(sorted(tensors), i) for i in range(2)]

    def mend(self):
        for node in self.trial.model.graph.node:
            mend = {
                "Reshape": self._mend_reshape,
                "Squeeze": self._mend_squeeze,
            }.get(node.op_type)
            try:
                if mend:
                    mend(node)
            except models.ENGINE_ERRORS:
                return  # Nothing behind a node that fails can be looked at.

    def _mend_reshape(self, node):
        trial, output = self.trial, node.output[0]
        outer = self._outer_size(node.input[0])
        if outer is None or models.evaluate(trial.model, node.input[1]) is None:
            return
        shape = list(self.alone[0][output].shape)
        axis = self._place_of_batch(shape, outer)
        if now_shape(trial, output) == [
            *shape[:axis],
            2 * shape[axis],
            *shape[axis + 1 :],
        ]:
            return
        shape[axis] = -1
        node.input[1] = rewrite.add_constant(
            trial.model, f"{node.name}_shape", np.array(shape, np.int64)
        )
        self.mended.append(node.name)

    def _mend_squeeze(self, node):
        """One that drops whatever has size 1 keeps the batch."""
        if rewrite.find_axes(self.trial.model, node):
            return
        shape = self.trial.run([node.input[0]], 2)[node.input[0]].shape
        axes = [axis for axis, size in enumerate(shape) if size == 1]
        if axes:
            rewrite.set_axes(self.trial.model, node, axes)
        else:
            node.op_type = "Identity"
        self.mended.append(node.name)

    def _outer_size(self, tensor):
        for place in self.trial.inputs:
            if place.name == tensor:
                return int(np.prod(place.shape[: place.axis]))
        if tensor not in self.alone[0]:
            return None
        parts = [row[tensor] for row in self.alone]
        return outer_size(parts, self.trial.run([tensor], 2)[tensor])

    def _place_of_batch(self, shape, outer):
        """Which axis of a reshaped tensor gets the batch: a 1 behind exactly
        the `outer` elements, else the axis that it is merged into."""
        before = np.cumprod([1, *shape[:-1]]).tolist()
        own = [
            i
            for i, size in enumerate(shape)
            if size == 1 and before[i] == outer
        ]
        if len(own) > 1:
            self.choices += 1
            return own[-(self.choice >> (self.choices - 1) & 1)]
        if own:
            return own[0]
        return next(
            i for i, size in enumerate(shape) if before[i] * size >= outer
        )


def now_shape(trial, tensor):
    try:
        return list(trial.run([tensor], 2)[tensor].shape)
    except models.ENGINE_ERRORS:
        return None
