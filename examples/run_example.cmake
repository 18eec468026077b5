# Runs one example program (PROGRAM with the ;-list ARGS) and compares its standard output with
# the file EXPECTED. With the environment variable TARVEL_REGENERATE_GOLDEN=1 it rewrites
# EXPECTED instead. Used by examples/CMakeLists.txt as `cmake -P`.
execute_process(COMMAND ${PROGRAM} ${ARGS}
  OUTPUT_VARIABLE output ERROR_VARIABLE errors RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "${PROGRAM} ${ARGS} exited with ${status}\n${errors}${output}")
endif()
if("$ENV{TARVEL_REGENERATE_GOLDEN}" STREQUAL "1")
  file(WRITE ${EXPECTED} "${output}")
  message(STATUS "rewrote ${EXPECTED}")
  return()
endif()
file(READ ${EXPECTED} expected)
if(NOT output STREQUAL expected)
  message(FATAL_ERROR "output of ${PROGRAM} differs from ${EXPECTED}\n--- expected\n${expected}--- got\n${output}${errors}")
endif()
