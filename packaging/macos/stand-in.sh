#!/bin/sh
# Runs the stand-in for the management daemon as launchd runs the real one, or removes it again. Only launchd can
# hand out a Mach service of the system domain, so the stand-in can't just be started from a terminal.
#
# Usage: sudo packaging/macos/stand-in.sh install FILE    FILE: the built velmdaemon-sim
#        sudo packaging/macos/stand-in.sh remove
#
# What it prints: tail -f /var/log/velmdaemon-sim.log
# Its commands:   echo 'put hello' | sudo tee /var/run/velmdaemon-sim.commands
set -eu

label=com.brovik.velmdaemon
directory="/Library/Application Support/Brovik"
plist=/Library/LaunchDaemons/$label.plist
here=$(cd "$(dirname "$0")" && pwd)

remove() {
    launchctl bootout "system/$label" 2>/dev/null || true
    rm -f "$plist" "$directory/velmdaemon-sim" /var/run/velmdaemon-sim.commands
    rmdir "$directory" 2>/dev/null || true
}

# launchd refuses a job for a moment after its old one was booted out, while that one still ends.
start() {
    launchctl enable "system/$label"
    attempts=0
    until launchctl bootstrap system "$plist" 2>/dev/null; do
        attempts=$((attempts + 1))
        [ "$attempts" -lt 10 ] || { echo "stand-in.sh: launchd does not take $plist" >&2; exit 1; }
        sleep 1
    done
}

usage() { sed -n 's/^# \{0,1\}//; 5,6p' "$0" >&2; exit 2; }

[ "$(id -u)" -eq 0 ] || { echo "stand-in.sh: needs root" >&2; exit 1; }
case ${1-} in
    install)
        [ $# -eq 2 ] || usage
        [ -x "$2" ] || { echo "stand-in.sh: $2 is no program" >&2; exit 1; }
        # A real daemon's job must not be lost to a trial.
        if [ -e "$plist" ] && ! cmp -s "$plist" "$here/$label.plist"; then
            echo "stand-in.sh: $plist belongs to something else; nothing is changed" >&2
            exit 1
        fi
        remove
        install -d -m 755 "$directory"
        install -m 755 "$2" "$directory/velmdaemon-sim"
        install -m 644 "$here/$label.plist" "$plist"
        start
        ;;
    remove)
        [ $# -eq 1 ] || usage
        if [ -e "$plist" ] && ! cmp -s "$plist" "$here/$label.plist"; then
            echo "stand-in.sh: $plist belongs to something else; nothing is changed" >&2
            exit 1
        fi
        remove
        ;;
    *) usage ;;
esac
