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
    gtest_discover_tests(${name}
        DISCOVERY_MODE PRE_TEST
        DISCOVERY_TIMEOUT 60
        PROPERTIES TIMEOUT ${arg_TIMEOUT} LABELS "${arg_LABELS}")
endfunction()
