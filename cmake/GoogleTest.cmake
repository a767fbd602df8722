# GTest::gtest, GTest::gtest_main, GTest::gmock and GTest::gmock_main, compiled from Debian's
# googletest sources with the compiler and the sanitizers of this build.

set(LUMORA_GOOGLETEST_DIR /usr/src/googletest CACHE PATH "GoogleTest's sources")
if(NOT EXISTS "${LUMORA_GOOGLETEST_DIR}/googletest/src/gtest-all.cc")
    message(FATAL_ERROR "GoogleTest's sources are not in ${LUMORA_GOOGLETEST_DIR}: "
                        "install the package googletest, or run ./dev setup.")
endif()

find_package(Threads REQUIRED)

# Without the project's warnings.
function(lumora_add_googletest_library name folder source)
    add_library(${name} STATIC EXCLUDE_FROM_ALL "${LUMORA_GOOGLETEST_DIR}/${folder}/src/${source}")
    add_library(GTest::${name} ALIAS ${name})
    target_include_directories(${name} SYSTEM PUBLIC "${LUMORA_GOOGLETEST_DIR}/${folder}/include")
    target_include_directories(${name} PRIVATE "${LUMORA_GOOGLETEST_DIR}/${folder}")
    target_compile_features(${name} PUBLIC cxx_std_17)
    target_compile_options(${name} PRIVATE -w -O0)
    set_target_properties(${name} PROPERTIES AUTOMOC OFF CXX_CLANG_TIDY "")
endfunction()

lumora_add_googletest_library(gtest googletest gtest-all.cc)
lumora_add_googletest_library(gtest_main googletest gtest_main.cc)
lumora_add_googletest_library(gmock googlemock gmock-all.cc)
lumora_add_googletest_library(gmock_main googlemock gmock_main.cc)
target_link_libraries(gtest PUBLIC Threads::Threads)
target_link_libraries(gtest_main PUBLIC gtest)
target_link_libraries(gmock PUBLIC gtest)
target_link_libraries(gmock_main PUBLIC gmock)

# gtest_add_tests(), by path, since this file has the same name.
include("${CMAKE_ROOT}/Modules/GoogleTest.cmake")

# lumora_add_tests(TARGET SECONDS): adds a CTest test for each test in the target's sources. They are
# known before anything is built, so that ./dev test -R NAME builds only what they need.
function(lumora_add_tests target timeout)
  gtest_add_tests(TARGET ${target} TEST_LIST tests)
  # The slowest start first. A test that the program lacks must not pass.
  set_tests_properties(${tests} PROPERTIES TIMEOUT ${timeout} COST ${timeout}
      FAIL_REGULAR_EXPRESSION "Running 0 tests")
endfunction()
