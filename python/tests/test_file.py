"""A file as tarvel.open shows it: the tree, types, modes and properties of a writer-made file;
the merged pass against the C++ reader facade's; following a growing file; bad input as Python
exceptions."""

import os
import struct
import subprocess
import sys
import threading

import numpy as np
import pytest

import tarvel
from conftest import STATES, write_design


def test_tree_types_modes_and_properties(design):
    with tarvel.open(design) as f:
        assert f.resolution == 1000 and f.timed and f.end_time == 195 and f.complete
        assert f.properties["Project"] == "pytest"
        assert [s.full_name for s in f.top] == ["tb", "watch"]
        tb = f["tb"]
        assert tb.kind == "scope" and tb.type is None and tb.parent is None
        assert [c.name for c in tb.children] == ["clk", "dut"]
        dut = f["tb.dut"]
        # count and level moved into the virtual bus when it took them as members.
        assert [c.full_name for c in dut.children] == ["tb.dut.data", "tb.dut.state"]
        assert [c.full_name for c in f["watch"].children] == ["watch.count", "watch.level"]
        assert f["watch"].kind == "virtual bus" and f["watch"].mode == tarvel.Mode.VIRTUAL_BUS

        clk = f["tb.clk"]
        assert clk.mode == tarvel.Mode.IN and str(clk.type) == "std_logic" and clk.type_string == tarvel.STD_LOGIC
        data = f["tb.dut.data"]
        assert data.kind == "bus" and data.mode == tarvel.Mode.OUT
        assert str(data.type) == "std_logic_vector(7 downto 0) of std_logic"
        assert data.type.ranges == [(7, 0, "downto")] and data.type.kind == "array"
        assert [c.name for c in data.children] == [f"({i})" for i in range(7, -1, -1)]
        assert all(c.mode == tarvel.Mode.OUT and c.type_string == tarvel.STD_LOGIC for c in data.children)
        assert f["tb.dut.data(0)"].parent == data
        state = f["tb.dut.state"]
        assert state.mode == tarvel.Mode.VARIABLE and state.type.string == STATES
        assert str(state.type) == "state (IDLE, LOAD, RUN, DONE)"
        count = f["watch.count"]
        assert count.properties == {"Comment": "the counter"} and str(count.type) == "integer"
        assert f["watch.level"].type.kind == "real"
        assert "tb.dut.count" not in f and f.get("nope") is None
        assert tarvel.names(design) == ["tb", "tb.clk", "tb.dut", "tb.dut.data", "tb.dut.count", "tb.dut.level", "tb.dut.state", "watch"]


def test_events_of_both_commits_and_the_state_after_deltas(design):
    with tarvel.open(design) as f:
        state = f["tb.dut.state"]
        np.testing.assert_array_equal(state.times, np.arange(20) * 10)
        np.testing.assert_array_equal(state.deltas, np.ones(20))
        np.testing.assert_array_equal(state.values, np.arange(20) % 4)
        np.testing.assert_array_equal(f["watch.count"].values, np.arange(20) - 5)
        np.testing.assert_array_equal(f["watch.level"].times, [5, 35, 65, 95, 125, 155, 185])
        np.testing.assert_array_equal(f["tb.dut.data"].values, np.arange(20) * 7 % 256)
        assert not f["tb.clk"].values.flags.writeable  # the arrays are kept: read-only


def raw_of(value, type_):
    """The value as the C++ pass prints it: its bytes little-endian as a number."""
    if isinstance(value, float):
        return struct.unpack("<Q", struct.pack("<d", value))[0]
    return value & ((1 << (8 * type_.size)) - 1)


@pytest.mark.parametrize("which", ["demo", "design"])
def test_events_come_in_the_order_of_the_reader_facade(which, demo_file, design):
    path = demo_file if which == "demo" else design
    printed = subprocess.run([os.environ["TARVEL_EVENT_ORDER"], str(path)], check=True, capture_output=True, text=True).stdout
    expected = [tuple(int(x, 16) if i == 3 else int(x) for i, x in enumerate(line.split())) for line in printed.splitlines()]
    with tarvel.open(path) as f:
        place = {s: i for i, s in enumerate(f.signals)}  # the facade's handles: declaration order
        got = [(place[s], t, d, raw_of(v, s.type)) for t, d, s, v in f.events()]
    assert len(got) == len(expected) > 100
    assert got == expected


def test_events_of_chosen_signals_and_of_a_filtered_file(design):
    with tarvel.open(design) as f:
        every = list(f.events())
        chosen = list(f.events(["tb.dut.data", "watch.count"]))
        names = {s.full_name for _, _, s, _ in chosen}
        assert names == {"watch.count"} | {f"tb.dut.data({i})" for i in range(8)}
        assert chosen == [e for e in every if e[2].full_name in names]
    with tarvel.open(design, signals=["tb.dut.data"]) as part:
        assert [(t, d, s.full_name, v) for t, d, s, v in part.events()] == [
            (t, d, s.full_name, v) for t, d, s, v in every if s.full_name.startswith("tb.dut.data(")
        ]


GROWER = """
import sys, time
sys.path[:0] = sys.argv[2:]
import tarvel
with tarvel.Writer(sys.argv[1], timed=True) as w:
    n = w.signal("n", tarvel.INTEGER)
    for step in range(4):
        for i in range(5):
            w.set_time(step * 100 + i * 10)
            w.store(n, step * 5 + i)
        w.commit()
        time.sleep(0.3)
    late = w.signal("late", tarvel.BIT)
    w.set_time(1000)
    w.store(late, 1)
"""


