# shellcheck shell=bash disable=SC2034,SC2154
# How a step of ./check is run, reported and counted. Sourced by ./check; tools/check/steps.sh uses
#
#   step NAME DESCRIPTION COMMAND...      runs it and prints one line; its status is the command's
#   beside NAME DESCRIPTION COMMAND...    starts it and goes on: for steps that wait more than they compute. Its line
#                                         is printed when it is found to have ended, at the latest before the verdict
#   await NAME...                         waits for steps that were started beside
#   skip NAME REASON                      says that a step is left out, and why
#
# A command that cannot prove anything on this machine exits with 77, and the last line that it printed is the reason;
# its step then counts as skipped. Tests are counted from what their runners print: ctest's closing lines, or a line
# "N passed, N failed" with or without ", N skipped".

readonly skipped_status=77
jobs=$(nproc)
logs=build/check
only=()
list_only=no
passed=0 failed=0 skipped=0
failures=()
declare -A running_beside began_at described
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

# The tests that ctest skipped, each with the reason that it printed.
print_skipped_tests() {
    awk '
        /^ *[0-9]+\/[0-9]+ Test .*\*\*\*Skipped/ {sub(/^ *[0-9]+\/[0-9]+ Test +#[0-9]+: /, ""); print "    skipped: " $1}
        /: Skipped$/ {getline; print "             " $0}' "$1"
}

clear_progress() { [[ -t 1 ]] && printf '\r\033[K'; return 0; }

# report NAME STATUS SECONDS: the line of a step that has ended, and what it counts.
report() {
    local name=$1 status=$2 seconds=$3 log=$logs/$1.log counts detail='' verdict good bad left_out
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
        *) verdict=FAILED failed=$((failed + 1)) failures+=("$name") ;;
    esac
    clear_progress
    printf '%-6s %4d s  %-14s %s%s\n' "$verdict" "$seconds" "$name" "${described[$name]}" "$detail"
    print_skipped_tests "$log"
    if [[ $verdict == FAILED ]]; then
        tail -n 60 "$log" | sed 's/^/    | /'
        printf '    | (all of it: %s)\n' "$log"
    fi
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
    local name=$1 start=$SECONDS status
    described[$name]=$2
    wanted "$name" "$2" || return 0
    shift 2
    report_ended
    [[ -t 1 ]] && printf '....          %-14s %s' "$name" "${described[$name]}"
    ("$@") >"$logs/$name.log" 2>&1 </dev/null
    status=$?
    report "$name" "$status" $((SECONDS - start))
    return "$status"
}

# A step that the others need: without it there is nothing to prove.
setup_step() { step "$@" || finish; }

beside() {
    local name=$1
    described[$name]=$2
    wanted "$name" "$2" || return 0
    shift 2
    rm -f "$logs/$name.status"
    # Quietly below the steps in front, which are measured and capped by time.
    (
        nice -n 5 "$BASH" -c 'source tools/check/driver.sh; source tools/check/steps.sh; "$@"' check "$@" \
            >"$logs/$name.log" 2>&1 </dev/null
        echo "$? $SECONDS" >"$logs/$name.status.new"
        mv "$logs/$name.status.new" "$logs/$name.status"
    ) &
    running_beside[$name]=$! began_at[$name]=$SECONDS
}

# The lines of those steps started beside that have ended meanwhile.
report_ended() {
    local name status ended
    for name in "${!running_beside[@]}"; do
        [[ -f $logs/$name.status ]] || continue
        read -r status ended <"$logs/$name.status"
        unset "running_beside[$name]"
        report "$name" "$status" $((ended - began_at[$name]))
    done
}

await() {
    local name
    for name in "$@"; do
        [[ -n ${running_beside[$name]-} ]] || continue
        [[ -t 1 ]] && printf '....          %-14s %s' "$name" "${described[$name]}"
        wait "${running_beside[$name]}"
        report_ended
    done
}

skip() {
    wanted "$1" "$2" || return 0
    printf '%-14s %-14s %s\n' skip "$1" "$2"
    skipped=$((skipped + 1))
}

# The verdict, and the end.
finish() {
    [[ $list_only == yes ]] && exit 0
    await "${!running_beside[@]}"
    ((${#failures[@]})) && printf '\nFailed: %s\n' "${failures[*]}"
    if ((passed + failed + skipped == 0)); then
        echo "check: there is no step of that name; see ./check --list" >&2
        exit 2
    fi
    printf '\nTests and steps in %d min %02d s:\n' $(((SECONDS - began) / 60)) $(((SECONDS - began) % 60))
    printf '%d passed, %d failed, %d skipped\n' "$passed" "$failed" "$skipped"
    ((failed == 0))
    exit
}
