# The API reference: Doxygen over the public headers, built with everything else
# when Doxygen is installed (Debian package doxygen). Every warning (an
# undocumented function, field, parameter or macro) goes to
# doxygen-warnings.log; the test docs_reference_complete fails unless it is empty.

option(KVL_BUILD_DOCS "Build the API reference when Doxygen is installed" ON)
if(NOT KVL_BUILD_DOCS OR CMAKE_CROSSCOMPILING)
  return()
endif()
find_package(Doxygen QUIET)
if(NOT DOXYGEN_FOUND)
  message(STATUS "Doxygen not found: no API reference (Debian package doxygen)")
  return()
endif()

set(KVL_DOCS_DIR ${PROJECT_BINARY_DIR}/docs)
set(KVL_DOXYGEN_WARNINGS ${KVL_DOCS_DIR}/doxygen-warnings.log)
file(GLOB KVL_PUBLIC_HEADERS CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/include/*.h ${PROJECT_SOURCE_DIR}/include/*.hpp)
configure_file(${PROJECT_SOURCE_DIR}/docs/Doxyfile.in ${KVL_DOCS_DIR}/Doxyfile @ONLY)
add_custom_command(
  OUTPUT ${KVL_DOCS_DIR}/html/index.html
  COMMAND ${CMAKE_COMMAND} -E remove -f ${KVL_DOXYGEN_WARNINGS}
  COMMAND ${DOXYGEN_EXECUTABLE} ${KVL_DOCS_DIR}/Doxyfile
  DEPENDS ${KVL_PUBLIC_HEADERS} ${PROJECT_SOURCE_DIR}/docs/reference.md ${KVL_DOCS_DIR}/Doxyfile
  WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
  COMMENT "API reference (Doxygen): ${KVL_DOCS_DIR}/html/index.html"
  VERBATIM)
add_custom_target(docs ALL DEPENDS ${KVL_DOCS_DIR}/html/index.html)
install(DIRECTORY ${KVL_DOCS_DIR}/html/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/reference COMPONENT documentation
        OPTIONAL)

if(KVL_BUILD_TESTS)
  add_test(NAME docs_reference_complete
           COMMAND ${CMAKE_COMMAND} -DLOG=${KVL_DOXYGEN_WARNINGS} -DINDEX=${KVL_DOCS_DIR}/html/index.html
                   -P ${PROJECT_SOURCE_DIR}/tests/package/docs_complete.cmake)
endif()
