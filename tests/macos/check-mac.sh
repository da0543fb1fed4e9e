#!/usr/bin/env bash
# What ./check can do on a Mac: builds the programs as they are documented, and builds and runs the unit tests that need no
# Linux (timers, logging, the stand-in; the core's tests bring CoreFoundation calls of their own and stay on Linux). For
# the bash of macOS, which is old.
#
# Usage: ./check, on a Mac. Needs CMake, Ninja, Boost and GoogleTest, for example from Homebrew.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."

for tool in cmake ninja; do
    command -v "$tool" >/dev/null || { echo "check: $tool is missing" >&2; exit 2; }
done
# Of this processor only, as the libraries at hand seldom hold both.
cmake -G Ninja -B build/mac -DCMAKE_BUILD_TYPE=RelWithDebInfo "-DCMAKE_OSX_ARCHITECTURES=$(uname -m)"
cmake --build build/mac
ctest --test-dir build/mac -L unit --output-on-failure
echo "What needs the daemon's job: tests/macos/first-run.sh build/mac"
