# Installs the library into a private prefix, builds consumer.c against the
# installed header and shared library only, and runs it.
file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${WORK}/stage
                RESULT_VARIABLE rc OUTPUT_QUIET)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "install failed")
endif()
set(flags -std=c99 -Wall -Wextra -Werror)
if(SANITIZE)
  list(APPEND flags -fsanitize=address,undefined)
endif()
execute_process(COMMAND ${CC} ${flags} ${SOURCE} -I${WORK}/stage/include
                -L${WORK}/stage/lib -ltesslin -Wl,-rpath,${WORK}/stage/lib -o ${WORK}/consumer
                RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "consumer does not compile against the installed header")
endif()
execute_process(COMMAND ${WORK}/consumer RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "consumer failed: ${rc}")
endif()
