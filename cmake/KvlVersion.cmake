# One version for everything: project(VERSION) in the top CMakeLists.txt. The
# library's reported DLL version, the trace banner's build level, the shared
# object's VERSION and SOVERSION, the Windows version resource, the CMake
# package version and kvlclient.pc all come from it.

# The interface level reported by KVL_getAPIVersion: it changes only when the
# C interface does, not with every release of the library.
set(KVL_API_LEVEL "2.3.0.0")

set(KVL_VERSION ${PROJECT_VERSION})
foreach(part MAJOR MINOR PATCH TWEAK)
  if(NOT PROJECT_VERSION_${part})
    set(PROJECT_VERSION_${part} 0)
  endif()
endforeach()
set(KVL_VERSION_COMMAS
    "${PROJECT_VERSION_MAJOR},${PROJECT_VERSION_MINOR},${PROJECT_VERSION_PATCH},${PROJECT_VERSION_TWEAK}")
string(REPLACE "." "" KVL_VERSION_DIGITS "${KVL_VERSION}")

# Build level shown in the trace banner: fixed at configure time.
string(TIMESTAMP KVL_BUILD_STAMP "%Y%m%d%H%M" UTC)
set(KVL_BUILD_LEVEL "KVL${KVL_VERSION_DIGITS}-${KVL_BUILD_STAMP}")

set(KVL_GENERATED_DIR ${PROJECT_BINARY_DIR}/generated)
configure_file(${CMAKE_CURRENT_LIST_DIR}/templates/clapi_version.h.in ${KVL_GENERATED_DIR}/impl/clapi_version.h @ONLY)
configure_file(${CMAKE_CURRENT_LIST_DIR}/templates/clapi_buildlevel.h.in ${KVL_GENERATED_DIR}/impl/clapi_buildlevel.h @ONLY)
target_include_directories(kvl_platform PUBLIC ${KVL_GENERATED_DIR})
target_include_directories(kvlclient_internal PUBLIC ${KVL_GENERATED_DIR})
target_include_directories(kvlclient PRIVATE ${KVL_GENERATED_DIR})

if(WIN32)
  # File and product version, description: what Explorer and installers show.
  enable_language(RC)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/templates/kvlclient.rc.in ${KVL_GENERATED_DIR}/kvlclient.rc @ONLY)
  target_sources(kvlclient PRIVATE ${KVL_GENERATED_DIR}/kvlclient.rc)
else()
  set_target_properties(kvlclient PROPERTIES VERSION ${KVL_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
endif()
