#!/usr/bin/env bash
# Runs each example daemon of Linux with the real agent on the stage of ./run, and compiles the one for macOS.
# Usage: examples/daemon/check.sh BUILD_DIR
set -euo pipefail
[[ $# == 1 && -f $1/CMakeCache.txt ]] || { echo "usage: examples/daemon/check.sh BUILD_DIR" >&2; exit 2; }
build=$(realpath "$1")
cd "$(dirname "${BASH_SOURCE[0]}")/../.."

fail() { echo "examples: $*" >&2; exit 1; }

cmake --build "$build" --target daemon_example velmmonitord velmdaemon-sim velm_interfaces

# typed TIMELINE: what is played once the link is up, with the agent's end when it has heard the daemon's answer to the
# last, and the bus's when the daemon has seen that.
typed() {
    await_line 'Monitor launcher: connected came$' "$1"
    printf '%s\n' lock unlock 'zone Asia/Tokyo'
    await_line 'agent: incomming message$' "$1"
    echo logout
    await_line ': gone$' "$1"
}

# What does not come within half a minute is missed later, by name.
await_line() {
    local tries
    for ((tries = 0; tries < 300; tries++)); do
        ! grep -Eqs "$1" "$2" || return 0
        sleep 0.1
    done
}

# plays NAME COMMAND: the timeline that the command's daemon and the agent make of a lock, an unlock and another zone.
plays() {
    local name=$1 command=$2 timeline=$build/examples/daemon-$1.txt line
    echo "== $name"
    rm -f "$timeline"
    typed "$timeline" | timeout 120 /usr/bin/python3 -B tools/demo/demo.py --stay --daemon-command "$command" --daemon-directory "$PWD" \
            "$build/src/velmmonitord/velmmonitord" "$build/tools/velmdaemon-sim/linux/velmdaemon-sim" >"$timeline" ||
        { cat "$timeline"; fail "the play with $name failed"; }
    for line in 'daemon +ready' 'daemon +[^ ]+: connected; whether' 'agent .*xpc: connection is established: 1' \
        'daemon +[^ ]+: screen locked' 'daemon +[^ ]+: screen unlocked' 'daemon +[^ ]+: time zone changed' \
        'agent .*agent: incomming message' 'daemon +[^ ]+: gone'; do
        grep -Eq "$line" "$timeline" || { cat "$timeline"; fail "with $name, there is no line /$line/"; }
    done
}

plays C++ "exec '$build/examples/daemon_example'"
plays Python examples/daemon/linux/daemon.py
# Its interface is the contract's, but for the annotations.
declared() { sed '/annotation/d' | tr -d '\n' | sed -E 's/.*<node>/<node>/; s/> +</></g; s/(<method name="[a-zA-Z]+")><\/method>/\1\/>/g; s/<\/node>.*/<\/node>/'; }
diff <(declared <"$build/packaging/linux/com.brovik.XpcDaemonProtocol.xml") <(declared <examples/daemon/linux/daemon.py) ||
    fail "daemon.py declares another interface"

echo "== Objective-C"
# Its protocols are the contract's, text for text.
for protocol in XpcDaemonProtocol XpcAgentProtocol; do
    diff <(sed -n "/^@protocol $protocol\$/,/^@end/p" examples/daemon/macos/daemon.m) \
        <(sed -n "/^@protocol $protocol\$/,/^@end/p" src/platform/macos/XpcObjCProtocols.h) ||
        fail "macos/daemon.m declares another $protocol"
done
# Compiled for macOS against the declarations that the agent's own sources are checked with, whose C functions are
# declared for C++; see tests/macos/check.sh for what makes the host's headers fit.
mapfile -t host_headers < <(clang++ -E -v -x c++ /dev/null 2>&1 | sed -n '/^#include </,/^End/s/^ //p' | grep -v '/clang/')
((${#host_headers[@]})) || fail "clang++ does not tell where its headers are"
clang++ -target x86_64-apple-macosx10.12 -x objective-c++ -std=c++17 -fblocks -fobjc-arc -Wall -Wextra -Werror \
    -U__nonnull -D_GNU_SOURCE "-D__$(uname -m)__" -Wno-builtin-macro-redefined -nostdinc++ \
    -isystem tests/macos/sdk -isystem tests/macos/libc "${host_headers[@]/#/-isystem}" \
    -fsyntax-only examples/daemon/macos/daemon.m || fail "macos/daemon.m does not compile"
echo "macos/daemon.m compiles, and declares the contract as the agent does; tests/macos/run/check.sh runs it."

echo "The example daemons run as they should."
