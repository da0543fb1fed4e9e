#!/usr/bin/env bash
# Builds the packages and shows that they are what they should be.
# Usage: packaging/linux/check-packages.sh DIR [--update-contents]
# DIR is a build directory of its own; the packages are left in DIR/packages. With --update-contents the lists of
# what the packages hold are written instead of compared.
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
root=$(cd "$here/../.." && pwd)
[[ $# -ge 1 ]] || { sed -n '3,5s/^# //p' "$0" >&2; exit 2; }
update=no
[[ ${2-} != --update-contents ]] || update=yes

export LC_ALL=C.UTF-8
work=$(mktemp -d "${TMPDIR:-/var/tmp}/velm-packages.XXXXXX")
trap 'rm -rf "$work"' EXIT
failed=0

# check DESCRIPTION COMMAND...: runs the command and prints one line, and what it printed if it failed.
check() {
    local description=$1 start=$SECONDS verdict=ok
    shift
    "$@" >"$work/output" 2>&1 || verdict=FAILED
    printf '%-6s %4d s  %s\n' "$verdict" $((SECONDS - start)) "$description"
    [[ $verdict == ok ]] || { sed 's/^/       | /' "$work/output" | tail -n 60; failed=1; }
    [[ $verdict == ok ]]
}

# Names of architectures and of their library directory differ between machines; the lists do not.
multiarch=$(dpkg-architecture -q DEB_HOST_MULTIARCH)

files_of() {
    case $1 in
        *.deb) dpkg-deb -c "$1" | awk '{sub(/^\./, "", $6); print $1, $2, $6, $7, $8}' | sed 's/ *$//' ;;
        *.rpm) rpm -qp --qf '[%{FILEMODES:perms} %{FILEUSERNAME}/%{FILEGROUPNAME} %{FILENAMES}\n]' "$1" ;;
    esac | sed "s/$multiarch/MULTIARCH/g" | LC_ALL=C sort -k 3
}

scripts_of() {
    case $1 in
        *.deb) dpkg-deb --ctrl-tarfile "$1" | tar -t | { grep -oE '(pre|post)(inst|rm)' || :; } | sort ;;
        *.rpm) rpm -qp --scripts "$1" | grep -oE '^(pre|post)(un)?install' || : ;;
    esac | sed 's/^/script /'
}

contents_of() {
    files_of "$1"
    scripts_of "$1"
}

same_contents() {
    local package=$1 list=$here/contents/$2
    if [[ $update == yes ]]; then
        contents_of "$package" >"$list"
    else
        diff -u --label "expected: $2" "$list" --label "$(basename "$package")" <(contents_of "$package")
    fi
}

