"""Reading waveform files: ``tarvel.open`` and its File and Signal objects. Python layer of the
bindings, over ``tarvel._tarvel.Reader``.

Threads: a File may be shared by threads; each call holds the file's lock, and long reads
release the GIL. A signal's arrays are read once and then kept (read-only) until
``File.update`` reads on.
"""

import builtins
import enum
import errno
import os
import time as _time

import numpy as np

from . import _tarvel


class Mode(enum.IntEnum):
    """A signal's port mode, as the writer declared it (an element shows its bus's)."""

    VIRTUAL_BUS = -1
    NONE = 0
    IN = 1
    OUT = 2
    INOUT = 3
    BUFFER = 4
    LINKAGE = 5
    SIGNAL = 6
    VARIABLE = 7


def open(path, signals=None):  # noqa: A001 - the package's entry point, as io.open is
    """Opens the waveform file ``path`` as it stands at its last commit.

    ``signals``: None reads the whole file; a full name or a list of them ("tb.dut.count")
    reads only those signals, everything below them and the scopes above them (the filtered
    reader: a scan of the file plus the events of those signals). A name of an element or field
    ("tb.dut.data(7)") brings its whole bus.

    Raises FileNotFoundError for a missing file, tarvel.Error for a file that does not read (with
    the place and the reason), KeyError for a name the file does not declare.
    """
    path = os.fspath(path)
    if not os.path.exists(path):
        raise FileNotFoundError(errno.ENOENT, os.strerror(errno.ENOENT), path)
    names = None if signals is None else [signals] if isinstance(signals, str) else [str(s) for s in signals]
    file = File(_tarvel.open_reader(path, names))
    # A name the listing did not know may still be one of the file as it stands now (an element).
    missing = [n for n in file._reader.unmatched if n not in file and not any(_below(s, n) for s in file._by_name)]
    if missing:
        file.close()
        raise KeyError(f"no signal {missing[0]} in {path} (tarvel.names lists what signals= takes)")
    return file


def _below(full_name, above):
    """True when ``full_name`` names a signal below ``above`` ("tb.dut.clk", "tb.dut.data(7)")."""
    return full_name[len(above):len(above) + 1] in (".", "(") and full_name.startswith(above)


def names(path):
    """The full names of every signal and bus that ``path`` declares (elements of buses aside),
    as declared (before a virtual bus took a member), ordered by handle, without reading its
    events (a scan of the file). These are the names ``open(path, signals=...)`` takes."""
    path = os.fspath(path)
    if not os.path.exists(path):
        raise FileNotFoundError(errno.ENOENT, os.strerror(errno.ENOENT), path)
    return [name for _, name in _tarvel.list_declarations(path)]


def _ends_with_terminator(path):
    """True when the file's last line is its terminator: a writer committed it last (and has
    not written since)."""
    try:
        with builtins.open(path, "rb") as f:
            f.seek(max(0, os.fstat(f.fileno()).st_size - 16))
            return f.read().rstrip(b"\r\n").endswith(b"$ENDWAVE")
    except OSError:
        return False


