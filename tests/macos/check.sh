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
source "$here/libcxx.sh"
cd "$root"
mkdir -p "$build"
build=$(cd "$build" && pwd)

for tool in "$compiler" ar ranlib cmake ninja python3 xmllint; do
    command -v "$tool" >/dev/null || { echo "check.sh: $tool is missing" >&2; exit 2; }
done

report() { printf '%-10s %s\n' "$1" "$2"; }

# The compiler targets macOS itself; only the headers of the C and C++ libraries are the host's: of the C++ libraries
# macOS's own, where it is one that knows what macOS 10.12 lacks. Three things make them fit: fixed-width types as macOS
# has them, no __nonnull, which Apple's compiler predefines and glibc uses otherwise, and the processor of the host, by
# which glibc chooses its headers.
libcxx=() why_not=''
library=libstdc++
if use_annotated_libcxx "$compiler" "$build/libcxx"; then
    library=libc++
fi
mapfile -t host_headers < <("$compiler" "-stdlib=$library" -E -v -x c++ /dev/null 2>&1 |
    sed -n '/^#include </,/^End/s/^ //p' | grep -v '/clang/')
((${#host_headers[@]})) || { echo "check.sh: $compiler does not tell where its headers are" >&2; exit 2; }
headers=(-U__nonnull -D_GNU_SOURCE "-D__$(uname -m)__" -Wno-builtin-macro-redefined
    -nostdinc++ -isystem "$here/sdk" -isystem "$here/libc")
for directory in "${libcxx[@]}" "${host_headers[@]}"; do
    headers+=(-isystem "$directory")
done

target_of() {
    case $1 in
        x86_64) echo x86_64-apple-macosx10.12 ;;
        arm64) echo arm64-apple-macosx11.0 ;;
    esac
}

# toolchain ARCHITECTURE: for CMake, which then builds as on a Mac, up to the linking: there is nothing to link with here.
# Objective-C++ goes by way of LLVM's text, OBJECT.ll, which is checked too; that needs optimising.
toolchain() {
    local target path
    target=$(target_of "$1")
    path=$(command -v "$compiler")
    cat <<END
set(CMAKE_SYSTEM_NAME Darwin)
set(CMAKE_SYSTEM_PROCESSOR $1)
set(CMAKE_OSX_DEPLOYMENT_TARGET ${target##*macosx})
set(CMAKE_AR "$(command -v ar)")
set(CMAKE_RANLIB "$(command -v ranlib)")
set(CMAKE_INSTALL_NAME_TOOL "$(command -v true)")
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
foreach(language CXX OBJCXX)
    set(CMAKE_\${language}_COMPILER "$path")
    set(CMAKE_\${language}_COMPILER_TARGET $target)
    set(CMAKE_\${language}_FLAGS_INIT "${headers[*]}")
    set(CMAKE_\${language}_LINK_EXECUTABLE "<CMAKE_COMMAND> -E touch <TARGET>")
endforeach()
string(APPEND CMAKE_OBJCXX_FLAGS_INIT " -O1 -fobjc-runtime=macosx-${target##*macosx}")
set(CMAKE_OBJCXX_COMPILE_OBJECT
    "<CMAKE_OBJCXX_COMPILER> <DEFINES> <INCLUDES> <FLAGS> -S -emit-llvm <SOURCE> -o <OBJECT>.ll"
    "<CMAKE_OBJCXX_COMPILER> -target $target -O1 -c -x ir <OBJECT>.ll -o <OBJECT>")
END
}

# Boost and GoogleTest are where this machine's are, and GoogleTest is built for it alone, so tests only configure.
configure() {
    toolchain "$1" >"$build/$1.cmake"
    rm -rf "${build:?}/$1"
    cmake -G Ninja -S "$root" -B "$build/$1" -DCMAKE_TOOLCHAIN_FILE="$build/$1.cmake" -DVELM_BUILD_EXAMPLES=OFF \
        -DCMAKE_PREFIX_PATH="/usr/lib/$(uname -m)-linux-gnu/cmake" >"$build/$1.log" 2>&1
}

compile() {
    cmake --build "$build/$1" --target src/all tools/all -j "$(nproc)" >>"$build/$1.log" 2>&1
}

platform=(src/platform/*.cpp src/platform/macos/*.mm src/platform/macos/*.cpp)
core=(src/velmmonitord/*.cpp src/common/*.cpp src/logging/*.cpp)
stand_in=(tools/velmdaemon-sim/*.cpp tools/velmdaemon-sim/macos/*.mm tools/velmdaemon-sim/macos/*.cpp)

failed=0
configure arm64 &
other=$!
configure x86_64 || failed=1
wait "$other" || failed=1
for architecture in x86_64 arm64; do
    ((failed)) || compile "$architecture" || failed=1
done
if ((failed)); then
    grep -hE -A3 ' error: |FAILED|CMake Error' "$build"/{x86_64,arm64}.log | head -n 60 >&2 || true
    echo "check.sh: building for macOS failed (all of it: $build/{x86_64,arm64}.log)" >&2
    exit 1
fi
for source in "${platform[@]}" "${core[@]}" "${stand_in[@]}"; do
    grep -qF "\"$root/$source\"" "$build/x86_64/compile_commands.json" ||
        { echo "CMake builds no $source on macOS" >&2; failed=1; }
done
mapfile -t objects < <(find "$build"/{x86_64,arm64}/{src,tools} -name '*.o' | sort)
mapfile -t ir < <(find "$build"/{x86_64,arm64}/{src,tools} -name '*.ll' | sort)
report compiled "${#objects[@]} objects of ${#platform[@]} platform, ${#core[@]} core and ${#stand_in[@]} stand-in files, x86_64 and arm64, \
with $library, by CMake, for which the tests configure too"

# What the headers of 10.12's library refuse, they must be seen to refuse.
if [[ $library == libc++ ]]; then
    for source in "$here"/too_new/*.cpp; do
        refused "$compiler" -target "$(target_of x86_64)" -std=c++17 "${headers[@]}" "$source" ||
            { echo "${source#"$root"/} is not refused as too new, or not for that alone" >&2; failed=1; }
    done
    report deployment "all of it is in macOS 10.12's C++ library; what $(cd "$here/too_new" && echo ./*.cpp | sed 's/\.\/\|\.cpp//g') use is not"
else
    report deployment "not checked: $why_not"
    echo "skipped: what macOS 10.12's C++ library lacks: $why_not"
    echo "0 passed, 0 failed, 1 skipped"
fi

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
run metadata python3 "$here/check_metadata.py" "$build/table.txt" docs/macos.md "${objects[@]}"
run exceptions python3 "$here/check_boundary.py" "${ir[@]}"
run plists python3 "$here/check_plists.py" packaging/macos
run packaging bash "$here/check_packaging.sh" "$build/packaging"
exit "$failed"
