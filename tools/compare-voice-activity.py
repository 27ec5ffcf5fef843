#!/usr/bin/env python3
"""Compares the voice-activity results of two machines.

    compare-voice-activity.py RESULT.json OTHER.json

Both must have found the same segments in the same files. Probabilities may
differ by 1e-5, because the engine rounds differently on different processors.
Exits with 1 if more differs.
"""

import json
import sys

TOLERANCE = 1e-5


def read_files(path):
    with open(path, encoding="utf-8") as file:
        return json.load(file)["files"]


def segments(file):
    return [(part["start"], part["end"]) for part in file["segments"]]


def compare(one, other):
    """The largest difference of probabilities; ValueError if more differs."""
    for key in "path", "duration", "sample_rate":
        if one[key] != other[key]:
            raise ValueError(f"{key} is {one[key]} and {other[key]}")
    if segments(one) != segments(other):
        raise ValueError(
            f"different segments in {one['path']}: {segments(one)} and "
            f"{segments(other)}"
        )
    pairs = zip(one["probabilities"], other["probabilities"], strict=True)
    differences = [abs(a - b) for a, b in pairs]
    if not all(difference <= TOLERANCE for difference in differences):
        raise ValueError(
            f"probabilities in {one['path']} differ by {max(differences):.1e}"
        )
    return max(differences, default=0)


def main():
    if len(sys.argv) != 3:
        sys.exit("usage: compare-voice-activity.py RESULT.json OTHER.json")
    try:
        files = zip(*map(read_files, sys.argv[1:]), strict=True)
        differences = [compare(one, other) for one, other in files]
    except (OSError, ValueError) as error:
        sys.exit(f"compare-voice-activity: {error}")
    print(
        f"{len(differences)} files agree; probabilities differ by "
        f"{max(differences, default=0):.1e} at most"
    )


if __name__ == "__main__":
    main()
