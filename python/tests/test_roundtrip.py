"""Values of every kind through tarvel.Writer and back through tarvel.open: scalars by store and
by store_many, buses of bits and of characters, arrays and records, deltas, sources, and the
filtered read against the whole one."""

import math

import numpy as np
import pytest

import tarvel
from conftest import STATES, write_design

# (type, values given to the writer, values the reader answers, the answer's dtype)
SCALARS = [
    (tarvel.STD_LOGIC, list("UX01ZWLH-"), list(range(9)), np.uint8),
    (tarvel.STD_LOGIC, [3, 2, True, False, "'1'"], [3, 2, 3, 2, 3], np.uint8),
    (tarvel.BIT, [0, 1, "1", False], [0, 1, 1, 0], np.uint8),
    (tarvel.BOOLEAN, [True, False, "TRUE", 0], [1, 0, 1, 0], np.uint8),
    (STATES, ["IDLE", "RUN", 3, np.int16(1)], [0, 2, 3, 1], np.uint8),
    (tarvel.LOGIC, list("01XZ"), [0, 1, 2, 3], np.uint8),
    (tarvel.enumeration("wide", [f"L{i}" for i in range(300)]), ["L299", 256, 0], [299, 256, 0], np.uint32),
    (tarvel.INTEGER, [-(2**31), -1, 0, 2**31 - 1, "42", np.int64(7)], [-(2**31), -1, 0, 2**31 - 1, 42, 7], np.int32),
    (tarvel.NATURAL, [0, 12], [0, 12], np.int32),
    (tarvel.LONGINT, [-(2**63), 2**63 - 1, 5], [-(2**63), 2**63 - 1, 5], np.int64),
    (tarvel.TIME, [5_000_000, -1], [5_000_000, -1], np.int64),
    (tarvel.REAL, [0.5, -1e300, math.inf, -0.0, 3, "2.5", math.nan], [0.5, -1e300, math.inf, -0.0, 3.0, 2.5, math.nan], np.float64),
]


def write_scalars(path, type_string, values, many):
    with tarvel.Writer(path, timed=True) as w:
        s = w.signal("s", type_string)
        if many:
            w.store_many(s, np.arange(len(values)) * 10, values)
        else:
            for i, value in enumerate(values):
                w.set_time(i * 10)
                w.store(s, value)


@pytest.mark.parametrize("many", [False, True], ids=["store", "store_many"])
@pytest.mark.parametrize("type_string,given,expected,dtype", SCALARS)
def test_scalar_values_read_back_as_written(tmp_path, type_string, given, expected, dtype, many):
    path = tmp_path / "s.twf"
    if many and any(isinstance(v, (bool, np.generic)) for v in given):
        given = np.array(given, dtype=object)  # each value converted on its own
    write_scalars(path, type_string, given, many)
    with tarvel.open(path) as f:
        s = f["s"]
        assert s.values.dtype == dtype
        np.testing.assert_array_equal(s.values, np.array(expected, dtype=dtype))
        np.testing.assert_array_equal(s.times, np.arange(len(expected)) * 10)
        assert s.times.dtype == np.int64 and s.deltas.dtype == np.uint16
        if dtype == np.float64:
            assert math.copysign(1, s.values[3]) == -1  # -0.0 kept
        assert s.sources is None


def test_text_spells_enumerations(design):
    with tarvel.open(design) as f:
        assert list(f["tb.clk"].text()[:4]) == ["1", "0", "1", "0"]
        assert list(f["tb.dut.state"].text()[:5]) == ["IDLE", "LOAD", "RUN", "DONE", "IDLE"]
        assert f["tb.dut.state"].type.literals == ("IDLE", "LOAD", "RUN", "DONE")
        with pytest.raises(TypeError):
            f["watch.count"].text()


def test_bus_of_bits_reads_as_integers_then_as_characters(tmp_path):
    path = tmp_path / "bus.twf"
    with tarvel.Writer(path) as w:
        data = w.bus("data", tarvel.std_logic_vector(7, 0))
        bits = w.bus("bits", tarvel.array("bits", (0, 3), tarvel.BIT))
        w.store(data, 0xA5)
        w.store(bits, "0110")
        w.set_time(10)
        w.store(data, ["0", "1", 0, 1, 3, 2, 3, 2])  # elements by their own values: (7) first
        w.set_time(20)
        w.store(data, "0101XXZZ")
        w.store_many(bits, [30, 40], [15, 1])
    with tarvel.open(path) as f:
        np.testing.assert_array_equal(f["bits"].values, [0b0110, 0b1111, 0b0001])
        assert f["bits"].values.dtype == np.uint8
        np.testing.assert_array_equal(f["bits"].times, [0, 30, 40])
        data = f["data"]
        np.testing.assert_array_equal(data.times, [0, 10, 20])
        assert list(data.values) == ["10100101", "01UX1010", "0101XXZZ"]
        assert data.text()[0] == "10100101"
        assert f["data(7)"].values[0] == 3 and f["data(0)"].values[0] == 3  # '1': position 0 is the left index


def test_bus_wider_than_64_bits_gives_python_integers(tmp_path):
    path = tmp_path / "wide.twf"
    value = (1 << 69) | 5
    with tarvel.Writer(path) as w:
        w.store(w.bus("wide", tarvel.array("v", (69, 0), tarvel.BIT)), value)
    assert list(tarvel.open(path)["wide"].values) == [value]


