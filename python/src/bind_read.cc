// The reading half of tarvel._tarvel: Reader (an opened file: its table, its signals' events
// as numpy arrays, reading on), the merged pass as a Python iterator, the listing, and whether
// a writer holds a file. python/tarvel/reading.py builds tarvel.open and its objects on them.
// Python binding layer.
#include <fcntl.h>
#include <unistd.h>

#include <pybind11/stl.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>

#include "bindings.h"
#include "decode.h"
#include "event_pass.h"
#include "read_file.h"

namespace TarvelPython {
namespace {

using namespace pybind11::literals;

// An opened file as Python holds it; closing drops the reader (and its memory) at once.
struct Reader {
    std::mutex mutex;
    std::unique_ptr<ReadFile> file;

    // REQUIRES: the mutex is held.
    ReadFile& Open() {
        if (!file) throw py::value_error("the waveform file is closed");
        return *file;
    }
};

// ---- Events of one signal as arrays ----

// How a bus's values come out.
enum class BusForm { kCharacters, kRows, kNested };

struct RowField {
    std::string name;
    std::string format;  // numpy's: "u1", "u4", "i4", "i8", "f8"
    std::size_t offset;
};

// A signal's events decoded, before they become numpy arrays (no Python objects: made without
// the GIL).
struct Decoded {
    const char* form = "scalar";  // "scalar", "characters", "rows"
    ScalarEvents scalar;
    CharacterBusEvents characters;
    RowBusEvents rows;
    std::vector<RowField> fields;
    std::size_t width = 0;
    std::size_t rowBytes = 0;
    bool array = false;           // rows of an array (one format), not of a record
    const TypeFacts* type = nullptr;
};

const char* FormatOf(const TypeFacts& type) {
    switch (type.Kind()) {
        case ValueKind::kCode: return type.ArrayBytes() == 1 ? "u1" : "u4";
        case ValueKind::kInt32: return "i4";
        case ValueKind::kInt64: return "i8";
        case ValueKind::kFloat64: return "f8";
        case ValueKind::kNone: break;
    }
    return "";
}

BusForm FormOf(const Sorvat::KTypeInfo& bus) {
    const std::int64_t width = bus.GetNbOfChildren();
    for (std::int64_t i = 0; i < width; ++i) {
        if (!bus.GetChildType(i).IsScalar()) return BusForm::kNested;
    }
    if (bus.GetKind() == Sorvat::kKindArray && TypeFacts(bus.GetElementType()).AllCharacters()) return BusForm::kCharacters;
    return BusForm::kRows;
}

void LayOutRows(const Sorvat::KTypeInfo& bus, Decoded* out) {
    std::size_t offset = 0;
    for (std::size_t i = 0; i < out->width; ++i) {
        const TypeFacts facts(bus.GetChildType(static_cast<std::int64_t>(i)));
        char name[256];
        if (!bus.GetChildName(static_cast<std::int64_t>(i), name, sizeof name)) name[0] = '\0';
        out->fields.push_back(RowField{name, FormatOf(facts), offset});
        offset += static_cast<std::size_t>(facts.ArrayBytes());
    }
    out->rowBytes = offset;
}

Decoded DecodeBus(ReadFile& file, const SignalRecord& s) {
    Decoded out;
    const Sorvat::KTypeInfo& bus = s.type->Type();
    out.width = static_cast<std::size_t>(bus.GetNbOfChildren());
    const BusForm form = FormOf(bus);
    if (form == BusForm::kNested) {
        throw py::type_error(s.fullName + " is a bus of buses or records: read its elements (signal.children)");
    }
    std::vector<BusElement> elements(out.width, BusElement{nullptr, nullptr});
    for (int child : s.children) {
        const SignalRecord& element = file.Signals()[static_cast<std::size_t>(child)];
        if (element.position < 0 || static_cast<std::size_t>(element.position) >= out.width || !element.type) continue;
        if (element.type->Kind() == ValueKind::kNone) continue;
        elements[static_cast<std::size_t>(element.position)] = BusElement{file.Store(child), element.type.get()};
    }
    if (form == BusForm::kCharacters) {
        out.form = "characters";
        out.characters = DecodeCharacterBus(elements);
        return out;
    }
    out.form = "rows";
    out.array = bus.GetKind() == Sorvat::kKindArray;
    LayOutRows(bus, &out);
    std::vector<std::size_t> offsets;
    for (const RowField& field : out.fields) offsets.push_back(field.offset);
    for (std::size_t i = 0; i < out.width; ++i) {  // an element typed otherwise than its field is left out
        if (elements[i].type && FormatOf(*elements[i].type) != out.fields[i].format) elements[i] = BusElement{nullptr, nullptr};
    }
    out.rows = DecodeRowBus(elements, offsets, out.rowBytes);
    return out;
}

Decoded DecodeSignal(ReadFile& file, int index) {
    if (index < 0 || static_cast<std::size_t>(index) >= file.Signals().size()) throw py::index_error("no such signal");
    const SignalRecord& s = file.Signals()[static_cast<std::size_t>(index)];
    if (s.kind == SignalKind::kBus) return DecodeBus(file, s);
    Decoded out;
    out.type = s.kind == SignalKind::kScalar ? s.type.get() : nullptr;
    const Tarvel::KEventsStore* store = file.Store(index);
    if (store) out.scalar = DecodeScalar(*store, out.type);
    return out;
}

// A numpy array of `count` values of `format` over `bytes` (moved, not copied).
py::array BytesAsArray(std::vector<unsigned char>&& bytes, const std::string& format, std::vector<py::ssize_t> shape) {
    auto* owned = new std::vector<unsigned char>(std::move(bytes));
    py::capsule free(owned, [](void* p) { delete static_cast<std::vector<unsigned char>*>(p); });
    return py::array(py::dtype("<" + format), shape, owned->data(), free);
}

py::tuple ScalarArrays(Decoded&& d) {
    const auto count = static_cast<py::ssize_t>(d.scalar.times.size());
    py::object values = py::none();
    if (d.type && d.type->Kind() != ValueKind::kNone) values = BytesAsArray(std::move(d.scalar.values), FormatOf(*d.type), {count});
    py::object sources = py::none();
    if (!d.scalar.sources.empty()) sources = ToNumpy(std::move(d.scalar.sources));
    return py::make_tuple("scalar", ToNumpy(std::move(d.scalar.times)), ToNumpy(std::move(d.scalar.deltas)), values, sources);
}

py::tuple CharacterArrays(Decoded&& d) {
    CharacterBusEvents& c = d.characters;
    const auto count = static_cast<py::ssize_t>(c.times.size());
    py::object bits = py::none();
    if (c.binary && d.width <= 64) bits = ToNumpy(std::move(c.bits));
    std::vector<unsigned char> characters(c.characters.begin(), c.characters.end());
    py::array matrix = BytesAsArray(std::move(characters), "u1", {count, static_cast<py::ssize_t>(d.width)});
    return py::make_tuple("characters", ToNumpy(std::move(c.times)), ToNumpy(std::move(c.deltas)), matrix, bits, c.binary);
}

py::tuple RowArrays(Decoded&& d) {
    const auto count = static_cast<py::ssize_t>(d.rows.times.size());
    py::list names, formats, offsets;
    for (const RowField& field : d.fields) {
        names.append(field.name);
        formats.append("<" + field.format);
        offsets.append(field.offset);
    }
    py::array rows = BytesAsArray(std::move(d.rows.rows), "u1", {count, static_cast<py::ssize_t>(d.rowBytes)});
    py::dict layout("names"_a = names, "formats"_a = formats, "offsets"_a = offsets, "itemsize"_a = d.rowBytes);
    return py::make_tuple("rows", ToNumpy(std::move(d.rows.times)), ToNumpy(std::move(d.rows.deltas)), rows, layout, d.array);
}

py::tuple Decode(Reader& r, int index) {
    Decoded d = LongCall(r.mutex, [&] { return DecodeSignal(r.Open(), index); });
    const std::string form = d.form;
    if (form == "characters") return CharacterArrays(std::move(d));
    if (form == "rows") return RowArrays(std::move(d));
    return ScalarArrays(std::move(d));
}

// ---- The table ----

py::object TypeObject(const std::shared_ptr<TypeFacts>& type) {
    return type ? py::cast(type) : py::none();
}

py::list Table(Reader& r) {
    ShortLock lock(r.mutex);
    py::list table;
    for (const SignalRecord& s : r.Open().Signals()) {
        table.append(py::make_tuple(s.handle, s.parent, s.position, s.name, s.fullName, KindName(s.kind), s.mode,
                                    TypeObject(s.type), s.children, s.properties));
    }
    return table;
}

// Each signal's event count and the time of its last event (0 without events).
py::tuple Counts(Reader& r) {
    ShortLock lock(r.mutex);
    ReadFile& file = r.Open();
    std::vector<unsigned> counts;
    std::vector<std::int64_t> lastTimes;
    for (std::size_t i = 0; i < file.Signals().size(); ++i) {
        const Tarvel::KEventsStore* store = file.Store(static_cast<int>(i));
        counts.push_back(store ? store->count() : 0);
        lastTimes.push_back(store && !store->empty() ? store->EndTime() : 0);  // a read store ends at its last event
    }
    return py::make_tuple(counts, lastTimes);
}

py::object SourceLocation(Reader& r, int source) {
    ShortLock lock(r.mutex);
    const char* fileName = nullptr;
    int line = 0;
    if (source == 0 || !r.Open().Reader().GetSourcer().Translate(source, &fileName, &line)) return py::none();
    return py::make_tuple(fileName, line);
}

// ---- The merged pass ----

class EventIterator {
public:
    // The pass over the signals at `indexes` (table indexes, ascending), each from its event
    // `firstIndexes[i]` on (near `fromTimes[i]`); `signals[i]` is what events name them by.
    EventIterator(py::object owner, std::vector<int> indexes, std::vector<unsigned> firstIndexes,
                  std::vector<std::int64_t> fromTimes, py::list signals)
        : m_owner(std::move(owner)), m_reader(m_owner.cast<Reader*>()), m_signals(std::move(signals)) {
        if (indexes.size() != firstIndexes.size() || indexes.size() != fromTimes.size() ||
            indexes.size() != static_cast<std::size_t>(py::len(m_signals))) {
            throw py::value_error("events: one start and one signal per index");
        }
        LongCall(m_reader->mutex, [&] {
            ReadFile& file = m_reader->Open();
            m_generation = file.Generation();
            std::vector<EventPass::Start> starts;
            for (std::size_t i = 0; i < indexes.size(); ++i) {
                const int index = indexes[i];
                const bool scalar = index >= 0 && static_cast<std::size_t>(index) < file.Signals().size() &&
                                    file.Signals()[static_cast<std::size_t>(index)].kind == SignalKind::kScalar;
                starts.push_back(EventPass::Start{scalar ? file.Store(index) : nullptr, firstIndexes[i], fromTimes[i]});
                m_kinds.push_back(scalar ? file.Signals()[static_cast<std::size_t>(index)].type->Kind() : ValueKind::kNone);
            }
            m_pass = std::make_unique<EventPass>(starts);
            return 0;
        });
        m_batch.resize(kBatch);
    }

