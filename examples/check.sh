#!/usr/bin/env bash
# Builds the examples and compares what they print with what they should. Usage: examples/check.sh BUILD_DIR
set -euo pipefail

[[ $# == 1 && -f $1/CMakeCache.txt ]] || { echo "usage: examples/check.sh BUILD_DIR" >&2; exit 2; }
build=$(realpath "$1")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() { echo "examples: $*" >&2; exit 1; }

cmake --build "$build" --target rotating_log timers

echo "== timers"
timeout 60 "$build/examples/timers" | diff - <(cat <<'EOF'
tick 1
tick 2
tick 3
the periodic timer is stopped
after 50 ms
50 ms after that
done
EOF
) || fail "timers printed something else"

echo "== rotating_log"
timeout 60 "$build/examples/rotating_log" "$work" | diff - <(cat <<'EOF'
example.log2:
    [INFO]  message 1
    [INFO]  message 2
    [INFO]  message 3
example.log1:
    [INFO]  message 4
    [INFO]  message 5
    [INFO]  message 6
    [INFO]  message 7
example.log:
    [INFO]  message 8
    [INFO]  message 9
    [INFO]  message 10
    [ERROR] the last one
EOF
) || fail "rotating_log printed something else"
[[ $(cd "$work" && echo *) == "example.log example.log1 example.log2" ]] || fail "rotating_log left other files"
"$build/examples/rotating_log" "$work/nowhere" 2>/dev/null && fail "rotating_log accepts a missing directory"

echo "The examples run as they should."
