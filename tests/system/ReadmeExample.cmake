# Writes the C++ example of the README to a file, so that it is compiled as it is printed.
file(READ "${README}" text)
if(NOT text MATCHES "```cpp\n([^`]*)```")
    message(FATAL_ERROR "${README} has no example in C++")
endif()
file(CONFIGURE OUTPUT "${SOURCE}" CONTENT "${CMAKE_MATCH_1}" @ONLY)
