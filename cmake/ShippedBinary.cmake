# lumora_ship(TARGET DESCRIPTION TYPE): prepares a target (TYPE is APP or DLL) for release: it gets a
# version resource, contains neither the time nor a path of this machine, and has its debug data in a
# separate file. The tests run exactly the bytes that are shipped.

if(WIN32)
  enable_language(RC)
endif()

if(MINGW)
  add_compile_options(
      -fdebug-prefix-map=${PROJECT_SOURCE_DIR}=lumora_transport
      -fdebug-prefix-map=${PROJECT_BINARY_DIR}=build
      $<$<BOOL:${LUMORA_QT_DIR}>:-fdebug-prefix-map=${LUMORA_QT_DIR}=qt>)
endif()

function(lumora_ship target description type)
  if(NOT WIN32)
    return()
  endif()
  set(name ${target}.exe)
  set(debug_name ${name})
  if(type STREQUAL "DLL")
    set(name ${target}.dll)
    set(debug_name ${name})
    if(MSVC)
      # Debug and release have different runtimes, so both DLLs are installed side by side.
      set_target_properties(${target} PROPERTIES DEBUG_POSTFIX d)
      set(debug_name ${target}d.dll)
    endif()
  endif()
  set(resource ${CMAKE_CURRENT_BINARY_DIR}/${target}-version.rc)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/version.rc.in ${resource} @ONLY)
  target_sources(${target} PRIVATE ${resource})
  if(MINGW)
    target_link_options(${target} PRIVATE -Wl,--no-insert-timestamp)
    # gdb finds the debug data by the name in the stripped file. With -p, objcopy keeps the time stamp.
    set(file $<TARGET_FILE:${target}>)
    add_custom_command(TARGET ${target} POST_BUILD
        COMMAND ${CMAKE_OBJCOPY} -p --only-keep-debug ${file} ${file}.debug
        COMMAND ${CMAKE_OBJCOPY} -p --strip-all --add-gnu-debuglink=${file}.debug ${file}
        VERBATIM)
  elseif(MSVC)
    target_compile_options(${target} PRIVATE $<$<COMPILE_LANGUAGE:CXX>:/Brepro>)
    target_link_options(${target} PRIVATE /Brepro /INCREMENTAL:NO /PDBALTPATH:%_PDB%
        "$<$<NOT:$<CONFIG:Debug>>:/OPT:REF,ICF>")
  endif()
endfunction()
