# Everything `cmake --install` puts in place, in the GNU directories:
#   bin/      the emulator and any other program listed in KVL_INSTALL_PROGRAMS,
#             KVLCLIENT.dll on Windows
#   lib/      libkvlclient.so.* or the import library libKVLCLIENT.dll.a and
#             KVLCLIENT.def; KVLCLIENT.dll.debug (component "debug")
#   include/kvlclient/            the public headers
#   lib/cmake/kvlclient/          find_package(kvlclient CONFIG) -> kvlclient::kvlclient
#   lib/pkgconfig/kvlclient.pc    pkg-config kvlclient
#   share/doc/kvlclient/          LICENSE, README.md, docs/ (and the API reference when built)
# New installable parts (the command-line program, the Python package) add
# their rules in the marked section at the end of this file.

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(KVL_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/kvlclient)
set(KVL_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/kvlclient)
set(KVL_INSTALL_PKGCONFIGDIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
set(KVL_DESCRIPTION "${PROJECT_DESCRIPTION}")
set(KVL_LICENSE "Apache-2.0")

# --- the library ----------------------------------------------------------
target_include_directories(kvlclient INTERFACE $<INSTALL_INTERFACE:${KVL_INSTALL_INCLUDEDIR}>)
install(TARGETS kvlclient EXPORT kvlclientTargets
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/ DESTINATION ${KVL_INSTALL_INCLUDEDIR} COMPONENT development
        FILES_MATCHING PATTERN "*.h" PATTERN "*.hpp")

if(WIN32)
  # The linker writes the .def from the exported declarations (KVL_API in
  # include/): one export list, for users of other toolchains.
  set(KVL_DEF_FILE ${CMAKE_LIBRARY_OUTPUT_DIRECTORY}/KVLCLIENT.def)
  target_link_options(kvlclient PRIVATE -Wl,--output-def,${KVL_DEF_FILE})
  install(FILES ${KVL_DEF_FILE} DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)

  # Debug information goes to KVLCLIENT.dll.debug beside the DLL (found by
  # debuggers through the debug link); the DLL itself ships without it.
  find_program(KVL_OBJCOPY NAMES ${CMAKE_OBJCOPY} x86_64-w64-mingw32-objcopy objcopy REQUIRED)
  add_custom_command(TARGET kvlclient POST_BUILD
    COMMAND ${KVL_OBJCOPY} --only-keep-debug $<TARGET_FILE:kvlclient> $<TARGET_FILE:kvlclient>.debug
    COMMAND ${KVL_OBJCOPY} --strip-debug --add-gnu-debuglink=$<TARGET_FILE:kvlclient>.debug $<TARGET_FILE:kvlclient>
    WORKING_DIRECTORY $<TARGET_FILE_DIR:kvlclient>
    COMMENT "Splitting the debug information off KVLCLIENT.dll"
    VERBATIM)
  install(FILES $<TARGET_FILE:kvlclient>.debug DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT debug)
  set(KVL_LINK_NAME KVLCLIENT)
  set(KVL_PRIVATE_LIBS "-lws2_32")
else()
  set(KVL_LINK_NAME kvlclient)
  set(KVL_PRIVATE_LIBS "-lpthread")
endif()
# TLS: the OpenSSL build names its dependency for pkg-config (openssl.pc) and
# find_package (find_dependency in the config file); Schannel is part of the system.
set(KVL_PC_REQUIRES_PRIVATE "")
if(KVL_TLS_BACKEND STREQUAL "openssl")
  set(KVL_PC_REQUIRES_PRIVATE "openssl >= 3")
elseif(KVL_TLS_BACKEND STREQUAL "schannel")
  string(APPEND KVL_PRIVATE_LIBS " -lsecur32 -lcrypt32")
endif()

# --- find_package(kvlclient CONFIG) -----------------------------------------
install(EXPORT kvlclientTargets NAMESPACE kvlclient:: DESTINATION ${KVL_INSTALL_CMAKEDIR} COMPONENT development)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/templates/kvlclientConfig.cmake.in
                              ${KVL_GENERATED_DIR}/kvlclientConfig.cmake INSTALL_DESTINATION ${KVL_INSTALL_CMAKEDIR})
# Same major version required: the major version is also the shared object's SOVERSION.
write_basic_package_version_file(${KVL_GENERATED_DIR}/kvlclientConfigVersion.cmake
                                 VERSION ${KVL_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${KVL_GENERATED_DIR}/kvlclientConfig.cmake ${KVL_GENERATED_DIR}/kvlclientConfigVersion.cmake
        DESTINATION ${KVL_INSTALL_CMAKEDIR} COMPONENT development)

# --- pkg-config kvlclient ---------------------------------------------------
# Relocatable: the prefix is found from the .pc file's own place, so an install
# with `cmake --install --prefix DIR` works wherever DIR is.
file(RELATIVE_PATH KVL_PC_TO_PREFIX /${KVL_INSTALL_PKGCONFIGDIR} /)
string(REGEX REPLACE "/$" "" KVL_PC_TO_PREFIX "${KVL_PC_TO_PREFIX}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/templates/kvlclient.pc.in ${KVL_GENERATED_DIR}/kvlclient.pc @ONLY)
install(FILES ${KVL_GENERATED_DIR}/kvlclient.pc DESTINATION ${KVL_INSTALL_PKGCONFIGDIR} COMPONENT development)

# --- documentation ----------------------------------------------------------
install(FILES ${PROJECT_SOURCE_DIR}/LICENSE ${PROJECT_SOURCE_DIR}/README.md
        DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documentation)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documentation
        FILES_MATCHING PATTERN "*.md")

# --- programs and further components ----------------------------------------
# A program target named here is installed to bin/ when this build has it.
list(APPEND KVL_INSTALL_PROGRAMS kvl-gateway-emulator)
foreach(program IN LISTS KVL_INSTALL_PROGRAMS)
  if(TARGET ${program})
    install(TARGETS ${program} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT programs)
  endif()
endforeach()
# Further components (the Python package, ...) add their install() rules here.
