#!/usr/bin/env bash
# Runs a command in a directory that holds a whole system, as its root, with this machine's network and devices.
# Usage: tests/roots/enter.sh ROOT [--bind SOURCE TARGET]... [--plain] -- COMMAND...
# The root becomes a mount point of a mount namespace of its own, or, with --plain, a chroot and no mount point, which
# keeps programs in it from making namespaces. Every process that the command leaves behind ends with it. Needs root.
set -euo pipefail

usage() { sed -n '3s/^# //p' "$0" >&2; exit 2; }

(($#)) || usage
root=$(cd "$1" && pwd)
shift
binds=() plain=no
while (($#)); do
    case $1 in
        --bind) binds+=("$2" "$3"); shift 3 ;;
        --plain) plain=yes; shift ;;
        --) shift; break ;;
        *) usage ;;
    esac
done
(($#)) || usage

# In the namespaces: $1 the root, $2 whether plain, $3 how many words of binds follow, then the command.
enter='
set -e
root=$1 plain=$2 words=$3
shift 3
[ "$plain" = yes ] || mount --bind "$root" "$root"
mount -t proc proc "$root/proc"
mount --rbind /sys "$root/sys"
mount --rbind /dev "$root/dev"
mount -t tmpfs -o mode=755 tmpfs "$root/run"
hostname velmtest
while [ "$words" -gt 0 ]; do
    mkdir -p "$root/$2"
    mount --bind "$1" "$root/$2"
    shift 2
    words=$((words - 2))
done
if [ "$plain" = yes ]; then
    exec chroot "$root" "$@"
fi
mkdir -p "$root/.outside"
cd "$root"
pivot_root . .outside
exec chroot . sh -c "umount --lazy /.outside && rmdir /.outside && exec \"\$@\"" sh "$@"
'
exec unshare --mount --propagation private --uts --pid --fork --kill-child \
    sh -c "$enter" sh "$root" "$plain" "${#binds[@]}" ${binds[@]+"${binds[@]}"} "$@"
