#!/usr/bin/env bash
# check-linear.sh PROGRAM
#
# What the jobs cost grows as it should. Instructions are counted, not seconds: four times the size may take four times
# the instructions and a tenth more, a little more than that where something is sorted, and no more at all where the
# size is not what the job is about.
set -euo pipefail

program=$1
if ! command -v valgrind >/dev/null; then
    echo "valgrind is not installed"
    exit 77
fi
scratch=$(mktemp -d)
trap 'rm -rf "${scratch}"' EXIT

# instructions JOB N: prints how many instructions the measured part takes.
instructions() {
    if ! valgrind --tool=callgrind --toggle-collect='*Measured*' --callgrind-out-file=/dev/null "${program}" "$1" "$2" \
        >"${scratch}/output" 2>&1; then
        cat "${scratch}/output" >&2
        return 1
    fi
    awk '/Collected :/ { print $NF }' "${scratch}/output"
}

failures=0
# check JOB N PERCENT: the job of size 4 N takes at most so many hundredths of the instructions of size N.
check() {
    local small large percent
    small=$(instructions "$1" "$2")
    large=$(instructions "$1" $((4 * $2)))
    percent=$((100 * large / small))
    printf '%-14s %7d: %10d instructions, %7d: %10d, times %d.%02d\n' "$1" "$2" "${small}" $((4 * $2)) "${large}" \
        $((percent / 100)) $((percent % 100))
    if ((small < 1000 || percent > $3)); then
        echo "$1 grows faster than it should: at most times $(($3 / 100)).$(($3 % 100))"
        failures=$((failures + 1))
    fi
}

for job in Append Divide Replace Search SearchRareLetter SearchNearlyThere FillList WalkList CopyList PopList ReadFlat \
    ReadNested Dispatch DispatchAmong; do
    check "${job}" 1000 440
done
check ReadBroken 4000 440
check SortPaths 1000 520
check OpenDirectory 250 520
check ReuseABlock 1000 110
exit $((failures > 0))
