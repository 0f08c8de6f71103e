#!/usr/bin/env bash
# check-trust.sh SOURCE-DIRECTORY
#
# scripts/trust keeps what a part printed when it ends, passed or failed, and leaves what it kept before when the part or the
# script itself is interrupted.
set -euo pipefail

work=$(mktemp -d)
trap 'rm -rf "${work}"' EXIT
mkdir "${work}/scripts"
cp "$1/scripts/lib.sh" "$1/scripts/trust" "${work}/scripts"
kept="${work}/docs/trust/lint.txt"

# script NAME BODY: makes a part's script of these commands.
script() {
    printf '#!/bin/sh\n%s\n' "$2" >"${work}/scripts/$1"
    chmod +x "${work}/scripts/$1"
}

# trust PART...: runs scripts/trust; prints its exit status.
trust() {
    local status=0
    "${work}/scripts/trust" "$@" >"${work}/output" 2>&1 || status=$?
    echo "${status}"
}

# part NAME BODY: scripts/trust with a part of these commands; prints its exit status.
part() {
    script "$1" "$2"
    trust "$1"
}

lint() {
    part lint "$1"
}

# expect WHAT STATUS TEXT: how the last run ended, and what is kept now.
expect() {
    local text
    text=$(grep -cx "$3" "${kept}" || true)
    if [[ ${status} -ne $2 || ${text} -ne 1 || $(find "${work}/docs/trust" -type f | wc -l) -ne 1 ]]; then
        echo "$1: ended with ${status}, not $2, or does not keep one line '$3':"
        cat "${work}/output" "${work}"/docs/trust/*
        exit 1
    fi
}

status=$(lint 'echo first')
expect "a part that passes" 0 first
# shellcheck disable=SC2016 # the part's own shell expands it
status=$(lint 'echo second; kill -TERM $$; sleep 60')
expect "a part that is ended by a signal" 1 first
# The part survives the signal and ends by itself, which must not pass for a failure.
# shellcheck disable=SC2016
status=$(lint 'echo third; kill -TERM $PPID; exit 1')
expect "a part during which the script is ended" 130 first
status=$(lint 'echo fourth; exit 1')
expect "a part that fails" 1 fourth
expect "a part that fails" 1 '(failed)'

# What tells how it got there, and where, is not kept.
status=$(lint 'echo "Test project /somewhere/build/dev"; echo "    Start  1: A.B"; echo " 1/12 Test  #1: A.B ... Passed"; echo sixth')
expect "a part with tests" 0 sixth
[[ $(grep -cE 'Test|Start' "${kept}" || true) -eq 0 ]] || { cat "${kept}"; echo "more is kept than how it ended"; exit 1; }

# Of what is long the end is kept, but all figures of the classes.
status=$(lint 'seq 300')
expect "a part that prints much" 0 300
status=$(lint 'seq 300; echo end')
expect "a part that prints more" 0 end
[[ $(grep -cx 100 "${kept}" || true) -eq 0 ]] || { echo "more is kept than the end"; exit 1; }
rm "${kept}"

# What a part printed is not kept before all have ended; then it is, also of those before the one that was interrupted.
kept="${work}/docs/trust/coverage.txt"
# shellcheck disable=SC2016
script lint 'ls docs/trust; kill -TERM $PPID; exit 1'
script coverage 'echo fifth'
status=$(trust coverage lint)
expect "a part before one during which the script is ended" 130 fifth
! grep -qx coverage.txt "${work}/output" || { echo "a part is kept before all have ended"; exit 1; }
rm "${kept}"
kept="${work}/docs/trust/mutate.txt"
status=$(part mutate 'seq 300')
expect "a part of which all is kept" 0 1
