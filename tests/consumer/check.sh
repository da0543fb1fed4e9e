#!/usr/bin/env bash
# Installs the two libraries from a build tree into a scratch directory and uses them from there as another project
# would. Usage: tests/consumer/check.sh BUILD_DIR
set -euo pipefail

[[ $# == 1 && -f $1/CMakeCache.txt ]] || { echo "usage: tests/consumer/check.sh BUILD_DIR" >&2; exit 2; }
build=$(realpath "$1")
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() { echo "consumer: $*" >&2; exit 1; }
cached() { sed -nE "s/^$1:[A-Z]+=(.*)\$/\1/p" "$build/CMakeCache.txt"; }

cxx=$(cached CMAKE_CXX_COMPILER)
version=$(cached CMAKE_PROJECT_VERSION)

# Moved after it was installed, to show that no file in it says where it was.
cmake --build "$build" --target velm_common velm_logging
cmake --install "$build" --component dev --prefix "$work/first"
mv "$work/first" "$work/installed"
export PKG_CONFIG_PATH
PKG_CONFIG_PATH=$(dirname "$(find "$work/installed" -name velm-common.pc)")
grep -rlE "$work|$build" "$work/installed" --include='*.cmake' --include='*.pc' &&
    fail "these installed files name a directory of the build"

echo "== The installed files are those that are promised"
diff <(cd "$work/installed" && find . -type f | sed -E 's|lib/[^/]*-linux-gnu/|lib/|; s|lib64/|lib/|; s|targets-[a-z]*\.|targets-CONFIG.|' | sort) - <<'EOF' ||
./include/velm/common/BaseTimer.h
./include/velm/common/ITimer.h
./include/velm/common/Semaphore.h
./include/velm/common/SingleShotTimer.h
./include/velm/logging/FileDestination.h
./include/velm/logging/Log.h
./include/velm/logging/RotationStrategy.h
./lib/cmake/velm/velm-config-version.cmake
./lib/cmake/velm/velm-config.cmake
./lib/cmake/velm/velm-targets-CONFIG.cmake
./lib/cmake/velm/velm-targets.cmake
./lib/libvelm_common.a
./lib/libvelm_logging.a
./lib/pkgconfig/velm-common.pc
./lib/pkgconfig/velm-logging.pc
./share/doc/velmmonitord-dev/examples/rotating_log.cpp
./share/doc/velmmonitord-dev/examples/timers.cpp
./share/doc/velmmonitord-dev/libraries.md
EOF
    fail "the list above differs"

echo "== Each public header compiles on its own, twice over, beside other people's headers of the same names"
mkdir -p "$work/others/logging" "$work/others/common"
echo '#error "this is another project'"'"'s header"' |
    tee "$work"/others/{logging/{Log,RotationStrategy},common/ITimer,Log,ITimer}.h >/dev/null
for header in $(cd "$work/installed/include" && find . -name '*.h' | sed 's|^\./||'); do
    for compiler in g++ clang++; do
        command -v "$compiler" >/dev/null || fail "$compiler is missing"
        printf '#include <%s>\n#include <%s>\n' "$header" "$header" |
            "$compiler" -std=c++17 -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wold-style-cast -Werror \
                -fsyntax-only "-I$work/others" "-I$work/installed/include" -x c++ - ||
            fail "<$header> does not compile on its own with $compiler"
    done
done

# run_consumer NAME PROGRAM
run_consumer() {
    local expected=$'[INFO]  periodic\n[INFO]  one-shot'
    [[ $("$2" "$work/$1.log") == "$expected" ]] || fail "the program built by $1 prints something else"
    [[ $(<"$work/$1.log") == "$expected" ]] || fail "the program built by $1 logs something else"
}

# configure DIRECTORY OPTION...
configure() {
    cmake -S "$here" -B "$work/$1" -G Ninja -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_PREFIX_PATH="$work/installed" \
        -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF "${@:2}"
}

echo "== With CMake"
configure cmake
cmake --build "$work/cmake"
run_consumer cmake "$work/cmake/consumer"
configure exact "-DVELM_VERSION=$version;EXACT" >/dev/null || fail "the package does not have version $version"
configure next "-DVELM_VERSION=$((${version%%.*} + 1)).0" >/dev/null 2>&1 && fail "a later major version is found"
configure unknown -DVELM_COMPONENTS=nonesuch >/dev/null 2>&1 && fail "an unknown component is found"

echo "== With pkg-config"
for package in velm-common velm-logging; do
    [[ $(pkg-config --modversion "$package") == "$version" ]] || fail "$package does not have version $version"
done
# Word splitting is what pkg-config's output is for.
# shellcheck disable=SC2046
"$cxx" -std=c++17 "$here/main.cpp" -o "$work/consumer" $(pkg-config --cflags --libs velm-common velm-logging)
run_consumer pkg-config "$work/consumer"

echo "== The program that the documentation begins with, by its own command"
mkdir "$work/page"
page=$work/installed/share/doc/velmmonitord-dev/libraries.md
# The page's one C++ block is the program; the command stands below it.
sed -n '/^```cpp$/,/^```$/p' "$page" | sed '/^```/d' >"$work/page/hello.cpp"
command=$(grep -E '^g\+\+ .*hello\.cpp' "$page")
[[ -s $work/page/hello.cpp && -n $command ]] || fail "docs/libraries.md does not begin with a program and its command"
(cd "$work/page" && bash -euc "$command" && ./hello) || fail "the program of docs/libraries.md does not run"
[[ $(wc -l <"$work/page/hello.log") == 1 ]] || fail "the program of docs/libraries.md does not log what it says"

echo "== Configured alone, without libsystemd and Boost in sight"
PKG_CONFIG_LIBDIR=/nonexistent PKG_CONFIG_PATH='' cmake -S "$here/../.." -B "$work/alone" -G Ninja -DCMAKE_CXX_COMPILER="$cxx" \
    -DVELM_BUILD_AGENT=OFF -DVELM_BUILD_TESTS=OFF -DCMAKE_DISABLE_FIND_PACKAGE_Boost=ON \
    -DCMAKE_DISABLE_FIND_PACKAGE_PkgConfig=ON
cmake --build "$work/alone"
cmake --install "$work/alone" --component dev --prefix "$work/alone-installed"
diff <(cd "$work/installed/include" && find . -type f | sort) <(cd "$work/alone-installed/include" && find . -type f | sort) ||
    fail "alone, other headers are installed"

echo "The installed libraries are usable."
