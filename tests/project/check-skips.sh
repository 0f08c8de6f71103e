#!/usr/bin/env bash
# check-skips.sh SOURCE-DIRECTORY EMULATED-RESULTS [NATIVE-RESULTS]
#
# The tests that were skipped in the emulator, and not natively on the same machine, are those that CONTRIBUTING.md lists.
# Without the results of a native run, a test that is skipped and not listed may be skipped natively as well, and passes.
# The results are CTest's, as JUnit.
set -euo pipefail

source=$1
emulated=$2
native=${3:-}

listed() {
    # shellcheck disable=SC2016
    sed -n '/^## What does not run in the emulator/,/^## /s/^| `\([A-Za-z]*\.[A-Za-z0-9]*\)` | .*/\1/p' \
        "${source}/CONTRIBUTING.md" | LC_ALL=C sort -u
}
skipped() {
    sed -n 's/.*<testcase name="\([^"]*\)".* status="notrun".*/\1/p' "$1" | LC_ALL=C sort -u
}
failures=0
while read -r test; do
    echo "${test} ran in the emulator, but CONTRIBUTING.md says that it cannot"
    failures=$((failures + 1))
done < <(LC_ALL=C comm -23 <(listed) <(skipped "${emulated}"))
if [[ -s ${native} ]]; then
    while read -r test; do
        echo "${test} was skipped in the emulator alone, but CONTRIBUTING.md does not say why"
        failures=$((failures + 1))
    done < <(LC_ALL=C comm -23 <(LC_ALL=C comm -23 <(skipped "${emulated}") <(skipped "${native}")) <(listed))
fi
[[ ${failures} -eq 0 ]]
