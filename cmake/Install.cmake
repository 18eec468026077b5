# What `cmake --install` puts in place, and the Debian package `cpack -G DEB` makes of it:
#   lib/      libtarvel.so and libsorvat.so (with their sonames), pkgconfig/tarvel.pc,
#             cmake/Tarvel/ (find_package(Tarvel) gives Tarvel::tarvel and Tarvel::sorvat)
#   include/  tarvel/*.h and sorvat/typeinfo.h
#   bin/      the `tarvel` tool
# Everything finds everything else relative to where it lies, so any prefix works.
include(CMakePackageConfigHelpers)

set(TARVEL_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Tarvel)

install(TARGETS tarvel sorvat EXPORT TarvelTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/tarvel ${PROJECT_SOURCE_DIR}/include/sorvat
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")
set_target_properties(tarvel_cli PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
install(TARGETS tarvel_cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# The CMake package.
install(EXPORT TarvelTargets NAMESPACE Tarvel:: DESTINATION ${TARVEL_CMAKE_DIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/TarvelConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/TarvelConfig.cmake INSTALL_DESTINATION ${TARVEL_CMAKE_DIR})
# The soname stays 0 while the version is 0.x; a 0.x package takes any 0.y request no newer.
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/TarvelConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/TarvelConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/TarvelConfigVersion.cmake
  DESTINATION ${TARVEL_CMAKE_DIR})

# The pkg-config file finds the prefix from its own place (${pcfiledir}).
file(RELATIVE_PATH TARVEL_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" TARVEL_PC_TO_PREFIX "${TARVEL_PC_TO_PREFIX}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/tarvel.pc.in ${CMAKE_CURRENT_BINARY_DIR}/tarvel.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tarvel.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The Debian package (cpack -G DEB in the build tree; make package).
set(CPACK_PACKAGE_NAME tarvel)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Waveform files of HDL simulators: writer, readers and the tarvel tool")
set(CPACK_PACKAGE_DESCRIPTION
  "A C++ library (libtarvel, with the type service libsorvat) that writes and reads the waveform files of
 hardware-description-language simulators, its development headers, CMake package and pkg-config file,
 and the tarvel command-line tool (info, tree, dump, check, follow, VCD import and export).")
set(CPACK_PACKAGE_CONTACT "tarvel developers <tarvel@localhost>")
set(CPACK_DEBIAN_PACKAGE_SECTION electronics)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)  # dpkg-shlibdeps (dpkg-dev) finds the C and C++ runtime versions
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
include(CPack)
