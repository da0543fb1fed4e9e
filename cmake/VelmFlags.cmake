# One interface target carries the language level, the warnings and the hardening of every target here. It is
# linked as $<BUILD_INTERFACE:velm_flags>, so nothing of it reaches users of the installed libraries.

find_package(Threads REQUIRED)
find_program(VELM_CCACHE ccache)
if(VELM_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
    # Without these two words ccache leaves everything that uses a precompiled header to the compiler.
    set(CMAKE_CXX_COMPILER_LAUNCHER env CCACHE_SLOPPINESS=pch_defines,time_macros "${VELM_CCACHE}")
endif()

set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

add_library(velm_flags INTERFACE)
target_compile_features(velm_flags INTERFACE cxx_std_17)
target_include_directories(velm_flags INTERFACE "${PROJECT_SOURCE_DIR}/src")
target_link_libraries(velm_flags INTERFACE Threads::Threads)
target_compile_options(velm_flags INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast -Wcast-qual
    -Wnon-virtual-dtor -Woverloaded-virtual -Wformat=2 -Wundef -Wvla
    $<$<BOOL:${VELM_WERROR}>:-Werror>
    -fstack-protector-strong
    # Newer SDKs' C++ library warns so of every deployment target as old as ours.
    "$<$<BOOL:${APPLE}>:-Wno-error=#warnings>")

if(VELM_BUILD_FUZZERS)
    # Coverage of all that a fuzzer reaches; only the fuzzers themselves are linked with its driver.
    target_compile_options(velm_flags INTERFACE -fsanitize=fuzzer-no-link)
endif()
if(VELM_SANITIZE)
    target_compile_options(velm_flags INTERFACE -fsanitize=${VELM_SANITIZE} -fno-omit-frame-pointer
        -fno-sanitize-recover=all)
    target_link_options(velm_flags INTERFACE -fsanitize=${VELM_SANITIZE})
    if(VELM_SANITIZE MATCHES "undefined")
        # It finds out by a pipe whether memory can be read: where no descriptors are left, it takes none for readable.
        target_compile_options(velm_flags INTERFACE -fno-sanitize=vptr)
    endif()
    if(VELM_SANITIZE STREQUAL "thread")
        target_sources(velm_flags INTERFACE "${PROJECT_SOURCE_DIR}/tests/support/TsanSuppressions.cpp")
    endif()
else()
    # FORTIFY needs optimisation and hides errors from the sanitizers.
    target_compile_options(velm_flags INTERFACE
        $<$<CONFIG:Release,RelWithDebInfo>:-U_FORTIFY_SOURCE> $<$<CONFIG:Release,RelWithDebInfo>:-D_FORTIFY_SOURCE=2>)
endif()

# What is shipped has the same bytes wherever it was built. (The last map that fits counts.) Linking compiles too, where
# the whole program is optimised.
set(velm_maps
    "$<$<CONFIG:Release,RelWithDebInfo>:-ffile-prefix-map=${PROJECT_SOURCE_DIR}=.>"
    "$<$<CONFIG:Release,RelWithDebInfo>:-ffile-prefix-map=${PROJECT_BINARY_DIR}=build>")
target_compile_options(velm_flags INTERFACE ${velm_maps})
target_link_options(velm_flags INTERFACE ${velm_maps})

if(CMAKE_SYSTEM_NAME STREQUAL "Linux")
    include(CheckPIESupported)
    check_pie_supported(LANGUAGES CXX)
    target_compile_options(velm_flags INTERFACE -fstack-clash-protection)
    target_link_options(velm_flags INTERFACE -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack -Wl,--as-needed)

    # What nobody calls is left out of the programs.
    target_compile_options(velm_flags INTERFACE
        "$<$<CONFIG:Release,RelWithDebInfo>:-ffunction-sections;-fdata-sections>")
    target_link_options(velm_flags INTERFACE $<$<CONFIG:Release,RelWithDebInfo>:-Wl,--gc-sections>)

    # Relocations in a thirtieth of the bytes. glibc understands them since 2.36; before, the program would link, and not
    # start.
    include(CheckCXXSourceCompiles)
    set(CMAKE_REQUIRED_LINK_OPTIONS -Wl,-z,pack-relative-relocs -Wl,--fatal-warnings)
    check_cxx_source_compiles("
        #include <features.h>
        #if !__GLIBC_PREREQ(2, 36)
        #error
        #endif
        int main() {}" VELM_PACKED_RELOCATIONS)
    unset(CMAKE_REQUIRED_LINK_OPTIONS)
    target_link_options(velm_flags INTERFACE
        $<$<AND:$<BOOL:${VELM_PACKED_RELOCATIONS}>,$<CONFIG:Release,RelWithDebInfo>>:-Wl,-z,pack-relative-relocs>)
endif()
