#!/usr/bin/env bash
# Makes the Debian (or Ubuntu) root that the booted test starts from, unless it is cached, and prints its tarball.
# The root is of the release that this machine runs, since packages built here are made for that one, and comes
# from the mirror that this machine's apt uses. Usage: tests/system/base-root.sh CACHE_DIR
set -euo pipefail

cache=$1

# Beside a minimal system with login sessions: the other message bus, a screen locker that tells logind, and an X
# server and a typist for it.
packages=(systemd systemd-sysv libpam-systemd dbus dbus-user-session dbus-broker tzdata libstdc++6 libsystemd0
    xss-lock i3lock xvfb xdotool)

# Of what apt knows: address, code name and component of every archive of the distribution itself.
. /etc/os-release
archives=$(apt-get indextargets --format '$(REPO_URI) $(RELEASE) $(COMPONENT) $(ORIGIN)' 'Created-By: Packages' |
    awk -v origin="${ID^}" '$4 == origin && $2 !~ /backports|proposed/ {print $1, $2, $3}' | sort -u)
mirror=$(awk -v release="$VERSION_CODENAME" '$2 == release && $3 == "main" {print $1; exit}' <<<"$archives")
if [[ -z $mirror ]]; then
    echo "base-root: apt on this machine knows no archive of $ID $VERSION_CODENAME; run 'apt-get update'" >&2
    exit 1
fi

key=$(sha256sum "${BASH_SOURCE[0]}" <(echo "$VERSION_CODENAME $(dpkg --print-architecture)") | sha256sum | cut -c 1-16)
tarball=$cache/base-root-$key.tar
if [[ -f $tarball ]]; then
    echo "$tarball"
    exit 0
fi

mkdir -p "$cache"
work=$(mktemp -d "${TMPDIR:-/var/tmp}/velm-base-root.XXXXXX")
root=$work/root
log=$work/log
finish() {
    local status=$?
    ((status == 0)) || { echo "base-root: making the root failed:"; tail -n 15 "$log"; } >&2
    # Interrupted, debootstrap leaves them mounted.
    awk -v root="$root/" 'index($2, root) == 1 {print $2}' /proc/mounts | sort -r | xargs -r umount
    rm -rf --one-file-system "$work"
}
trap finish EXIT

proxy=$(apt-config shell value Acquire::http::Proxy | sed "s/^value='\(.*\)'$/\1/")
[[ -z $proxy ]] || export http_proxy=$proxy

in_root() { chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin DEBIAN_FRONTEND=noninteractive "$@"; }

{
    debootstrap --variant=minbase "$VERSION_CODENAME" "$root" "$mirror"
    awk '{print "deb", $1, $2, $3}' <<<"$archives" >"$root/etc/apt/sources.list"
    [[ -z $proxy ]] || echo "Acquire::http::Proxy \"$proxy\";" >"$root/etc/apt/apt.conf.d/proxy"
    cp --dereference /etc/resolv.conf "$root/etc/resolv.conf"
    # No service starts while the root is only a directory.
    printf '#!/bin/sh\nexit 101\n' >"$root/usr/sbin/policy-rc.d"
    chmod 755 "$root/usr/sbin/policy-rc.d"
    in_root apt-get update
    in_root apt-get install -y --no-install-recommends -o Dpkg::Options::=--force-unsafe-io "${packages[@]}"
    # Installing it puts it in the place of dbus-daemon; the test does so itself, later.
    in_root systemctl disable dbus-broker.service
    in_root systemctl --global disable dbus-broker.service
    in_root apt-get clean
    rm -rf "$root"/var/lib/apt/lists/* "$root/usr/sbin/policy-rc.d" "$root/etc/apt/apt.conf.d/proxy"
    # Made anew at the first boot.
    : >"$root/etc/machine-id"
    echo velmtest >"$root/etc/hostname"
    tar --one-file-system -C "$root" -cf "$tarball.partial" .
    rm -f "$cache"/base-root-*.tar
    mv "$tarball.partial" "$tarball"
} >"$log" 2>&1 </dev/null
echo "$tarball"
