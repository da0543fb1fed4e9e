#!/usr/bin/env bash
# Builds the installer package of the agent from a finished build. Runs on macOS, with Xcode's command line tools.
#
# Usage: packaging/macos/build-package.sh [OPTION]...
#   --build DIR                   the build directory (build/release)
#   --output FILE                 the package (velmmonitord-VERSION.pkg in the build directory); its debug symbols are
#                                 put beside it, with .dSYM in the place of .pkg: keep them with each release
#   --application-identity NAME   sign the program, e.g. "Developer ID Application: Example (TEAMID)"
#   --installer-identity NAME     sign the package, e.g. "Developer ID Installer: Example (TEAMID)"
#
# Both identities together make a package that can be notarised; without them it installs only where the user lets
# an unsigned package through. Notarising, once a build:
#   xcrun notarytool store-credentials velm --apple-id ID --team-id TEAMID      once a machine
#   xcrun notarytool submit FILE --keychain-profile velm --wait                 prints "status: Accepted"
#   xcrun notarytool log SUBMISSION --keychain-profile velm                     if it does not: why
#   xcrun stapler staple FILE                                                   so that it installs offline
#   spctl --assess --type install --verbose FILE                                "source=Notarized Developer ID"
set -euo pipefail
umask 022

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
root=$(cd "$here/../.." && pwd)
label=com.brovik.velmmonitord
build=$root/build/release output='' application_identity='' installer_identity=''

while (($#)); do
    case $1 in
        --help) sed -n '2,/^set/s/^# \{0,1\}//p' "$0"; exit 0 ;;
        --build | --output | --application-identity | --installer-identity)
            (($# > 1)) || { echo "build-package.sh: $1 needs a value" >&2; exit 2; }
            name=${1#--}
            printf -v "${name//-/_}" '%s' "$2"
            shift 2
            ;;
        *) echo "build-package.sh: unknown option '$1'; see --help" >&2; exit 2 ;;
    esac
done
if [[ -n $application_identity && -z $installer_identity || -z $application_identity && -n $installer_identity ]]; then
    echo "build-package.sh: both identities, or none: half a signature can't be notarised" >&2
    exit 2
fi

program=$build/src/velmmonitord/velmmonitord
[[ -x $program ]] || { echo "build-package.sh: $program is not built" >&2; exit 1; }
# Debian's awk and macOS's agree on this much.
version=$(awk '/^ *VERSION [0-9.]+$/ { print $2; exit }' "$root/CMakeLists.txt")
[[ -n $version ]] || { echo "build-package.sh: CMakeLists.txt names no version" >&2; exit 1; }
output=${output:-$build/velmmonitord-$version.pkg}

architectures=$(lipo -archs "$program")
for architecture in x86_64 arm64; do
    [[ " $architectures " == *" $architecture "* ]] ||
        { echo "build-package.sh: $program has no code for $architecture, only for: $architectures" >&2; exit 1; }
done

stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
payload=$stage/payload
install -d -m 755 "$payload/Library/LaunchAgents" "$payload/Library/Application Support/Brovik"
install -m 755 "$program" "$payload/Library/Application Support/Brovik/velmmonitord"
install -m 755 "$here/uninstall.sh" "$payload/Library/Application Support/Brovik/uninstall-velmmonitord"
install -m 644 "$here/$label.plist" "$payload/Library/LaunchAgents/$label.plist"

# What makes a crash report readable stays with the maker, beside the package; the program goes without. Before the
# signing, which ends every change.
symbols=${output%.pkg}.dSYM
rm -rf "$symbols"
dsymutil "$program" -o "$symbols"
strip -S "$payload/Library/Application Support/Brovik/velmmonitord"

product_signature=()
if [[ -n $application_identity ]]; then
    # Notarisation asks for the hardened runtime and a trusted time stamp.
    codesign --force --options runtime --timestamp --identifier "$label" --sign "$application_identity" \
        "$payload/Library/Application Support/Brovik/velmmonitord"
    product_signature=(--sign "$installer_identity" --timestamp)
fi

pkgbuild --root "$payload" --identifier "$label" --version "$version" --install-location / \
    --ownership recommended --scripts "$here/scripts" "$stage/velmmonitord-component.pkg"
# The bash of macOS is 3.2, where an empty array is an unset variable.
productbuild --distribution "$here/distribution.xml" --package-path "$stage" \
    ${product_signature[@]+"${product_signature[@]}"} "$output"
echo "$output"
echo "$symbols"
