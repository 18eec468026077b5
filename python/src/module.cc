// The Python extension module tarvel._tarvel: the parts that the package tarvel (python/tarvel/)
// builds its interface on. Python binding layer.
#include "bindings.h"

PYBIND11_MODULE(_tarvel, m) {
    m.doc() = "The C++ half of the tarvel package; use the package, not this module.";
    TarvelPython::BindErrors(m);
    TarvelPython::BindTypes(m);
    TarvelPython::BindReading(m);
    TarvelPython::BindWriting(m);
}
