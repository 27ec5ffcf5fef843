#!/usr/bin/env python3
"""Writes the streaming voice-activity model as an ONNX file.

    make-voice-activity-model.py OUTPUT

OUTPUT is the file, or a directory that gets a voice-activity.onnx.

The weights are computed from signal-processing formulas; nothing is learned
from recordings. Per stream and call the model takes 100 ms of 16 kHz audio
and gives the probability of speech for ten 10 ms frames:

    audio        [batch, 1600]    samples in -1..1
    probability  [batch, 10]      0..1, decision point 0.5

Value k of call c (both from 0) belongs to frame i = 10 c + k - 20, that is to
the time from 0.01 i to 0.01 (i + 1) seconds: the model looks 200 ms ahead. A
caller drops the first two calls' values and ends a stream with two calls of
zeros.

State, all zeros at the start of a stream:

    samples      [batch, 480]     the newest samples, for overlapping windows
    spectra      [batch, 64, 19]  the newest frames' 18 levels and periodicity
    noise_floor  [batch, 19, 18]  per band, depth of the quietest moment of
                                  each of the last 19 calls
    speech_level [batch, 1]       the loudest moment, sinking by 2 dB/s

A level is 10 log10(1 + 1e14 energy): dB over -140 dBFS, and 0 only for digital
silence. A depth is CEILING - level. So zero means "nothing yet" in every
cache: silence drops out of each maximum that the state is made of, and
neither the start of a stream nor muted stretches lower the noise floor.
"""

import argparse
import os
import sys

import numpy as np
import onnx
from onnx import TensorProto, helper, numpy_helper, shape_inference

SAMPLE_RATE = 16000
HOP = 160
WINDOW = 512
FRAMES = 10  # Frames per call.
CHUNK = FRAMES * HOP
BLOCKS_PER_WINDOW = 4  # Hops that a window touches.
OVERLAP = (BLOCKS_PER_WINDOW - 1) * HOP
BATCH = "batch"

# The bands stay inside telephone bandwidth, so that 8 kHz recordings look the
# same as 16 kHz ones.
LOWEST_HZ, HIGHEST_HZ = 100.0, 3500.0
BANDS = 18
LOW_BANDS = 6  # Up to about 700 Hz, where voiced speech is strongest.
FIRST_BIN, END_BIN = 3, 112
PERIODIC_END_BIN = 64  # Harmonics are looked for up to 2 kHz.
SHORTEST_PERIOD, LONGEST_PERIOD = 40, 200  # Samples: 400 to 80 Hz.

CEILING = 300.0  # dB over -140 dBFS; no level reaches it.
UNSET = -1e6
FLOOR_CALLS = 20  # The noise floor is the minimum over two seconds.
FLOOR_BIAS = 6.0  # dB by which noise usually exceeds its minimum.
MAX_SNR, MAX_BELOW, MAX_CHANGE = 20.0, 40.0, 5.0
LEVEL_DECAY = 0.2  # dB per call.
LASTING = 4  # Frames.

# The probability of a frame follows from averages over frames around it, a
# short and a long one. Spectral change compares spectra 100 ms apart.
SHORT_REACH = 3
PAST, FUTURE = 25, 12
CHANGE_REACH, CHANGE_SMOOTHING = 5, 5
MARGIN = CHANGE_REACH + CHANGE_SMOOTHING // 2
SPAN = PAST + FRAMES + FUTURE  # Frames whose features a call needs.
# Features also need frames before and after the span. Before it, because a
# weak sound counts as loud as what was loudest within the last 200 ms.
BEFORE, AFTER = 20, MARGIN
HISTORY = BEFORE + SPAN + AFTER
# One more frame of delay: a window's centre lies that far before its end.
DELAY = MARGIN + FUTURE + 1
assert DELAY == 2 * FRAMES

# Log-odds per unit of each feature: average over the short and the long span.
WEIGHTS = {
    "low_snr": (0.06, 0.0),  # dB over the floor below 700 Hz.
    "below": (-0.13, -0.1),  # dB under the loudest moment: others, echoes.
    "voicing": (0.0, 0.9),  # Periodicity times dB over the floor.
    "periodicity": (0.0, -9.0),  # Without level: hum, music.
    "change": (0.2, 1.0),  # dB of spectral change: speech moves on.
}
BIAS = -0.7


def mel_bands():
    """Triangular bands [bins, BANDS], each with weights that add up to 1."""
    limits = 1127.0 * np.log1p(np.array([LOWEST_HZ, HIGHEST_HZ]) / 700.0)
    edges = np.linspace(*limits, BANDS + 2)
    edges = 700.0 * np.expm1(edges / 1127.0)
    bins = np.arange(FIRST_BIN, END_BIN)[:, None] * SAMPLE_RATE / WINDOW
    rising = (bins - edges[:-2]) / np.diff(edges)[:-1]
    falling = (edges[2:] - bins) / np.diff(edges)[1:]
    bands = np.maximum(0.0, np.minimum(rising, falling))
    return bands / bands.sum(axis=0)


