"""tarvel.Type and the type builders; the Writer's declarations (handles, elements, names, modes,
virtual buses), its refusals, and store_many of buses."""

import numpy as np
import pytest

import tarvel
from conftest import STATES


def test_types_describe_themselves_and_answer_their_parts():
    assert str(tarvel.Type(tarvel.STD_LOGIC)) == "std_logic"
    assert tarvel.Type(tarvel.STD_LOGIC).literals == tuple("UX01ZWLH-")
    vector = tarvel.Type(tarvel.std_logic_vector(0, 3))
    assert str(vector) == "std_logic_vector(0 to 3) of std_logic" and vector.size > 0
    assert vector.child_names == ["(0)", "(1)", "(2)", "(3)"] and vector.element_type == tarvel.Type(tarvel.STD_LOGIC)
    matrix = tarvel.Type(tarvel.array("m", [(1, 0), (0, 2)], tarvel.BIT))
    assert matrix.ranges == [(1, 0, "downto"), (0, 2, "to")] and matrix.child_names[:2] == ["(1,0)", "(1,1)"]
    packet = tarvel.Type(tarvel.record("packet", {"addr": tarvel.INTEGER, "data": tarvel.std_logic_vector(7, 0)}))
    assert str(packet) == "packet: record (addr: integer; data: std_logic_vector)"
    assert [name for name, _ in packet.fields] == ["addr", "data"] and packet.fields[1][1].kind == "array"
    many = tarvel.Type(tarvel.enumeration("op", [f"OP{i}" for i in range(20)]))
    assert str(many).endswith(", ... 8 more)") and many.literals[19] == "OP19"
    mixed = tarvel.Type(tarvel.enumeration("mixed", ["'a'", "'b'", "NONE", "'c'"]))
    assert mixed.literals == ("a", "b", "NONE", "c") and str(mixed) == "mixed ('a', 'b', NONE, 'c')"
    assert tarvel.Type(tarvel.integer("small", -8, 7)).kind == "integer"
    assert {tarvel.Type(tarvel.REAL), tarvel.Type("f#4#real")} == {tarvel.Type(tarvel.REAL)}
    assert tarvel.Type(tarvel.TIME).kind == "physical" and tarvel.Type(tarvel.LONGINT).is_scalar
    assert tarvel.Type(tarvel.LOGIC).fields is None and tarvel.Type(tarvel.LOGIC).literals == tuple("01XZ")
    with pytest.raises(ValueError):
        tarvel.Type("x#1#nothing")
    with pytest.raises(ValueError):
        tarvel.enumeration("empty", [])


def test_declarations_take_handles_in_order_with_elements_after_their_bus(tmp_path):
    with tarvel.Writer(tmp_path / "d.twf") as w:
        tb = w.scope("tb")
        pkt = w.signal("pkt", tarvel.record("p", [("addr", tarvel.INTEGER), ("data", tarvel.std_logic_vector(1, 0))]),
                       parent=tb, mode="OUT")
        clk = w.signal("clk", tarvel.BIT, parent=tb, mode=1)
        level = w.signal("level", tarvel.REAL, parent=tb)
        assert [tb.handle, pkt.handle, clk.handle, level.handle] == [0, 1, 6, 7]
        assert [e.full_name for e in pkt.elements] == ["tb.pkt.addr", "tb.pkt.data"]
        assert [e.full_name for e in pkt.elements[1].elements] == ["tb.pkt.data(1)", "tb.pkt.data(0)"]
        assert pkt.kind == "bus" and pkt.elements[1].parent.handle == pkt.handle and w["tb.clk"].handle == 6
        group = w.virtual_bus("group", [clk, "tb.level"])
        assert group.kind == "virtual bus" and [m.handle for m in group.elements] == [6, 7]
        w.store(pkt, {"addr": 5, "data": 2})
        w.store(pkt.elements[1], "1X")  # an element bus on its own
        with pytest.raises(KeyError):
            w["tb.none"]
        with pytest.raises(ValueError, match="port mode"):
            w.signal("bad", tarvel.BIT, mode="sideways")
        with pytest.raises(ValueError, match="no scope"):
            w.signal("inside", tarvel.BIT, parent=clk)
        with pytest.raises(ValueError, match="no array or record"):
            w.bus("b", tarvel.BIT)
        with pytest.raises(ValueError, match="VBus"):
            w.property("VBus", "1", signal=clk)
        with pytest.raises(ValueError, match="a scope"):
            w.virtual_bus("g2", [tb])
        with pytest.raises(TypeError, match="takes no values"):
            w.store(group, 1)
        with tarvel.Writer(tmp_path / "other.twf") as other:
            with pytest.raises(ValueError, match="another writer"):
                other.store(clk, 1)
    assert w.closed
    with pytest.raises(ValueError, match="closed"):
        w.store(clk, 1)
    with tarvel.open(tmp_path / "d.twf") as f:
        assert list(f["tb.pkt.addr"].values) == [5]
        assert list(f["tb.pkt.data"].values) == ["1X"]  # both stores at one (time, delta): one value
        assert f["group.clk"].mode == tarvel.Mode.IN and [s.name for s in f["tb"].children] == ["pkt"]
        with pytest.raises(TypeError, match="read its elements"):
            f["tb.pkt"].values  # a record with an array field


def test_a_refused_call_stops_the_writer_for_good(tmp_path):
    w = tarvel.Writer(tmp_path / "s.twf", timed=True)
    s = w.signal("s", tarvel.INTEGER)
    w.store(s, 1)
    w.commit()
    w.set_time(20)
    with pytest.raises(tarvel.Error, match="back in time") as first:
        w.set_time(10)
    assert first.value.path == str(tmp_path / "s.twf") in str(first.value) and first.value.line == 0
    with pytest.raises(tarvel.Error, match="has stopped"):
        w.store(s, 2)
    w.close()
    assert list(tarvel.open(tmp_path / "s.twf")["s"].values) == [1]


def test_store_many_of_buses_from_arrays_lists_and_strings(tmp_path):
    path = tmp_path / "many.twf"
    with tarvel.Writer(path) as w:
        byte = w.bus("byte", tarvel.std_logic_vector(7, 0))
        pair = w.bus("pair", tarvel.array("pair", (0, 1), tarvel.INTEGER))
        state = w.signal("state", STATES)
        w.store_many(byte, np.array([10, 20, 30]), np.array([0xFF, 0x0F, 0x00], dtype=np.uint8))
        w.store_many(pair, [10, 20], np.array([[1, -1], [2, -2]]))
        w.store_many(state, [5, 6, 7], ["RUN", 0, "DONE"])  # a list of literals and codes
        with pytest.raises(ValueError, match="does not fit 8 bits"):
            w.store_many(byte, [40], np.array([256]))
        with pytest.raises(ValueError, match="one value per time"):
            w.store_many(pair, [40], np.array([[1, 2], [3, 4]]))
        w.store_many(byte, [40, 50], ["0101XXXX", 3])
    with tarvel.open(path) as f:
        assert list(f["byte"].values) == ["11111111", "00001111", "00000000", "0101XXXX", "00000011"]
        np.testing.assert_array_equal(f["pair"].values, [[1, -1], [2, -2]])
        assert list(f["state"].text()) == ["RUN", "IDLE", "DONE"]
        np.testing.assert_array_equal(f["byte"].times, [10, 20, 30, 40, 50])
