#!/usr/bin/env bash
# Boots Debian systems in containers, installs the packages in them, logs users in and shows that the agent does its
# work there. Usage: tests/system/run.sh DIR [RELEASE]...
# DIR is where packaging/linux/build-packages.sh builds the packages, which this does first, on this machine's release;
# the releases, by default bookworm and trixie, run side by side. Those older than this machine cannot run them.
# Status: 0 all points shown, 1 a point failed, 77 the test cannot run on this machine.
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
root=$(cd "$here/../.." && pwd)
[[ $# -ge 1 ]] || { sed -n '3,6s/^# //p' "$0" >&2; exit 2; }
((EUID == 0)) || exec sudo --preserve-env=VELM_CACHE_DIR,VELM_DEBIAN_MIRROR "$0" "$@"

cannot_run() { echo "cannot run here: $1"; exit 77; }

missing=()
for tool in systemd-nspawn debootstrap nsenter python3 dpkg-deb; do
    command -v "$tool" >/dev/null || missing+=("$tool")
done
((${#missing[@]} == 0)) || cannot_run "missing ${missing[*]} (tools/install-deps system)"

mkdir -p "$1"
build=$(cd "$1" && pwd)
shift
releases=("$@")
((${#releases[@]})) || releases=(bookworm trixie)
. /etc/os-release
if [[ ${VERSION_CODENAME-} != bookworm && " ${releases[*]} " == *" bookworm "* ]]; then
    echo "Left out: Debian 12, which is older than this machine's ${PRETTY_NAME-system} and lacks its libraries."
    newer=()
    for release in "${releases[@]}"; do
        [[ $release == bookworm ]] || newer+=("$release")
    done
    releases=("${newer[@]}")
    ((${#releases[@]})) || cannot_run "Debian 12 alone was asked for"
fi

build_packages() {
    local log
    log=$(mktemp)
    "$root/packaging/linux/build-packages.sh" "$@" >"$log" 2>&1 ||
        { tail -n 30 "$log" >&2; rm -f "$log"; echo "The packages do not build." >&2; exit 1; }
    rm -f "$log"
}
build_packages "$build" --deb-only
python3 -B "$here/previous.py" "$build/packages" "$build/previous"

work=$(mktemp -d "${TMPDIR:-/var/tmp}/velm-system.XXXXXX")
declare -A tests
finish() {
    local release
    # A test ends its container, and with it all that runs inside, whatever ends the test.
    for release in "${!tests[@]}"; do
        kill -TERM "${tests[$release]}" 2>/dev/null || true
    done
    wait
    rm -rf --one-file-system "$work"
}
trap finish EXIT
trap 'exit 130' INT TERM

for release in "${releases[@]}"; do
    tarball=$("$root/tests/roots/base-root.sh" "$release" booted)
    mkdir -p "$work/$release/root"
    tar -C "$work/$release/root" -xf "$tarball"
    python3 -B "$here/booted.py" --root "$work/$release/root" --packages "$build/packages" \
        --previous "$build/previous" >"$work/$release/log" 2>&1 &
    tests[$release]=$!
done
failed=0
for release in "${releases[@]}"; do
    wait "${tests[$release]}" || failed=1
    unset "tests[$release]"
    echo "== $release"
    cat "$work/$release/log"
done
exit $failed
