# The API reference was generated and Doxygen had nothing to complain about:
# an undocumented function, field, parameter or macro in include/ fails here.
if(NOT EXISTS "${INDEX}")
  message(FATAL_ERROR "no API reference at ${INDEX}: build the docs target")
endif()
if(EXISTS "${LOG}")
  file(READ "${LOG}" warnings)
  if(NOT warnings STREQUAL "")
    message(FATAL_ERROR "Doxygen warnings (${LOG}):\n${warnings}")
  endif()
endif()
message(STATUS "API reference complete: ${INDEX}")
