"""Fixtures of the Python module's tests: files written by tarvel.Writer, the demo file of the
`tarvel` tool, and the helper that prints the reader facade's event pass. CTest runs the suite
with the build tree's module on PYTHONPATH (python/tests/CMakeLists.txt)."""

import os
import subprocess

import pytest

import tarvel

STATES = tarvel.enumeration("state", ["IDLE", "LOAD", "RUN", "DONE"])


def tool(*args):
    """Runs the `tarvel` tool of the build tree."""
    return subprocess.run([os.environ["TARVEL_TOOL"], *args], check=True, capture_output=True, text=True).stdout


@pytest.fixture(scope="session")
def demo_file(tmp_path_factory):
    """The tool's demo design (a counter bus, a state machine, sources, properties)."""
    path = tmp_path_factory.mktemp("demo") / "demo.twf"
    tool("demo", "--cycles", "3000", "--lines", "0", "-o", str(path))
    return path


def write_design(path, timed=True):
    """A small design: a scope with a clock, a device scope holding an 8-bit bus, an integer, a
    real and a state machine, a virtual bus, properties; two commits."""
    with tarvel.Writer(path, timed=timed) as w:
        w.property("Project", "pytest")
        tb = w.scope("tb")
        clk = w.signal("clk", tarvel.STD_LOGIC, parent=tb, mode="in")
        dut = w.scope("dut", parent=tb)
        data = w.bus("data", tarvel.std_logic_vector(7, 0), parent=dut, mode=tarvel.Mode.OUT)
        count = w.signal("count", tarvel.INTEGER, parent=dut, mode="out")
        level = w.signal("level", tarvel.REAL, parent=dut)
        state = w.signal("state", STATES, parent=dut, mode="variable")
        w.virtual_bus("watch", [count, level])
        w.property("Comment", "the counter", signal=count)
        for cycle in range(20):
            w.set_time(cycle * 10)
            w.store(clk, "1")
            w.store(data, cycle * 7 % 256)
            w.store(count, cycle - 5)
            w.set_delta(1)
            w.store(state, cycle % 4)
            w.set_time(cycle * 10 + 5)
            w.store(clk, "0")
            if cycle % 3 == 0:
                w.store(level, cycle / 4)
            if cycle == 10:
                w.commit()
    return path


@pytest.fixture
def design(tmp_path):
    return write_design(tmp_path / "design.twf")
