# GoogleTest's headers take half of a test's compiling, so they are compiled once for all tests. An executable, since
# only what is compiled with the very same flags can use it.
file(GENERATE OUTPUT "${CMAKE_CURRENT_BINARY_DIR}/test_headers.cpp" CONTENT "")
add_executable(velm_test_headers EXCLUDE_FROM_ALL "${CMAKE_CURRENT_BINARY_DIR}/test_headers.cpp")
target_precompile_headers(velm_test_headers PRIVATE <gmock/gmock.h> <gtest/gtest.h>)
target_link_libraries(velm_test_headers PRIVATE velm_flags GTest::gmock GTest::gtest_main)

# velm_add_test(NAME SOURCES... LINK targets... LABELS labels...)
#
# One GoogleTest executable; each of its tests becomes a ctest test with a cap on its time, so that a hang is a
# failure.
set(VELM_TEST_TIMEOUT 120 CACHE STRING "Seconds that a test may take")
function(velm_add_test name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "TIMEOUT" "SOURCES;LINK;LABELS")
    if(NOT arg_TIMEOUT)
        set(arg_TIMEOUT ${VELM_TEST_TIMEOUT})
    endif()
    add_executable(${name} ${arg_SOURCES})
    target_include_directories(${name} PRIVATE "${PROJECT_SOURCE_DIR}/tests")
    target_link_libraries(${name} PRIVATE velm_flags ${arg_LINK} GTest::gmock GTest::gtest_main)
    target_precompile_headers(${name} REUSE_FROM velm_test_headers)
    gtest_discover_tests(${name}
        DISCOVERY_MODE PRE_TEST
        DISCOVERY_TIMEOUT 60
        PROPERTIES TIMEOUT ${arg_TIMEOUT} LABELS "${arg_LABELS}")
endfunction()
