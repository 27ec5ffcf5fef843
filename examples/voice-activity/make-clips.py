#!/usr/bin/env python3
"""Makes the sample clips and their true segments.

    make-clips.py [DIRECTORY]

Writes DIRECTORY/clips/* and DIRECTORY/truth.json; the default is the script's
own directory. Needs espeak-ng 1.51 and the Python packages numpy and
soundfile. The same versions write the same bytes again.

Speech is synthesised sentence by sentence and placed at known times. The truth
follows from that clean signal alone: a 10 ms frame is speech if its level is
at most 35 dB under the clip's loudest frame, and pauses under 0.3 s between
such frames count as speech.

A level of noise is stated as signal-to-noise ratio in dB: the mean power of
the clean speech in its true segments over the mean power of the noise in the
whole clip, both over the full bandwidth of the clip.
"""

import argparse
import io
import json
import pathlib
import subprocess
import zlib
from dataclasses import dataclass

import numpy as np
import soundfile

RATE = 16000  # Clips of 8 kHz are made at 16 kHz and resampled at the end.
HOP = 160
SPEECH_RANGE_DB = 35.0
BRIDGED_PAUSE = 30  # Frames.
SPEECH_LEVEL = 0.02  # Root mean square of the clean speech, full scale is 1.

ENGLISH = [
    "The ferry leaves the island at twenty past six.",
    "No, not today.",
    "We counted eleven herons along the river, and then it began to snow.",
    "Please bring the blue folder.",
    "My brother repairs old clocks in a small workshop behind the station.",
]
GERMAN = [
    "Die Fähre legt um zwanzig nach sechs von der Insel ab.",
    "Nein, heute nicht.",
    "Wir zählten elf Reiher am Fluss, und dann begann es zu schneien.",
    "Bring bitte den blauen Ordner mit.",
    "Mein Bruder repariert alte Uhren in einer Werkstatt am Bahnhof.",
]


@dataclass
class Clip:
    """What a clip holds: alternately a pause in seconds and a sentence."""

    voice: str  # Of espeak-ng.
    sentences: list
    script: list  # Pauses as floats, sentences as numbers.
    rate: int = RATE
    noise: str = ""
    snr_db: float = 0.0
    format: str = "flac"

    @property
    def name(self):
        noise = f"{self.noise}-{self.snr_db:g}db" if self.noise else "clean"
        language = "english" if self.sentences is ENGLISH else "german"
        return f"{language}-{noise}-{self.rate // 1000}k.{self.format}"


CLIPS = [
    Clip("en-us+f3", ENGLISH, [0.6, 0, 0.9, 1, 1.6, 3, 0.5]),
    Clip("de+m3", GERMAN, [0.0, 1, 0.7, 0, 1.2, 3, 0.8], 8000),
    Clip("en-gb+m7", ENGLISH, [0.8, 2, 1.5, 1, 0.6], RATE, "pink", 10),
    Clip("de+f2", GERMAN, [1.0, 3, 0.5, 1, 1.7, 0, 0.4], 8000, "fan", 5),
    Clip("en-gb-scotland", ENGLISH, [0.0, 4, 2.0, 3, 0.7], 8000, "traffic", 5),
    Clip("de+m1", GERMAN, [0.5, 2, 1.4, 1, 0.9], RATE, "typing", 10),
    Clip("en-us+m2", ENGLISH, [1.2, 0, 0.8, 1, 1.5], 8000, "babble", 10),
    Clip("de+f4", GERMAN, [0.4, 4, 1.8, 3, 0.5], 8000, "music", 10),
    Clip(
        "en-us+f5", ENGLISH, [0.7, 3, 2.2, 2, 0.6], 8000, "white", 0, "wav"
    ),
]