def test_follow_reads_each_commit_of_a_growing_file(tmp_path):
    path = tmp_path / "grow.twf"
    writer = subprocess.Popen([sys.executable, "-c", GROWER, str(path), *sys.path])
    try:
        for _ in range(200):  # until the first commit is there
            if path.exists() and path.stat().st_size > 0:
                try:
                    f = tarvel.open(path)
                    break
                except tarvel.Error:
                    pass
            threading.Event().wait(0.05)
        events = [(t, s.full_name, v) for t, _, s, v in f.follow(interval=0.05, timeout=30)]
    finally:
        assert writer.wait(timeout=60) == 0
    assert events == [(s * 100 + i * 10, "n", s * 5 + i) for s in range(4) for i in range(5)] + [(1000, "late", 1)]
    assert f.complete and f.end_time == 1000
    np.testing.assert_array_equal(f["n"].values, np.arange(20))


def test_a_file_being_written_reads_as_of_its_last_commit(tmp_path):
    path = tmp_path / "open.twf"
    w = tarvel.Writer(path, timed=True)
    n = w.signal("n", tarvel.INTEGER)
    w.store(n, 1)
    w.commit()
    w.set_time(50)
    w.store(n, 2)
    w.flush()
    f = tarvel.open(path)
    assert list(f["n"].values) == [1] and not f.complete
    w.commit()
    assert f.update() and list(f["n"].values) == [1, 2]
    w.close()
    assert f.complete


def test_bad_input_raises_python_exceptions(tmp_path, design):
    with pytest.raises(FileNotFoundError):
        tarvel.open(tmp_path / "missing.twf")
    damaged = tmp_path / "damaged.twf"
    text = design.read_bytes()
    damaged.write_bytes(text[: len(text) // 2] + b"\n$garbage here\n" + text[len(text) // 2 :])
    with pytest.raises(tarvel.Error) as caught:
        tarvel.open(damaged)
    assert caught.value.path == str(damaged) and caught.value.line > 0 and caught.value.reason
    assert str(damaged) in str(caught.value)
    empty = tmp_path / "empty.twf"
    empty.write_bytes(b"")
    with pytest.raises(tarvel.Error):
        tarvel.open(empty)
    with pytest.raises(tarvel.Error):
        tarvel.open(damaged, signals=["tb.clk"])
    with pytest.raises(KeyError):
        tarvel.open(design, signals=["tb.nothing"])
    f = tarvel.open(design)
    with pytest.raises(KeyError):
        f["tb.nothing"]
    f.close()
    with pytest.raises(ValueError, match="closed"):
        f["tb.clk"].values

    with tarvel.Writer(tmp_path / "w.twf") as w:
        s = w.signal("s", tarvel.INTEGER)
        level = w.signal("level", tarvel.REAL)
        bits = w.bus("bits", tarvel.std_logic_vector(3, 0))
        top = w.scope("top")
        state = w.signal("state", STATES)
        for signal, value, error in [
            (s, "many", ValueError), (s, 1.5, TypeError), (s, 2**40, ValueError), (s, None, TypeError),
            (level, "x", ValueError), (level, [1.0], TypeError), (state, "STOP", ValueError), (state, 9, ValueError),
            (bits, 16, ValueError), (bits, "01", ValueError), (bits, 1.0, TypeError), (top, 1, TypeError),
        ]:
            with pytest.raises(error):
                w.store(signal, value)
        with pytest.raises(ValueError):
            w.signal("t", "not a type")
        with pytest.raises(TypeError):
            w.store_many(s, [0.5], [1])
        with pytest.raises(ValueError, match="one value per time"):
            w.store_many(s, [0, 1], [1])
        w.set_time(10)
        w.store(s, 1)
    with pytest.raises(tarvel.Error):
        tarvel.Writer(tmp_path / "no" / "such" / "dir.twf")
    assert list(tarvel.open(tmp_path / "w.twf")["s"].values) == [1]  # the refusals wrote nothing


def test_an_exception_in_the_with_block_leaves_the_last_commit(tmp_path):
    path = tmp_path / "abort.twf"
    with pytest.raises(RuntimeError):
        with tarvel.Writer(path, timed=True) as w:
            n = w.signal("n", tarvel.INTEGER)
            w.store(n, 1)
            w.commit()
            w.set_time(10)
            w.store(n, 2)
            raise RuntimeError("the test bench failed")
    with tarvel.open(path) as f:
        assert list(f["n"].values) == [1] and f.end_time == 0


def test_threads_share_a_file_while_long_reads_release_the_gil(tmp_path):
    path = tmp_path / "big.twf"
    with tarvel.Writer(path, timed=True) as w:
        signals = [w.signal(f"s{i}", tarvel.INTEGER) for i in range(8)]
        times = np.arange(200_000, dtype=np.int64)
        for i, s in enumerate(signals):
            w.store_many(s, times, (times * (i + 1)) % 1000)
    f = tarvel.open(path)
    results = {}

    def read(i):
        results[i] = int(f[f"s{i}"].values.astype(np.int64).sum())

    threads = [threading.Thread(target=read, args=(i,)) for i in range(8)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    assert results == {i: int(((times * (i + 1)) % 1000).sum()) for i in range(8)}
    write_design(tmp_path / "again.twf")  # the module is still usable
