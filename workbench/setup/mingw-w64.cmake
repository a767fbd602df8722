# Cross-compiles for 64-bit Windows with Debian's MinGW-w64, in the variant with POSIX threads
# (std::mutex and std::thread), and runs the programs on Wine.

set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(CMAKE_C_COMPILER x86_64-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)
# CMake derives these from the compiler's name, which the variant's suffix hides.
foreach(tool AR RANLIB STRIP NM OBJDUMP OBJCOPY DLLTOOL ADDR2LINE READELF)
    string(TOLOWER "x86_64-w64-mingw32-${tool}" program)
    find_program(CMAKE_${tool} ${program})
endforeach()

# Finds libraries only in MinGW-w64 and where the user says (./dev passes the Qt that it builds), never
# on this machine.
set(CMAKE_FIND_ROOT_PATH /usr/x86_64-w64-mingw32 ${CMAKE_PREFIX_PATH})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_CROSSCOMPILING_EMULATOR "${CMAKE_CURRENT_LIST_DIR}/on-wine")
