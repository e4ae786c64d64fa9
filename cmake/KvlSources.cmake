# One object library per source folder, so that a test can link exactly the layers it exercises.
# The shared library and the internal static library are both built from the same objects.

if(WIN32)
  set(KVL_PLATFORM_SOURCES src/platform/platform_win32.cpp src/platform/platform_ext_win32.cpp)
  set(KVL_ENTRY_SOURCES src/platform/entry_win32.cpp)
  set(KVL_PLATFORM_LIBS ws2_32)
else()
  set(KVL_PLATFORM_SOURCES src/platform/platform_posix.cpp src/platform/platform_ext_posix.cpp)
  set(KVL_ENTRY_SOURCES src/platform/entry_posix.cpp)
  set(KVL_PLATFORM_LIBS pthread)
endif()

set(KVL_LAYERS impl comms gateway eci esi api ext tls)
set(KVL_ALL_OBJECTS)

add_library(kvl_platform OBJECT ${KVL_PLATFORM_SOURCES})
target_include_directories(kvl_platform PUBLIC ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR}/src)
target_compile_definitions(kvl_platform PUBLIC KVL_BUILDING_LIBRARY)
list(APPEND KVL_ALL_OBJECTS $<TARGET_OBJECTS:kvl_platform>)

# TLS: OpenSSL on Linux, Schannel on Windows, or none (plain TCP only).
option(KVL_WITH_TLS "Build TLS connections (OpenSSL on Linux, Schannel on Windows)" ON)
set(KVL_TLS_BACKEND none)
set(KVL_TLS_LIBS)
if(KVL_WITH_TLS)
  if(WIN32)
    set(KVL_TLS_BACKEND schannel)
    set(KVL_TLS_LIBS secur32 crypt32)
  else()
    find_package(OpenSSL 3)
    if(OPENSSL_FOUND)
      set(KVL_TLS_BACKEND openssl)
      set(KVL_TLS_LIBS OpenSSL::SSL OpenSSL::Crypto)
    else()
      message(STATUS "OpenSSL 3 not found: building without TLS")
    endif()
  endif()
endif()
message(STATUS "TLS backend: ${KVL_TLS_BACKEND}")

foreach(layer IN LISTS KVL_LAYERS)
  file(GLOB layer_sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/src/${layer}/*.cpp)
  if(layer STREQUAL "tls")
    # The backend-neutral glue goes with every backend but none.
    if(KVL_TLS_BACKEND STREQUAL "none")
      set(layer_sources ${PROJECT_SOURCE_DIR}/src/tls/clapi_tls_none.cpp)
    else()
      list(FILTER layer_sources EXCLUDE REGEX "/clapi_tls_(none|openssl|schannel)\\.cpp$")
      list(APPEND layer_sources ${PROJECT_SOURCE_DIR}/src/tls/clapi_tls_${KVL_TLS_BACKEND}.cpp)
    endif()
  endif()
  if(layer_sources)
    add_library(kvl_${layer} OBJECT ${layer_sources})
    target_link_libraries(kvl_${layer} PUBLIC kvl_platform)
    if(layer STREQUAL "tls" AND NOT KVL_TLS_BACKEND STREQUAL "none")
      target_link_libraries(kvl_tls PRIVATE ${KVL_TLS_LIBS})
    endif()
    list(APPEND KVL_ALL_OBJECTS $<TARGET_OBJECTS:kvl_${layer}>)
  endif()
endforeach()

# Internal static library: everything but the load/unload hooks; unit tests link it.
add_library(kvlclient_internal STATIC ${KVL_ALL_OBJECTS})
target_include_directories(kvlclient_internal PUBLIC ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR}/src)
target_compile_definitions(kvlclient_internal PUBLIC KVL_BUILDING_LIBRARY)
target_link_libraries(kvlclient_internal PUBLIC ${KVL_PLATFORM_LIBS} ${KVL_TLS_LIBS})

add_library(kvlclient SHARED ${KVL_ALL_OBJECTS} ${KVL_ENTRY_SOURCES})
target_include_directories(kvlclient PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
                                     PRIVATE ${PROJECT_SOURCE_DIR}/src)
target_compile_definitions(kvlclient PRIVATE KVL_BUILDING_LIBRARY)
target_link_libraries(kvlclient PRIVATE ${KVL_PLATFORM_LIBS} ${KVL_TLS_LIBS})
if(WIN32)
  set_target_properties(kvlclient PROPERTIES OUTPUT_NAME KVLCLIENT PREFIX "" IMPORT_PREFIX "lib"
                        IMPORT_SUFFIX ".dll.a")
  target_link_options(kvlclient PRIVATE -Wl,--kill-at)
else()
  target_link_options(kvlclient PRIVATE -Wl,--no-undefined)
endif()


# Versions, SONAME and the Windows version resource.
include(${CMAKE_CURRENT_LIST_DIR}/KvlVersion.cmake)
