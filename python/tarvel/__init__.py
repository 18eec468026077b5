"""tarvel: waveform files of HDL simulators, in Python.

    import tarvel
    with tarvel.open("run.twf") as f:                # or tarvel.open(path, signals=["tb.dut.count"])
        count = f["tb.dut.count"]
        count.times, count.values                      # numpy arrays
    with tarvel.Writer("out.twf", timed=True) as w:    # commits when the block ends cleanly
        clk = w.signal("clk", tarvel.STD_LOGIC)
        w.set_time(5000); w.store(clk, "1")

docs/python.md is the guide. The package is the Python face of the C++ library tarvel; the
extension tarvel._tarvel does the reading and writing.
"""

from ._tarvel import Declared, Type, Writer
from .errors import Error
from .reading import File, Mode, Signal, names, open
from .types import (
    BIT,
    BOOLEAN,
    INTEGER,
    LOGIC,
    LONGINT,
    NATURAL,
    REAL,
    STD_LOGIC,
    TIME,
    array,
    enumeration,
    integer,
    logic_vector,
    record,
    std_logic_vector,
)

__version__ = "0.1.0"

__all__ = [
    "open", "names", "File", "Signal", "Mode", "Writer", "Declared", "Type", "Error",
    "STD_LOGIC", "BIT", "BOOLEAN", "INTEGER", "NATURAL", "REAL", "TIME", "LOGIC", "LONGINT",
    "enumeration", "array", "record", "integer", "std_logic_vector", "logic_vector",
]
