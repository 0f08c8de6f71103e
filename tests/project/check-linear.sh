#!/usr/bin/env bash
# check-linear.sh PROGRAM | --list
#
# What the jobs cost grows as it should. Instructions are counted, not seconds: four times the size may take four times
# the instructions and a hundredth more, a little more than that where something is sorted, and hardly more where the
# size is not what the job is about. With --list says what is checked: of each job both sizes and the hundredths.
set -euo pipefail

program=$1
if [[ ${program} != --list ]] && ! command -v valgrind >/dev/null; then
    echo "valgrind is not installed"
    exit 77
fi
scratch=$(mktemp -d)
trap 'rm -rf "${scratch}"' EXIT

# What a call leads to is looked up before the program begins, not when it is called for the first time.
export LD_BIND_NOW=1

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
# check JOB SMALL LARGE PERCENT: the job of the large size takes at most so many hundredths of the instructions of the
# small.
check() {
    local small large percent
    if [[ ${program} == --list ]]; then
        echo "$@"
        return
    fi
    small=$(instructions "$1" "$2")
    large=$(instructions "$1" "$3")
    percent=$((100 * large / small))
    printf '%-16s %7d: %10d instructions, %7d: %10d, times %d.%02d\n' "$1" "$2" "${small}" "$3" "${large}" \
        $((percent / 100)) $((percent % 100))
    if ((small < 1000 || percent > $4)); then
        printf '%s grows faster than it should: at most times %d.%02d\n' "$1" $(($4 / 100)) $(($4 % 100))
        failures=$((failures + 1))
    fi
}

# fourfold JOB N PERCENT: the same from size N to four times that.
fourfold() {
    check "$1" "$2" $((4 * $2)) "$3"
}

for job in Append Divide Replace Search SearchRareLetter SearchNearlyThere FillList WalkList CopyList PopList ReadFlat \
    ReadNested HandOver HandOverBeside Dispatch DispatchAmong PassRecord PassBytes PassBlocks; do
    fourfold "${job}" 1000 405
done
fourfold ReadBroken 4000 405
# Where a text's bytes are what counts, not the calls.
for job in MakeText CopyText CompareTexts; do
    fourfold "${job}" 16384 405
done
fourfold SortPaths 1000 490
fourfold OpenDirectory 250 460
# On to where the sort is half of it: n log n would be times 28.67. From 2,500 to 10,000 alone it is times 4.90, where that
# would be times 4.71: in between, libc's malloc begins to join the small blocks that are free.
check OpenDirectory 1000 20000 2850
# How many blocks are live makes no difference, up to what the registry has room for, but for a cell or two more to look
# at in a fuller table.
check ReuseABlock 1000 100000 130
exit $((failures > 0))
