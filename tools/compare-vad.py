"""Compares the voice-activity model with WebRTC's detector.

    compare-vad.py MODEL.onnx TRUTH.json

Run by scripts/compare-vad, which provides the packages. Prints the frame F1
over all clips of TRUTH.json for the model and for WebRTC's modes 0 to 3 at its
three frame lengths: as the detector decides, and with the model's rule for
short gaps and short segments. Clips lie beside TRUTH.json.
"""

import argparse
import importlib.util
import pathlib

import numpy as np
import onnxruntime
import soundfile
import webrtcvad

RATE = 16000
HOP = 0.01

BEGIN, STAY = 0.5, 0.35  # Probabilities at which speech begins and goes on.
SHORTEST_SPEECH, SHORTEST_GAP = 10, 20  # Frames.


def load_scorer():
    path = pathlib.Path(__file__).with_name("score-voice-activity.py")
    spec = importlib.util.spec_from_file_location("scorer", path)
    scorer = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(scorer)
    return scorer


class StreamingModel:
    """Runs the model over one clip after the other, chunk by chunk."""

    def __init__(self, path):
        self.session = onnxruntime.InferenceSession(
            path, providers=["CPUExecutionProvider"]
        )
        properties = self.session.get_modelmeta().custom_metadata_map
        self.delay = int(properties["delay_frames"])
        self.shapes = {
            i.name: [1, *i.shape[1:]] for i in self.session.get_inputs()
        }
        self.outputs = [o.name for o in self.session.get_outputs()]

    def probabilities(self, audio):
        chunk = self.shapes["audio"][1]
        frames = len(audio) * 100 // RATE
        delay = self.delay * RATE // 100
        padding = delay + -(len(audio) + delay) % chunk
        audio = np.pad(audio, (0, padding)).astype(np.float32)
        state = {
            name: np.zeros(shape, np.float32)
            for name, shape in self.shapes.items()
        }
        found = []
        for begin in range(0, len(audio), chunk):
            state["audio"] = audio[None, begin : begin + chunk]
            values = dict(
                zip(self.outputs, self.session.run(self.outputs, state))
            )
            found.append(values.pop("probability")[0])
            state = {k.removesuffix("_next"): v for k, v in values.items()}
        return np.concatenate(found)[self.delay : self.delay + frames]


def decide(probabilities):
    """Speech begins at BEGIN and lasts while the probability is over STAY."""
    decisions = []
    speaking = False
    for probability in probabilities:
        speaking = probability >= (STAY if speaking else BEGIN)
        decisions.append(speaking)
    return decisions


def segments(decisions):
    """(begin, end) in frames of every run of speech."""
    edges = np.diff(np.concatenate([[0], decisions, [0]]).astype(int))
    return np.flatnonzero(edges).reshape(-1, 2)


def tidy(runs):
    """Drops short speech, then joins what a short gap parts."""
    joined = []
    for begin, end in runs:
        if end - begin < SHORTEST_SPEECH:
            continue
        if joined and begin - joined[-1][1] < SHORTEST_GAP:
            joined[-1][1] = end
        else:
            joined.append([begin, end])
    return joined


def webrtc_decisions(audio, rate, mode, milliseconds):
    """WebRTC's decision for each 10 ms frame."""
    detector = webrtcvad.Vad(mode)
    pcm = np.clip(np.round(audio * 32768), -32768, 32767).astype("<i2")
    length = rate * milliseconds // 1000
    decisions = []
    for begin in range(0, len(pcm) - length + 1, length):
        frame = pcm[begin : begin + length].tobytes()
        is_speech = detector.is_speech(frame, rate)
        decisions += [is_speech] * (milliseconds // 10)
    return decisions


def doubled_rate(audio):
    """8 to 16 kHz, band-limited, through the spectrum."""
    return 2 * np.fft.irfft(np.fft.rfft(audio), 2 * len(audio))


def entry(path, runs):
    return {
        "path": path,
        "segments": [
            {"start": begin * HOP, "end": end * HOP} for begin, end in runs
        ],
    }


def main():
    parser = argparse.ArgumentParser(
        description="Compares the model with WebRTC's detector."
    )
    parser.add_argument("model", help="the model of this project")
    parser.add_argument("truth", type=pathlib.Path, help="true segments")
    arguments = parser.parse_args()
    scorer = load_scorer()
    truth = scorer.read_json(arguments.truth)
    model = StreamingModel(arguments.model)

    found = {}  # By detector: one entry per clip.
    for clip in truth["files"]:
        path = clip["path"]
        audio, rate = soundfile.read(arguments.truth.parent / path)
        wide = audio if rate == RATE else doubled_rate(audio)
        runs = segments(decide(model.probabilities(wide)))
        found.setdefault("model", []).append(entry(path, tidy(runs)))
        for mode in range(4):
            for milliseconds in (10, 20, 30):
                name = f"webrtc mode {mode}, {milliseconds} ms"
                runs = segments(
                    webrtc_decisions(audio, rate, mode, milliseconds)
                )
                found.setdefault(name, []).append(entry(path, runs))
                found.setdefault(f"{name}, tidied", []).append(
                    entry(path, tidy(runs))
                )

    for name, files in found.items():
        print(f"\n{name}")
        scorer.report(scorer.score({"files": files}, truth))


if __name__ == "__main__":
    main()