lintian_is_silent() {
    local output
    output=$(lintian --allow-root --fail-on none --info "$packages"/*.deb 2>&1 | grep -v '^running with root')
    [[ -z $output ]] || { echo "$output"; return 1; }
}

has() { grep -Eq "$2" <<<"$1" || { echo "$3"; return 1; }; }

is_hardened() {
    local program=$1 headers dynamic symbols sections
    headers=$(readelf -hlW "$program") dynamic=$(readelf -dW "$program") symbols=$(readelf --dyn-syms -W "$program")
    sections=$(readelf -SW "$program")
    has "$headers" 'Type: +DYN' "not position independent" &&
        has "$dynamic" 'FLAGS_1.*PIE' "not marked as position independent executable" &&
        has "$headers" 'GNU_RELRO' "no read-only relocations" &&
        has "$dynamic" 'BIND_NOW|FLAGS_1.*NOW' "not bound at start, so relocations stay writable" &&
        has "$symbols" '__stack_chk_fail' "no stack protector" &&
        has "$symbols" '__[a-z]+_chk' "nothing fortified" &&
        has "$headers" 'GNU_STACK.* RW ' "the stack is executable" &&
        has "$sections" '\.gnu_debuglink' "no link to its debug symbols" || return
    ! grep -q '\.symtab' <<<"$sections" || { echo "not stripped"; return 1; }
    # What the compiler records in place of names is this machine's business alone.
    ! grep -aqF "$root" "$program" || { echo "names its build directory $root"; return 1; }
}

programs_are_hardened() {
    local package program found=0
    for package in velmmonitord velmdaemon-sim; do
        rm -rf "$work/tree"
        dpkg-deb -x "$packages/${package}_"*.deb "$work/tree"
        program=$work/tree/usr/sbin/$package
        echo "$package:"
        is_hardened "$program" || return
        found=$((found + 1))
    done
    ((found == 2))
}

# The debug symbols belong to this very build, and a debugger finds them.
symbols_match() {
    local package id sections
    for package in velmmonitord velmdaemon-sim; do
        rm -rf "$work/tree"
        dpkg-deb -x "$packages/${package}_"*.deb "$work/tree"
        dpkg-deb -x "$packages/$package-dbgsym_"*.deb "$work/tree"
        id=$(readelf -nW "$work/tree/usr/sbin/$package" | sed -n 's/.*Build ID: //p')
        # Read whole, not through a pipe that grep closes early.
        sections=$(readelf -SW "$work/tree/usr/lib/debug/.build-id/${id:0:2}/${id:2}.debug")
        has "$sections" '\.debug_info' "no symbols for $package, build $id" || return
    done
}

copy_sources() {
    mkdir -p "$1"
    (cd "$root" && git ls-files -z --cached --others --exclude-standard | xargs -0 ls -d 2>/dev/null |
        tar -cf - -T - | tar -xf - -C "$1")
}

# Elsewhere, later, by somebody with another umask, without what the compiler cache has kept.
same_bytes_twice() {
    local package different=0
    copy_sources "$work/elsewhere/sources"
    (umask 077 && CCACHE_DISABLE=1 "$work/elsewhere/sources/packaging/linux/build-packages.sh" "$work/elsewhere/build")
    for package in "$packages"/*; do
        cmp "$package" "$work/elsewhere/build/packages/$(basename "$package")" || different=1
    done
    ((different == 0))
}

# A layout that no package uses: everything must follow the directory variables, the unit's program too.
installs_elsewhere() {
    local stage=$work/stage program file
    cmake -S "$work/elsewhere/sources" -B "$work/elsewhere/build" -DCMAKE_INSTALL_PREFIX=/opt/velm \
        -DCMAKE_INSTALL_SBINDIR=programs -DCMAKE_INSTALL_DATADIR=data -DCMAKE_INSTALL_MANDIR=manual \
        -DCMAKE_INSTALL_DOCDIR=documents -DCMAKE_INSTALL_LIBDIR=libraries -DCMAKE_INSTALL_INCLUDEDIR=headers
    CCACHE_DISABLE=1 cmake --build "$work/elsewhere/build" -j "$(nproc)"
    DESTDIR=$stage cmake --install "$work/elsewhere/build"
    [[ $(ls "$stage") == opt && $(ls "$stage/opt") == velm ]] || { find "$stage"; return 1; }
    for file in programs/velmmonitord programs/velmdaemon-sim lib/systemd/user/velmmonitord.service \
        lib/systemd/system/velmdaemon-sim.service data/dbus-1/system.d/com.brovik.velmdaemon.conf \
        data/dbus-1/interfaces/com.brovik.XpcDaemonProtocol.xml data/user-tmpfiles.d/velmmonitord.conf \
        manual/man8/velmmonitord.8 documents/operations.md libraries/libvelm_common.a headers/velm/logging/Log.h; do
        [[ -e $stage/opt/velm/$file ]] || { echo "missing: $file"; find "$stage" -type f; return 1; }
    done
    for file in "$stage"/opt/velm/lib/systemd/*/*.service; do
        program=$(sed -n 's/^ExecStart=\([^ ]*\).*/\1/p' "$file")
        [[ -x $stage$program ]] || { echo "$file starts $program, which is not there"; return 1; }
    done
}

scripts_parse() {
    local script
    for script in "$here"/debian/*/{postinst,prerm,postrm} "$here"/rpm/* "$here"/libexec/*; do
        sh -n "$script" || return
    done
}

mkdir -p "$1"
packages=$(cd "$1" && pwd)/packages
check "the packages build" "$here/build-packages.sh" "$1" || exit 1
for name in velmmonitord velmmonitord-dev velmdaemon-sim; do
    check "contents of the Debian package $name" same_contents "$packages/${name}_"*.deb "$name.deb" || :
done
for name in velmmonitord velmmonitord-devel velmdaemon-sim; do
    check "contents of the RPM $name" same_contents "$packages/$name"-[0-9]*.rpm "$name.rpm" || :
done
check "lintian has nothing to say" lintian_is_silent || :
check "the maintainer scripts parse" scripts_parse || :
check "the programs are hardened and stripped" programs_are_hardened || :
check "the debug symbols belong to the programs" symbols_match || :
check "built elsewhere, the same bytes" same_bytes_twice || :
check "cmake --install follows the directory variables" installs_elsewhere || :
((failed == 0))