def windowed_dft():
    """Convolution kernels [2 * bins, 1, WINDOW]: real, then imaginary parts.

    The periodic Hann window keeps a constant offset out of all bins but the
    first two, which are not used.
    """
    time = np.arange(WINDOW)
    window = 0.5 - 0.5 * np.cos(2 * np.pi * time / WINDOW)
    window /= np.sqrt(WINDOW * np.sum(window**2))
    angle = 2 * np.pi * np.outer(np.arange(FIRST_BIN, END_BIN), time) / WINDOW
    kernels = np.concatenate([np.cos(angle), -np.sin(angle)]) * window
    return kernels[:, None, :]


def envelope_smoother(bins):
    """Matrix [bins, bins] that averages over neighbouring bins."""
    half = 8
    distance = np.abs(np.subtract.outer(np.arange(bins), np.arange(bins)))
    weights = 0.5 + 0.5 * np.cos(np.pi * distance / (half + 1))
    return np.where(distance <= half, weights, 0.0) / (half + 1)


def autocorrelation(bins):
    """Matrix [bins, periods] from a power spectrum to its autocorrelation."""
    bin_index = np.arange(FIRST_BIN, FIRST_BIN + bins)
    periods = np.arange(SHORTEST_PERIOD, LONGEST_PERIOD + 1)
    return np.cos(2 * np.pi * np.outer(bin_index, periods) / WINDOW)


def smoother():
    """Convolution kernel [1, features, span] with the weights of WEIGHTS."""
    offset = np.arange(-PAST, FUTURE + 1)
    short = (np.abs(offset) <= SHORT_REACH) / (2 * SHORT_REACH + 1)
    long = np.ones(offset.size) / offset.size
    rows = [of_short * short + of_long * long
            for of_short, of_long in WEIGHTS.values()]
    return np.stack(rows)[None]


class GraphBuilder:
    """Collects nodes and constants; each operation returns its output."""

    def __init__(self):
        self.nodes = []
        self.constants = {}

    def constant(self, value, dtype=np.float32):
        array = np.asarray(value, dtype)
        key = (array.dtype.str, array.shape, array.tobytes())
        if key not in self.constants:
            name = f"constant_{len(self.constants)}"
            self.constants[key] = numpy_helper.from_array(array, name)
        return self.constants[key].name

    def op(self, kind, *inputs, output=None, **attributes):
        """Inputs are outputs of other nodes, or numbers and arrays."""
        names = [i if isinstance(i, str) else self.constant(i) for i in inputs]
        output = output or f"{kind.lower()}_{len(self.nodes)}"
        self.nodes.append(
            helper.make_node(kind, names, [output], output, **attributes)
        )
        return output

    def slice(self, data, start, end, axis=1, output=None):
        bounds = [self.constant([v], np.int64) for v in (start, end, axis)]
        return self.op("Slice", data, *bounds, output=output)

    def unsqueeze(self, data, axis):
        return self.op("Unsqueeze", data, self.constant([axis], np.int64))

    def squeeze(self, data, axis, output=None):
        axes = self.constant([axis], np.int64)
        return self.op("Squeeze", data, axes, output=output)

    def moving_average(self, data, frames):
        """Averages [batch, time, values] over `frames` neighbouring frames."""
        image = self.unsqueeze(data, 1)
        pooled = self.op("AveragePool", image, kernel_shape=[frames, 1])
        return self.squeeze(pooled, 1)

    def moving_maximum(self, data, frames):
        """The greatest of `frames` neighbouring frames [batch, time, 1]."""
        series = self.op("Transpose", data, perm=[0, 2, 1])
        pooled = self.op("MaxPool", series, kernel_shape=[frames])
        return self.op("Transpose", pooled, perm=[0, 2, 1])

    def moving_minimum(self, data, frames):
        negated = self.moving_maximum(self.op("Neg", data), frames)
        return self.op("Neg", negated)

    def mean_of(self, data, size):
        """Averages the last axis, which has `size` values.

        A product instead of ReduceMean: the order in which that adds up
        depends on where in the batch a row stands.
        """
        return self.op("MatMul", data, np.full((size, 1), 1.0 / size))

    def max(self, data, axis):
        return self.op("ReduceMax", data, axes=[axis])

    def limit(self, data, low, high):
        return self.op("Clip", data, float(low), float(high))


def add_samples(g):
    """Joins kept and new samples; a sample that is no number is silence."""
    is_number = g.op("Less", g.op("Abs", "audio"), 1e6)
    audio = g.op("Where", is_number, "audio", 0.0)
    samples = g.op("Concat", "samples", audio, axis=1)
    g.slice(samples, CHUNK, CHUNK + OVERLAP, output="samples_next")
    return samples


