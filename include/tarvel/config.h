// Basic definitions shared by every public header of the tarvel library: the export macro and
// the integer types of the interface. Public header; compiles as C++17 and later.
#ifndef TARVEL_CONFIG_H
#define TARVEL_CONFIG_H

#include <cstdint>
#include <utility>

#if defined(_WIN32)
#  if defined(TARVEL_BUILDING_LIBRARY)
#    define TARVEL_API __declspec(dllexport)
#  else
#    define TARVEL_API __declspec(dllimport)
#  endif
#else
#  define TARVEL_API __attribute__((visibility("default")))
#endif

namespace Tarvel {

// Simulation times, counts of repetitions and other wide integers of the interface.
typedef std::int64_t int64;

// Releases the out-of-memory reserve and makes a new one, and clears the out-of-memory state.
// After the library has once run out of memory, every allocation it makes fails at once (with
// std::bad_alloc) until the host has freed what it can and called this function. The library
// makes the reserve itself when it is loaded.
TARVEL_API void PrepareOutOfMemoryBuffer();

}  // namespace Tarvel

#endif  // TARVEL_CONFIG_H
