"""The description of a prepared model, as the library reads it."""

import re

from . import model as models

# What the grammar of descriptions gives a meaning to.
UNUSABLE = re.compile(r"[;:,\[\]\s#\"]")


def usable(name):
    return UNUSABLE.sub("_", name)


def write(side, dim_names, batch_name, options):
    """The text of the file."""
    states, new_states = set(side.caches.values()), set(side.caches)

    def describe(noun, places):
        def join(value):
            return ";".join(f"{place.name}:{value(place)}" for place in places)

        return [
            (f"{noun}-format", join(lambda p: bracketed(dim_names[p.name]))),
            (f"{noun}-shape", join(lambda p: bracketed([-1, *p.row]))),
            (f"{noun}-dtype", join(lambda p: models.DTYPES[p.type])),
        ]

    pairs = ";".join(f"{o}:{i}" for o, i in side.caches.items())
    lines = describe("inputs", side.fed)
    lines += describe(
        "outputs", [p for p in side.outputs if p.name not in new_states]
    )
    lines.append(("caches-pair", pairs))
    lines += describe("caches", [p for p in side.inputs if p.name in states])
    low, high = options.batch
    lines += [
        ("batch-dim", batch_name),
        ("dynamic-dims", f"{batch_name}:{low}-{high}"),
        ("multi-threads", "true"),
        ("infer-thread", "true"),
        ("infer-interval", options.interval),
        ("num-execute-threads", 1),
    ]
    return "".join(f"--{key}={value}\n" for key, value in lines)


def bracketed(items):
    return f"[{', '.join(map(str, items))}]"


def name_dimensions(places, declared, batch_name):
    """Names for the dimensions: the exporter's where they stand for one size
    everywhere, else one that tells the size."""
    sizes = {}
    for place in places:
        for name, size in zip(declared[place.name], place.row):
            sizes.setdefault(name, set()).add(size)
    return {
        place.name: [batch_name]
        + [
            usable(name)
            if isinstance(name, str)
            and len(sizes[name]) == 1
            and name != batch_name
            else f"size-{size}"
            for name, size in zip(declared[place.name], place.row)
        ]
        for place in places
    }
