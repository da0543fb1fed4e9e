#!/usr/bin/env bash
# Makes the root with real screen lockers that desktops.py boots, unless it is cached, and prints its tarball.
# Usage: tests/system/desktops-root.sh RELEASE
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
roots=$here/../roots
release=$1
cache=${VELM_CACHE_DIR:-/var/cache/velmmonitord-tests}
# The lockers, what types on each kind of screen, and what some do not start without and do not ask for: the settings
# and sound of Cinnamon, an X server's fonts, a place for MATE's settings.
packages=(i3lock xss-lock mate-screensaver xfce4-screensaver cinnamon-screensaver plasma-workspace kwin-x11 gnome-shell gdm3
    sway swaylock swayidle xvfb xdotool wtype cinnamon-common gir1.2-cvc-1.0 x11-utils xfonts-base dconf-gsettings-backend)

base=$("$roots/base-root.sh" "$release" booted)
key=$({ basename "$base"; echo "${packages[*]}"; } | sha256sum | cut -c 1-16)
tarball=$cache/desktops-$release-$key.tar
archives=$cache/archives-desktops-$release
# Two at once make it once.
exec 9>"$cache/desktops-$release.lock"
flock 9
if [[ -f $tarball ]]; then
    echo "$tarball"
    exit 0
fi
work=$(mktemp -d "${TMPDIR:-/var/tmp}/velm-desktops-root.XXXXXX")
trap 'rm -rf --one-file-system "$work"' EXIT
trap 'exit 130' INT TERM
mkdir -p "$work/root" "$archives/partial"
tar -C "$work/root" -xf "$base"
cp --dereference /etc/resolv.conf "$work/root/etc/resolv.conf"
printf '#!/bin/sh\nexit 101\n' >"$work/root/usr/sbin/policy-rc.d"
chmod 755 "$work/root/usr/sbin/policy-rc.d"
{
    "$roots/enter.sh" "$work/root" --bind "$archives" /var/cache/apt/archives -- \
        env DEBIAN_FRONTEND=noninteractive sh -c \
        'apt-get update && apt-get install -y --no-install-recommends -o Dpkg::Options::=--force-unsafe-io "$@"' \
        sh "${packages[@]}" &&
        # The display manager has no screen here; whoever needs it starts it.
        "$roots/enter.sh" "$work/root" -- systemctl set-default multi-user.target
} >"$work/log" 2>&1 || { tail -n 15 "$work/log" >&2; exit 1; }
rm -rf "$work/root/usr/sbin/policy-rc.d" "$work/root"/var/lib/apt/lists/*
: >"$work/root/etc/machine-id"
tar --one-file-system -C "$work/root" -cf "$tarball.partial" .
rm -f "$cache/desktops-$release"-*.tar
mv "$tarball.partial" "$tarball"
echo "$tarball"
