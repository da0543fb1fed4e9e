#!/usr/bin/env bash
# Makes the root with real screen lockers that desktops.py boots, unless it is cached, and prints its tarball.
# Usage: tests/system/desktops-root.sh RELEASE
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
roots=$here/../roots
release=$1
cache=${VELM_CACHE_DIR:-/var/cache/velmmonitord-tests}
packages=(i3lock xss-lock mate-screensaver xvfb xdotool x11-utils xfonts-base dconf-gsettings-backend)

base=$("$roots/base-root.sh" "$release" booted)
key=$({ basename "$base"; echo "${packages[*]}"; } | sha256sum | cut -c 1-16)
tarball=$cache/desktops-$release-$key.tar
if [[ -f $tarball ]]; then
    echo "$tarball"
    exit 0
fi
work=$(mktemp -d "${TMPDIR:-/var/tmp}/velm-desktops-root.XXXXXX")
trap 'rm -rf --one-file-system "$work"' EXIT
mkdir "$work/root" "$work/archives"
tar -C "$work/root" -xf "$base"
cp --dereference /etc/resolv.conf "$work/root/etc/resolv.conf"
printf '#!/bin/sh\nexit 101\n' >"$work/root/usr/sbin/policy-rc.d"
chmod 755 "$work/root/usr/sbin/policy-rc.d"
{
    "$roots/enter.sh" "$work/root" -- env DEBIAN_FRONTEND=noninteractive sh -c \
        'apt-get update && apt-get install -y --no-install-recommends -o Dpkg::Options::=--force-unsafe-io "$@"' \
        sh "${packages[@]}"
    "$roots/enter.sh" "$work/root" -- apt-get clean
} >"$work/log" 2>&1 || { tail -n 15 "$work/log" >&2; exit 1; }
rm -rf "$work/root/usr/sbin/policy-rc.d" "$work/root"/var/lib/apt/lists/*
: >"$work/root/etc/machine-id"
tar --one-file-system -C "$work/root" -cf "$tarball.partial" .
rm -f "$cache/desktops-$release"-*.tar
mv "$tarball.partial" "$tarball"
echo "$tarball"
