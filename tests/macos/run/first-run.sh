#!/usr/bin/env bash
# Plays tests/macos/first-run.sh, which is meant for a Mac, over the doubles: so that it is the Mac that a first run tries,
# and not the script. Usage: tests/macos/run/first-run.sh BUILD_DIR        (of tests/macos/run/check.sh)
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
[[ $(uname -sm) == "Linux x86_64" ]] || { echo "runs on x86-64 Linux only, and this is $(uname -sm)"; exit 77; }
build=$(cd "$1" && pwd)

world=$(mktemp -d /tmp/velm-first-run.XXXXXX)
trap 'rm -rf "$world"' EXIT
mkdir "$world/system" "$world/user" "$world/home"
mkfifo "$world/events" "$world/commands"
# Held open, so that nobody waits for the other end.
exec 8<>"$world/events" 9<>"$world/commands"
VELM_DOUBLES_DIRECTORY=$world VELM_DOUBLES_EVENTS=$world/events VELM_DOUBLES_READINGS=missingJobAtResume HOME=$world/home \
    timeout 300 "$here/../first-run.sh" "$build"
