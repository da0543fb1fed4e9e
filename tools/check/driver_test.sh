#!/usr/bin/env bash
# Tests of tools/check/driver.sh: fake steps, and what is said of them. Usage: tools/check/driver_test.sh
set -uo pipefail
driver=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)/driver.sh
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
passed=0 failed=0

# Runs the script on standard input as ./check runs its steps. Leaves `status` and `output`, whose times are 0.
play() {
    { echo "source '$driver'"; cat; } >play.sh
    # Not through a pipe, which would stay open for as long as anybody is left behind.
    timeout 600 bash -u play.sh >play.log 2>&1
    status=$?
    output=$(sed -E 's/ +[0-9]+ s +[0-9]+ cpu  /  0 s 0 cpu  /; s/in [0-9]+ min [0-9]+ s, with [0-9]+ min/in 0 min, with 0 min/' play.log)
}

# expect TITLE STATUS [LINE...]: the last play ended so, and printed these whole lines in this order, others between
# them perhaps.
expect() {
    local title=$1 wanted=$2 line rest=$output
    shift 2
    if [[ $status != "$wanted" ]]; then
        complain "$title" "status $status instead of $wanted"
        return
    fi
    for line in "$@"; do
        if ! grep -qxF -e "$line" <<<"$rest"; then
            complain "$title" "no (further) line: $line"
            return
        fi
        rest=$(awk -v line="$line" 'found {print} $0 == line {found = 1}' <<<"$rest")
    done
    passed=$((passed + 1))
}

# expect_that TITLE VALUE OPERATOR OTHER: what test(1) says of them.
expect_that() {
    if test "$2" "$3" "$4"; then passed=$((passed + 1)); else complain "$1" "it is '$2'"; fi
}

# expect_no TITLE TEXT: the last play printed no line with this text.
expect_no() {
    if grep -qF -e "$2" <<<"$output"; then complain "$1" "there is: $2"; else passed=$((passed + 1)); fi
}

complain() {
    printf 'FAILED %s: %s\n' "$1" "$2"
    sed 's/^/    | /' <<<"$output"
    failed=$((failed + 1))
}

play <<'END'
step one "it works" true
finish
END
expect "a step that succeeds" 0 "ok  0 s 0 cpu  one            it works" "1 passed, 0 failed, 0 skipped"

play <<'END'
step one "it breaks" sh -c 'echo the reason; exit 3' || echo "its status is $?"
step two "it works" true
finish
END
expect "a step that fails, and the next" 1 "FAILED  0 s 0 cpu  one            it breaks" "    | the reason" "its status is 3" \
    "ok  0 s 0 cpu  two            it works" "Failed: one" "1 passed, 1 failed, 0 skipped"

play <<'END'
step one "it needs a thing" sh -c 'echo noise; echo there is no thing; exit 77'
skip two "nobody asked"
finish
END
expect "steps that are skipped" 0 "skip  0 s 0 cpu  one            it needs a thing: there is no thing" \
    "skip                   two            nobody asked" "0 passed, 0 failed, 2 skipped"

play <<'END'
setup_step one "the ground" false
step two "it works" true
END
expect "without what all need" 1 "Failed: one" "0 passed, 1 failed, 0 skipped"
expect_no "without what all need, nothing else" "it works"

play <<'END'
step one "tests" sh -c 'echo "75% tests passed, 1 tests failed out of 4"; exit 8'
step two "others" echo "3 passed, 0 failed, 2 skipped"
finish
END
expect "tests are counted" 1 "FAILED  0 s 0 cpu  one            tests (3 tests passed, 1 failed)" \
    "ok  0 s 0 cpu  two            others (3 tests passed, 0 failed, 2 skipped)" "7 passed, 2 failed, 2 skipped"

play <<'END'
step one "tests" echo "2 passed, 1 failed" || echo "its status is $?"
finish
END
expect "a failed test fails its step, whatever the status" 1 "FAILED  0 s 0 cpu  one            tests (2 tests passed, 1 failed)" \
    "its status is 1" "2 passed, 2 failed, 0 skipped"

play <<'END'
step one "tests" printf '%s\n' ' 1/2 Test  #1: A.needsRoot ....***Skipped   0.01 sec' ' 2/2 Test  #2: B.c ....   Passed' \
    'x.cpp:1: Skipped' 'this needs root' '100% tests passed, 0 tests failed out of 2'
finish
END
expect "a test that ctest skipped, with its reason" 0 "ok  0 s 0 cpu  one            tests (1 tests passed, 0 failed, 1 skipped)" \
    "    skipped: A.needsRoot" "             this needs root" "2 passed, 0 failed, 1 skipped"

play <<'END'
step one "tests" sh -c 'printf "%s\n" "    Start 2: B.c" " 1/4 Test #2: B.c ...***Failed  0.1 sec" "x.cpp:7: Failure" "why it failed" \
    "    Start 3: C.d" " 2/4 Test #3: C.d ....   Passed" " 3/4 Test #4: D.e ....***Timeout  60 sec" "how far it came" \
    " 4/4 Test  #1: A.needsRoot ....***Skipped   0.01 sec" "" "50% tests passed, 2 tests failed out of 4"; seq 100; exit 8'
