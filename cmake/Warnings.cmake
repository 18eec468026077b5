# Warning flags shared by every target of the project.
add_library(tarvel_warnings INTERFACE)
target_compile_options(tarvel_warnings INTERFACE
  -Wall -Wextra -Wshadow -Wnon-virtual-dtor -Wold-style-cast -Wcast-align
  -Wunused -Woverloaded-virtual -Wpedantic -Wnull-dereference -Wdouble-promotion)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  target_compile_options(tarvel_warnings INTERFACE -Wno-maybe-uninitialized)
endif()
