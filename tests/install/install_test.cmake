# Installs the built tree into a fresh prefix (cmake --install), then builds the consumer program
# outside the tree twice, once with find_package(Tarvel) and once with pkg-config, and runs both,
# and the installed tool. Run by CTest as `cmake -P` with BUILD_DIR (the built tree), WORK (a
# scratch folder, emptied first), GENERATOR and CXX.
set(prefix ${WORK}/prefix)
set(consumer ${CMAKE_CURRENT_LIST_DIR}/consumer)
file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK})

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT status EQUAL 0)
    string(REPLACE ";" " " command "${ARGN}")
    message(FATAL_ERROR "${command}\nexited with ${status}\n${out}${err}")
  endif()
  set(output "${out}" PARENT_SCOPE)
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
file(GLOB_RECURSE package_file ${prefix}/*/TarvelConfig.cmake)
file(GLOB_RECURSE pc_file ${prefix}/*/tarvel.pc)
if(NOT package_file OR NOT pc_file)
  message(FATAL_ERROR "the install holds no TarvelConfig.cmake or no tarvel.pc")
endif()

# find_package(Tarvel)
run(${CMAKE_COMMAND} -S ${consumer} -B ${WORK}/cmake-build -G ${GENERATOR} -DCMAKE_CXX_COMPILER=${CXX}
    -DCMAKE_PREFIX_PATH=${prefix})
run(${CMAKE_COMMAND} --build ${WORK}/cmake-build)
run(${WORK}/cmake-build/consumer ${WORK})

# pkg-config
get_filename_component(pc_dir ${pc_file} DIRECTORY)
set(ENV{PKG_CONFIG_PATH} ${pc_dir})
run(pkg-config --cflags --libs tarvel)
string(STRIP "${output}" flags)
separate_arguments(flags UNIX_COMMAND "${flags}")
run(pkg-config --variable=libdir tarvel)
string(STRIP "${output}" libdir)
run(${CXX} -std=c++17 ${consumer}/consumer.cc ${flags} -Wl,-rpath,${libdir} -o ${WORK}/pc-consumer)
run(${WORK}/pc-consumer ${WORK})

# The installed tool finds its libraries from where it lies.
run(${prefix}/bin/tarvel check -q ${WORK}/consumer.twf)
message(STATUS "installed into ${prefix}; the consumer built and ran with find_package and with pkg-config")
