"""Finds which output is the next value of which input."""

import ast
import re

import numpy as np

from . import batch
from . import model as models
from .errors import PrepareError

# Words that tell the two sides of a state apart: those that speak of time
# make it one, the others may as well stand on what the host gives and gets.
TIMES = set(
    "new next prev previous past present cur current last updated".split()
)
SIDES = TIMES | set("in input inputs out output outputs n".split())
STATE_NAME = re.compile(
    r"state|cache|hidden|cell|mem|past|present|buf|context|lstm|gru|rnn"
    r"|^[hc](\d|_|n|x|in|out|$)|^[kv](_|$)",
    re.IGNORECASE,
)
# What the host gives and gets, though input and output may be named alike.
DATA_NAME = re.compile(
    r"audio|speech|wav|signal|sample|feat|spec|mel|frame|mask|token|logit|prob",
    re.IGNORECASE,
)


def find(plan, given):
    """Pairs of output and input places. `given` maps outputs to inputs."""
    inputs = {place.name: place for place in plan.inputs}
    outputs = {place.name: place for place in plan.outputs}
    pairs = dict(given)
    for rule in (by_state_name, by_shape, by_trial, by_other_name):
        free_inputs = [p for n, p in inputs.items() if n not in pairs.values()]
        free_outputs = [p for n, p in outputs.items() if n not in pairs]
        pairs.update(rule(plan, free_inputs, free_outputs))
    if not pairs:
        raise PrepareError(
            "no output was found to be the next value of an input: give"
            " --cache <output>:<input>"
        )
    if len(pairs) in (len(inputs), len(outputs)):
        raise PrepareError(
            "every input or every output is a state, so that nothing is left"
            " for the host: give a model with an input and output of its own"
        )
    refuse_changing_states(inputs, outputs, pairs)
    return pairs


def refuse_changing_states(inputs, outputs, pairs):
    for output, input_ in pairs.items():
        before, after = inputs[input_], outputs[output]
        if before.type != after.type or before.row != after.row:
            raise PrepareError(
                f"state {input_} comes in as {before.dtype} {before.row} and"
                f" leaves through {output} as {after.dtype} {after.row}: give"
                " sizes with --fix that make it keep its shape"
            )


def split(name):
    """The words of a name, in lower case."""
    name = re.sub("past_key_values|past|present", "kv", name)
    name = re.sub(r"([a-z])([A-Z])", r"\1 \2", name)
    name = re.sub(r"([A-Za-z])(\d)", r"\1 \2", name)
    return [w.lower() for w in re.split(r"[^A-Za-z0-9]+", name) if w]


def words(name):
    """What is left of a name without the words that only tell the side."""
    kept = [word for word in split(name) if word not in SIDES]
    if len(kept) == 1:
        return (re.sub(r"^([a-z]+?)(n|out|in)$", r"\1", kept[0]),)
    # h0 is the h before hn.
    return tuple(re.sub(r"^([hc])n$", r"\1", word) for word in kept)


def by_state_name(_, inputs, outputs):
    """States that are called states, or new or old, on either side."""
    return {
        output: input_
        for output, input_ in alike(inputs, outputs).items()
        if STATE_NAME.search(input_)
        or STATE_NAME.search(output)
        or TIMES.intersection(split(input_) + split(output))
    }


def by_other_name(_, inputs, outputs):
    """Others, unless they are the host's or it were left without data."""
    pairs = {
        output: input_
        for output, input_ in alike(inputs, outputs).items()
        if not DATA_NAME.search(input_)
    }
    if len(pairs) in (len(inputs), len(outputs)):
        return {}
    return pairs


def alike(inputs, outputs):
    """Pairs whose two names differ in nothing but the side."""
    pairs = {}
    for key in (words, lambda name: tuple(w for w in words(name) if w != "0")):
        for output in outputs:
            mates = [
                i
                for i in inputs
                if key(i.name) == key(output.name) != ()
                and i.type == output.type
                and i.name not in pairs.values()
                and len(i.shape) == len(output.shape)
            ]
            rivals = [o for o in outputs if key(o.name) == key(output.name)]
            if len(mates) == 1 == len(rivals) and output.name not in pairs:
                pairs[output.name] = mates[0].name
    return pairs


