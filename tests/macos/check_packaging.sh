#!/usr/bin/env bash
# Runs the package's build script with recorders in the place of Apple's tools, and checks what it would have built.
# Usage: check_packaging.sh SCRATCH_DIR
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
packaging=$root/packaging/macos
mkdir -p "$1"
scratch=$(cd "$1" && pwd)
rm -rf "${scratch:?}"/*

fail() { echo "$*" >&2; exit 1; }

for script in "$packaging"/*.sh; do
    bash -n "$script" || fail "$script does not parse"
    [[ -x $script ]] || fail "$script is not executable"
done
for script in "$packaging"/scripts/*; do
    sh -n "$script" || fail "$script does not parse"
    [[ -x $script ]] || fail "$script is not executable"
done
xmllint --noout --nonet "$packaging/distribution.xml"

mkdir -p "$scratch/tools" "$scratch/build/src/velmmonitord"
printf 'program' >"$scratch/build/src/velmmonitord/velmmonitord"
chmod 755 "$scratch/build/src/velmmonitord/velmmonitord"
for tool in codesign dsymutil productbuild strip; do
    cat >"$scratch/tools/$tool" <<'TOOL'
#!/bin/sh
printf "%s" "${0##*/}" >>"$RECORD"
for a; do printf " [%s]" "$a" >>"$RECORD"; done
echo >>"$RECORD"
TOOL
done
cat >"$scratch/tools/pkgbuild" <<'TOOL'
#!/bin/sh
printf "pkgbuild" >>"$RECORD"
for a; do printf " [%s]" "$a" >>"$RECORD"; done
echo >>"$RECORD"
# $2 is the payload.
[ "$1" = --root ] && (cd "$2" && find . -printf '%y %m %p\n' | sort -k 3) >"$RECORD.payload"
TOOL
cat >"$scratch/tools/lipo" <<'TOOL'
#!/bin/sh
echo "${ARCHITECTURES:-x86_64 arm64}"
TOOL
chmod +x "$scratch"/tools/*

build_package() {
    RECORD=$scratch/$1 PATH=$scratch/tools:$PATH bash "$packaging/build-package.sh" --build "$scratch/build" "${@:2}"
}

build_package signed --application-identity 'App (ID)' --installer-identity 'Pkg (ID)' >"$scratch/signed.out"
cat >"$scratch/payload" <<'EXPECTED'
d 755 .
d 755 ./Library
d 755 ./Library/Application Support
d 755 ./Library/Application Support/Brovik
f 755 ./Library/Application Support/Brovik/uninstall-velmmonitord
f 755 ./Library/Application Support/Brovik/velmmonitord
d 755 ./Library/LaunchAgents
f 644 ./Library/LaunchAgents/com.brovik.velmmonitord.plist
EXPECTED
diff -u "$scratch/payload" "$scratch/signed.payload" || fail "the payload is not as intended"

expect_call() {
    grep -qF -- "$2" <(grep "^$3 " "$scratch/$1") || fail "$1: $3 is not called with: $2; but: $(cat "$scratch/$1")"
}
expect_call signed "[$scratch/build/src/velmmonitord/velmmonitord] [-o] [" dsymutil
expect_call signed '[-S] [' strip
(($(grep -n '^strip' "$scratch/signed" | cut -d: -f1) < $(grep -n '^codesign' "$scratch/signed" | cut -d: -f1))) ||
    fail "the program is changed after it was signed"
expect_call signed '[--options] [runtime] [--timestamp]' codesign
expect_call signed '[--sign] [App (ID)]' codesign
expect_call signed "[--scripts] [$packaging/scripts]" pkgbuild
expect_call signed '[--identifier] [com.brovik.velmmonitord] [--version] [1.' pkgbuild
expect_call signed "[--distribution] [$packaging/distribution.xml]" productbuild
expect_call signed '[--sign] [Pkg (ID)] [--timestamp]' productbuild

build_package unsigned >"$scratch/unsigned.out"
grep -q -- '--sign' "$scratch/unsigned" && fail "signed without an identity"

# What must be refused, and why.
expect_refusal() {
    local why=$1
    shift
    if "$@" >"$scratch/refused" 2>&1; then
        fail "not refused: $*"
    fi
    grep -q "$why" "$scratch/refused" || fail "refused for another reason than '$why': $(cat "$scratch/refused")"
}
expect_refusal 'both identities' build_package half --application-identity 'App (ID)'
expect_refusal 'unknown option' build_package odd --frobnicate
ARCHITECTURES=x86_64 expect_refusal 'no code for arm64' build_package thin
rm "$scratch/build/src/velmmonitord/velmmonitord"
expect_refusal 'not built' build_package missing

# The removal knows every file that the package brings, the installer's component is the one that is built, and the
# agent's job starts the file that is installed.
while read -r kind _ path; do
    [[ $kind == f ]] || continue
    grep -qF -- "${path##*/}\"" "$packaging/uninstall.sh" || fail "uninstall.sh leaves ${path#.}"
done <"$scratch/payload"
[[ -n $(xmllint --xpath '/installer-gui-script/volume-check/allowed-os-versions/os-version[@min="10.12"]' \
    "$packaging/distribution.xml") ]] || fail "distribution.xml lets older systems through"

# launchd refuses a job twice before it takes it, as it does after a bootout.
cat >"$scratch/tools/launchctl" <<'TOOL'
#!/bin/sh
echo "$@" >>"$RECORD"
[ "$1" != bootstrap ] || [ "$(grep -c ^bootstrap "$RECORD")" -gt 2 ]
TOOL
printf '#!/bin/sh\necho "  501 /System/Library/CoreServices/Dock.app/Contents/MacOS/Dock"\n' >"$scratch/tools/ps"
printf '#!/bin/sh\n' >"$scratch/tools/sleep"
chmod +x "$scratch"/tools/*
RECORD=$scratch/started PATH=$scratch/tools:$PATH sh "$packaging/scripts/postinstall" x y / >"$scratch/started.out"
[[ -s $scratch/started.out ]] && fail "postinstall gives up: $(cat "$scratch/started.out")"
[[ $(cut -d' ' -f1 "$scratch/started" | uniq -c | xargs) == "1 enable 3 bootstrap" ]] ||
    fail "postinstall does not enable first and try again: $(cat "$scratch/started")"

grep -qF 'velmmonitord-component.pkg' "$packaging/distribution.xml" || fail "distribution.xml names no component"

echo "scripts parse; payload, signing and refusals of build-package.sh are as intended"
