# shellcheck shell=bash disable=SC2034,SC2154
# How a step of ./check is run, reported and counted. Sourced by ./check; tools/check/steps.sh uses
#
#   step NAME DESCRIPTION COMMAND...      runs it and prints one line; its status is the command's
#   beside NAME DESCRIPTION COMMAND...    starts it and goes on: for steps that wait more than they compute. Its line
#                                         is printed when it is found to have ended, at the latest before the verdict
#   queue NAME DESCRIPTION COMMAND...     the same, but it starts when what was queued before it has ended: for steps
#                                         that compute, so that the processors have work while those in front wait
#   needs OTHER step NAME ...             a step (or one of the others above) that there is only where OTHER, started
#                                         before, succeeds; where it does not, the step is said to be left out
#   await NAME...                         waits for steps that were started so; its status is that of the last of them
#   skip NAME REASON                      says that a step is left out, and why
#
# A command that cannot prove anything on this machine exits with 77, and the last line that it printed is the reason;
# its step then counts as skipped. Tests are counted from what their runners print: ctest's closing lines, or a line
# "N passed, N failed" with or without ", N skipped".
#
# Each line tells how long the step took, and the processor time that it used: on a busy machine, and for steps that
# run at once, only the latter says what a step costs.

readonly skipped_status=77
jobs=$(nproc)
logs=build/check
only=()
list_only=no
passed=0 failed=0 skipped=0
failures=()
started_beside=()
declare -A running_beside=() described=() status_of=()
last_queued=
began=$SECONDS

mkdir -p "$logs"

# What a step's log says it counted, as "PASSED FAILED SKIPPED".
count_tests() {
    awk '
        /% tests passed, [0-9]+ tests? failed out of [0-9]+$/ {passed += $NF - $4; failed += $4; seen = 1}
        /^[0-9]+ passed, [0-9]+ failed(, [0-9]+ skipped)?$/ {passed += $1; failed += $3; skipped += $5; seen = 1}
        /^ *[0-9]+\/[0-9]+ Test .*\*\*\*Skipped/ {skipped++; passed--}
        END {if (seen) print passed + 0, failed + 0, skipped + 0}' "$1"
}

# The tests that ctest skipped, each with the reason that it printed; and what others say of theirs, "skipped: WHAT: REASON".
print_skipped_tests() {
    awk '
        /^ *[0-9]+\/[0-9]+ Test .*\*\*\*Skipped/ {sub(/^ *[0-9]+\/[0-9]+ Test +#[0-9]+: /, ""); print "    skipped: " $1}
        /: Skipped$/ {getline; print "             " $0}
        /^skipped: / {print "    " $0}' "$1"
}

# What a step that failed has printed, as far as it tells why: of tests, the end of what each failed one has printed,
# below a line "    failed: NAME"; of others, the end of all, and before it what stands further up and says that it
# failed.
print_reason() {
    local log=$1
    awk '
        function flush(   i) {
            if (!name) return
            print "    failed: " name
            for (i = count > 60 ? count - 60 : 0; i < count; i++) print "    | " lines[i]
            name = ""
        }
        /^ *Start +[0-9]+: / || /^ *[0-9]+\/[0-9]+ Test / || /% tests passed, / {flush()}
        /^ *[0-9]+\/[0-9]+ Test .*\*\*\*/ && !/\*\*\*Skipped/ {
            sub(/^ *[0-9]+\/[0-9]+ Test +#[0-9]+: /, "")
            name = $1
            count = 0
            seen = 1
            next
        }
        name {lines[count++] = $0}
        END {flush(); exit !seen}' "$log" || {
        # What is said to have failed, with the next lines, where it stands further up.
        head -n -60 "$log" | grep -E -A 15 '^(FAILED|SURVIVED)'
        tail -n 60 "$log"
    } | sed 's/^/    | /'
    printf '    | (all of it: %s)\n' "$log"
}

print_progress() { [[ -t 1 ]] && printf '....                   %-14s %s' "$1" "${described[$1]}"; return 0; }
clear_progress() { [[ -t 1 ]] && printf '\r\033[K'; return 0; }

# run_logged NAME COMMAND...: runs it with its output in the step's log, and prints the processor time that it and
# what it waited for have used, in seconds.
run_logged() {
    local log=$logs/$1.log used status
    shift
    # The inner shell's standard error, where `time` writes, is none of the command's.
    used=$(TIMEFORMAT='%U %S'; { time { ("$@") >"$log" 2>&1 </dev/null; }; } 2>&1)
    status=$?
    awk '{printf "%.0f", $1 + $2}' <<<"$used"
    return "$status"
}

# report NAME STATUS SECONDS PROCESSOR_SECONDS: the line of a step that has ended, and what it counts.
report() {
    local name=$1 status=$2 seconds=$3 used=$4 log=$logs/$1.log counts detail='' verdict good bad left_out
    local reason tests
    counts=$(count_tests "$log")
    if [[ -n $counts ]]; then
        read -r good bad left_out <<<"$counts"
        detail=" ($good tests passed, $bad failed"
        ((left_out)) && detail+=", $left_out skipped"
        detail+=')'
        ((bad && status == 0)) && status=1
        passed=$((passed + good)) failed=$((failed + bad)) skipped=$((skipped + left_out))
    fi
    case $status in
        0) verdict=ok passed=$((passed + 1)) ;;
        "$skipped_status") verdict=skip skipped=$((skipped + 1)) detail=": $(tail -n 1 "$log")" ;;
        *) verdict=FAILED failed=$((failed + 1)) ;;
    esac
    status_of[$name]=$status
    clear_progress
    printf '%-6s %4d s %4d cpu  %-14s %s%s\n' "$verdict" "$seconds" "$used" "$name" "${described[$name]}" "$detail"
    if [[ $verdict == FAILED ]]; then
        reason=$(print_reason "$log")
        printf '%s\n' "$reason"
        tests=$(sed -n 's/^    failed: //p' <<<"$reason" | paste -sd ' ')
        failures+=("$name${tests:+ ($tests)}")
    fi
    print_skipped_tests "$log"
}

