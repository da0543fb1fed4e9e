#!/usr/bin/env bash
# Runs the macOS side on Linux: the adapters, the agent, the stand-in and the example daemon, over a test-only Objective-C
# runtime and doubles of the frameworks; all but the agent's core, which Linux has too, under the address and
# undefined-behaviour sanitizers.
#
# Usage: tests/macos/run/check.sh [BUILD_DIR [LINUX_BUILD_DIR]]        status 77: it can't be done here
#
# With the build of the Linux programs, what the two print over the demonstration's script is compared with theirs.
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
root=$(cd "$here/../../.." && pwd)
build=${1:-$root/build/macos-run}
linux_build=${2-}

# The runtime knows one processor's ABI.
[[ $(uname -sm) == "Linux x86_64" ]] || { echo "runs on x86-64 Linux only, and this is $(uname -sm)"; exit 77; }
if [[ ! -e /usr/include/Block.h ]] && ! command -v dpkg-query >/dev/null; then
    echo "needs a blocks runtime, which Debian has as libblocksruntime-dev"
    exit 77
fi

compiler=$(command -v clang++) || { echo "clang++ is missing" >&2; exit 2; }
launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_OBJCXX_COMPILER_LAUNCHER=ccache)

mkdir -p "$build"
rm -f "$build"/shard.*.log
log=$build/build.log
{ cmake -G Ninja -S "$here" -B "$build" -DCMAKE_CXX_COMPILER="$compiler" -DCMAKE_OBJCXX_COMPILER="$compiler" \
    "${launcher[@]}" && cmake --build "$build" -j "$(nproc)"; } >"$log" 2>&1 || {
    grep -E 'error|FAILED|CMake Error' -A3 "$log" | head -n 60 >&2
    echo "building failed (all of it: $log)" >&2
    exit 1
}

# Most of a test's time is waiting for a second to pass, within one process losses even wait for each other: so many run
# at once. After a failure nothing is waited for.
export GTEST_FAIL_FAST=1
shards=30
pids=()
for ((i = 0; i < shards; i++)); do
    GTEST_TOTAL_SHARDS=$shards GTEST_SHARD_INDEX=$i timeout 300 "$build/adapter_test" >"$build/shard.$i.log" 2>&1 &
    pids+=($!)
done
/usr/bin/python3 -B "$here/play.py" "$root" "$build" ${linux_build:+"$linux_build"} >"$build/play.log" 2>&1 &
play=$!
/usr/bin/python3 -B "$here/example.py" "$root" "$build" >"$build/example.log" 2>&1 &
example=$!
failed=0
for ((i = 0; i < shards; i++)); do
    wait "${pids[i]}" || { failed=1; grep -vE '^\[ *(OK|RUN) |^\[-+\]' "$build/shard.$i.log" | tail -n 40 >&2; }
done
passed=$(sed -nE 's/^\[  PASSED  \] ([0-9]+) tests?\.$/\1/p' "$build"/shard.*.log | paste -sd+)
bad=$(sed -nE 's/^ *([0-9]+) FAILED TESTS?$/\1/p' "$build"/shard.*.log | paste -sd+)
echo "the adapters, in every reading of what Apple leaves open:"
echo "$((passed)) passed, $((bad)) failed"
wait "$play" || { failed=1; cat "$build/play.log" >&2; }
tail -n 1 "$build/play.log"
wait "$example" || { failed=1; cat "$build/example.log" >&2; }
tail -n 1 "$build/example.log"
((failed == 0)) || { echo "(all of it: $build/{shard.*,play,example}.log)" >&2; exit 1; }
