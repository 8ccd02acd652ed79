# Installs the build into a fresh prefix and uses it as an integrator would:
# C programs built with pkg-config (the info example, and
# tests/consumer/consumer.c, which builds images with the header's structures from C)
# and with find_package(Tesslin), the installed tesslin run without
# LD_LIBRARY_PATH, the Python tests run against the installed package.
#   -DBUILD_DIR -DSOURCE_DIR -DWORK -DCC -DSAMPLE -DPYTHON -DPYTHON_SITE -DSANITIZE
file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK})
set(prefix ${WORK}/prefix)

function(run what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${what} failed (${rc}):\n${out}\n${err}")
  endif()
  set(out "${out}" PARENT_SCOPE)
endfunction()

run("install" ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
foreach(path include/tesslin/tesslin.h lib/pkgconfig/tesslin.pc
        lib/cmake/Tesslin/TesslinConfig.cmake bin/tesslin share/man/man1/tesslin.1)
  if(NOT EXISTS ${prefix}/${path})
    message(FATAL_ERROR "not installed: ${path}")
  endif()
endforeach()
file(GLOB libs ${prefix}/lib/libtesslin.so*)
if(NOT libs)
  message(FATAL_ERROR "libtesslin.so not installed")
endif()

# The installed tool starts without LD_LIBRARY_PATH, wherever the prefix is.
run("installed tesslin" ${CMAKE_COMMAND} -E env --unset=LD_LIBRARY_PATH
    ${prefix}/bin/tesslin info ${SAMPLE})
if(NOT out MATCHES "TIFF")
  message(FATAL_ERROR "installed tesslin info printed: ${out}")
endif()

set(sanitize_flags)
if(SANITIZE)
  set(sanitize_flags -fsanitize=address,undefined)
endif()

# pkg-config.
set(ENV{PKG_CONFIG_PATH} ${prefix}/lib/pkgconfig)
run("pkg-config" pkg-config --cflags --libs tesslin)
separate_arguments(pc_flags UNIX_COMMAND "${out}")
run("cc with pkg-config" ${CC} -std=c99 -Wall -Wextra -Werror ${sanitize_flags}
    ${SOURCE_DIR}/examples/info.c ${pc_flags} -Wl,-rpath,${prefix}/lib -o ${WORK}/info_pc)
run("program built with pkg-config" ${WORK}/info_pc ${SAMPLE})
if(NOT out MATCHES "3 pages, 1700 x 2200, 1 bit")
  message(FATAL_ERROR "info_pc printed: ${out}")
endif()
run("cc consumer.c with pkg-config" ${CC} -std=c99 -Wall -Wextra -Werror ${sanitize_flags}
    ${SOURCE_DIR}/tests/consumer/consumer.c ${pc_flags} -Wl,-rpath,${prefix}/lib -o ${WORK}/consumer)
run("consumer.c" ${WORK}/consumer)

# find_package(Tesslin).
file(MAKE_DIRECTORY ${WORK}/project)
file(WRITE ${WORK}/project/CMakeLists.txt "
cmake_minimum_required(VERSION 3.16)
project(uses_tesslin C)
find_package(Tesslin 0.1 REQUIRED)
add_executable(info ${SOURCE_DIR}/examples/info.c)
target_compile_options(info PRIVATE ${sanitize_flags})
target_link_options(info PRIVATE ${sanitize_flags})
target_link_libraries(info PRIVATE Tesslin::tesslin)
")
run("configure with find_package" ${CMAKE_COMMAND} -S ${WORK}/project -B ${WORK}/project/build
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_C_COMPILER=${CC})
run("build with find_package" ${CMAKE_COMMAND} --build ${WORK}/project/build)
run("program built with find_package" ${WORK}/project/build/info ${SAMPLE})
if(NOT out MATCHES "3 pages, 1700 x 2200, 1 bit")
  message(FATAL_ERROR "find_package program printed: ${out}")
endif()

# The Python package, installed beside the library, finds it on its own.
if(PYTHON AND NOT SANITIZE)
  set(site ${prefix}/${PYTHON_SITE})
  if(NOT EXISTS ${site}/tesslin/__init__.py)
    message(FATAL_ERROR "Python package not installed in ${site}")
  endif()
  execute_process(COMMAND ${CMAKE_COMMAND} -E env --unset=TESSLIN_LIBRARY
      --unset=LD_LIBRARY_PATH PYTHONPATH=${site} TESSLIN_TEST_SAMPLE=${SAMPLE} TESSLIN_TEST_PREFIX=${prefix}
      ${PYTHON} -m pytest -q -p no:cacheprovider ${SOURCE_DIR}/python/tests
    WORKING_DIRECTORY ${WORK} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  # 5: pytest collected no tests.
  if(NOT rc EQUAL 0 AND NOT rc EQUAL 5)
    message(FATAL_ERROR "pytest against the installed package failed (${rc}):\n${out}\n${err}")
  endif()
  message(STATUS "${out}")
endif()
