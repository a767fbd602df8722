# Installs what a host's developers get, by `cmake --install` or as CPack's zip of the same tree.
#
#   bin/                        the DLL and lumora-midi, with the DLLs that they need
#   lib/                        the import library, and the files of find_package and pkg-config
#   include/lumora_transport/   the headers, included as in this tree
#   share/lumora_transport/     README and docs, an example host, third-party licences
#
# The tree can be moved: no file in it contains a path outside it.

include(CMakeDependentOption)
include(CMakePackageConfigHelpers)

# Only with the Qt that ./dev builds. Any other belongs to the host, and Qt 4 always does.
cmake_dependent_option(LUMORA_INSTALL_RUNTIME
    "Install the DLLs of Qt and of the compiler, too, with their licences" ON
    "CMAKE_CROSSCOMPILING;LUMORA_QT_DIR;NOT LUMORA_QT EQUAL 4" OFF)

set(package_dir lib/cmake/lumora_transport)
set(data_dir share/lumora_transport)

# --- The library and its tool -------------------------------------------------------------------

# What a host also links: Qt for the types in the headers, ole32 to free a port list.
set_target_properties(lumora_transport PROPERTIES EXPORT_NAME transport)
target_compile_features(lumora_transport INTERFACE cxx_std_17)
target_link_libraries(lumora_transport INTERFACE
    "$<INSTALL_INTERFACE:${lumora_qt_libraries}>" $<INSTALL_INTERFACE:ole32>)

install(TARGETS lumora_transport EXPORT targets
    RUNTIME DESTINATION bin
    ARCHIVE DESTINATION lib
    FILE_SET HEADERS DESTINATION include/lumora_transport
    INCLUDES DESTINATION include/lumora_transport) # for a host's CMake before 3.23
if(TARGET lumora-midi)
  if(CMAKE_HOST_WIN32)
    # With the DLLs that it loads, except Windows' own.
    install(TARGETS lumora-midi RUNTIME_DEPENDENCY_SET lumora_midi_dlls RUNTIME DESTINATION bin)
    install(RUNTIME_DEPENDENCY_SET lumora_midi_dlls RUNTIME DESTINATION bin
        DIRECTORIES $<TARGET_FILE_DIR:Qt${LUMORA_QT}::Core> $<TARGET_FILE_DIR:lumora_transport>
        PRE_EXCLUDE_REGEXES "^api-ms-" "^ext-ms-" "^lumora_transport"
        POST_EXCLUDE_REGEXES "[/\\\\][Ss]ystem32[/\\\\]")
  else()
    install(TARGETS lumora-midi RUNTIME DESTINATION bin)
  endif()
endif()
if(MSVC)
  install(FILES $<TARGET_PDB_FILE:lumora_transport> DESTINATION bin OPTIONAL)
  if(TARGET lumora-midi)
    install(FILES $<TARGET_PDB_FILE:lumora-midi> DESTINATION bin OPTIONAL)
  endif()
else()
  install(FILES $<TARGET_FILE:lumora_transport>.debug DESTINATION bin)
endif()

# --- How hosts find it --------------------------------------------------------------------------

install(EXPORT targets NAMESPACE lumora:: FILE lumora_transport-targets.cmake DESTINATION ${package_dir})
list(JOIN lumora_qt_package " " qt_package)
list(GET lumora_qt_package 1 lumora_qt_version)
configure_file(cmake/lumora_transport-config.cmake.in
    ${PROJECT_BINARY_DIR}/lumora_transport-config.cmake @ONLY)
# Before version 1.0.0 the interface may change with every minor version.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/lumora_transport-config-version.cmake
    COMPATIBILITY SameMinorVersion)
install(FILES
    ${PROJECT_BINARY_DIR}/lumora_transport-config.cmake
    ${PROJECT_BINARY_DIR}/lumora_transport-config-version.cmake
    DESTINATION ${package_dir})

# The version and libraries of LumoraQt.cmake, named like Qt's own files for pkg-config.
list(TRANSFORM lumora_qt_libraries REPLACE "^Qt4::" "" OUTPUT_VARIABLE qt_modules)
list(TRANSFORM qt_modules REPLACE "::" "")
list(TRANSFORM qt_modules APPEND " >= ${lumora_qt_version}")
list(JOIN qt_modules ", " qt_modules)
configure_file(cmake/lumora_transport.pc.in ${PROJECT_BINARY_DIR}/lumora_transport.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/lumora_transport.pc DESTINATION lib/pkgconfig)

# In the same relative places as in the sources, so that the README's links work.
install(DIRECTORY examples/host DESTINATION ${data_dir}/examples)
install(FILES README.md CHANGELOG.md DESTINATION ${data_dir})
install(DIRECTORY docs DESTINATION ${data_dir} FILES_MATCHING PATTERN *.md)

# --- Third-party files --------------------------------------------------------------------------

if(LUMORA_INSTALL_RUNTIME)
  list(GET lumora_qt_libraries 0 qt_core)
  install(FILES $<TARGET_FILE:${qt_core}> DESTINATION bin)
  foreach(dll libstdc++-6.dll libgcc_s_seh-1.dll libwinpthread-1.dll)
    execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=${dll}
        OUTPUT_VARIABLE file OUTPUT_STRIP_TRAILING_WHITESPACE)
    install(FILES ${file} DESTINATION bin)
    # The distribution's DLLs contain debug data, ten times the size of the rest.
    install(CODE "execute_process(
        COMMAND \"${CMAKE_STRIP}\" -p \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/bin/${dll}\"
        COMMAND_ERROR_IS_FATAL ANY)")
  endforeach()

  set(qt_version ${Qt${LUMORA_QT}_VERSION})
  set(qt_source qtbase-opensource-src)
  set(qt_recipe qt-windows)
  if(LUMORA_QT EQUAL 6)
    set(qt_source qt6-base)
    set(qt_recipe qt6-windows)
  endif()
  string(REGEX MATCH "^[0-9]+" gcc_version ${CMAKE_CXX_COMPILER_VERSION})
  configure_file(cmake/licenses.md.in ${PROJECT_BINARY_DIR}/licenses.md @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/licenses.md DESTINATION ${data_dir}/licenses RENAME README.md)
  # Qt's licences, with the recipe that built it; the one for Qt 6 calls the other.
  install(DIRECTORY ${LUMORA_QT_DIR}/licenses/ DESTINATION ${data_dir}/licenses/qtcore)
  install(FILES workbench/setup/qt-windows DESTINATION ${data_dir}/licenses/qtcore)
  if(LUMORA_QT EQUAL 6)
    install(FILES workbench/setup/qt6-windows DESTINATION ${data_dir}/licenses/qtcore)
  endif()
  install(FILES /usr/share/doc/gcc-mingw-w64-x86-64-posix-runtime/copyright /usr/share/common-licenses/GPL-3
      DESTINATION ${data_dir}/licenses/gcc-runtime)
  install(FILES /usr/share/doc/mingw-w64-x86-64-dev/copyright DESTINATION ${data_dir}/licenses/mingw-w64)
endif()

# --- The zip ------------------------------------------------------------------------------------

set(abi mingw)
if(MSVC)
  set(abi msvc)
endif()
set(CPACK_GENERATOR ZIP)
set(CPACK_PACKAGE_FILE_NAME
    lumora_transport-${PROJECT_VERSION}-windows-x64-${abi}-qt${LUMORA_QT})
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/package)
set(CPACK_VERBATIM_VARIABLES ON)
include(CPack)
