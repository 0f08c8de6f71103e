#!/usr/bin/env bash
# check-skips.sh SOURCE-DIRECTORY PRESET RESULTS [PLAIN-RESULTS]
#
# The tests that were skipped in a preset, and not in the plain build on the same machine, are those that CONTRIBUTING.md
# lists for it. Without the results of a plain build, a test that is skipped and not listed may be skipped there as well,
# and passes. The results are CTest's, as JUnit.
set -euo pipefail

source=$1
preset=$2
results=$3
plain=${4:-}

# The rows of the table whose second column names the preset.
listed() {
    # shellcheck disable=SC2016
    sed -n '/^## What does not run everywhere/,/^## /s/^| `\([A-Za-z]*\.[A-Za-z0-9]*\)` | \([a-z, ]*\) | .*/\1 \2/p' \
        "${source}/CONTRIBUTING.md" | sed -n "s/^\([^ ]*\) \(.*, \)\?${preset}\(,.*\)\?\$/\1/p" | LC_ALL=C sort -u
}
skipped() {
    sed -n 's/.*<testcase name="\([^"]*\)".* status="notrun".*/\1/p' "$1" | LC_ALL=C sort -u
}
[[ -n $(listed) ]] || { echo "CONTRIBUTING.md lists nothing for ${preset}"; exit 1; }
failures=0
while read -r test; do
    echo "${test} ran in ${preset}, but CONTRIBUTING.md says that it cannot"
    failures=$((failures + 1))
done < <(LC_ALL=C comm -23 <(listed) <(skipped "${results}"))
if [[ -s ${plain} ]]; then
    while read -r test; do
        echo "${test} was skipped in ${preset} alone, but CONTRIBUTING.md does not say why"
        failures=$((failures + 1))
    done < <(LC_ALL=C comm -23 <(LC_ALL=C comm -23 <(skipped "${results}") <(skipped "${plain}")) <(listed))
fi
[[ ${failures} -eq 0 ]]
