"""The documents keep up with the sources."""

import itertools
import os
import pathlib
import re
import subprocess

import pytest

ROOT = pathlib.Path(__file__).parents[2]
DOCS = sorted([*ROOT.glob("*.md"), *ROOT.glob("docs/*.md")])
NEEDS_NDK = "android.md"  # Whose code is for Android alone.
STRING = r'"(?:[^"\\]|\\.)*"'


def squeeze(text):
    return " ".join(text.split())


def in_words(expression):
    """What a stream expression says, … for what is not literal."""
    parts = re.split(rf"({STRING})|<<", expression)
    return "".join(
        part[1:-1].replace('\\"', '"') if part[0] == '"' else "…"
        for part in (part.strip() for part in parts if part)
        if part
    )


def templates():
    """The texts of grave log statements and reports, each with its place."""
    statement = re.compile(
        rf"(?:TARN_LOG(?:_AS)?|Report)\(\s*(?:FATAL|ERROR)\b"
        rf"(?:[^;\"]|{STRING})*?\)\s*(<<(?:[^;\"]|{STRING})*);"
    )
    either = re.compile(rf"\([^()\"]*\?\s*({STRING})\s*:\s*({STRING})\)")
    for path in sorted(ROOT.glob("src/*/*.[hc]*")):
        source = re.sub(r"^\s*//.*", "", path.read_text(), flags=re.M)
        for found in statement.finditer(source):
            for choice in (r"\1", r"\2"):
                text = in_words(either.sub(choice, found[1]))
                yield squeeze(re.sub("…+", "…", text)), path.name


def entries():
    text = (ROOT / "docs" / "messages.md").read_text()
    return [squeeze(e) for e in re.findall(r"^\| `([^`]+)` \|", text, re.M)]


def fits(entry, template):
    pattern = ".*".join(re.escape(part) for part in template.split("…"))
    return re.fullmatch(pattern, entry) is not None


def test_every_message_has_an_entry():
    places = dict(templates())
    assert len(places) > 80
    # An entry may say in words what a statement takes from a variable.
    worded = set(entries()) - places.keys()
    missing = {
        f"{place}: {template}"
        for template, place in places.items()
        if template not in entries()
        and not any(fits(entry, template) for entry in worded)
    }
    assert not missing


def test_every_entry_is_of_a_message():
    worded = {template for template, _ in templates() if template != "…"}
    # What statements take from variables stands in the sources as it is.
    sources = squeeze("".join(p.read_text() for p in ROOT.glob("src/*/*.cc")))
    stale = [
        entry
        for entry in entries()
        if not any(fits(entry, template) for template in worded)
        and f'"{entry.removesuffix("…")}' not in sources
    ]
    assert not stale


@pytest.mark.parametrize(
    "path",
    [path for path in DOCS if path.name != NEEDS_NDK],
    ids=lambda path: path.name,
)
def test_code_is_compiled_somewhere(path):
    compiled = [
        p.read_text()
        for pattern in ("docs/snippets/*.cc", "examples/*/*.cc")
        for p in ROOT.glob(pattern)
    ]
    blocks = re.findall(r"^```cpp\n(.*?)^```", path.read_text(), re.M | re.S)
    for block in blocks:
        assert any(block in text for text in compiled), block


@pytest.mark.parametrize("path", DOCS, ids=lambda path: path.name)
def test_links_lead_somewhere(path):
    prose = re.sub(r"^```.*?^```", "", path.read_text(), flags=re.M | re.S)
    for target in re.findall(r"\]\(([^)]+)\)", prose):
        file, _, heading = target.partition("#")
        other = path.parent / file if file else path
        assert other.exists(), target
        if heading:
            titles = re.findall(r"^#+ (.*)", other.read_text(), re.M)
            anchors = [
                re.sub(r"[^\w -]", "", t).lower().replace(" ", "-")
                for t in titles
            ]
            assert heading in anchors, target


def test_guide_lists_every_document():
    guide = ROOT / "docs" / "README.md"
    links = re.findall(r"\]\(([^)]+)\)", guide.read_text())
    documents = {path.name for path in guide.parent.glob("*.md")}
    assert set(links) == documents - {guide.name}


def test_manual_page_names_every_command():
    if "TARN_TOOL" not in os.environ:
        pytest.skip("there is no tool in this build")
    command = [os.environ["TARN_TOOL"], "--help"]
    text = subprocess.run(command, capture_output=True, text=True, check=True)
    lines = text.stdout.partition("Subcommands:")[2].splitlines()
    commands = itertools.takewhile(str.strip, lines[1:])
    page = (ROOT / "docs" / "tarn.1").read_text()
    missing = [c for c in commands if f" {c.split()[0]}" not in page]
    assert not missing
