# The vendored corpus must follow the shared one when both are present.
if(NOT EXISTS ${SHARED}/MANIFEST.tsv)
  message(STATUS "no shared corpus beside the checkout: nothing to compare")
  return()
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -E compare_files ${SHARED}/MANIFEST.tsv
                ${VENDORED}/MANIFEST.tsv RESULT_VARIABLE differs)
if(differs)
  message(FATAL_ERROR "tests/data/corpus is behind ${SHARED}: copy the shared corpus again")
endif()
