#!/usr/bin/env bash
# Gives ./run and ./check what a newcomer gives them: new systems of the Debian releases, all at once, with nothing
# installed. Usage: tests/roots/fresh.sh [--every]
#   --every  each command as root and as an ordinary user; without, one as root and the other as the user, the other way
#            round in the other release
# Status: 0 all worked, 1 something failed, 77 it cannot run on this machine. Needs root or sudo.
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
sources=$(cd "$here/../.." && pwd)
every=no
case ${1-} in
    '') ;;
    --every) every=yes ;;
    *) sed -n '3,6s/^# //p' "$0" >&2; exit 2 ;;
esac
if ((EUID != 0)); then
    exec sudo --preserve-env=VELM_CACHE_DIR,VELM_DEBIAN_MIRROR "$0" "$@"
fi
for tool in debootstrap unshare pivot_root git; do
    command -v "$tool" >/dev/null ||
        { echo "$tool is missing (tools/install-deps system)"; exit 77; }
done

cache=${VELM_CACHE_DIR:-/var/cache/velmmonitord-tests}
work=$(mktemp -d "${TMPDIR:-/var/tmp}/velm-fresh.XXXXXX")
releases=(bookworm trixie)
# Both commands on the system as it was made, and each as both, with each kind of user in each release.
declare -A pairs=([bookworm]="newcomer ./run root ./check" [trixie]="newcomer ./check root ./run")
declare -A other_pairs=([bookworm]="newcomer ./check root ./run" [trixie]="newcomer ./run root ./check")
jobs=()
finish() {
    local job
    for job in ${jobs[@]+"${jobs[@]}"}; do
        kill -TERM -- "-$job" 2>/dev/null || true
    done
    # Not all that is waited for heeds that one.
    ((${#jobs[@]} == 0)) || sleep 2
    for job in ${jobs[@]+"${jobs[@]}"}; do
        kill -KILL -- "-$job" 2>/dev/null || true
    done
    wait
    rm -rf --one-file-system "$work"
}
trap finish EXIT
trap 'exit 130' INT TERM

# The tree as it is here, also what is not committed yet; git's own files, since ./check asks it for the sources.
checkout() {
    git -c safe.directory='*' clone --quiet --no-hardlinks "$sources" "$1" || return
    git -c safe.directory='*' -C "$sources" ls-files -z --deduplicate |
        (cd "$sources" && xargs -0 sh -c 'for file; do test ! -e "$file" || printf "%s\0" "$file"; done' sh) |
        tar -C "$sources" --null --verbatim-files-from -T - -cf - | tar -C "$1" -xf -
}

# point RELEASE DESCRIPTION COMMAND...: runs the command and prints one line, and the end of its output if it failed.
point() {
    local release=$1 description=$2 log=$work/$1.log start=$SECONDS verdict=ok
    shift 2
    "$@" >"$log" 2>&1 </dev/null || verdict=FAILED
    printf '%-6s %4d s  %-9s %s\n' "$verdict" $((SECONDS - start)) "$release" "$description"
    [[ $verdict == ok ]] || { sed 's/^/       | /' "$log" | tail -n 60; return 1; }
}

# in_root RELEASE USER COMMAND...: in that user's checkout, with what a login gives.
in_root() {
    local release=$1 user=$2 home=/root path=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin options=()
    shift 2
    [[ $user == root ]] || home=/home/$user path=/usr/local/bin:/usr/bin:/bin
    if [[ ${1-} == --plain ]]; then
        options=(--plain)
        shift
    fi
    # The two caches spare time alone. Both users' checkouts have the same objects in them, so they share.
    "$here/enter.sh" "$work/$release" "${options[@]}" --bind "$cache/ccache" /var/cache/ccache \
        --bind "$cache/archives-$release" /var/cache/apt/archives -- \
        setpriv --reuid="$user" --regid="$user" --init-groups env -i --chdir="$home/velmmonitord" \
        HOME="$home" USER="$user" LOGNAME="$user" PATH="$path" LANG=C.UTF-8 TERM=dumb CCACHE_DIR=/var/cache/ccache \
        CCACHE_UMASK=000 CCACHE_BASEDIR="$home/velmmonitord" CCACHE_NOHASHDIR=1 CCACHE_MAXSIZE=2G "$@"
}

prepare() {
    local release=$1 root=$work/$1 tarball user home
    # No failure ends a function whose status somebody looks at.
    tarball=$("$here/base-root.sh" "$release" fresh) || return
    mkdir "$root"
    tar -C "$root" -xf "$tarball" || return
    rm -f "$root/usr/sbin/policy-rc.d"
    # The system is thrown away, so it need not outlive a loss of power.
    echo force-unsafe-io >"$root/etc/dpkg/dpkg.cfg.d/unsafe-io"
    cp --dereference /etc/resolv.conf "$root/etc/resolv.conf"
    chroot "$root" useradd --create-home --shell /bin/bash newcomer
    echo 'newcomer ALL=(ALL) NOPASSWD: ALL' >"$root/etc/sudoers.d/newcomer"
    for user in root newcomer; do
        home=$root/$(chroot "$root" getent passwd "$user" | cut -d : -f 6)
        checkout "$home/velmmonitord" || return
        chroot "$root" chown -R "$user:$user" "${home#"$root"}/velmmonitord"
    done
}

says_what_is_missing() {
    local text
    ! text=$(in_root "$1" root --plain ./run 2>&1) || { echo "it worked, in a root that is no mount point"; return 1; }
    [[ $text == *"the root directory is no mount point"* ]] || { echo "$text"; return 1; }
}

# try RELEASE [USER COMMAND]...: those commands, the first of them on the system as it was made.
try() {
    local release=$1 failed=0
    shift
    # apt locks its archives at once or not at all.
    exec 9>"$cache/archives-$release.lock"
    flock 9
    point "$release" "a new system" prepare "$release" || return
    while (($#)); do
        point "$release" "$2 as $1" in_root "$release" "$1" "$2" || failed=1
        shift 2
    done
    point "$release" "./run says what is missing in a root that is no mount point" says_what_is_missing "$release" ||
        failed=1
    return $failed
}

mkdir -p "$cache/ccache"
chmod 1777 "$cache/ccache"
for release in "${releases[@]}"; do
    mkdir -p "$cache/archives-$release/partial"
    tried=${pairs[$release]}
    [[ $every == no ]] || tried+=" ${other_pairs[$release]}"
    read -ra commands <<<"$tried"
    # A process group of its own, so that it can be ended with all that it started.
    set -m
    try "$release" "${commands[@]}" &
    set +m
    jobs+=($!)
done
failed=0
for job in "${jobs[@]}"; do
    wait "$job" || failed=1
done
jobs=()
exit $failed
