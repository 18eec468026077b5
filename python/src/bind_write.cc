// The writing half of tarvel._tarvel: tarvel.Writer and the Declared objects its declarations
// answer. Python binding layer.
#include <pybind11/stl.h>

#include <algorithm>
#include <cctype>
#include <memory>

#include "bindings.h"
#include "encode.h"
#include "write_file.h"

namespace TarvelPython {
namespace {

using namespace pybind11::literals;

// A declaration as Python sees it.
struct Writer;

struct Declared {
    const Writer* writer;  // the writer that made it
    int handle;
    std::string name, fullName, kind;
    py::object type;      // tarvel.Type, or None for scopes and virtual buses
    py::list elements;    // a bus's elements or fields; a virtual bus's members
    py::object parent;    // Declared or None
};

struct Writer {
    std::mutex mutex;
    std::unique_ptr<WriteFile> file;
    std::vector<py::object> declared;  // by handle

    Writer(const std::string& path, bool timed, std::int64_t resolution) {
        py::gil_scoped_release release;
        file = std::make_unique<WriteFile>(path, timed, resolution);
    }
};

// A path given as str, bytes or os.PathLike, as text.
std::string PathText(py::handle path) {
    py::object text = py::module_::import("os").attr("fsdecode")(path);
    return text.cast<std::string>();
}

int ModeOf(py::handle mode) {
    if (!PyUnicode_Check(mode.ptr())) return static_cast<int>(py::int_(py::reinterpret_borrow<py::object>(mode)));
    std::string word = mode.cast<std::string>();
    std::transform(word.begin(), word.end(), word.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    static const char* const kWords[] = {"none", "in", "out", "inout", "buffer", "linkage", "signal", "variable"};
    for (int i = 0; i < 8; ++i) {
        if (word == kWords[i]) return i;
    }
    throw py::value_error("no port mode '" + word + "' (none, in, out, inout, buffer, linkage, signal, variable)");
}

std::string TypeString(py::handle type) {
    if (PyUnicode_Check(type.ptr())) return type.cast<std::string>();
    if (py::hasattr(type, "string")) return py::str(type.attr("string"));
    throw py::type_error("a type string or a tarvel.Type expected, not " + std::string(Py_TYPE(type.ptr())->tp_name));
}

// The handle that `signal` names: a Declared, a full name or a handle. REQUIRES: the lock.
int HandleOf(Writer& w, py::handle signal) {
    if (py::isinstance<Declared>(signal)) {
        const Declared& d = signal.cast<Declared&>();
        if (d.writer != &w) throw py::value_error(d.fullName + " was declared by another writer");
        return d.handle;
    }
    if (PyUnicode_Check(signal.ptr())) {
        const int handle = w.file->Find(signal.cast<std::string>());
        if (handle < 0) throw py::key_error("no declaration " + signal.cast<std::string>() + " in the writer of " + w.file->Path());
        return handle;
    }
    const int handle = py::int_(py::reinterpret_borrow<py::object>(signal));
    w.file->At(handle);
    return handle;
}

int ParentOf(Writer& w, py::handle parent) { return parent.is_none() ? -1 : HandleOf(w, parent); }

WriteFile& Open(Writer& w) {
    if (w.file->Closed()) throw py::value_error("the writer of " + w.file->Path() + " is closed");
    return *w.file;
}

// Makes the Declared objects of the handles from `first` on (a declaration and its elements)
// and answers the first. REQUIRES: the lock.
py::object Publish(Writer& w, int first) {
    const std::size_t count = w.file->Count();
    for (std::size_t handle = w.declared.size(); handle < count; ++handle) {
        const Declaration& d = w.file->At(static_cast<int>(handle));
        Declared made{&w, static_cast<int>(handle), d.name, d.fullName, KindName(d.kind), d.type ? py::cast(d.type) : py::none(),
                      py::list(), d.parent >= 0 ? w.declared[static_cast<std::size_t>(d.parent)] : py::none()};
        w.declared.push_back(py::cast(std::move(made)));
    }
    for (std::size_t handle = static_cast<std::size_t>(first); handle < count; ++handle) {
        py::list elements = w.declared[handle].cast<Declared&>().elements;
        for (int element : w.file->At(static_cast<int>(handle)).elements) elements.append(w.declared[static_cast<std::size_t>(element)]);
    }
    return w.declared[static_cast<std::size_t>(first)];
}

py::object Scope(Writer& w, const std::string& name, py::handle parent) {
    ShortLock lock(w.mutex);
    const int first = static_cast<int>(Open(w).Count());
    Open(w).DeclareScope(name, ParentOf(w, parent));
    return Publish(w, first);
}

py::object Signal(Writer& w, const std::string& name, py::handle type, py::handle parent, py::handle mode, bool busOnly) {
    const std::string text = TypeString(type);
    ShortLock lock(w.mutex);
    if (busOnly) {
        const Sorvat::KTypeInfo info(text.c_str());
        if (info.GetKind() != Sorvat::kKindArray && info.GetKind() != Sorvat::kKindRecord) {
            throw py::value_error("bus " + name + ": '" + text + "' is no array or record type");
        }
    }
    const int first = static_cast<int>(Open(w).Count());
    Open(w).DeclareSignal(name, text, ParentOf(w, parent), ModeOf(mode));
    return Publish(w, first);
}

py::object VirtualBus(Writer& w, const std::string& name, py::iterable members, py::handle parent) {
    ShortLock lock(w.mutex);
    std::vector<int> handles;
    for (py::handle member : members) handles.push_back(HandleOf(w, member));
    const int first = static_cast<int>(Open(w).Count());
    Open(w).DeclareVirtualBus(name, handles, ParentOf(w, parent));
    return Publish(w, first);
}

void Property(Writer& w, const std::string& name, const std::string& value, py::handle signal, std::int64_t time) {
    ShortLock lock(w.mutex);
    Open(w).SetProperty(signal.is_none() ? -1 : HandleOf(w, signal), name, value, time);
}

void Store(Writer& w, py::handle signal, py::handle value, int source) {
    ShortLock lock(w.mutex);
    WriteFile& file = Open(w);
    const int handle = HandleOf(w, signal);
    const Declaration& d = file.At(handle);
    if (d.kind == SignalKind::kBus) {
        std::vector<std::uint64_t> raws;
        EncodeBus(file, handle, value, &raws);
        const std::vector<int> leaves = Leaves(file, handle);
        for (std::size_t i = 0; i < leaves.size(); ++i) file.Store(leaves[i], raws[i], source);
        return;
    }
    if (d.kind != SignalKind::kScalar) throw py::type_error(d.fullName + " is a " + KindName(d.kind) + ": it takes no values");
    file.Store(handle, EncodeScalar(*d.type, value, d.fullName), source);
}

void StoreMany(Writer& w, py::handle signal, py::handle times, py::handle values, py::handle deltas) {
    std::vector<int> leaves;
    std::vector<std::vector<std::uint64_t>> raws;
    const std::vector<std::int64_t> stamps = IntegerTimes(times);
    const std::vector<std::uint32_t> steps = deltas.is_none() ? std::vector<std::uint32_t>() : IntegerDeltas(deltas);
    {
        ShortLock lock(w.mutex);
        WriteFile& file = Open(w);
        const int handle = HandleOf(w, signal);
        const Declaration& d = file.At(handle);
        if (d.kind == SignalKind::kBus) {
            leaves = Leaves(file, handle);
            raws = EncodeBuses(file, handle, values);
        } else if (d.kind == SignalKind::kScalar) {
            leaves.push_back(handle);
            raws.push_back(EncodeScalars(*d.type, values, d.fullName));
        } else {
            throw py::type_error(d.fullName + " is a " + KindName(d.kind) + ": it takes no values");
        }
    }
    for (const std::vector<std::uint64_t>& leaf : raws) {
        if (leaf.size() != stamps.size()) throw py::value_error("store_many: one value per time expected");
    }
    if (!steps.empty() && steps.size() != stamps.size()) throw py::value_error("store_many: one delta per time expected");
    LongCall(w.mutex, [&] {
        for (std::size_t i = 0; i < leaves.size(); ++i) {
            Open(w).StoreMany(leaves[i], stamps.data(), steps.empty() ? nullptr : steps.data(), raws[i].data(), stamps.size());
        }
        return 0;
    });
}

std::string DeclaredRepr(const Declared& d) {
    return "<tarvel.Declared " + d.fullName + " (" + d.kind + (d.type.is_none() ? "" : ", " + std::string(py::str(d.type))) + ")>";
}

}  // namespace

void BindWriting(py::module_& m) {
    py::class_<Declared>(m, "Declared", "A declaration of a Writer: what store and the declarations take to name it.")
        .def_readonly("handle", &Declared::handle, "The signal's number in the file.")
        .def_readonly("name", &Declared::name)
        .def_readonly("full_name", &Declared::fullName)
        .def_readonly("kind", &Declared::kind, "scope, virtual bus, bus, scalar or opaque.")
        .def_readonly("type", &Declared::type)
        .def_readonly("elements", &Declared::elements, "A bus's elements (fields); a virtual bus's members.")
        .def_readonly("parent", &Declared::parent)
        .def("__repr__", &DeclaredRepr);

    py::class_<Writer>(m, "Writer")
        .def(py::init([](py::handle path, bool timed, std::int64_t resolution) {
                 return std::make_unique<Writer>(PathText(path), timed, resolution);
             }),
             "path"_a, "timed"_a = false, "resolution"_a = 1000)
        .def_property_readonly("path", [](Writer& w) { return w.file->Path(); })
        .def_property_readonly("timed", [](Writer& w) { return w.file->Timed(); })
        .def_property_readonly("closed", [](Writer& w) { ShortLock lock(w.mutex); return w.file->Closed(); })
        .def_property_readonly("time", [](Writer& w) { ShortLock lock(w.mutex); return Open(w).Time(); })
        .def_property_readonly("delta", [](Writer& w) { ShortLock lock(w.mutex); return Open(w).Delta(); })
        .def("scope", &Scope, "name"_a, "parent"_a = py::none())
        .def("signal", [](Writer& w, const std::string& name, py::handle type, py::handle parent, py::handle mode) {
            return Signal(w, name, type, parent, mode, false);
        }, "name"_a, "type"_a, "parent"_a = py::none(), "mode"_a = "signal")
        .def("bus", [](Writer& w, const std::string& name, py::handle type, py::handle parent, py::handle mode) {
            return Signal(w, name, type, parent, mode, true);
        }, "name"_a, "type"_a, "parent"_a = py::none(), "mode"_a = "signal")
        .def("virtual_bus", &VirtualBus, "name"_a, "members"_a, "parent"_a = py::none())
        .def("property", &Property, "name"_a, "value"_a, "signal"_a = py::none(), "time"_a = 0)
        .def("set_time", [](Writer& w, std::int64_t time) { ShortLock lock(w.mutex); Open(w).SetTime(time); }, "time"_a)
        .def("set_delta", [](Writer& w, std::uint32_t delta) { ShortLock lock(w.mutex); Open(w).SetDelta(delta); }, "delta"_a)
        .def("source", [](Writer& w, const std::string& file, int line) { ShortLock lock(w.mutex); return Open(w).AddSource(file, line); },
             "file"_a, "line"_a)
        .def("store", &Store, "signal"_a, "value"_a, "source"_a = 0)
        .def("store_many", &StoreMany, "signal"_a, "times"_a, "values"_a, "deltas"_a = py::none())
        .def("flush", [](Writer& w) { LongCall(w.mutex, [&] { Open(w).Flush(); return 0; }); })
        .def("commit", [](Writer& w) { LongCall(w.mutex, [&] { Open(w).Commit(); return 0; }); })
        .def("close", [](Writer& w) { LongCall(w.mutex, [&] { w.file->Close(); return 0; }); })
        .def("__getitem__", [](Writer& w, const std::string& fullName) {
            ShortLock lock(w.mutex);
            return w.declared[static_cast<std::size_t>(HandleOf(w, py::str(fullName)))];
        })
        .def("__enter__", [](py::object self) { return self; })
        .def("__exit__", [](Writer& w, py::handle type, py::handle, py::handle) {
            const bool clean = type.is_none();  // a clean exit commits; an exception leaves the last commit
            LongCall(w.mutex, [&] {
                if (clean && !w.file->Closed()) {
                    try {
                        w.file->Commit();
                    } catch (...) {
                        try {
                            w.file->Close();
                        } catch (...) {  // the commit's failure is the one to tell
                        }
                        throw;
                    }
                }
                w.file->Close();
                return 0;
            });
            return false;
        });
}

}  // namespace TarvelPython
