// C++ exceptions as Python exceptions: FileError as tarvel.Error (with the file, the reason and
// the place), std::bad_alloc as MemoryError after making the library's memory reserve again.
// Python binding layer.
#include <tarvel/config.h>

#include <new>

#include "bindings.h"
#include "read_file.h"

namespace TarvelPython {
namespace {

PyObject* g_error = nullptr;  // tarvel.Error (python/tarvel/errors.py); one reference, kept

void Translate(std::exception_ptr thrown) {
    try {
        if (thrown) std::rethrow_exception(thrown);
    } catch (const FileError& e) {
        py::object error = py::reinterpret_borrow<py::object>(g_error)(e.Path(), e.Reason(), e.Line(), e.Column());
        PyErr_SetObject(g_error, error.ptr());
    } catch (const std::bad_alloc&) {
        // The library fails every allocation once its reserve is spent, until it is made again;
        // what the failed call held is freed by now.
        Tarvel::PrepareOutOfMemoryBuffer();
        PyErr_SetString(PyExc_MemoryError, "out of memory");
    }
}

}  // namespace

void BindErrors(py::module_& m) {
    py::object error = py::module_::import("tarvel.errors").attr("Error");
    g_error = error.release().ptr();
    m.attr("Error") = py::reinterpret_borrow<py::object>(g_error);
    py::register_exception_translator(Translate);
}

}  // namespace TarvelPython