def test_arrays_and_records_of_other_scalars(tmp_path):
    path = tmp_path / "rows.twf"
    packet = tarvel.record("packet", [("addr", tarvel.INTEGER), ("valid", tarvel.BOOLEAN), ("gain", tarvel.REAL)])
    with tarvel.Writer(path) as w:
        matrix = w.bus("matrix", tarvel.array("matrix", [(0, 1), (1, 0)], tarvel.INTEGER))
        pkt = w.signal("pkt", packet)  # signal() declares a composite type as a bus too
        nested = w.bus("mem", tarvel.array("mem", (0, 1), tarvel.std_logic_vector(3, 0)))
        w.store(matrix, [1, 2, 3, -4])
        w.store(pkt, {"addr": 7, "valid": True, "gain": 0.5})
        w.store(nested, [5, "1X01"])
        w.set_time(10)
        w.store(pkt, [8, False, 1.5])
    with tarvel.open(path) as f:
        np.testing.assert_array_equal(f["matrix"].values, [[1, 2, 3, -4]])
        assert [c.name for c in f["matrix"].children] == ["(0,1)", "(0,0)", "(1,1)", "(1,0)"]
        p = f["pkt"].values
        assert p.dtype.names == ("addr", "valid", "gain")
        assert list(p["addr"]) == [7, 8] and list(p["valid"]) == [1, 0] and list(p["gain"]) == [0.5, 1.5]
        with pytest.raises(TypeError, match="read its elements"):
            f["mem"].values
        assert list(f["mem(1)"].values) == ["1X01"]


def test_deltas_and_store_many_beside_the_current_time(tmp_path):
    path = tmp_path / "deltas.twf"
    with tarvel.Writer(path, timed=True) as w:
        a = w.signal("a", tarvel.INTEGER)
        b = w.signal("b", tarvel.INTEGER)
        w.store_many(a, [0, 0, 0, 50], [1, 2, 3, 4], deltas=[0, 1, 2, 0])
        w.store_many(b, [0, 100], [7, 8])  # another signal over the same times
        with pytest.raises(ValueError, match="before its last"):
            w.store_many(b, [50], [1])
        w.set_time(100)
        w.set_delta(3)
        w.store(a, 5)
        with pytest.raises(ValueError, match="before the writer's current time"):
            w.store_many(b, [100], [1])
    with tarvel.open(path) as f:
        np.testing.assert_array_equal(f["a"].times, [0, 0, 0, 50, 100])
        np.testing.assert_array_equal(f["a"].deltas, [0, 1, 2, 0, 3])
        np.testing.assert_array_equal(f["b"].values, [7, 8])
        assert f.end_time == 100


def test_sources_come_back_with_their_file_and_line(tmp_path):
    path = tmp_path / "sources.twf"
    with tarvel.Writer(path, timed=True) as w:
        s = w.signal("s", tarvel.BIT)
        here = w.source("tb.vhd", 12)
        w.store(s, 1, source=here)
        w.set_time(5)
        w.store(s, 0)
    with tarvel.open(path) as f:
        sources = f["s"].sources
        assert list(sources) == [here, 0]
        assert f.source_location(sources[0]) == ("tb.vhd", 12)
        assert f.source_location(0) is None


def test_untimed_writer_records_its_end_time_at_each_commit(tmp_path):
    path = write_design(tmp_path / "untimed.twf", timed=False)
    with tarvel.open(path) as f:
        assert not f.timed and f.end_time == 195


def test_filtered_read_answers_as_the_whole_read(design):
    whole = tarvel.open(design)
    for names, held in [
        (["tb.dut.data"], {"tb", "tb.dut", "tb.dut.data"} | {f"tb.dut.data({i})" for i in range(8)}),
        ("tb.dut.data(3)", {"tb", "tb.dut", "tb.dut.data"} | {f"tb.dut.data({i})" for i in range(8)}),
        # Names as declared (tarvel.names): the virtual bus "watch" took count and level out of
        # tb.dut after their declaration, and they stand under it as in the whole read.
        (["tb.dut"], {"tb", "tb.dut", "tb.dut.state", "tb.dut.data", "watch", "watch.count", "watch.level"}
         | {f"tb.dut.data({i})" for i in range(8)}),
        (["tb.dut.count", "tb.clk"], {"tb", "tb.clk", "watch", "watch.count"}),
    ]:
        part = tarvel.open(design, signals=names)
        assert part.filtered and {s.full_name for s in part} == held
        for s in part:
            if s.kind in ("scalar", "bus"):
                np.testing.assert_array_equal(s.times, whole[s.full_name].times)
                np.testing.assert_array_equal(s.values, whole[s.full_name].values)
            assert s.type == whole[s.full_name].type and s.mode == whole[s.full_name].mode
        assert part.resolution == whole.resolution and part.end_time == whole.end_time


def test_filtered_read_of_handles_beyond_the_guess(tmp_path):
    """The filtered open first tries the first 65,536 handles; a signal after them is found
    through the listing."""
    path = tmp_path / "many.twf"
    with tarvel.Writer(path) as w:
        top = w.scope("top")
        declared = [w.signal(f"x{i}", tarvel.BIT, parent=top) for i in range(65_600)]
        w.store(declared[3], 1)
        w.store(declared[-1], 1)
        w.set_time(10)
        w.store(declared[-1], 0)
    assert declared[-1].handle > 65_536
    with tarvel.open(path, signals=["top.x65599"]) as f:
        assert {s.full_name for s in f} == {"top", "top.x65599"}
        assert list(f["top.x65599"].values) == [1, 0]
    with tarvel.open(path, signals=["top.x3", "top.x65599"]) as f:
        assert len(f) == 3 and list(f["top.x3"].times) == [0]
    with pytest.raises(KeyError):
        tarvel.open(path, signals=["top.x65600"])
