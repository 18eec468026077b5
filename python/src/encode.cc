// Python values as the writer's numbers. Python binding layer.
#include "encode.h"

#include <climits>
#include <cstring>

namespace TarvelPython {
namespace {

std::string TypeName(py::handle value) { return Py_TYPE(value.ptr())->tp_name; }

std::int64_t Integer(py::handle value, const std::string& who) {
    if (PyFloat_Check(value.ptr())) throw py::type_error(who + ": an integer expected, not a float");
    PyObject* index = PyNumber_Index(value.ptr());
    if (!index) {
        PyErr_Clear();
        throw py::type_error(who + ": an integer expected, not " + TypeName(value));
    }
    int overflow = 0;
    const long long number = PyLong_AsLongLongAndOverflow(index, &overflow);
    Py_DECREF(index);
    if (overflow) throw py::value_error(who + ": " + std::string(py::str(value)) + " does not fit 64 bits");
    return number;
}

std::uint64_t Code(const TypeFacts& type, std::int64_t code, const std::string& who) {
    const auto count = static_cast<std::int64_t>(type.Literals().size());
    if (code < 0 || code >= count) {
        throw py::value_error(who + ": " + std::to_string(code) + " is no code of " + DescribeType(type.Type()) + " (0 to " +
                              std::to_string(count - 1) + ")");
    }
    return static_cast<std::uint64_t>(code);
}

// A bool as the literal '1' or '0' when the type has it, else as code 1 or 0.
std::uint64_t BoolCode(const TypeFacts& type, bool value, const std::string& who) {
    const int code = type.CodeOfCharacter(value ? '1' : '0');
    return Code(type, code >= 0 ? code : value ? 1 : 0, who);
}

std::uint64_t FromText(const TypeFacts& type, const std::string& text, const std::string& who) {
    unsigned char bytes[8] = {};
    if (type.Kind() == ValueKind::kNone || !type.Type().GetBytes_OldFormat(text.c_str(), bytes, sizeof bytes)) {
        throw py::value_error(who + ": '" + text + "' is no value of " + DescribeType(type.Type()));
    }
    std::uint64_t raw = 0;
    for (int i = 7; i >= 0; --i) raw = raw << 8 | bytes[i];
    return raw;
}

std::uint64_t FromNumber(const TypeFacts& type, std::int64_t number, const std::string& who) {
    switch (type.Kind()) {
        case ValueKind::kCode: return Code(type, number, who);
        case ValueKind::kInt32:
            if (number < INT32_MIN || number > INT32_MAX) {
                throw py::value_error(who + ": " + std::to_string(number) + " does not fit a 32-bit integer");
            }
            return static_cast<std::uint32_t>(static_cast<std::int32_t>(number));
        case ValueKind::kInt64: return static_cast<std::uint64_t>(number);
        case ValueKind::kFloat64: {
            const double real = static_cast<double>(number);
            std::uint64_t raw;
            std::memcpy(&raw, &real, sizeof raw);
            return raw;
        }
        case ValueKind::kNone: break;
    }
    throw py::type_error(who + " takes no values");
}

std::uint64_t FromReal(double real) {
    std::uint64_t raw;
    std::memcpy(&raw, &real, sizeof raw);
    return raw;
}

// A bus whose elements are all scalars with the literals '0' and '1' (std_logic, bit, logic).
bool IsBitBus(const WriteFile& file, const Declaration& bus) {
    for (int element : bus.elements) {
        const Declaration& e = file.At(element);
        if (e.kind != SignalKind::kScalar || e.type->CodeOfCharacter('0') < 0 || e.type->CodeOfCharacter('1') < 0) return false;
    }
    return !bus.elements.empty();
}

// A bit bus's value from one character per element.
void BitsFromText(const WriteFile& file, const Declaration& bus, const std::string& text, std::vector<std::uint64_t>* raws) {
    if (text.size() != bus.elements.size()) {
        throw py::value_error(bus.fullName + ": '" + text + "' has " + std::to_string(text.size()) + " characters for " +
                              std::to_string(bus.elements.size()) + " elements");
    }
    for (std::size_t i = 0; i < text.size(); ++i) {
        const Declaration& e = file.At(bus.elements[i]);
        const int code = e.type->CodeOfCharacter(text[i]);
        if (code < 0) throw py::value_error(e.fullName + ": '" + text.substr(i, 1) + "' is no value of " + DescribeType(e.type->Type()));
        raws->push_back(static_cast<std::uint64_t>(code));
    }
}

// A bit bus's value from an integer: position 0 is the highest bit.
void BitsFromInteger(const WriteFile& file, const Declaration& bus, py::handle value, std::vector<std::uint64_t>* raws) {
    const std::size_t width = bus.elements.size();
    const py::int_ number = py::reinterpret_steal<py::int_>(PyNumber_Index(value.ptr()));
    const std::string bits = py::str("{:0{}b}").format(number, width);
    if (bits[0] == '-' || bits.size() > width) {
        throw py::value_error(bus.fullName + ": " + std::string(py::str(value)) + " does not fit " + std::to_string(width) + " bits");
    }
    BitsFromText(file, bus, bits, raws);
}

void EncodeElement(const WriteFile& file, int element, py::handle value, std::vector<std::uint64_t>* raws) {
    const Declaration& e = file.At(element);
    if (e.kind == SignalKind::kBus) return EncodeBus(file, element, value, raws);
    raws->push_back(EncodeScalar(*e.type, value, e.fullName));
}

bool IsText(py::handle value) { return PyUnicode_Check(value.ptr()) || PyBytes_Check(value.ptr()); }

bool IsInteger(py::handle value) {
    if (PyFloat_Check(value.ptr()) || IsText(value)) return false;
    PyObject* index = PyNumber_Index(value.ptr());
    if (!index) PyErr_Clear();
    Py_XDECREF(index);
    return index != nullptr;
}

py::array OneDimensional(py::handle values, const std::string& who) {
    py::array array = py::array::ensure(values);
    if (!array) {
        PyErr_Clear();
        throw py::type_error(who + ": a sequence or an array of values expected");
    }
    // numpy makes text of a list that mixes text and numbers (["RUN", 3] gives "3"): such a
    // list is taken value by value, as objects.
    const char kind = array.dtype().kind();
    if (!py::isinstance<py::array>(values) && (kind == 'U' || kind == 'S') && array.ndim() == 1) {
        py::array objects = py::module_::import("numpy").attr("empty")(array.size(), py::arg("dtype") = "O");
        objects[py::slice(0, array.size(), 1)] = py::reinterpret_borrow<py::object>(values);
        return objects;
    }
    if (array.ndim() != 1) throw py::value_error(who + ": one value per time expected (a 1-D array)");
    return array;
}

std::vector<std::int64_t> Int64s(const py::array& array) {
    if (array.dtype().kind() == 'u' && array.itemsize() == 8) {
        const auto unsigned64 = py::array_t<std::uint64_t, py::array::c_style | py::array::forcecast>::ensure(array);
        for (py::ssize_t i = 0; i < unsigned64.size(); ++i) {
            if (unsigned64.data()[i] > static_cast<std::uint64_t>(INT64_MAX)) throw py::value_error("a value does not fit 64 bits");
        }
    }
    const auto signed64 = py::array_t<std::int64_t, py::array::c_style | py::array::forcecast>::ensure(array);
    return std::vector<std::int64_t>(signed64.data(), signed64.data() + signed64.size());
}

}  // namespace

std::uint64_t EncodeScalar(const TypeFacts& type, py::handle value, const std::string& who) {
    if (PyUnicode_Check(value.ptr())) return FromText(type, value.cast<std::string>(), who);
    if (type.Kind() == ValueKind::kCode && PyBool_Check(value.ptr())) return BoolCode(type, value.ptr() == Py_True, who);
    if (type.Kind() == ValueKind::kFloat64) {
        const double real = PyFloat_AsDouble(value.ptr());
        if (real == -1.0 && PyErr_Occurred()) {
            PyErr_Clear();
            throw py::type_error(who + ": a number expected, not " + TypeName(value));
        }
        return FromReal(real);
    }
    if (type.Kind() == ValueKind::kNone) throw py::type_error(who + " takes no values");
    return FromNumber(type, Integer(value, who), who);
}

std::vector<int> Leaves(const WriteFile& file, int bus) {
    std::vector<int> leaves;
    for (int element : file.At(bus).elements) {
        const Declaration& e = file.At(element);
        if (e.kind == SignalKind::kBus) {
            const std::vector<int> below = Leaves(file, element);
            leaves.insert(leaves.end(), below.begin(), below.end());
        } else if (e.kind == SignalKind::kScalar) {
            leaves.push_back(element);
        }
    }
    return leaves;
}

void EncodeBus(const WriteFile& file, int bus, py::handle value, std::vector<std::uint64_t>* raws) {
    const Declaration& d = file.At(bus);
    if (IsBitBus(file, d)) {
        if (PyUnicode_Check(value.ptr())) return BitsFromText(file, d, value.cast<std::string>(), raws);
        if (IsInteger(value)) return BitsFromInteger(file, d, value, raws);
    }
    if (PyDict_Check(value.ptr()) && d.type->Type().GetKind() == Sorvat::kKindRecord) {
        const py::dict fields = py::reinterpret_borrow<py::dict>(value);
        if (fields.size() != d.elements.size()) throw py::value_error(d.fullName + ": one value per field expected");
        for (int element : d.elements) {
            const std::string& field = file.At(element).name;
            if (!fields.contains(field)) throw py::value_error(d.fullName + ": no value for the field " + field);
            EncodeElement(file, element, fields[py::str(field)], raws);
        }
        return;
    }
    if (IsText(value) || !PySequence_Check(value.ptr())) {
        throw py::type_error(d.fullName + ": a sequence of its elements' values expected, not " + TypeName(value));
    }
    const py::sequence items = py::reinterpret_borrow<py::sequence>(value);
    if (items.size() != d.elements.size()) {
        throw py::value_error(d.fullName + ": " + std::to_string(items.size()) + " values for " + std::to_string(d.elements.size()) +
                              " elements");
    }
    for (std::size_t i = 0; i < d.elements.size(); ++i) EncodeElement(file, d.elements[i], items[i], raws);
}

std::vector<std::uint64_t> EncodeScalars(const TypeFacts& type, py::handle values, const std::string& who) {
    const py::array array = OneDimensional(values, who);
    const char kind = array.dtype().kind();
    std::vector<std::uint64_t> raws;
    raws.reserve(static_cast<std::size_t>(array.size()));
    const bool integers = kind == 'i' || kind == 'u';
    if (type.Kind() == ValueKind::kFloat64 && (integers || kind == 'f' || kind == 'b')) {
        const auto reals = py::array_t<double, py::array::c_style | py::array::forcecast>::ensure(array);
        for (py::ssize_t i = 0; i < reals.size(); ++i) raws.push_back(FromReal(reals.data()[i]));
        return raws;
    }
    if (integers && type.Kind() != ValueKind::kNone) {
        for (std::int64_t number : Int64s(array)) raws.push_back(FromNumber(type, number, who));
        return raws;
    }
    if (kind == 'f' && type.Kind() != ValueKind::kNone) throw py::type_error(who + ": integers expected, not floats");
    for (py::handle item : array) raws.push_back(EncodeScalar(type, item, who));  // text, bools, objects
    return raws;
}

std::vector<std::vector<std::uint64_t>> EncodeBuses(const WriteFile& file, int bus, py::handle values) {
    const Declaration& d = file.At(bus);
    const std::vector<int> leaves = Leaves(file, bus);
    std::vector<std::vector<std::uint64_t>> raws(leaves.size());
    if (py::isinstance<py::array>(values)) {
        const py::array array = py::reinterpret_borrow<py::array>(values);
        const char kind = array.dtype().kind();
        if (array.ndim() == 1 && (kind == 'i' || kind == 'u') && IsBitBus(file, d) && d.elements.size() <= 63) {
            const std::size_t width = d.elements.size();
            for (std::int64_t number : Int64s(array)) {
                if (number < 0 || static_cast<std::uint64_t>(number) >> width != 0) {
                    throw py::value_error(d.fullName + ": " + std::to_string(number) + " does not fit " + std::to_string(width) + " bits");
                }
                for (std::size_t i = 0; i < width; ++i) {
                    const char bit = (static_cast<std::uint64_t>(number) >> (width - 1 - i) & 1) ? '1' : '0';
                    raws[i].push_back(static_cast<std::uint64_t>(file.At(d.elements[i]).type->CodeOfCharacter(bit)));
                }
            }
            return raws;
        }
    }
    // Any other values: one bus value per item (a list of lists, rows of a 2-D array, strings).
    if (IsText(values) || !PySequence_Check(values.ptr())) {
        throw py::type_error(d.fullName + ": a sequence or an array of values expected, not " + TypeName(values));
    }
    std::vector<std::uint64_t> one;
    for (py::handle item : py::reinterpret_borrow<py::sequence>(values)) {
        one.clear();
        EncodeBus(file, bus, item, &one);
        for (std::size_t i = 0; i < leaves.size(); ++i) raws[i].push_back(one[i]);
    }
    return raws;
}

std::vector<std::int64_t> IntegerTimes(py::handle times) {
    const py::array array = OneDimensional(times, "times");
    const char kind = array.dtype().kind();
    if (array.size() > 0 && kind != 'i' && kind != 'u') throw py::type_error("times: integers expected (in the file's time unit)");
    return array.size() == 0 ? std::vector<std::int64_t>() : Int64s(array);
}

std::vector<std::uint32_t> IntegerDeltas(py::handle deltas) {
    std::vector<std::uint32_t> out;
    for (std::int64_t delta : IntegerTimes(deltas)) {
        if (delta < 0 || delta > 65535) throw py::value_error("deltas: " + std::to_string(delta) + " is outside 0 to 65535");
        out.push_back(static_cast<std::uint32_t>(delta));
    }
    return out;
}

}  // namespace TarvelPython
