#!/usr/bin/env python3
"""Scores voice-activity results against the true segments, frame by frame.

    score-voice-activity.py [--at-least F1] RESULT.json TRUTH.json

Both files hold {"files": [{"path": ..., "segments": [{"start": ..., "end":
...}]}]} with times in seconds; each file of the truth also has a "duration".
Files are matched by the last part of their path. A 10 ms frame counts as
speech where a segment covers its middle. Prints precision, recall and F1 per
file and over all frames. Exits with 1 if the total F1 is below --at-least,
with 2 if the two files do not match.
"""

import argparse
import json
import os
import sys
from dataclasses import dataclass

HOP = 0.01


@dataclass
class Score:
    hits: int = 0
    false_alarms: int = 0
    misses: int = 0

    def __add__(self, other):
        return Score(
            self.hits + other.hits,
            self.false_alarms + other.false_alarms,
            self.misses + other.misses,
        )

    @property
    def precision(self):
        return self.hits / max(1, self.hits + self.false_alarms)

    @property
    def recall(self):
        return self.hits / max(1, self.hits + self.misses)

    @property
    def f1(self):
        errors = self.false_alarms + self.misses
        return 2 * self.hits / max(1, 2 * self.hits + errors)


def speech_frames(segments, frames):
    """The set of frame numbers whose middle lies in a segment."""
    return {
        i
        for segment in segments
        for i in range(int(segment["start"] / HOP), frames)
        if segment["start"] <= (i + 0.5) * HOP < segment["end"]
    }


def score_file(found_segments, true_file):
    frames = round(true_file["duration"] / HOP)
    found = speech_frames(found_segments, frames)
    true = speech_frames(true_file["segments"], frames)
    return Score(len(found & true), len(found - true), len(true - found))


def by_name(data):
    return {os.path.basename(file["path"]): file for file in data["files"]}


def score(result, truth):
    """A Score per file name; raises ValueError if the files differ."""
    found, true = by_name(result), by_name(truth)
    if found.keys() != true.keys():
        odd = ", ".join(sorted(found.keys() ^ true.keys()))
        raise ValueError(f"only in one of result and truth: {odd}")
    return {
        name: score_file(found[name]["segments"], true[name]) for name in true
    }


def report(scores):
    """Prints a table and returns the total score."""
    total = sum(scores.values(), Score())
    width = max(map(len, [*scores, "total"]))
    print(f"{'':{width}}  precision  recall     F1")
    for name, one in [*sorted(scores.items()), ("total", total)]:
        print(
            f"{name:{width}}  {one.precision:9.3f}  {one.recall:6.3f}"
            f"  {one.f1:5.3f}"
        )
    return total


def read_json(path):
    with open(path, encoding="utf-8") as file:
        return json.load(file)


def main():
    parser = argparse.ArgumentParser(
        description="Scores voice-activity results against the truth."
    )
    parser.add_argument("result", help="what voice-activity --json printed")
    parser.add_argument("truth", help="the true segments")
    parser.add_argument(
        "--at-least", type=float, default=0.0, metavar="F1",
        help="exit with 1 if the total F1 is lower",
    )
    arguments = parser.parse_args()
    try:
        scores = score(read_json(arguments.result), read_json(arguments.truth))
    except (OSError, ValueError) as error:
        print(f"score-voice-activity: {error}", file=sys.stderr)
        return 2
    except (KeyError, TypeError) as error:
        print(
            f"score-voice-activity: unexpected JSON: {error!r}",
            file=sys.stderr,
        )
        return 2
    total = report(scores)
    if total.f1 < arguments.at_least:
        print(f"F1 {total.f1:.3f} is below {arguments.at_least:.3f}")
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
