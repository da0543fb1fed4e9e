#!/usr/bin/env bash
# Builds the Debian packages and the RPMs into DIR/packages, reproducibly.
# Usage: packaging/linux/build-packages.sh DIR [--version VERSION] [--deb-only]
# DIR is a build directory of its own. With --version the packages get that version and go to DIR/packages-VERSION.
set -euo pipefail

usage() { sed -n '3,4s/^# //p' "$0"; exit 2; }

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
[[ $# -ge 1 && $1 != -* ]] || usage
build=$1
shift
version='' generators='DEB;RPM'
while (($#)); do
    case $1 in
        --version) version=${2:?}; shift 2 ;;
        --deb-only) generators=DEB; shift ;;
        *) usage ;;
    esac
done

# The packages' files are as old as the last entry of the changelog, whenever they are built, and have the same
# modes whoever builds them.
SOURCE_DATE_EPOCH=$(dpkg-parsechangelog -l "$root/packaging/linux/debian/changelog" -S Timestamp)
export SOURCE_DATE_EPOCH LC_ALL=C.UTF-8 TZ=UTC
umask 022

mkdir -p "$build"
build=$(cd "$build" && pwd)
cd "$root"
cmake --preset package -B "$build" -DVELM_PACKAGE_VERSION="$version"
cmake --build "$build" -j "$(nproc)"

out=$build/packages${version:+-$version}
rm -f "$out"/*.deb
[[ $generators == DEB ]] || rm -f "$out"/*.rpm
cpack --config "$build/CPackConfig.cmake" -G "$generators" -B "$out"
rm -rf "$out/_CPack_Packages"

# What cpack makes of debug symbols has its own directory in the check sums, marks them as programs, and lacks what
# every package has: here it shares its program's changelog and copyright, as Debian's own do.
repack_symbols() {
    local package=$1 tree name
    tree=$(mktemp -d)
    dpkg-deb -R "$package" "$tree"
    chmod 755 "$tree"
    name=$(dpkg-deb -f "$package" Package)
    mkdir -p "$tree/usr/share/doc"
    ln -s "${name%-dbgsym}" "$tree/usr/share/doc/$name"
    find "$tree/usr" -type f -exec chmod 644 {} +
    sed -i '/^Package-Type:/d' "$tree/DEBIAN/control"
    (cd "$tree" && find usr -type f -printf '%P\0' | LC_ALL=C sort -z | sed -z 's|^|usr/|' | xargs -0 md5sum) \
        >"$tree/DEBIAN/md5sums"
    dpkg-deb --root-owner-group -Zxz -b "$tree" "${package%.ddeb}.deb" >/dev/null
    rm -rf "$tree" "$package"
}
for package in "$out"/*.ddeb; do
    repack_symbols "$package"
done
(cd "$out" && ls -l)
