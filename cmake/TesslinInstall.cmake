# Installing Tesslin the way integrators expect: the shared library, the
# public header, the command-line tool, a pkg-config
# file (tesslin.pc), a CMake package (find_package(Tesslin) giving the
# target Tesslin::tesslin), the Python package and the man pages. The
# plug-in modules install themselves beside the library (modules/).
include(CMakePackageConfigHelpers)

set(TESSLIN_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Tesslin CACHE STRING
    "Where the CMake package files are installed, relative to the prefix")
set(TESSLIN_PYTHON_DIR ${CMAKE_INSTALL_LIBDIR}/python3/site-packages CACHE STRING
    "Where the Python package is installed, relative to the prefix")

install(TARGETS tesslin EXPORT TesslinTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS tesslin_cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${PROJECT_SOURCE_DIR}/include/tesslin/tesslin.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tesslin)

# CMake package.
install(EXPORT TesslinTargets NAMESPACE Tesslin:: DESTINATION ${TESSLIN_CMAKE_DIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/TesslinConfig.cmake.in
  ${PROJECT_BINARY_DIR}/TesslinConfig.cmake INSTALL_DESTINATION ${TESSLIN_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/TesslinConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/TesslinConfig.cmake
  ${PROJECT_BINARY_DIR}/TesslinConfigVersion.cmake DESTINATION ${TESSLIN_CMAKE_DIR})

# pkg-config file. Paths are relative to ${prefix} so the file stays right
# when the tree is installed with `cmake --install --prefix`: the prefix is
# written at install time.
install(CODE "
  set(prefix \"\${CMAKE_INSTALL_PREFIX}\")
  set(libdir \"\\\${prefix}/${CMAKE_INSTALL_LIBDIR}\")
  set(includedir \"\\\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}\")
  set(version \"${PROJECT_VERSION}\")
  configure_file(\"${PROJECT_SOURCE_DIR}/cmake/tesslin.pc.in\"
                 \"${PROJECT_BINARY_DIR}/pc/tesslin.pc\" @ONLY)
  file(INSTALL \"${PROJECT_BINARY_DIR}/pc/tesslin.pc\"
       DESTINATION \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig\")
")

# Python package: pure Python over the installed library, which it finds
# through a path relative to its own directory (written here) unless
# $TESSLIN_LIBRARY names the library.
if(TESSLIN_PYTHON)
  file(RELATIVE_PATH TESSLIN_PY_TO_LIB ${CMAKE_INSTALL_PREFIX}/${TESSLIN_PYTHON_DIR}/tesslin
       ${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR})
  configure_file(${PROJECT_SOURCE_DIR}/cmake/tesslin_config.py.in
                 ${PROJECT_BINARY_DIR}/python/_config.py @ONLY)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/python/tesslin/ DESTINATION ${TESSLIN_PYTHON_DIR}/tesslin
          FILES_MATCHING PATTERN "*.py" PATTERN "__pycache__" EXCLUDE)
  install(FILES ${PROJECT_BINARY_DIR}/python/_config.py DESTINATION ${TESSLIN_PYTHON_DIR}/tesslin)
endif()

# Manual pages, written by the built tool from its own help texts.
add_custom_command(OUTPUT ${PROJECT_BINARY_DIR}/man/tesslin.1
  COMMAND ${CMAKE_COMMAND} -E rm -rf ${PROJECT_BINARY_DIR}/man
  COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/man
  COMMAND tesslin_cli --write-man ${PROJECT_BINARY_DIR}/man
  DEPENDS tesslin_cli
  COMMENT "Writing the tesslin manual pages")
add_custom_target(tesslin_man ALL DEPENDS ${PROJECT_BINARY_DIR}/man/tesslin.1)
install(DIRECTORY ${PROJECT_BINARY_DIR}/man/ DESTINATION ${CMAKE_INSTALL_MANDIR}/man1
  FILES_MATCHING PATTERN "*.1")
