# Makes the cable a built-in module of Wine, which is one of two halves: a DLL with a mark, and a shared
# object of Linux beside it. Wine finds both in a folder that WINEDLLPATH names:
#
#   x86_64-windows/winelumora.drv
#   x86_64-unix/winelumora.so

set_target_properties(lumora_cable PROPERTIES
    LIBRARY_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/x86_64-windows)

# Debian's wine64-tools has it where only Wine's own tools look.
find_program(LUMORA_WINEBUILD winebuild winebuild-stable PATHS /usr/lib/wine REQUIRED)
add_custom_command(TARGET lumora_cable POST_BUILD
    COMMAND ${LUMORA_WINEBUILD} --builtin $<TARGET_FILE:lumora_cable>
    VERBATIM)

# The machine's own compiler.
find_program(LUMORA_UNIX_CXX g++ REQUIRED)
set(unix_half ${CMAKE_CURRENT_BINARY_DIR}/x86_64-unix/winelumora.so)
add_custom_command(OUTPUT ${unix_half}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_CURRENT_BINARY_DIR}/x86_64-unix
    COMMAND ${LUMORA_UNIX_CXX} -std=c++17 -O2 -Wall -Wextra -Wpedantic -Wconversion -Werror
        -shared -fPIC -o ${unix_half} ${CMAKE_CURRENT_SOURCE_DIR}/UnixHalf.cpp
    DEPENDS UnixHalf.cpp
    VERBATIM)
add_custom_target(lumora_cable_unix_half DEPENDS ${unix_half})
add_dependencies(lumora_cable lumora_cable_unix_half)