# Whether a step is to run; where the steps are only listed, lists it.
wanted() {
    local name
    if [[ $list_only == yes ]]; then
        printf '%-16s %s\n' "$1" "$2"
        return 1
    fi
    ((${#only[@]})) || return 0
    for name in "${only[@]}"; do
        [[ $name == "$1" ]] && return 0
    done
    return 1
}

step() {
    local name=$1 start=$SECONDS status used
    described[$name]=$2
    wanted "$name" "$2" || return 0
    shift 2
    report_ended
    print_progress "$name"
    used=$(run_logged "$name" "$@")
    status=$?
    report "$name" "$status" $((SECONDS - start)) "$used"
    return "${status_of[$name]}"
}

# A step that the others need: without it there is nothing to prove.
setup_step() { step "$@" || finish; }

beside() { start_beside '' "$@"; }

queue() {
    start_beside "$last_queued" "$@"
    [[ -z ${running_beside[$1]-} ]] || last_queued=$1
}

# Killed, it has left no word, so its process counts too; that alone would not do, for its number may be another's by
# then.
runs_beside() {
    [[ -n $1 && -n ${running_beside[$1]-} && ! -f $logs/$1.status ]] && kill -0 "${running_beside[$1]}" 2>/dev/null
}

# start_beside OTHER NAME DESCRIPTION COMMAND...: with another step's name, the command runs once that one has ended.
start_beside() {
    local before=$1 name=$2
    described[$name]=$3
    wanted "$name" "$3" || return 0
    shift 3
    rm -f "$logs/$name.status"
    # With a process group of its own, so that all of it can be ended.
    set -m
    (
        set +m
        # The steps in front are measured and capped by time, so these stay below them.
        renice -n 10 "$BASHPID" >/dev/null 2>&1
        while runs_beside "$before"; do sleep 0.2; done
        start=$SECONDS
        used=$(run_logged "$name" "$@")
        echo "$? $((SECONDS - start)) $used" >"$logs/$name.status.new"
        mv "$logs/$name.status.new" "$logs/$name.status"
    ) </dev/null &
    running_beside[$name]=$!
    started_beside+=("$name")
    set +m
}

# Ctrl-C and a step that nothing can be proven without leave nobody behind.
end_beside() {
    local group
    for group in "${running_beside[@]}"; do
        kill -- "-$group" 2>/dev/null
        # What runs by sudo is root's.
        ((EUID == 0)) || sudo -n kill -- "-$group" 2>/dev/null
    done
}
trap end_beside EXIT
trap 'exit 130' INT TERM

# The lines of those steps started beside that have ended meanwhile.
report_ended() {
    local name status seconds used
    for name in "${started_beside[@]}"; do
        [[ -n ${running_beside[$name]-} && -f $logs/$name.status ]] || continue
        read -r status seconds used <"$logs/$name.status"
        unset "running_beside[$name]"
        report "$name" "$status" "$seconds" "$used"
    done
}

await() {
    local name
    for name in "$@"; do
        if [[ -n ${running_beside[$name]-} ]]; then
            print_progress "$name"
            wait "${running_beside[$name]}"
            # Killed, it has not left word.
            [[ -f $logs/$name.status ]] || echo "137 0 0" >"$logs/$name.status"
            report_ended
        fi
    done
    # Of a step that is not wanted nothing is known, and nothing expected.
    return "${status_of[$name]:-0}"
}

needs() {
    local other=$1
    shift
    if await "$other"; then "$@"; else skip "$2" "$other did not succeed"; fi
}

skip() {
    wanted "$1" "$2" || return 0
    printf '%-22s %-14s %s\n' skip "$1" "$2"
    skipped=$((skipped + 1))
}

# The verdict, and the end.
finish() {
    [[ $list_only == yes ]] && exit 0
    ((${#started_beside[@]} == 0)) || await "${started_beside[@]}"
    ((${#failures[@]})) && printf '\nFailed: %s\n' "${failures[*]}"
    if ((passed + failed + skipped == 0)); then
        echo "check: there is no step of that name; see ./check --list" >&2
        exit 2
    fi
    # To a file, for a pipe would ask another shell.
    times >"$logs/times"
    printf '\nTests and steps in %d min %02d s, with %d min of processor time:\n' $(((SECONDS - began) / 60)) \
        $(((SECONDS - began) % 60)) "$(awk 'NR == 2 {print $1 + $2}' "$logs/times")"
    printf '%d passed, %d failed, %d skipped\n' "$passed" "$failed" "$skipped"
    ((failed == 0))
    exit
}
