# shellcheck shell=bash disable=SC2034,SC2154
# The steps of ./check, in the order in which they run: one line a step, which tools/check/driver.sh explains.
# What takes more than a command stands below the lists, or better in a script beside what it checks.

# Proves the program with one compiler. What computes is queued, and what waits runs in front of it meanwhile.
plain_steps() {
    beside format       "clang-format leaves every file as it is" format_check
    beside driver       "what this script says of its steps" tools/check/driver_test.sh
    beside harness      "what the benchmarks say of rows that did not run" bench/harness/contest_test.py
    step build          "builds with g++, warnings are errors" build debug || return
    queue macos         "macOS sources compile; metadata equals the protocol table" tests/macos/check.sh build/macos
    queue macos-run     "the macOS agent runs, over doubles of the frameworks, as on Linux" \
        tests/macos/run/check.sh build/macos-run build/debug
    step test           "unit and link tests" run_tests debug -L 'unit|link'
    step examples       "the examples run" examples/check.sh build/debug
    step daemons        "each example daemon with the real agent" examples/daemon/check.sh build/debug
    step docs           "tables, pictures and the house are as the sources say" tools/make-docs --check build/debug
    step consumer       "another project builds against the installed libraries" tests/consumer/check.sh build/debug
}

# What continuous integration adds. The order of the queue is that in which the steps in front need it.
deep_steps() {
    queue build-clang   "builds with clang++ and libc++, warnings are errors" build_with_libcxx
    queue build-asan    "builds with the address and undefined-behaviour sanitizers" build asan
    queue build-tsan    "builds with the thread sanitizer" build tsan
    queue build-release "builds as shipped" build release
    queue build-fuzz    "builds the fuzzers" build fuzz --target fuzzers
    queue tidy          "clang-tidy on every source" tidy_sources
    queue reference     "Doxygen makes the reference without a warning" tools/make-reference build/reference
    beside hunt         "what disturbs tests takes effect, and what fails then is named" tests/hunt/run_test.py
    beside soak         "two minutes of random events, stops and restarts" tests/soak/run build/debug 120
    step idle           "an idle, linked agent does not wake for 30 s" run_tests debug -L idle
    step run            "the demonstration" ./run
    step model          "a model of the link: never wedged, and each promise is needed" docs/model/run
    step broker         "the link tests on dbus-broker" broker_tests
    step faults         "the agent under faults and floods" run_tests debug -L fault
    step syscalls       "system calls of the agent fail, one in each run" tests/faults/run build/debug
    needs macos-run     step macos-first "the script for the first run on a Mac, over the doubles" tests/macos/run/first-run.sh build/macos-run
    needs build-clang   step test-clang "unit tests" run_tests clang -L unit
    step mutants-sample "20 seeded mistakes, and a test that notices each" tests/mutants/run --sample 20 --jobs "$jobs"
    needs build-asan    step test-asan "unit and link tests under them" run_tests asan -L 'unit|link'
    needs build-tsan    step test-tsan "unit and link tests under it" run_tests tsan -L 'unit|link'
    needs build-release step instructions "a log line, a timer, a message, an event: no more instructions" bench/instructions
    step bench          "each benchmark once" bench/run --quick
    needs build-fuzz    step fuzz "each fuzzer for 20 s" tests/fuzz/run
}

# New systems take longest, and wait for the network for a good part.
fresh_step() {
    [[ $no_system == yes ]] && return
    # Where sudo asks for a password, it asks now: a step beside has no terminal.
    ((EUID == 0)) || [[ $list_only == yes ]] || sudo true
    beside fresh        "./run and ./check in new Debian 12 and 13, as root and as a user" tests/roots/fresh.sh
}

# The packages, and what they do in real systems.
system_steps() {
    step packages       "packages: contents, lintian, hardening, same bytes twice" \
        packaging/linux/check-packages.sh build/packages || return
    if [[ $no_system == yes ]]; then
        skip fresh      "the new systems, as --no-system asks"
        skip system     "the booted system, as --no-system asks"
        return
    fi
    step system         "the packages in a booted system" tests/system/run.sh build/packages
}

# Not part of --all.
desktop_steps() {
    step desktops       "real screen lockers: one lock, one unlock each" tests/system/desktops.sh build/packages
}

# build PRESET [OPTION...]: the options are those of cmake --build.
build() { cmake --preset "$1" && cmake --build --preset "$1" -j "$jobs" "${@:2}"; }

# macOS's C++ library; the installed GoogleTest is for the other one.
build_with_libcxx() {
    if [[ ! -e /usr/src/googletest/CMakeLists.txt ]]; then
        echo "GoogleTest's sources, to build it with libc++, are not in /usr/src/googletest"
        return "$skipped_status"
    fi
    build clang
}

# By the commands of that build.
tidy_sources() {
    if [[ ! -e build/clang/compile_commands.json ]]; then
        echo "there is no build with clang++ to take the commands from"
        return "$skipped_status"
    fi
    tools/check/tidy.py build/clang
}

# Most tests wait for something most of the time.
run_tests() { as_root ctest --preset "$1" -j $((4 * jobs)) "${@:2}"; }

# Those that play several users need root; what they leave belongs to the caller again.
as_root() {
    local status=0
    if ((EUID == 0)); then
        "$@"
        return
    fi
    sudo env PATH="$PATH" "$@" || status=$?
    sudo chown -R --from=root "$(id -u):$(id -g)" build
    return "$status"
}

# A minute, most of it waiting.
broker_tests() {
    if ! command -v dbus-broker-launch >/dev/null; then
        echo "dbus-broker is not installed"
        return "$skipped_status"
    fi
    run_tests debug -L broker
}

# Versions lay code out differently, so another one proves nothing.
format_check() {
    local version
    version=$(clang-format --version | sed -nE 's/.*version ([0-9]+).*/\1/p')
    if [[ $version != 14 ]]; then
        echo "the layout is clang-format 14's, and this is ${version:-none}"
        return "$skipped_status"
    fi
    git ls-files '*.cpp' '*.h' '*.mm' '*.m' | xargs clang-format --dry-run --Werror
}
