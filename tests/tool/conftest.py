"""What the tests of the tool share: the program and the models it is given.

TARN_TOOL names the program, TARN_TEST_MODELS the folder of small models that
tools/make-test-models.py made.
"""

import json
import os
import pathlib
import subprocess

import pytest

TOOL = os.environ["TARN_TOOL"]
MODELS = pathlib.Path(os.environ["TARN_TEST_MODELS"])


class Result:
    """What a run of the tool left behind."""

    def __init__(self, process):
        self.status = process.returncode
        self.out = process.stdout
        self.err = process.stderr

    def json(self):
        return json.loads(self.out)


@pytest.fixture
def tarn():
    """Runs the tool with arguments."""

    def run(*arguments, **options):
        return Result(
            subprocess.run(
                [TOOL, *map(str, arguments)],
                capture_output=True,
                text=True,
                timeout=120,
                check=False,
                **options,
            )
        )

    return run


@pytest.fixture
def models():
    return MODELS
