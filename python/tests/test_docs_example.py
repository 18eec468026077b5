"""The examples of docs/python.md, run as the reader would run them: the drawing of the demo
file's bus and state machine (needs matplotlib) and the writing example, read back."""

import os
import re
from pathlib import Path

import numpy as np
import pytest

import tarvel
from conftest import tool


def example(marker):
    """The Python block after the line '<!-- example: MARKER -->' of docs/python.md."""
    text = (Path(os.environ["TARVEL_SOURCE_DIR"]) / "docs" / "python.md").read_text()
    found = re.search(r"<!-- example: " + re.escape(marker) + r" -->\n```python\n(.*?)```", text, re.S)
    assert found, f"docs/python.md has no example '{marker}'"
    return found.group(1)


def test_the_demo_drawing(tmp_path, monkeypatch):
    pytest.importorskip("matplotlib")
    monkeypatch.chdir(tmp_path)
    (tmp_path / "build").mkdir()
    tool("demo", "--cycles", "2000", "--lines", "0", "-o", "build/demo.twf")
    exec(compile(example("demo plot"), "docs/python.md", "exec"), {})
    assert (tmp_path / "demo.png").read_bytes()[:8] == b"\x89PNG\r\n\x1a\n"


def test_the_writing_example(tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)
    exec(compile(example("writing"), "docs/python.md", "exec"), {})
    with tarvel.open("out.twf") as f:
        assert f.properties["Project"] == "demo" and f.end_time == 999_000
        assert list(f["tb.state"].text()[:3]) == ["IDLE", "RUN", "IDLE"]
        np.testing.assert_array_equal(f["tb.data"].values, np.arange(100) % 256)
        np.testing.assert_allclose(f["tb.level"].values, np.sin(np.arange(1000) / 50), rtol=1e-5, atol=1e-6)  # %g
        assert f["tb.clk"].mode == tarvel.Mode.IN


def test_the_five_lines_of_the_readme(tmp_path, monkeypatch):
    text = (Path(os.environ["TARVEL_SOURCE_DIR"]) / "README.md").read_text()
    section = text.split("## Using it from Python", 1)[1]
    lines = re.search(r"\n\n((?:    .*\n)+)", section).group(1).splitlines()
    assert len(lines) == 5
    monkeypatch.chdir(tmp_path)
    (tmp_path / "build").mkdir()
    tool("demo", "--cycles", "300", "--lines", "0", "-o", "build/demo.twf")
    exec(compile("\n".join(line[4:] for line in lines), "README.md", "exec"), {})
    assert list(tarvel.open("out.twf")["clk"].text()) == ["1"]