def add_power_spectrum(g, samples):
    """Power [batch, FRAMES, bins] of overlapping windows."""
    start = OVERLAP + HOP - WINDOW
    signal = g.unsqueeze(g.slice(samples, start, OVERLAP + CHUNK), 1)
    dft = g.op("Conv", signal, windowed_dft(), strides=[HOP])
    squared = g.op("Mul", dft, dft)
    bins = END_BIN - FIRST_BIN
    real = g.slice(squared, 0, bins)
    imaginary = g.slice(squared, bins, 2 * bins)
    return g.op("Transpose", g.op("Add", real, imaginary), perm=[0, 2, 1])


def add_sound_flags(g, samples):
    """1 [batch, FRAMES, 1] where no hop of the window is digital silence."""
    shape = g.constant([0, BLOCKS_PER_WINDOW - 1 + FRAMES, HOP], np.int64)
    blocks = g.op("Reshape", g.op("Abs", samples), shape)
    quietest = g.moving_minimum(g.max(blocks, 2), BLOCKS_PER_WINDOW)
    has_sound = g.op("Greater", quietest, 0.0)
    return g.op("Cast", has_sound, to=TensorProto.FLOAT)


def add_levels(g, power, flags):
    """Band levels [batch, FRAMES, BANDS], 0 next to digital silence."""
    energies = g.op("MatMul", power, mel_bands() * 1e14)
    logarithm = g.op("Log", g.op("Add", energies, 1.0))
    levels = g.op("Mul", logarithm, 10.0 / np.log(10.0))
    return g.op("Mul", levels, flags)


def add_periodicity(g, power):
    """Highest autocorrelation of the whitened spectrum [batch, FRAMES, 1]."""
    bins = PERIODIC_END_BIN - FIRST_BIN
    low_power = g.slice(power, 0, bins, axis=2)
    envelope = g.op("MatMul", low_power, envelope_smoother(bins))
    envelope = g.op("Add", envelope, 1e-15)
    white = g.op("Min", g.op("Div", low_power, envelope), 4.0)
    correlation = g.op("MatMul", white, autocorrelation(bins))
    total = g.op("MatMul", white, np.ones((bins, 1)))
    peak = g.max(correlation, 2)
    return g.op("Div", peak, g.op("Add", total, 1e-9))


def add_history(g, levels, periodicity):
    """Spectra of the last HISTORY frames: levels and periodicity."""
    frames = g.op("Concat", levels, periodicity, axis=2)
    history = g.op("Concat", "spectra", frames, axis=1)
    g.slice(history, FRAMES, HISTORY, output="spectra_next")
    return (
        g.slice(history, 0, BANDS, axis=2),
        g.slice(history, BANDS, BANDS + 1, axis=2),
    )


def add_noise_floor(g, levels):
    """Noise level per band [batch, 1, BANDS]: minimum of smoothed levels."""
    smoothing = 3
    newest = g.slice(levels, HISTORY - FRAMES - smoothing + 1, HISTORY)
    depth = g.op("Sub", CEILING, newest)
    depth = g.op("Where", g.op("Greater", newest, 0.0), depth, UNSET)
    deepest = g.max(g.moving_average(depth, smoothing), 1)
    deepest = g.op("Max", deepest, 0.0)
    recent = g.op("Concat", "noise_floor", deepest, axis=1)
    g.slice(recent, 1, FLOOR_CALLS, output="noise_floor_next")
    return g.op("Sub", CEILING, g.max(recent, 1))


def add_loudness(g, levels):
    """Level [batch, HISTORY, 1] of all bands together, 0 in silence."""
    to_natural = np.log(10.0) / 10.0
    scaled = g.op("Mul", levels, to_natural)
    total = g.op("ReduceLogSumExp", scaled, axes=[2])
    return g.op("Div", g.op("Sub", total, np.log(BANDS)), to_natural)


def add_speech_level(g, loudness):
    """The loudest recent moment [batch, 1] that lasted, slowly forgotten.

    A slammed door is over before LASTING frames are and does not count.
    """
    newest = g.slice(loudness, HISTORY - FRAMES - LASTING + 1, HISTORY)
    peak = g.squeeze(g.max(g.moving_minimum(newest, LASTING), 1), 2)
    remembered = g.op("Sub", "speech_level", LEVEL_DECAY)
    return g.op("Max", peak, remembered, output="speech_level_next")


