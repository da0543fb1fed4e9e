#!/usr/bin/env bash
# Locks and unlocks the screen with real lockers in a booted Debian 13 and prints what the agent told of each.
# Usage: tests/system/desktops.sh DIR [--only LOCKER]
# DIR is where packaging/linux/build-packages.sh builds the packages, which this does first. Installs 2 GB.
# Status: 0 each told one lock and one unlock, 1 one did not, 77 it cannot run on this machine.
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
root=$(cd "$here/../.." && pwd)
[[ $# -ge 1 ]] || { sed -n '3,5s/^# //p' "$0" >&2; exit 2; }
((EUID == 0)) || exec sudo --preserve-env=VELM_CACHE_DIR,VELM_DEBIAN_MIRROR "$0" "$@"
for tool in systemd-nspawn debootstrap nsenter python3 dpkg-deb; do
    command -v "$tool" >/dev/null || { echo "cannot run here: missing $tool (tools/install-deps system)"; exit 77; }
done

mkdir -p "$1"
build=$(cd "$1" && pwd)
shift
"$root/packaging/linux/build-packages.sh" "$build" --deb-only >"$build/desktops-build.log" 2>&1 ||
    { tail -n 30 "$build/desktops-build.log" >&2; exit 1; }
tarball=$("$here/desktops-root.sh" trixie)

work=$(mktemp -d "${TMPDIR:-/var/tmp}/velm-desktops.XXXXXX")
test_process=
finish() {
    [[ -z $test_process ]] || kill -TERM "$test_process" 2>/dev/null || true
    wait
    rm -rf --one-file-system "$work"
}
trap finish EXIT
trap 'exit 130' INT TERM
mkdir "$work/root"
tar -C "$work/root" -xf "$tarball"
python3 -B "$here/desktops.py" --root "$work/root" --packages "$build/packages" "$@" &
test_process=$!
wait "$test_process"