class File:
    """A waveform file read up to its last commit (see ``tarvel.open``). A context manager:
    leaving the ``with`` block frees its memory (``close``)."""

    def __init__(self, reader):
        self._reader = reader
        self._arrays = {}  # signal index -> its arrays, until update
        self._build()

    def _build(self):
        self._table = self._reader.table()
        known = getattr(self, "_signals", [])
        self._signals = known + [Signal(self, i) for i in range(len(known), len(self._table))]
        self._by_name = {}
        for row, signal in zip(self._table, self._signals):
            self._by_name.setdefault(row[4], signal)
        self._properties = self._reader.file_properties()
        self._arrays = {}

    # ---- The file ----

    @property
    def path(self):
        return self._reader.path

    @property
    def resolution(self):
        """The time unit in femtoseconds: 1000 means times count picoseconds."""
        return self._reader.resolution

    @property
    def end_time(self):
        """The end time the file records (a timed writer's last commit), in time units."""
        return self._reader.end_time

    @property
    def timed(self):
        """True for a file of a timed writer."""
        return self._reader.timed

    @property
    def filtered(self):
        """True when opened with ``signals=``: it holds those signals only."""
        return self._reader.filtered

    @property
    def complete(self):
        """True when the file is finished: it ends with its terminator and no process holds it
        open for writing. False while a writer holds it (``follow`` and ``update`` read on), or
        when its writer ended after resuming without committing again (it reads as of its last
        commit). Where Linux does not tell about writers, the terminator alone decides."""
        return _ends_with_terminator(self.path) and _tarvel.writers_of(self.path) != "some"

    @property
    def properties(self):
        """The file's own properties ("Project", "TopLevel", ...), name -> value."""
        return dict(self._properties)

    def source_location(self, source):
        """(file name, line) of a source number of ``Signal.sources``; None for 0 and unknown ones."""
        return self._reader.source_location(int(source))

    # ---- The signal tree ----

    @property
    def top(self):
        """The signals without a parent, in declaration order."""
        return [s for s, row in zip(self._signals, self._table) if row[1] < 0]

    @property
    def signals(self):
        """Every signal in declaration order: scopes, buses, their elements, virtual buses."""
        return list(self._signals)

    def __iter__(self):
        return iter(list(self._signals))

    def __len__(self):
        return len(self._signals)

    def __getitem__(self, full_name):
        """The signal with this full name ("tb.dut.data(7)"); KeyError when there is none."""
        try:
            return self._by_name[full_name]
        except KeyError:
            raise KeyError(f"no signal {full_name} in {self.path}") from None

    def __contains__(self, full_name):
        return full_name in self._by_name

    def get(self, full_name, default=None):
        return self._by_name.get(full_name, default)

    # ---- Events ----

    def events(self, signals=None):
        """Iterates over the events of every signal (or of ``signals``, full names or Signals,
        and what is below them) merged in time order, as ``(time, delta, signal, value)``:
        ascending (time, delta), and at one (time, delta) in the order of the reader facades'
        pass (CreateStreamRead2). ``value`` is a number as in ``Signal.values`` (a code for
        enumerations). Reading on (``update``) ends the iteration with RuntimeError."""
        chosen = self._chosen(signals)
        return self._reader.events(chosen, [0] * len(chosen), [0] * len(chosen), [self._signals[i] for i in chosen])

    def follow(self, interval=0.2, timeout=None, signals=None):
        """Yields the events as ``events`` does, then, while a writer commits more, the events
        each commit adds (reading on every ``interval`` seconds), until the writer has closed the
        file, or ``timeout`` seconds pass without new events. Signals declared later below a
        chosen one join."""
        shown, last = {}, {}  # per signal index: events given, and the time of the last one
        idle_since = _time.monotonic()
        while True:
            new = False
            for event in self._new_events(signals, shown, last):
                new = True
                yield event
            if new:
                idle_since = _time.monotonic()
            elif timeout is not None and _time.monotonic() - idle_since >= timeout:
                return
            _time.sleep(interval)
            writers = _tarvel.writers_of(self.path)  # before reading on: all it wrote is in the file then
            self.update()
            if writers == "none":
                yield from self._new_events(signals, shown, last)
                return

    def update(self):
        """Reads on from the last commit: signals, properties and events that the writer has
        committed since. Answers True when the file grew. Arrays read before stay as they were;
        a signal's properties read from now on show the new state."""
        before = (len(self._table), sum(self._reader.counts()[0]), self._reader.end_time)
        self._reader.update()
        self._build()
        return before != (len(self._table), sum(self._reader.counts()[0]), self._reader.end_time)

    def close(self):
        """Frees the file's memory; later use raises ValueError. Arrays read before stay."""
        self._reader.close()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()
        return False

    def __repr__(self):
        state = "closed" if self._reader.closed else f"{len(self._signals)} signals"
        return f"<tarvel.File {self.path!r}, {state}>"

    # ---- For Signal ----

    def _chosen(self, signals):
        """Indexes of the scalar signals chosen (all when None), in declaration order."""
        if signals is None:
            wanted = range(len(self._signals))
        else:
            wanted = set()
            for s in [signals] if isinstance(signals, (str, Signal)) else signals:
                pending = [self[s] if isinstance(s, str) else s]
                while pending:
                    signal = pending.pop()
                    wanted.add(signal._index)
                    pending.extend(signal.children)
        return [i for i in sorted(wanted) if self._table[i][5] == "scalar"]

    def _new_events(self, signals, shown, last):
        counts, last_times = self._reader.counts()
        chosen = [i for i in self._chosen(signals) if counts[i] > shown.get(i, 0)]
        yield from self._reader.events(
            chosen, [shown.get(i, 0) for i in chosen], [last.get(i, 0) for i in chosen], [self._signals[i] for i in chosen]
        )
        for i in chosen:
            shown[i], last[i] = counts[i], last_times[i]

    def _arrays_of(self, index):
        arrays = self._arrays.get(index)
        if arrays is None:
            arrays = _assemble(self._reader.decode(index))
            for array in arrays.values():
                if isinstance(array, np.ndarray):
                    array.flags.writeable = False
            self._arrays[index] = arrays
        return arrays


def _unsigned_for(width):
    return np.uint8 if width <= 8 else np.uint16 if width <= 16 else np.uint32 if width <= 32 else np.uint64


