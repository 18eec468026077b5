"""Type strings for Writer declarations: the common VHDL and Verilog types, and builders for
enumerations, arrays and records (grammar in docs/typeinfo.md). Python layer of the bindings;
pure functions.

Every builder returns the type string; ``tarvel.Type(string)`` reads one back.
"""

STD_LOGIC = "e#9#std_logicc9 UX01ZWLH-"  #: codes 0-8 for U X 0 1 Z W L H -
BIT = "e#3#bitc2 01"
BOOLEAN = "e#7#booleann2#5#FALSE#4#TRUE"
INTEGER = "i#7#integer"
NATURAL = "i#7#natural[0t2147483647]"
REAL = "f#4#real"
TIME = "p#4#time#2#fs"  #: a signed count of femtoseconds
LOGIC = "e#5#logicc4 01XZ"  #: Verilog's four-state bit: codes 0-3 for 0 1 X Z
LONGINT = "l#7#longint"


def _name(text):
    return f"#{len(text.encode())}#{text}"


def _is_character(literal):
    return len(literal) == 3 and literal[0] == literal[2] == "'"


def enumeration(name, literals):
    """An enumeration of ``literals`` in code order: identifiers ("IDLE") or character literals
    written between single quotes ("'0'"). ``enumeration("state", ["IDLE", "RUN"])``."""
    literals = list(literals)
    if not literals:
        raise ValueError("an enumeration needs at least one literal")
    text = "e" + _name(name)
    group = []  # a run of literals of one sort: character (True) or identifier (False)
    for literal in literals + [None]:
        if group and (literal is None or _is_character(literal) != _is_character(group[0])):
            if _is_character(group[0]):
                text += f"c{len(group)} " + "".join(g[1] for g in group)
            else:
                text += f"n{len(group)}" + "".join(_name(g) for g in group)
            group = []
        if literal is not None:
            group.append(literal)
    return text


def _range(bounds):
    left, right = bounds
    return f"[{left}{'d' if left > right else 't'}{right}]"


def array(name, ranges, element):
    """An array of ``element`` (a type string) over one range ``(left, right)`` or a list of them
    (one per dimension); ``left > right`` makes a downto range. ``array("word", (7, 0), BIT)``."""
    if isinstance(ranges, tuple) and len(ranges) == 2 and all(isinstance(b, int) for b in ranges):
        ranges = [ranges]
    return "a" + _name(name) + "".join(_range(r) for r in ranges) + element


def record(name, fields):
    """A record of ``fields``: (name, type string) pairs in order, or a dict."""
    fields = list(fields.items()) if isinstance(fields, dict) else list(fields)
    return "r" + _name(name) + str(len(fields)) + "".join(_name(f) + t for f, t in fields)


def integer(name="integer", low=None, high=None):
    """A 32-bit integer type, with a range when both bounds are given."""
    return "i" + _name(name) + (f"[{low}t{high}]" if low is not None and high is not None else "")


def std_logic_vector(left, right):
    """``std_logic_vector(left downto right)`` (or ``to`` when left < right)."""
    return array("std_logic_vector", (left, right), STD_LOGIC)


def logic_vector(left, right):
    """Verilog's ``logic [left:right]`` of four-state bits."""
    return array("logic", (left, right), LOGIC)
