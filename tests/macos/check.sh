#!/usr/bin/env bash
# Proves what can be proven of the macOS side without a Mac: that every translation unit compiles for it, that the
# Objective-C metadata equals the protocol tables, that no C++ exception can leave into the frameworks, and that the
# property lists and scripts of the package are sound.
#
# Usage: tests/macos/check.sh [BUILD_DIR]        (CXX names the compiler, which must be a clang)
set -euo pipefail
shopt -s nullglob

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
build=${1:-$root/build/macos-check}
compiler=${CXX:-clang++}
[[ $compiler == *clang* ]] || compiler=clang++
here=$root/tests/macos
cd "$root"
mkdir -p "$build"
build=$(cd "$build" && pwd)

for tool in "$compiler" ar ranlib cmake ninja python3 xmllint; do
    command -v "$tool" >/dev/null || { echo "check.sh: $tool is missing" >&2; exit 2; }
done

report() { printf '%-10s %s\n' "$1" "$2"; }

# The warnings of every other target; the linker's options there begin with -Wl.
mapfile -t warnings < <(grep -oE -- '-W[a-z][a-z0-9=#-]*' cmake/VelmFlags.cmake | grep -vx -e '-Wl' -e '-Werror')
((${#warnings[@]} >= 5)) || { echo "check.sh: cmake/VelmFlags.cmake names no warnings" >&2; exit 2; }

# The compiler targets macOS itself; only the headers of the C and C++ libraries are the host's. Three things make
# them fit: fixed-width types as macOS has them, no __nonnull, which Apple's compiler predefines and glibc uses
# otherwise, and the processor of the host, by which glibc chooses its headers.
mapfile -t host_headers < <("$compiler" -E -v -x c++ /dev/null 2>&1 |
    sed -n '/^#include </,/^End/s/^ //p' | grep -v '/clang/')
((${#host_headers[@]})) || { echo "check.sh: $compiler does not tell where its headers are" >&2; exit 2; }
headers=(-U__nonnull -D_GNU_SOURCE "-D__$(uname -m)__" -Wno-builtin-macro-redefined
    -nostdinc++ -isystem "$here/sdk" -isystem "$here/libc")
for directory in "${host_headers[@]}"; do
    headers+=(-isystem "$directory")
done
# What the stand-in's own CMakeLists.txt gives it.
stand_in_flags=(-Itools/velmdaemon-sim '-DVELM_VERSION="0"')
flags=(-std=c++17 -O1 -fblocks -fstack-protector-strong -Werror "${warnings[@]}" -Isrc "${stand_in_flags[@]}" "${headers[@]}")
objective_c=(-fobjc-arc)

target_of() {
    case $1 in
        x86_64) echo x86_64-apple-macosx10.12 ;;
        arm64) echo arm64-apple-macosx11.0 ;;
    esac
}

# compile ARCHITECTURE SOURCE: an object file and, of Objective-C++, the LLVM IR.
compile() {
    local arch=$1 source=$2 object=$build/$1/$2.o target extra=()
    target=$(target_of "$arch")
    mkdir -p "${object%/*}"
    if [[ $source == *.mm ]]; then
        extra=("${objective_c[@]}" "-fobjc-runtime=macosx-${target##*macosx}")
        "$compiler" -target "$target" "${flags[@]}" "${extra[@]}" -S -emit-llvm "$source" -o "${object%.o}.ll"
    fi
    "${launcher[@]}" "$compiler" -target "$target" "${flags[@]}" "${extra[@]}" -c "$source" -o "$object"
}

# The project's own build, as CMake would run it on a Mac, up to the linking: there is nothing to link with here.
build_with_cmake() {
    local path source forgotten=0
    path=$(command -v "$compiler")
    cat >"$build/darwin.cmake" <<END
set(CMAKE_SYSTEM_NAME Darwin)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(CMAKE_AR "$(command -v ar)")
set(CMAKE_RANLIB "$(command -v ranlib)")
set(CMAKE_INSTALL_NAME_TOOL "$(command -v true)")
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
foreach(language CXX OBJCXX)
    set(CMAKE_\${language}_COMPILER "$path")
    set(CMAKE_\${language}_COMPILER_TARGET $(target_of x86_64))
    set(CMAKE_\${language}_FLAGS_INIT "${headers[*]}")
    set(CMAKE_\${language}_LINK_EXECUTABLE "<CMAKE_COMMAND> -E touch <TARGET>")
endforeach()
END
    rm -rf "$build/cmake"
    cmake -G Ninja -S "$root" -B "$build/cmake" -DCMAKE_TOOLCHAIN_FILE="$build/darwin.cmake" \
        -DCMAKE_OSX_DEPLOYMENT_TARGET=10.12 -DVELM_BUILD_TESTS=OFF -DVELM_BUILD_EXAMPLES=OFF || return
    cmake --build "$build/cmake" -j 2 || return
    # The tests only configure: GoogleTest is there for this machine alone.
    rm -rf "$build/cmake-tests"
    cmake -G Ninja -S "$root" -B "$build/cmake-tests" -DCMAKE_TOOLCHAIN_FILE="$build/darwin.cmake" \
        -DCMAKE_OSX_DEPLOYMENT_TARGET=10.12 -DVELM_BUILD_TESTS=ON \
        -DGTest_DIR="/usr/lib/$(uname -m)-linux-gnu/cmake/GTest" || return
    for source in "${platform[@]}" "${core[@]}" "${stand_in[@]}"; do
        grep -qF "\"$root/$source\"" "$build/cmake/compile_commands.json" ||
            { echo "CMake builds no $source on macOS"; forgotten=1; }
    done
    ((forgotten == 0))
}

launcher=()
command -v ccache >/dev/null && launcher=(ccache)

platform=(src/platform/macos/*.mm src/platform/macos/*.cpp)
core=(src/velmmonitord/*.cpp src/common/*.cpp src/logging/*.cpp)
stand_in=(tools/velmdaemon-sim/*.cpp tools/velmdaemon-sim/macos/*.mm tools/velmdaemon-sim/macos/*.cpp)
rm -rf "$build/x86_64" "$build/arm64"

failed=0
running=0
compiled=0
for arch in x86_64 arm64; do
    for source in "${platform[@]}" "${core[@]}" "${stand_in[@]}"; do
        # Two at a time: the machine that checks may be small.
        if ((running == 2)); then
            wait -n || failed=1
            running=$((running - 1))
        fi
        compile "$arch" "$source" &
        running=$((running + 1))
        compiled=$((compiled + 1))
    done
done
while ((running > 0)); do
    wait -n || failed=1
    running=$((running - 1))
done
((failed == 0)) || { echo "check.sh: compiling failed" >&2; exit 1; }
report compiled "$compiled objects of ${#platform[@]} platform, ${#core[@]} core and ${#stand_in[@]} stand-in files, x86_64 and arm64"

mapfile -t objects < <(find "$build/x86_64" "$build/arm64" -name '*.o' | sort)
mapfile -t ir < <(find "$build/x86_64" "$build/arm64" -name '*.ll' | sort)

# For the machine that checks, so with its own headers.
"${HOST_CXX:-$compiler}" -std=c++17 -Isrc "$here/table.cpp" -o "$build/table"
"$build/table" >"$build/table.txt"

run() {
    local title=$1 text
    shift
    if text=$("$@" 2>&1); then
        report "$title" "$text"
    else
        printf '%s\n' "$text" >&2
        report "$title" FAILED
        failed=1
    fi
}
export PYTHONDONTWRITEBYTECODE=1
if build_with_cmake >"$build/cmake.log" 2>&1; then
    report cmake "the project configures for macOS, its tests too, and builds all of them, up to the linking"
else
    tail -n 30 "$build/cmake.log" >&2
    report cmake FAILED
    failed=1
fi
run metadata python3 "$here/check_metadata.py" "$build/table.txt" docs/macos.md "${objects[@]}"
run deployment python3 "$here/check_deployment.py" "${objects[@]}" -- \
    "${platform[@]}" "${core[@]}" "${stand_in[@]}" src/*/*.h src/platform/macos/*.h tools/velmdaemon-sim/*.h
run exceptions python3 "$here/check_boundary.py" "${ir[@]}"
run plists python3 "$here/check_plists.py" packaging/macos
run packaging bash "$here/check_packaging.sh" "$build/packaging"
exit "$failed"
