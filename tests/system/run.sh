#!/usr/bin/env bash
# Boots a Debian system in a container, installs the packages in it, logs users in and shows that the agent does
# its work there. Usage: tests/system/run.sh DIR
# DIR is where packaging/linux/build-packages.sh builds the packages, which this does first.
# Status: 0 all points shown, 1 a point failed, 2 the test cannot run on this machine.
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
root=$(cd "$here/../.." && pwd)
[[ $# -eq 1 ]] || { sed -n '2,5s/^# //p' "$0" >&2; exit 2; }

cannot_run() { echo "The booted-system test cannot run here: $1." >&2; exit 2; }

((EUID == 0)) || cannot_run "it needs root"
missing=()
for tool in systemd-nspawn debootstrap nsenter python3 dpkg-deb; do
    command -v "$tool" >/dev/null || missing+=("$tool")
done
((${#missing[@]} == 0)) || cannot_run "missing ${missing[*]} (tools/install-deps system)"

# An older version of the same sources stands for the one that users have now.
previous=0.9.0
build_packages() {
    local log
    log=$(mktemp)
    "$root/packaging/linux/build-packages.sh" "$@" >"$log" 2>&1 ||
        { tail -n 30 "$log" >&2; rm -f "$log"; echo "The packages do not build." >&2; exit 1; }
    rm -f "$log"
}
mkdir -p "$1"
build=$(cd "$1" && pwd)
build_packages "$build" --deb-only --version "$previous"
build_packages "$build" --deb-only

began=$SECONDS
tarball=$("$here/base-root.sh" "${VELM_CACHE_DIR:-${HOME:-/root}/.cache/velmmonitord}")
((SECONDS - began < 5)) || echo "Made the system's root in $((SECONDS - began)) s; it is cached."

work=$(mktemp -d "${TMPDIR:-/var/tmp}/velm-system.XXXXXX")
test_process=
finish() {
    # The test ends its container, and with it all that runs inside, whatever ends the test.
    if [[ -n $test_process ]] && kill -TERM "$test_process" 2>/dev/null; then
        wait "$test_process" || true
    fi
    rm -rf --one-file-system "$work"
}
trap finish EXIT
trap 'exit 130' INT TERM

mkdir "$work/root"
tar -C "$work/root" -xf "$tarball"
python3 -B "$here/booted.py" --root "$work/root" --packages "$build/packages" \
    --previous "$build/packages-$previous" &
test_process=$!
wait "$test_process"