finish
END
expect "tests that ctest saw fail, with what they printed" 1 "    failed: B.c" "    | x.cpp:7: Failure" "    | why it failed" \
    "    failed: D.e" "    | how far it came" "    skipped: A.needsRoot" "Failed: one (B.c D.e)" "1 passed, 3 failed, 1 skipped"
expect_no "nothing of the tests that passed" "C.d"
expect_no "nothing from behind the tests" "| 100"

play <<'END'
step one "checks" sh -c 'echo "FAILED  a.cpp"; echo "why it failed"; seq 100 | sed "s/^/clean /"; exit 1'
finish
END
expect "what failed long before the end" 1 "    | FAILED  a.cpp" "    | why it failed" "    | clean 100"
expect_no "all that lies between" "clean 40"

play <<'END'
step one "checks" printf '%s\n' 'skipped: a check: there is no thing' '4 passed, 0 failed, 1 skipped'
finish
END
expect "a check that a step skipped, with its reason" 0 "ok  0 s 0 cpu  one            checks (4 tests passed, 0 failed, 1 skipped)" \
    "    skipped: a check: there is no thing" "5 passed, 0 failed, 1 skipped"

play <<'END'
beside one "in the background" sh -c 'until [ -e go ]; do sleep 0.05; done; echo "5 passed, 0 failed"'
step two "in front" touch go
finish
END
expect "a step beside the others" 0 "ok  0 s 0 cpu  two            in front" \
    "ok  0 s 0 cpu  one            in the background (5 tests passed, 0 failed)" "7 passed, 0 failed, 0 skipped"

play <<'END'
beside one "in the background" false
step two "in front" sleep 1
await one || echo "its status is $?"
finish
END
expect "a step beside the others that fails" 1 "FAILED  0 s 0 cpu  one            in the background" "its status is 1" \
    "Failed: one" "1 passed, 1 failed, 0 skipped"

play <<'END'
order() { sleep "$1"; echo "$2" >>order; }
queue one "first" order 0.5 1
queue two "second" order 0 2
queue three "third" order 0 3
await two && grep -qx 2 order && echo "two is over"
finish
END
expect "queued steps run one after another" 0 "ok  0 s 0 cpu  one            first" "ok  0 s 0 cpu  two            second" \
    "two is over" "3 passed, 0 failed, 0 skipped"
expect_that "queued steps run in order" "$(paste -sd ' ' order)" == "1 2 3"

play <<'END'
beside good "it works" true
beside bad "it breaks" false
needs good step after-good "behind what works" true
needs bad step after-bad "behind what breaks" touch ran-after-bad
needs unheard-of step after-nothing "behind what was not asked for" true
finish
END
expect "steps that need another" 1 "ok  0 s 0 cpu  after-good     behind what works" \
    "skip                   after-bad      bad did not succeed" \
    "ok  0 s 0 cpu  after-nothing  behind what was not asked for" "3 passed, 1 failed, 1 skipped"
expect_that "a step that needs what failed does not run" "$(ls ran-after-bad 2>/dev/null)" == ''

play <<'END'
queue one "it is killed" sh -c 'kill -9 0; sleep 30'
queue two "it works" true
finish
END
expect "one that is killed has failed, and holds up nobody" 1 "Failed: one" "1 passed, 1 failed, 0 skipped"

play <<'END'
beside one "it would run on" sh -c 'echo $$ >pid; exec sleep 300'
until [[ -s pid ]]; do sleep 0.05; done
kill -TERM $$
finish
END
expect "an interrupted check" 130
for ((i = 0; i < 100; i++)); do kill -0 "$(<pid)" 2>/dev/null || break; sleep 0.1; done
expect_that "an interrupted check ends what runs beside" "$(kill -0 "$(<pid)" 2>/dev/null && echo alive)" == ''

play <<'END'
only=(two)
queue one "not asked for" touch one-ran
await one && step two "asked for" true
skip three "not asked for"
finish
END
expect "one step of all" 0 "ok  0 s 0 cpu  two            asked for" "1 passed, 0 failed, 0 skipped"
expect_no "the others are not spoken of" "not asked for"
expect_that "the others do not run" "$(ls one-ran 2>/dev/null)" == ''

play <<'END'
only=(nonesuch)
step one "it works" true
finish
END
expect "a step that does not exist" 2 "check: there is no step of that name; see ./check --list"

play <<'END'
list_only=yes
setup_step zero "the ground" touch ran
step one "in front" touch ran
beside two "in the background" touch ran
queue three "in the queue" touch ran
skip four "left out"
await two
finish
END
expect "the list" 0 "zero             the ground" "one              in front" "two              in the background" \
    "three            in the queue" "four             left out"
expect_that "the list runs nothing" "$(ls ran 2>/dev/null)" == ''

play <<'END'
step one "it computes" /usr/bin/python3 -c 'import time; [None for _ in iter(lambda: time.process_time() < 0.7, False)]'
finish
END
expect "a step that computes" 0 "1 passed, 0 failed, 0 skipped"
used=$(sed -nE 's/^ok .* ([0-9]+) cpu .*/\1/p' play.log)
expect_that "processor time is told" "${used:-0}" -ge 1

printf '%d passed, %d failed\n' "$passed" "$failed"
((failed == 0))
