#!/usr/bin/env bash
# Makes the root of a Debian release that a test starts from, unless it is cached, and prints its tarball.
# Usage: tests/roots/base-root.sh RELEASE KIND
#   RELEASE  a code name: bookworm, trixie
#   KIND     fresh: a new system, with no more than what brings the sources there; booted: what boots in a container
# It comes from the mirror that this machine's apt uses, or, where that is none of Debian's, from VELM_DEBIAN_MIRROR.
# The cache is VELM_CACHE_DIR, by default /var/cache/velmmonitord-tests, and may be removed at any time. Needs root.
set -euo pipefail

[[ $# -eq 2 ]] || { sed -n '3,5s/^# //p' "$0" >&2; exit 2; }
release=$1 kind=$2
cache=${VELM_CACHE_DIR:-/var/cache/velmmonitord-tests}

case $kind in
    fresh) packages=(sudo) ;;
    # Beside a minimal system with login sessions: the other message bus, a screen locker that tells logind, and an
    # X server and a typist for it, and what a screen saver on the session bus is played with.
    booted) packages=(systemd systemd-sysv libpam-systemd dbus dbus-user-session dbus-broker tzdata libstdc++6
        libsystemd0 login util-linux xss-lock i3lock xvfb xdotool
        python3-dbus python3-gi) ;;
    *) echo "base-root: no kind '$kind' (fresh, booted)" >&2; exit 2 ;;
esac

# Where apt gets the main archive, and that of security updates, of the distribution itself.
archive_of() {
    apt-get indextargets --format '$(REPO_URI) $(RELEASE) $(COMPONENT) $(ORIGIN)' 'Created-By: Packages' |
        awk -v release="$1" '$2 == release && $3 == "main" && $4 == "Debian" && !found {print $1; found = 1}'
}
. /etc/os-release
mirror=${VELM_DEBIAN_MIRROR:-} security=
if [[ -z $mirror && ${ID-} == debian ]]; then
    mirror=$(archive_of "$VERSION_CODENAME") security=$(archive_of "$VERSION_CODENAME-security")
fi
if [[ -z $mirror ]]; then
    echo "base-root: apt on this machine knows no archive of Debian; run 'apt-get update', or set VELM_DEBIAN_MIRROR" >&2
    exit 1
fi

# By content alone: the same root wherever the sources lie.
key=$({ cat "${BASH_SOURCE[0]}"; echo "$release $kind $(dpkg --print-architecture)"; } | sha256sum | cut -c 1-16)
tarball=$cache/$kind-$release-$key.tar
mkdir -p "$cache"
# Two at once make it once.
exec 9>"$cache/$kind-$release.lock"
flock 9
if [[ -f $tarball ]]; then
    echo "$tarball"
    exit 0
fi

work=$(mktemp -d "${TMPDIR:-/var/tmp}/velm-base-root.XXXXXX")
root=$work/root
log=$work/log
finish() {
    local status=$?
    ((status == 0)) || { echo "base-root: making the root of $release failed:"; tail -n 15 "$log"; } >&2
    # Interrupted, debootstrap leaves them mounted.
    awk -v root="$root/" 'index($2, root) == 1 {print $2}' /proc/mounts | sort -r | xargs -r umount
    rm -rf --one-file-system "$work"
}
trap finish EXIT
trap 'exit 130' INT TERM

proxy=$(apt-config shell value Acquire::http::Proxy | sed "s/^value='\(.*\)'$/\1/")
[[ -z $proxy ]] || export http_proxy=$proxy

in_root() { chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin DEBIAN_FRONTEND=noninteractive "$@"; }

sources() {
    echo "deb $mirror $release main"
    echo "deb $mirror $release-updates main"
    [[ -z $security ]] || echo "deb $security $release-security main"
}

{
    for attempt in 1 2 3; do
        rm -rf --one-file-system "$root"
        debootstrap --variant=minbase "$release" "$root" "$mirror" && break
        # An archive or the way to it fails now and then.
        ((attempt < 3)) || exit 1
    done
    sources >"$root/etc/apt/sources.list"
    echo 'Acquire::Retries "3";' >"$root/etc/apt/apt.conf.d/retries"
    [[ -z $proxy ]] || echo "Acquire::http::Proxy \"$proxy\";" >"$root/etc/apt/apt.conf.d/proxy"
    cp --dereference /etc/resolv.conf "$root/etc/resolv.conf"
    # No service starts while the root is only a directory.
    printf '#!/bin/sh\nexit 101\n' >"$root/usr/sbin/policy-rc.d"
    chmod 755 "$root/usr/sbin/policy-rc.d"
    for attempt in 1 2 3; do
        in_root apt-get update -o APT::Update::Error-Mode=any &&
            in_root apt-get install -y --no-install-recommends -o Dpkg::Options::=--force-unsafe-io "${packages[@]}" &&
            break
        ((attempt < 3)) || exit 1
    done
    in_root apt-get clean
    rm -rf "$root"/var/lib/apt/lists/*
    if [[ $kind == booted ]]; then
        # Installing it puts it in the place of dbus-daemon; the test does so itself, later.
        in_root systemctl disable dbus-broker.service
        in_root systemctl --global disable dbus-broker.service
        rm -f "$root/usr/sbin/policy-rc.d" "$root"/etc/apt/apt.conf.d/{proxy,retries}
        # Made anew at the first boot.
        : >"$root/etc/machine-id"
    fi
    echo velmtest >"$root/etc/hostname"
    echo '127.0.0.1 localhost velmtest' >"$root/etc/hosts"
    tar --one-file-system -C "$root" -cf "$tarball.partial" .
    rm -f "$cache/$kind-$release"-*.tar
    mv "$tarball.partial" "$tarball"
} >"$log" 2>&1 </dev/null
echo "$tarball"