def _assemble(decoded):
    """The arrays of a signal from what Reader.decode answers."""
    form, times, deltas = decoded[:3]
    if form == "scalar":
        return {"times": times, "deltas": deltas, "values": decoded[3], "sources": decoded[4]}
    if form == "characters":
        characters, bits, binary = decoded[3:]
        count, width = characters.shape
        text = characters.view(f"S{width}").reshape(count).astype(f"U{width}") if width else np.full(count, "")
        if not binary:
            values = text
        elif bits is not None:
            values = bits.astype(_unsigned_for(width))
        else:  # more than 64 elements: Python integers
            values = np.array([int(t, 2) for t in text], dtype=object)
        return {"times": times, "deltas": deltas, "values": values, "sources": None, "text": text}
    rows, layout, is_array = decoded[3:]
    count = rows.shape[0]
    if is_array and layout["names"]:
        values = rows.view(layout["formats"][0])
    else:
        values = rows.view(np.dtype(layout)).reshape(count)
    return {"times": times, "deltas": deltas, "values": values, "sources": None}


class Signal:
    """One signal of a File: a scope, a bus, an element or field of a bus, a virtual bus or a
    plain signal. Its events come as numpy arrays, read on first use and kept."""

    __slots__ = ("_file", "_index")

    def __init__(self, file, index):
        self._file = file
        self._index = index

    def _row(self):
        return self._file._table[self._index]

    # ---- Place and type ----

    @property
    def handle(self):
        """The signal's number in the file (the handle its writer gave it)."""
        return self._row()[0]

    @property
    def name(self):
        """The local name: "clk", an element's "(7)", a field's name."""
        return self._row()[3]

    @property
    def full_name(self):
        """The local names from the top joined with '.', an index following its bus directly:
        "tb.dut.data(7)"."""
        return self._row()[4]

    @property
    def kind(self):
        """"scope", "virtual bus", "bus" (an array or record: its elements carry the values),
        "scalar" (a signal with values) or "opaque" (a type without values)."""
        return self._row()[5]

    @property
    def mode(self):
        """The port mode (tarvel.Mode); an element shows its bus's."""
        mode = self._row()[6]
        return Mode(mode) if -1 <= mode <= 7 else mode

    @property
    def type(self):
        """The type (tarvel.Type: ``str()`` gives the readable description, ``.string`` the raw
        type string, ``.literals`` an enumeration's literals); None for scopes and virtual buses."""
        return self._row()[7]

    @property
    def type_string(self):
        """The raw type string; None for scopes and virtual buses."""
        return None if self._row()[7] is None else self._row()[7].string

    @property
    def properties(self):
        """The signal's properties, name -> value (the last value given for a name)."""
        return dict(self._row()[9])

    @property
    def parent(self):
        parent = self._row()[1]
        return None if parent < 0 else self._file._signals[parent]

    @property
    def children(self):
        """A scope's signals, a bus's elements or fields, a virtual bus's members, by position."""
        return [self._file._signals[i] for i in self._row()[8]]

    # ---- Events ----

    @property
    def times(self):
        """The times of the events (int64, in the file's time units, see File.resolution). A
        bus has an event wherever one of its elements has one."""
        return self._file._arrays_of(self._index)["times"]

    @property
    def deltas(self):
        """The delta cycles of the events (uint16)."""
        return self._file._arrays_of(self._index)["deltas"]

    @property
    def values(self):
        """The values of the events: enumerations (std_logic too) as codes, uint8 (see
        ``type.literals`` and ``text()``); integers int32, long integers and physical int64, reals
        float64. A bus of '0'/'1' elements gives integers when every value is all 0 and 1
        (position 0 is the highest bit), else strings ("01XZ"); other arrays a 2-D array, records
        a structured array. None for scopes, virtual buses and types without values."""
        return self._file._arrays_of(self._index)["values"]

    @property
    def sources(self):
        """The source number of each event (int32, 0: none; File.source_location tells where),
        or None when the signal's events carry none."""
        return self._file._arrays_of(self._index)["sources"]

    def text(self):
        """The values as the file spells them: an enumeration's literal for each event ("1",
        "RUN"), a bus of characters as one string per event ("0101XXXX"); '?' for a code that is
        no literal. TypeError for other types."""
        arrays = self._file._arrays_of(self._index)
        if "text" in arrays:
            return arrays["text"]
        literals = None if self.type is None else self.type.literals
        if literals is None or self.kind != "scalar":
            raise TypeError(f"{self.full_name} is no enumeration and no bus of characters")
        spelled = np.array(list(literals) + ["?"])
        codes = arrays["values"]
        return spelled[np.minimum(codes, len(literals))]

    def __repr__(self):
        what = self.kind if self.type is None else f"{self.kind}, {self.type}"
        return f"<tarvel.Signal {self.full_name} ({what})>"

    def __eq__(self, other):
        return isinstance(other, Signal) and other._file is self._file and other._index == self._index

    def __hash__(self):
        return hash((id(self._file), self._index))