def add_spectral_change(g, filled):
    """Mean difference of spectral shapes before and after each frame, dB."""
    filled = g.slice(filled, BEFORE - MARGIN, HISTORY)
    shape = g.op("Sub", filled, g.mean_of(filled, BANDS))
    smooth = g.moving_average(shape, CHANGE_SMOOTHING)
    before = g.slice(smooth, 0, SPAN)
    after = g.slice(smooth, 2 * CHANGE_REACH, 2 * CHANGE_REACH + SPAN)
    change = g.op("Abs", g.op("Sub", after, before))
    change = g.mean_of(change, BANDS)
    return g.limit(change, 0, MAX_CHANGE)


def add_features(g, levels, periodicity):
    """The features of WEIGHTS, each [batch, SPAN, 1]."""
    floor = add_noise_floor(g, levels)
    loudness = add_loudness(g, levels)
    speech_level = g.unsqueeze(add_speech_level(g, loudness), 2)
    middle = (BEFORE, BEFORE + SPAN)
    periodicity = g.slice(periodicity, *middle)

    # Where nothing was heard yet the floor stands in, which is no change.
    filled = g.op("Where", g.op("Greater", levels, 0.0), levels, floor)
    excess = g.op("Sub", g.slice(filled, *middle), floor)
    snr = g.limit(g.op("Sub", excess, FLOOR_BIAS), 0, MAX_SNR)
    harmonic = g.limit(g.op("Sub", periodicity, 0.25), 0, 0.4)
    nearby = g.moving_maximum(loudness, BEFORE + 1 + AFTER)
    below = g.op("Sub", speech_level, nearby)
    return {
        "low_snr": g.mean_of(
            g.slice(snr, 0, LOW_BANDS, axis=2), LOW_BANDS
        ),
        "below": g.limit(below, 0, MAX_BELOW),
        "voicing": g.op("Mul", harmonic, g.mean_of(snr, BANDS)),
        "periodicity": periodicity,
        "change": add_spectral_change(g, filled),
    }


def add_probability(g, features):
    """Weighs the features and smooths them over time in one convolution."""
    stacked = g.op("Concat", *[features[name] for name in WEIGHTS], axis=2)
    stacked = g.op("Transpose", stacked, perm=[0, 2, 1])
    score = g.op("Conv", stacked, smoother(), np.array([BIAS]))
    g.op("Sigmoid", g.squeeze(score, 1), output="probability")


def batch_of(name, shape):
    """Description of an input or output with one row per stream."""
    return helper.make_tensor_value_info(
        name, TensorProto.FLOAT, [BATCH, *shape]
    )


def build_model():
    g = GraphBuilder()
    samples = add_samples(g)
    power = add_power_spectrum(g, samples)
    levels = add_levels(g, power, add_sound_flags(g, samples))
    history = add_history(g, levels, add_periodicity(g, power))
    add_probability(g, add_features(g, *history))

    caches = {
        "samples": [OVERLAP],
        "spectra": [HISTORY - FRAMES, BANDS + 1],
        "noise_floor": [FLOOR_CALLS - 1, BANDS],
        "speech_level": [1],
    }
    inputs = [batch_of("audio", [CHUNK])]
    inputs += [batch_of(name, shape) for name, shape in caches.items()]
    outputs = [batch_of("probability", [FRAMES])]
    outputs += [batch_of(f"{n}_next", shape) for n, shape in caches.items()]
    graph = helper.make_graph(
        g.nodes,
        "voice-activity",
        inputs,
        outputs,
        list(g.constants.values()),
    )
    model = helper.make_model(
        graph,
        producer_name="make-voice-activity-model",
        opset_imports=[helper.make_opsetid("", 17)],
        ir_version=8,
    )
    helper.set_model_props(
        model,
        {
            "sample_rate": str(SAMPLE_RATE),
            "hop": str(HOP),
            "delay_frames": str(DELAY),
        },
    )
    return model


def check_model(model):
    """Throws if the graph is invalid or its shapes do not add up."""
    onnx.checker.check_model(model, full_check=True)
    bare = onnx.ModelProto()
    bare.CopyFrom(model)
    for output in bare.graph.output:
        output.type.tensor_type.ClearField("shape")
    inferred = shape_inference.infer_shapes(
        bare, strict_mode=True, data_prop=True
    )
    for declared, found in zip(model.graph.output, inferred.graph.output):
        if declared != found:
            raise ValueError(f"unexpected shape of output:\n{found}")


def main():
    parser = argparse.ArgumentParser(
        description="Writes the streaming voice-activity model."
    )
    parser.add_argument(
        "output", help="ONNX file to write, or the directory for it"
    )
    path = parser.parse_args().output
    if os.path.isdir(path):
        path = os.path.join(path, "voice-activity.onnx")

    model = build_model()
    check_model(model)
    unfinished = f"{path}.part"
    try:
        with open(unfinished, "wb") as file:
            file.write(model.SerializeToString(deterministic=True))
        os.replace(unfinished, path)
    except OSError as error:
        sys.exit(f"cannot write {path}: {error.strerror}")


if __name__ == "__main__":
    main()
