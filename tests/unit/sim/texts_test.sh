#!/usr/bin/env bash
# The manual page and the completion name what the program knows, and no options that it does not.
# Usage: texts_test.sh VELMDAEMON-SIM MANUAL-PAGE COMPLETION
set -euo pipefail

program=$1 page=$2 completion=$3
failed=0
fail() { echo "$*" >&2; failed=1; }

help=$("$program" --help)
# Roff writes a hyphen that is meant as one with a backslash.
manual=$(sed 's/\\-/-/g' "$page")

options=$(grep -oE -- '^  --[a-z-]+' <<<"$help" | tr -d ' ' | sort)
commands=$(sed -n '/^Commands on standard input/,/^Statuses:/p' <<<"$help" | sed -nE 's/^  ([a-z][a-z-]*) .*/\1/p' | sort)
statuses=$(sed -n '/^Statuses:/,$p' <<<"$help" | sed -nE 's/^  ([0-9]+)  .*/\1/p')
[[ -n $options && -n $commands && -n $statuses ]] || fail "--help shows no options, commands or statuses"

for option in $options; do
    grep -qE -- "^\.(B|BI|BR) $option\b" <<<"$manual" || fail "the manual page lacks $option"
done
for command in $commands; do
    grep -qE "^\.(B|BI|BR) $command\b" <<<"$manual" || fail "the manual page lacks the command $command"
done
for status in $statuses; do
    grep -qx "\.B $status" <<<"$manual" || fail "the manual page lacks the status $status"
done
while read -r option; do
    grep -qxF -- "$option" <<<"$options" || fail "the manual page has $option, which the program does not know"
done < <(sed -n '/^\.SH OPTIONS/,/^\.SH COMMANDS/p' <<<"$manual" | sed -nE 's/^\.B[IR]? (--[a-z-]+).*/\1/p')

# shellcheck source=/dev/null
source "$completion"
COMP_WORDS=(velmdaemon-sim --) COMP_CWORD=1
_velmdaemon_sim
offered=$(printf '%s\n' "${COMPREPLY[@]}" | sort)
[[ $offered == "$options" ]] || fail "the completion offers ${offered//$'\n'/ }, the program knows ${options//$'\n'/ }"
COMP_WORDS=(velmdaemon-sim --answer = n) COMP_CWORD=3
_velmdaemon_sim
[[ ${COMPREPLY[*]} == "no never" ]] || fail "--answer=n completes to ${COMPREPLY[*]}"

exit $failed