    py::tuple Next() {
        if (m_at == m_filled) Refill();
        const PassEvent& e = m_batch[m_at++];
        return py::make_tuple(e.time, e.delta, m_signals[static_cast<std::size_t>(e.signal)],
                              Value(m_kinds[static_cast<std::size_t>(e.signal)], e.value));
    }

private:
    static constexpr std::size_t kBatch = 4096;  // events taken per release of the GIL

    void Refill() {
        m_filled = LongCall(m_reader->mutex, [&] {
            if (m_reader->Open().Generation() != m_generation) {
                throw std::runtime_error("the file was read on (update) during the pass over its events");
            }
            return m_pass->Fill(m_batch.data(), m_batch.size());
        });
        m_at = 0;
        if (m_filled == 0) throw py::stop_iteration();
    }

    static py::object Value(ValueKind kind, std::uint64_t raw) {
        switch (kind) {
            case ValueKind::kCode: return py::int_(static_cast<std::uint32_t>(raw));
            case ValueKind::kInt32: return py::int_(static_cast<std::int32_t>(static_cast<std::uint32_t>(raw)));
            case ValueKind::kInt64: return py::int_(static_cast<std::int64_t>(raw));
            case ValueKind::kFloat64: {
                double value;
                std::memcpy(&value, &raw, sizeof value);
                return py::float_(value);
            }
            case ValueKind::kNone: break;
        }
        return py::none();
    }

