"""Runs the original stream by stream against the prepared model in batches."""

import dataclasses
import functools
import time
import wave

import numpy as np

from . import batch
from . import model as models
from .errors import PrepareError

CHUNKS = (8, 3, 6, 5, 7)  # Of each stream.
TOLERANCE = {"float16": 1e-2, "float32": 1e-4, "float64": 1e-9}
TIMED_RUNS = 20


@dataclasses.dataclass
class Side:
    """A model to run: its inputs and outputs, its states (output to input
    name), where streams start, and constant inputs."""

    model: object
    inputs: list
    outputs: list
    caches: dict
    initial: dict = dataclasses.field(default_factory=dict)
    constants: dict = dataclasses.field(default_factory=dict)

    @functools.cached_property
    def session(self):
        return models.new_session(self.model)

    @property
    def fed(self):
        states = set(self.caches.values())
        return [place for place in self.inputs if place.name not in states]

    def new_stream(self):
        return {
            place.name: self.initial.get(
                place.name, np.zeros(place.shape, place.dtype)
            )
            for place in self.inputs
            if place.name in self.caches.values()
        }

    def run(self, streams, chunks):
        """Outputs of one chunk of each stream, whose states move on."""
        feeds = dict(self.constants)
        for place in self.inputs:
            feeds[place.name] = np.concatenate(
                [
                    {**chunk, **stream}[place.name]
                    for stream, chunk in zip(streams, chunks)
                ],
                place.axis,
            )
        results = self._run(feeds)
        rows = [
            {
                place.name: row_of(results[place.name], place, i, len(streams))
                for place in self.outputs
            }
            for i in range(len(streams))
        ]
        for stream, row in zip(streams, rows):
            stream.update({i: row[o] for o, i in self.caches.items()})
        return rows

    def _run(self, feeds):
        try:
            return models.run(self.session, feeds)
        except models.ENGINE_ERRORS as error:
            raise PrepareError(
                f"the model does not run on random input and its own states"
                f" ({models.first_line(error)}): check --fix, --set and --cache"
            ) from error


def row_of(array, place, index, count):
    """One stream's part, with a batch of one even if the original, which had
    no other, dropped it."""
    if count == 1 and array.size == np.prod(place.shape):
        return array.reshape(place.shape)
    return array.take([index], place.axis)


@dataclasses.dataclass
class Difference:
    """Of one output or state, the largest over all streams and chunks. The
    relative one is to the largest magnitude that the original gives."""

    name: str
    role: str
    tolerance: float
    absolute: float = 0.0
    magnitude: float = 0.0

    @property
    def relative(self):
        return self.absolute / max(self.magnitude, 1e-6)

    @property
    def passed(self):
        return self.relative <= self.tolerance

    def add(self, expected, actual):
        wide = np.float64 if expected.dtype.kind == "f" else object
        with np.errstate(invalid="ignore"):
            gap = np.abs(expected.astype(wide) - actual.astype(wide))
        same = np.isnan(expected) & np.isnan(actual) | (expected == actual)
        gap = np.where(same, 0, gap).astype(np.float64)
        gap[np.isnan(gap)] = np.inf
        self.absolute = max(self.absolute, float(gap.max(initial=0)))
        finite = np.abs(expected[np.isfinite(expected)].astype(np.float64))
        self.magnitude = max(self.magnitude, float(finite.max(initial=0)))


def prove(original, prepared, names, max_batch, wav=None, tolerance=None):
    """The differences, by output. `names` maps the original's names to the
    prepared model's."""
    random = np.random.default_rng(3)
    lengths = CHUNKS[:max_batch]
    differences = new_differences(original, tolerance)
    for audio in [None] if wav is None else [None, wav]:
        streams = [
            make_stream(original.fed, length, random, audio, i)
            for i, length in enumerate(lengths)
        ]
        expected = [run_alone(original, chunks) for chunks in streams]
        actual = run_together(prepared, original, streams, names, random)
        for alone, together in zip(expected, actual):
            for row, other in zip(alone, together):
                add_row(differences, original, row, other, names)
    return list(differences.values())