def resample(signal, old_rate, new_rate):
    """Band-limited resampling of a whole signal through its spectrum."""
    length = round(len(signal) * new_rate / old_rate)
    spectrum = np.fft.rfft(signal)[: length // 2 + 1]
    return np.fft.irfft(spectrum, length) * (length / len(signal))


def synthesise(voice, sentence):
    command = ["espeak-ng", "-v", voice, "-s", "165", "--stdout", sentence]
    wave = subprocess.run(command, check=True, capture_output=True).stdout
    signal, rate = soundfile.read(io.BytesIO(wave))
    return resample(signal, rate, RATE)


def frame_power(signal):
    frames = len(signal) // HOP
    return np.mean(signal[: frames * HOP].reshape(frames, HOP) ** 2, axis=1)


def runs(flags):
    """(begin, end) of every run of true flags."""
    edges = np.flatnonzero(np.diff(np.concatenate([[0], flags, [0]])))
    return edges.reshape(-1, 2)


def true_frames(speech):
    power = frame_power(speech)
    is_speech = power > power.max() * 10 ** (-SPEECH_RANGE_DB / 10)
    pauses = runs(~is_speech)
    for begin, end in pauses:
        inside = begin > 0 and end < len(is_speech)
        if inside and end - begin < BRIDGED_PAUSE:
            is_speech[begin:end] = True
    return is_speech


def clean_speech(clip):
    parts = [
        synthesise(clip.voice, clip.sentences[item])
        if isinstance(item, int)
        else np.zeros(round(item * RATE))
        for item in clip.script
    ]
    speech = np.concatenate(parts)
    speech = speech[: len(speech) // HOP * HOP]
    power = frame_power(speech)[true_frames(speech)].mean()
    return speech * (SPEECH_LEVEL / np.sqrt(power))


def coloured_noise(length, random, slope):
    """Gaussian noise whose power falls with frequency to the power `slope`."""
    frequency = np.maximum(np.fft.rfftfreq(length, 1 / RATE), 20.0)
    shape = (2, len(frequency))
    real, imaginary = random.standard_normal(shape)
    spectrum = (real + 1j * imaginary) * frequency ** (-slope / 2)
    noise = np.fft.irfft(spectrum, length)
    return noise / noise.std()


def wander(length, random, points_per_second):
    """A random curve of unit variance, linear between its points."""
    position = np.arange(length) / RATE * points_per_second
    points = random.standard_normal(int(position[-1]) + 2)
    return np.interp(position, np.arange(len(points)), points)


def tone(time, frequency, partials):
    phase = 2 * np.pi * frequency * time
    return sum(np.sin(k * phase) / k for k in range(1, partials + 1))


def white(length, random):
    return coloured_noise(length, random, 0.0)


def pink(length, random):
    return coloured_noise(length, random, 1.0)


def fan(length, random):
    """Rushing air with the hum of the blades."""
    time = np.arange(length) / RATE
    air = coloured_noise(length, random, 1.3)
    return air * (1 + 0.2 * np.sin(2 * np.pi * 9 * time)) + 0.3 * tone(
        time, 118.0, 5
    )


def traffic(length, random):
    """Low rumble that swells as cars pass, over a steady background."""
    swell = np.exp(0.8 * wander(length, random, 0.6))
    steady = coloured_noise(length, random, 1.5)
    return coloured_noise(length, random, 1.8) * swell + 0.3 * steady


def typing(length, random):
    """Key strokes on a keyboard in a quiet room."""
    noise = 0.05 * pink(length, random)
    position = 0
    while position < length - 1200:
        decay = np.exp(-np.arange(1200) / random.uniform(40, 200))
        stroke = random.standard_normal(1200) * decay
        noise[position : position + 1200] += random.uniform(0.3, 1) * stroke
        position += int(RATE * random.choice([0.1, 0.16, 0.25, 0.6]))
    return noise


def babble(length, random):
    """Six other voices that talk all the time."""
    noise = 0.002 * pink(length, random)
    for voice in ["en", "de", "en+m4", "de+f1", "en+f4", "de+m6"]:
        sentences = GERMAN if voice.startswith("de") else ENGLISH
        order = random.permutation(len(sentences))
        talk = np.concatenate([synthesise(voice, sentences[i]) for i in order])
        talk = np.roll(talk, int(random.integers(len(talk))))
        noise += np.resize(talk, length)
    return noise


def music(length, random):
    """Two parts that play notes of a scale."""
    noise = 0.02 * pink(length, random)
    for base, beat in [(110.0, 0.6), (440.0, 0.3)]:
        note = int(beat * RATE)
        time = np.arange(note) / RATE
        envelope = np.minimum(1, time / 0.01) * np.exp(-2.5 * time)
        for position in range(0, length - note, note):
            step = random.choice([0, 2, 4, 5, 7, 9, 11, 12])
            played = tone(time, base * 2 ** (step / 12), 6) * envelope
            noise[position : position + note] += played
    return noise


NOISES = {
    f.__name__: f
    for f in [white, pink, fan, traffic, typing, babble, music]
}


def add_noise(clip, speech, is_speech):
    if not clip.noise:
        return speech
    random = np.random.default_rng(zlib.crc32(clip.name.encode()))
    noise = NOISES[clip.noise](len(speech), random)
    noise = resample(resample(noise, RATE, clip.rate), clip.rate, RATE)
    speech_power = frame_power(speech)[is_speech].mean()
    noise_power = speech_power / 10 ** (clip.snr_db / 10)
    return speech + noise * np.sqrt(noise_power / np.mean(noise**2))


def write_clip(clip, directory):
    """Writes the audio file and returns its entry for truth.json."""
    speech = clean_speech(clip)
    is_speech = true_frames(speech)
    mixed = resample(add_noise(clip, speech, is_speech), RATE, clip.rate)
    # Telephony stores 8 bits on a logarithmic scale.
    subtype = "ULAW" if clip.format == "wav" else "PCM_16"
    soundfile.write(directory / clip.name, mixed, clip.rate, subtype)
    return {
        "path": f"clips/{clip.name}",
        "sample_rate": clip.rate,
        "duration": len(mixed) / clip.rate,
        "voice": clip.voice,
        "noise": clip.noise or None,
        "snr_db": clip.snr_db if clip.noise else None,
        "segments": [
            {"start": float(begin) / 100, "end": float(end) / 100}
            for begin, end in runs(is_speech)
        ],
    }


def main():
    parser = argparse.ArgumentParser(description="Makes the sample clips.")
    parser.add_argument(
        "directory", nargs="?", type=pathlib.Path,
        default=pathlib.Path(__file__).parent,
    )
    directory = parser.parse_args().directory
    clips = directory / "clips"
    clips.mkdir(parents=True, exist_ok=True)
    truth = {"files": [write_clip(clip, clips) for clip in CLIPS]}
    text = json.dumps(truth, indent=1) + "\n"
    (directory / "truth.json").write_text(text, encoding="utf-8")


if __name__ == "__main__":
    main()