    py::object m_owner;  // keeps the Reader alive
    Reader* m_reader;
    py::list m_signals;
    std::vector<ValueKind> m_kinds;  // by pass index
    std::unique_ptr<EventPass> m_pass;
    unsigned m_generation = 0;
    std::vector<PassEvent> m_batch;
    std::size_t m_filled = 0, m_at = 0;
};

// ---- Files and writers ----

// "none" when no process holds `path` open for writing, "some" when one does, "unknown" when
// Linux does not tell (no file leases there): a read lease is granted only on a file that
// nobody writes.
const char* WritersOf(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return "unknown";
    const char* writers = "unknown";
    if (fcntl(fd, F_SETLEASE, F_RDLCK) == 0) {
        fcntl(fd, F_SETLEASE, F_UNLCK);
        writers = "none";
    } else if (errno == EAGAIN) {
        writers = "some";
    }
    close(fd);
    return writers;
}

std::unique_ptr<Reader> OpenReader(const std::string& path, const std::optional<std::vector<std::string>>& names) {
    auto reader = std::make_unique<Reader>();
    py::gil_scoped_release release;
    reader->file = ReadFile::Open(path, names ? &*names : nullptr);
    return reader;
}

}  // namespace

void BindReading(py::module_& m) {
    py::class_<Reader>(m, "Reader", "An opened waveform file (tarvel.open builds on it).")
        .def_property_readonly("path", [](Reader& r) { ShortLock lock(r.mutex); return r.Open().Path(); })
        .def_property_readonly("filtered", [](Reader& r) { ShortLock lock(r.mutex); return r.Open().Filtered(); })
        .def_property_readonly("unmatched", [](Reader& r) { ShortLock lock(r.mutex); return r.Open().UnmatchedNames(); })
        .def_property_readonly("resolution", [](Reader& r) { ShortLock lock(r.mutex); return r.Open().Reader().GetResolution(); })
        .def_property_readonly("end_time", [](Reader& r) { ShortLock lock(r.mutex); return r.Open().Reader().GetEndTime(); })
        .def_property_readonly("timed", [](Reader& r) { ShortLock lock(r.mutex); return r.Open().Reader().IsTimed(); })
        .def_property_readonly("generation", [](Reader& r) { ShortLock lock(r.mutex); return r.Open().Generation(); })
        .def_property_readonly("closed", [](Reader& r) { ShortLock lock(r.mutex); return !r.file; })
        .def("table", &Table)
        .def("file_properties", [](Reader& r) { ShortLock lock(r.mutex); return r.Open().FileProperties(); })
        .def("decode", &Decode, "index"_a)
        .def("counts", &Counts)
        .def("source_location", &SourceLocation, "source"_a)
        .def("events", [](py::object self, std::vector<int> indexes, std::vector<unsigned> firstIndexes,
                          std::vector<std::int64_t> fromTimes, py::list signals) {
            return EventIterator(std::move(self), std::move(indexes), std::move(firstIndexes), std::move(fromTimes), std::move(signals));
        })
        .def("update", [](Reader& r) { LongCall(r.mutex, [&] { r.Open().Update(); return 0; }); })
        .def("close", [](Reader& r) {
            std::unique_ptr<ReadFile> closing;
            ShortLock lock(r.mutex);
            closing.swap(r.file);
            py::gil_scoped_release release;  // a large file takes a while to free
            closing.reset();
        });
    py::class_<EventIterator>(m, "EventIterator")
        .def("__iter__", [](py::object self) { return self; })
        .def("__next__", &EventIterator::Next);
    m.def("open_reader", &OpenReader, "path"_a, "names"_a = py::none());
    m.def("list_declarations", [](const std::string& path) {
        py::gil_scoped_release release;
        return ListDeclarations(path);
    }, "path"_a);
    m.def("writers_of", &WritersOf, "path"_a);
}

}  // namespace TarvelPython