def groups_of_one_shape(inputs, outputs):
    """States of equal shape and type, by what their names suggest."""
    for key in {(i.type, tuple(i.row)) for i in inputs}:
        group_in = [i for i in inputs if (i.type, tuple(i.row)) == key]
        group_out = [o for o in outputs if (o.type, tuple(o.row)) == key]
        group_in = [i for i in group_in if STATE_NAME.search(i.name)] or (
            group_in
            if any(STATE_NAME.search(o.name) for o in group_out)
            else []
        )
        yield group_in, group_out


def by_shape(_, inputs, outputs):
    """A state whose shape no other input or output has."""
    return {
        group_out[0].name: group_in[0].name
        for group_in, group_out in groups_of_one_shape(inputs, outputs)
        if len(group_in) == 1 == len(group_out)
    }


def by_trial(plan, inputs, outputs):
    """Among states of one shape, those of stacked layers: the new state of a
    layer depends on its own old one and those of the layers below, so that
    one pairing alone is possible."""
    pairs = {}
    for group_in, group_out in groups_of_one_shape(inputs, outputs):
        if group_in and len(group_in) <= len(group_out):
            pairs.update(
                only_pairing(connections(plan, group_in, group_out))
                or only_pairing(influences(plan, group_in, group_out))
                or refuse_ambiguous(group_in)
            )
    return pairs


def refuse_ambiguous(inputs):
    raise PrepareError(
        f"the states {', '.join(i.name for i in inputs)} have one shape and"
        " names that pair with no output: give --cache <output>:<input> for"
        " each"
    )


def only_pairing(depends):
    """The one way to pair each input with an output that depends on it, or
    None. `depends` has the inputs by output."""
    pairs = {}
    while len(pairs) < len(set().union(*depends.values())):
        left = {
            output: names - set(pairs.values())
            for output, names in depends.items()
            if output not in pairs
        }
        sure = [
            (output, *names)
            for output, names in left.items()
            if len(names) == 1
        ]
        if len(sure) != 1:
            return None
        pairs.update(sure)
    return pairs


def connections(plan, inputs, outputs):
    """From which inputs the graph leads to which outputs."""
    names = {place.name for place in inputs}
    return {
        output.name: names.intersection(
            value.name
            for value in models.cut(plan.model, [output.name]).graph.input
        )
        for output in outputs
    }


def influences(plan, inputs, outputs):
    """Which outputs change with which inputs when the model runs."""
    random = np.random.default_rng(2)
    session = models.new_session(plan.model)
    row = batch.random_row(plan.inputs, random)
    before = models.run(session, row)
    depends = {output.name: set() for output in outputs}
    for place in inputs:
        changed = {**row, place.name: row[place.name] + place.dtype.type(1)}
        after = models.run(session, changed)
        for output in depends:
            if not np.array_equal(before[output], after[output]):
                depends[output].add(place.name)
    return depends


def initial_values(model, places, given):
    """What states hold at the start of a stream where that is not zeros, as
    arrays that fit a batch of any size. From the metadata of the model
    (initial.<name>, a number or nested lists), and from `given` before it."""
    texts = {
        entry.key[len("initial.") :]: entry.value
        for entry in model.metadata_props
        if entry.key.startswith("initial.")
    }
    states = {place.name: place for place in places}
    values = {}
    for name, text in {**texts, **given}.items():
        if name not in states:
            raise PrepareError(
                f"{name} is no state of the model:"
                f" give --initial with one of {', '.join(states)}"
            )
        array = read_array(name, text)
        if np.any(array):
            values[name] = fitted(states[name], array)
    return values


def read_array(name, text):
    try:
        if text.endswith(".npy"):
            return np.load(text)
        return np.asarray(ast.literal_eval(text), np.float64)
    except (OSError, ValueError, SyntaxError, TypeError) as error:
        raise PrepareError(
            f"{text} is no initial value of {name}: give a number, nested"
            " lists of numbers, or an .npy file"
        ) from error


def fitted(place, array):
    if not np.all(np.isfinite(array)):
        raise PrepareError(
            f"the initial value of {place.name} is not finite: the library"
            " starts from zeros, give a value that can be added to them"
        )
    for shape in (place.row, place.shape):
        try:
            full = np.broadcast_to(array, shape).astype(place.dtype)
            return full.reshape(place.shape)
        except ValueError:
            continue
    raise PrepareError(
        f"the initial value of {place.name} has the shape {list(array.shape)}:"
        f" give {place.row} or one number"
    )
