#!/bin/sh
# Removes velmmonitord from this Mac: its agents, its files and the installer's receipt. The users' logs
# (~/Library/Logs/velmmonitord.log*) are theirs and stay.
#
# Usage: sudo "/Library/Application Support/Brovik/uninstall-velmmonitord"
set -u

label=com.brovik.velmmonitord
directory="/Library/Application Support/Brovik"

[ "$(id -u)" -eq 0 ] || { echo "uninstall-velmmonitord: needs root" >&2; exit 1; }

ps -axo uid=,comm= | awk '$2 ~ /\/Dock$/ { print $1 }' | sort -u | while read -r uid; do
    launchctl bootout "gui/$uid/$label" 2>/dev/null
done

rm -f "/Library/LaunchAgents/com.brovik.velmmonitord.plist" "$directory/velmmonitord" \
    "$directory/uninstall-velmmonitord"
# Stays where something else of the same maker lives in it.
rmdir "$directory" 2>/dev/null
pkgutil --pkgs | grep -qx "$label" && pkgutil --forget "$label"
echo "velmmonitord is removed"
