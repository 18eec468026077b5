// tarvel.Type: a type string parsed by the type service, with what Python code asks of it.
// Python binding layer.
#include <pybind11/stl.h>

#include <memory>

#include "bindings.h"
#include "types.h"

namespace TarvelPython {
namespace {

using Facts = std::shared_ptr<TypeFacts>;

Facts Parse(const std::string& text) {
    const Sorvat::KTypeInfo type(text.c_str());
    if (!type.IsValid()) throw py::value_error("'" + text + "' is no type string (see docs/typeinfo.md)");
    return std::make_shared<TypeFacts>(type);
}

py::object Literals(const TypeFacts& t) {
    if (t.Kind() != ValueKind::kCode) return py::none();
    return py::tuple(py::cast(t.Literals()));
}

py::object ElementType(const TypeFacts& t) {
    if (t.Type().GetKind() != Sorvat::kKindArray) return py::none();
    return py::cast(std::make_shared<TypeFacts>(t.Type().GetElementType()));
}

py::object Fields(const TypeFacts& t) {
    if (t.Type().GetKind() != Sorvat::kKindRecord) return py::none();
    py::list fields;
    for (int i = 0; i < t.Type().GetNbOfFields(); ++i) {
        fields.append(py::make_tuple(t.Type().GetFieldName(i), std::make_shared<TypeFacts>(t.Type().GetFieldType(i))));
    }
    return fields;
}

py::object Ranges(const TypeFacts& t) {
    const int dimensions = t.Type().GetNbOfDimensions();
    if (dimensions == 0) return py::none();
    std::vector<Sorvat::KRange> ranges(static_cast<std::size_t>(dimensions));
    t.Type().GetArrayDimensionRanges(ranges.data(), dimensions);
    py::list out;
    for (const Sorvat::KRange& r : ranges) {
        out.append(py::make_tuple(r.left, r.right, r.direction == Sorvat::KDirection::kDownto ? "downto" : "to"));
    }
    return out;
}

py::object ChildNames(const TypeFacts& t) {
    const std::int64_t count = t.Type().GetNbOfChildren();
    if (count == 0) return py::none();
    py::list names;
    for (std::int64_t i = 0; i < count; ++i) {
        char name[256];
        names.append(t.Type().GetChildName(i, name, sizeof name) ? name : "");
    }
    return names;
}

}  // namespace

void BindTypes(py::module_& m) {
    py::class_<TypeFacts, Facts>(m, "Type", "A type string read by the type service (docs/typeinfo.md).")
        .def(py::init(&Parse), py::arg("string"), "Reads a type string; ValueError when it is none.")
        .def_property_readonly("string", [](const TypeFacts& t) { return std::string(t.Type().GetTypeInfoString()); },
                               "The type string, as the file stores it.")
        .def_property_readonly("name", [](const TypeFacts& t) { return std::string(t.Type().GetTypeName()); })
        .def_property_readonly("kind", [](const TypeFacts& t) { return KindWord(t.Type()); },
                               "enumeration, integer, real, physical, long integer, array, record, access, file or opaque.")
        .def_property_readonly("description", [](const TypeFacts& t) { return DescribeType(t.Type()); },
                               "The type for people: 'std_logic_vector(7 downto 0) of std_logic'.")
        .def_property_readonly("is_scalar", [](const TypeFacts& t) { return t.Kind() != ValueKind::kNone; },
                               "True for the kinds whose signals take values of their own.")
        .def_property_readonly("size", [](const TypeFacts& t) { return t.Type().GetSimpleSize_OldFormat(); },
                               "Bytes of one value in the file.")
        .def_property_readonly("literals", &Literals, "Enumerations: the literals, a value's code is its index; else None.")
        .def_property_readonly("element_type", &ElementType, "Arrays: the element type; else None.")
        .def_property_readonly("fields", &Fields, "Records: (name, Type) of each field; else None.")
        .def_property_readonly("ranges", &Ranges, "Arrays: (left, right, 'to' or 'downto') of each dimension; else None.")
        .def_property_readonly("child_names", &ChildNames,
                               "Arrays and records: the names of the elements ('(7)', '(1,0)') or fields; else None.")
        .def("__str__", [](const TypeFacts& t) { return DescribeType(t.Type()); })
        .def("__repr__", [](const TypeFacts& t) { return "tarvel.Type(" + std::string(py::repr(py::str(t.Type().GetTypeInfoString()))) + ")"; })
        .def("__eq__", [](const TypeFacts& a, const TypeFacts& b) {
            return std::string(a.Type().GetTypeInfoString()) == b.Type().GetTypeInfoString();
        }, py::is_operator())
        .def("__hash__", [](const TypeFacts& t) { return py::hash(py::str(t.Type().GetTypeInfoString())); });
}

}  // namespace TarvelPython
