// What the binding files share: numpy arrays that take over C++ vectors, the lock that waits
// with the GIL released, and the parts of the module each binding file adds. Python binding
// layer; every function here needs the GIL unless it says otherwise.
#ifndef TARVEL_PYTHON_BINDINGS_H
#define TARVEL_PYTHON_BINDINGS_H

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <mutex>
#include <vector>

namespace TarvelPython {

namespace py = pybind11;

// A numpy array that owns `values` (moved, not copied), of `shape` (default: one dimension).
template <typename T>
py::array_t<T> ToNumpy(std::vector<T>&& values, std::vector<py::ssize_t> shape = {}) {
    auto* owned = new std::vector<T>(std::move(values));
    py::capsule free(owned, [](void* p) { delete static_cast<std::vector<T>*>(p); });
    if (shape.empty()) shape.push_back(static_cast<py::ssize_t>(owned->size()));
    return py::array_t<T>(shape, owned->data(), free);
}

// Holds `mutex` for a short call. When another thread holds it (a long read or write, which
// runs without the GIL), waits with the GIL released, so that the two cannot block each other.
class ShortLock {
public:
    explicit ShortLock(std::mutex& mutex) : m_mutex(mutex) {
        if (m_mutex.try_lock()) return;
        py::gil_scoped_release release;
        m_mutex.lock();
    }
    ~ShortLock() { m_mutex.unlock(); }
    ShortLock(const ShortLock&) = delete;
    ShortLock& operator=(const ShortLock&) = delete;

private:
    std::mutex& m_mutex;
};

// Runs `work` with the GIL released and `mutex` held: for calls that take long.
template <typename Work>
auto LongCall(std::mutex& mutex, Work&& work) {
    py::gil_scoped_release release;
    std::lock_guard<std::mutex> lock(mutex);
    return work();
}

// The parts of the module (bind_*.cc).
void BindErrors(py::module_& m);
void BindTypes(py::module_& m);
void BindReading(py::module_& m);
void BindWriting(py::module_& m);

}  // namespace TarvelPython

#endif  // TARVEL_PYTHON_BINDINGS_H
