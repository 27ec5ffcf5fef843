"""The command line of tarn-prepare."""

import argparse
import re
import sys

import rich.console

from . import prepare, report
from .errors import PrepareError


class Parser(argparse.ArgumentParser):
    def error(self, message):
        raise PrepareError(f"{message}: see tarn-prepare --help")


def make_parser():
    parser = Parser(
        prog="tarn-prepare",
        description="Rewrites an exported streaming model into an equal one"
        " that Tarn can serve in batches, and writes its configuration.",
    )
    add = parser.add_argument
    add("model", metavar="MODEL", help="an ONNX file")
    add("-o", "--output", metavar="MODEL2", required=True, help="the new model")
    add("--config", required=True, help="the new configuration file")
    for option, value, text in (
        ("set", "INPUT=VALUE", "make an input a constant"),
        (
            "fix",
            "DIM=SIZE",
            "give a dimension one size; DIM is its name, or"
            " INPUT.AXIS if it has none",
        ),
        ("cache", "OUT:IN", "a state: the output is the input's next value"),
        ("batch-axis", "NAME=AXIS", "where the batch of an input or output is"),
        ("rename", "OLD=NEW", "call an input or output otherwise"),
        (
            "initial",
            "INPUT=VALUE",
            "what a state holds at the start of a"
            " stream: a number, nested lists, or an .npy file",
        ),
    ):
        add(
            f"--{option}", metavar=value, action="append", default=[], help=text
        )
    add(
        "--batch",
        metavar="MIN-MAX",
        default="1-8",
        help="sizes of a batch (1-8)",
    )
    add(
        "--interval",
        default="5000",
        metavar="MICROSECONDS",
        help="how long a batch waits for company (5000)",
    )
    add("--wav", metavar="FILE", help="prove with this audio too")
    add(
        "--tolerance",
        metavar="RATIO",
        help="allowed relative difference of"
        " floats (float32: 1e-4, float16: 1e-2, float64: 1e-9)",
    )
    add("--report", metavar="FILE.html", help="also write the report as a page")
    return parser


def parse_options(args):
    return prepare.Options(
        set=pairs("--set", args.set, "="),
        fix={
            name: number("--fix", size, 1)
            for name, size in pairs("--fix", args.fix, "=").items()
        },
        batch=parse_range(args.batch),
        cache=pairs("--cache", args.cache, ":"),
        batch_axis={
            name: number("--batch-axis", axis, 0)
            for name, axis in pairs(
                "--batch-axis", args.batch_axis, "="
            ).items()
        },
        rename=pairs("--rename", args.rename, "="),
        initial=pairs("--initial", args.initial, "="),
        interval=number("--interval", args.interval, 0),
        tolerance=args.tolerance and positive("--tolerance", args.tolerance),
        wav=args.wav,
    )


def pairs(option, texts, separator):
    result = {}
    for text in texts:
        name, found, value = (
            text.rpartition(separator)
            if separator == ":"
            else (text.partition(separator))
        )
        if not (name and found and value):
            raise PrepareError(
                f"{option} {text} is not understood: give"
                f" {option} <name>{separator}<value>"
            )
        result[name] = value
    return result


def number(option, text, least):
    if not re.fullmatch(r"\d{1,9}", text) or int(text) < least:
        raise PrepareError(
            f"{option} {text} is not understood: give a whole number from {least}"
        )
    return int(text)


def positive(option, text):
    try:
        value = float(text)
    except ValueError:
        value = 0
    if not 0 < value < 1:
        raise PrepareError(
            f"{option} {text} is not understood: give a number between 0 and 1"
        )
    return value


def parse_range(text):
    match = re.fullmatch(r"(\d{1,6})-(\d{1,6})", text)
    low, high = map(int, match.groups()) if match else (0, 0)
    if not 1 <= low <= high:
        raise PrepareError(f"--batch {text} is no range: give one such as 1-8")
    return low, high


def run(arguments):
    args = make_parser().parse_args(arguments)
    written = [args.output, args.config] + [args.report] * bool(args.report)
    if len(set(written)) < len(written):
        raise PrepareError("two results would be one file: give each its own")
    result = prepare.prepare(args.model, parse_options(args))
    report.show(result, rich.console.Console(highlight=False))
    if not result.passed:
        raise PrepareError(
            "the prepared model differs from the original by more than is"
            " allowed, see FAILED above: nothing was written"
        )
    files = {args.output: result.model, args.config: result.config.encode()}
    if args.report:
        files[args.report] = report.page(result).encode()
    prepare.save(files)
    print(f"wrote {', '.join(files)}")


def main(arguments=None):
    try:
        run(arguments)
    except PrepareError as error:
        print(f"tarn-prepare: {error}", file=sys.stderr)
        return 1
    return 0