def new_differences(original, tolerance):
    differences = {}
    for place in original.outputs:
        limit = TOLERANCE.get(place.dtype.name, 0)
        if tolerance is not None and limit:
            limit = tolerance
        role = "state" if place.name in original.caches else "output"
        differences[place.name] = Difference(place.name, role, limit)
    return differences


def add_row(differences, original, row, other, names):
    for place in original.outputs:
        reference = original_units(original, place, row)
        differences[place.name].add(
            np.moveaxis(reference, place.axis, 0), other[names[place.name]]
        )


def original_units(original, place, row):
    """A state as the prepared model has it, from zeros on."""
    start = original.initial.get(original.caches.get(place.name))
    return row[place.name] if start is None else row[place.name] - start


def make_stream(places, length, random, wav, index):
    """Chunks of random inputs; with `wav` the audio comes from there."""
    chunks = [batch.random_row(places, random) for _ in range(length)]
    if wav is not None:
        place = audio_input(places)
        size = int(np.prod(place.shape))
        samples = np.roll(wav, -index * (len(wav) // len(CHUNKS)))
        samples = np.resize(samples, length * size)
        for chunk, part in zip(chunks, np.split(samples, length)):
            chunk[place.name] = part.reshape(place.shape).astype(place.dtype)
    return chunks


def audio_input(places):
    """The input that takes samples: floats, one long dimension."""
    fitting = [
        place
        for place in places
        if place.dtype.kind == "f"
        and 1 < np.prod(place.shape) == max(place.shape)
    ]
    if not fitting:
        raise PrepareError(
            "--wav needs an input of audio samples, and the model has none:"
            " leave it out"
        )
    return max(fitting, key=lambda place: max(place.shape))


def read_wav(path):
    """Samples of the first channel, -1 to 1, of a PCM file of any width."""
    try:
        with wave.open(path) as file:
            data = file.readframes(file.getnframes())
            samples = pcm_samples(data, file.getsampwidth())
            samples = samples[:: file.getnchannels()]
    except (OSError, EOFError, wave.Error) as error:
        raise PrepareError(
            f"{path} cannot be read as WAV ({error}): give a PCM file"
        ) from error
    if not samples.size:
        raise PrepareError(f"{path} holds no audio: give a longer file")
    return samples


def pcm_samples(data, width):
    """Samples of `width` bytes, little-endian; a single byte is unsigned."""
    octets = np.frombuffer(data, "u1").reshape(-1, width)
    if width == 1:
        octets = octets ^ 0x80
    wide = np.zeros((len(octets), 4), "u1")
    wide[:, 4 - width :] = octets
    return wide.view("<i4")[:, 0] / 2**31


def run_alone(side, chunks):
    stream = side.new_stream()
    rows = []
    for chunk in chunks:
        rows += side.run([stream], [chunk])
        if len(rows) > 1:
            refuse_changing_shapes(rows[-2], rows[-1])
    return rows


def refuse_changing_shapes(before, after):
    for name, array in before.items():
        if array.shape != after[name].shape:
            raise PrepareError(
                f"output {name} has another size for every call"
                f" ({list(array.shape)}, then {list(after[name].shape)}):"
                " export the model with fixed sizes"
            )


def run_together(side, original, streams, names, random):
    """Batches of whichever streams happen to be there."""
    states = [side.new_stream() for _ in streams]
    results = [[] for _ in streams]
    while True:
        waiting = [i for i, s in enumerate(streams) if len(results[i]) < len(s)]
        if not waiting:
            return results
        size = random.integers(1, len(waiting) + 1)
        group = random.permutation(waiting)[:size]
        chunks = [
            moved(streams[i][len(results[i])], original.fed, names)
            for i in group
        ]
        for i, row in zip(group, side.run([states[i] for i in group], chunks)):
            results[i].append(row)


def moved(chunk, places, names):
    return {
        names[p.name]: np.moveaxis(chunk[p.name], p.axis, 0) for p in places
    }


def measure(side, count):
    """Seconds of one run over `count` streams, the median of several."""
    random = np.random.default_rng(4)
    streams = [side.new_stream() for _ in range(count)]
    chunks = [batch.random_row(side.fed, random) for _ in range(count)]
    times = []
    for _ in range(TIMED_RUNS):
        begin = time.perf_counter()
        side.run(streams, chunks)
        times.append(time.perf_counter() - begin)
    return float(np.median(times))
