# The core library links none of the plug-in modules' libraries.
execute_process(COMMAND readelf -d ${LIB} OUTPUT_VARIABLE out RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "readelf failed")
endif()
if(out MATCHES "poppler|openjp2")
  message(FATAL_ERROR "libtesslin depends on a module's library:\n${out}")
endif()
