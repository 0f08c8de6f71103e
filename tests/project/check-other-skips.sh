#!/usr/bin/env bash
# check-other-skips.sh SOURCE-DIRECTORY
#
# A run in which another test was skipped than is listed, or a listed one was not, is told from one that is in order.
set -euo pipefail

check=$1/tests/project/check-skips.sh
scratch=$(mktemp -d)
trap 'rm -rf "${scratch}"' EXIT

cat >"${scratch}/CONTRIBUTING.md" <<'LIST'
## What does not run everywhere

| test | not in | why not |
|---|---|---|
| `ATest.First` | asan, tsan | a reason |
| `ATest.Second` | all but arm, arm-release | a reason |
| `BTest.*` | arm-release | a reason |
| `ATest.Third` | without root | a reason |
| `CTest.First` | asan, dev without root, tsan without devices | a reason |

## Something else

| `ATest.Fourth` | dev | nothing that is skipped |
LIST

# judge PRESET LACKING TEST...: what the check says of a run of six tests in which these were skipped.
judge() {
    local preset=$1 lacking=$2 test status
    shift 2
    for test in ATest.First ATest.Second ATest.Third ATest.Fourth BTest.First CTest.First; do
        status=run
        [[ " $* " != *" ${test} "* ]] || status=notrun
        echo "	<testcase name=\"${test}\" classname=\"${test}\" time=\"0.1\" status=\"${status}\">"
    done >"${scratch}/results"
    "${check}" "${scratch}" "${preset}" "${scratch}/results" "${lacking}" 2>&1
}

# accept PRESET LACKING TEST..., refuse TEXT PRESET LACKING TEST...
accept() {
    local said
    if ! said=$(judge "$@") || [[ ${said} != "$1: 6 tests, of which $(($# - 2)) were skipped, "* ]]; then
        echo "of $*, it says: ${said}"
        exit 1
    fi
}
refuse() {
    local text=$1 said
    shift
    if said=$(judge "$@") || [[ ${said} != *"${text}"* ]]; then
        echo "of $*, it says: ${said}"
        exit 1
    fi
}

accept dev "" ATest.Second
accept asan "" ATest.First ATest.Second CTest.First
accept arm ""
accept arm-release "" BTest.First
accept dev root ATest.Second ATest.Third CTest.First
accept tsan devices ATest.First ATest.Second CTest.First
accept arm-release namespaces,root BTest.First ATest.Third
refuse "ATest.Second ran in dev" dev ""
refuse "ATest.First ran in tsan" tsan "" ATest.Second
refuse "BTest.First ran in arm-release" arm-release ""
refuse "ATest.Fourth was skipped in dev" dev "" ATest.Second ATest.Fourth
refuse "ATest.Third was skipped in dev" dev "" ATest.Second ATest.Third
refuse "ATest.Third ran in dev" dev root ATest.Second CTest.First
refuse "CTest.First ran in dev" dev root ATest.Second ATest.Third
refuse "CTest.First was skipped in dev" dev devices ATest.Second CTest.First
refuse "CTest.First was skipped in tsan" tsan root ATest.First ATest.Second ATest.Third CTest.First
refuse "ATest.Second was skipped in arm" arm "" ATest.Second
refuse "BTest.First was skipped in dev" dev "" ATest.Second BTest.First
# shellcheck disable=SC2016 # these are no commands
for line in '| `ATest.Gone` | dev | a reason |=lists ATest.Gone' '| `ATest.First` | decv | a reason |=names decv' \
    '| `ATest.First` | without luck | a reason |=names luck' '| `ATest.First` | dev without luck | a reason |=names luck' \
    '| `ATest.First` | decv without root | a reason |=names decv'; do
    sed "/ATest.Third/a ${line%%=*}" "${scratch}/CONTRIBUTING.md" >"${scratch}/longer"
    mv "${scratch}/longer" "${scratch}/CONTRIBUTING.md"
    refuse "${line#*=}" dev "" ATest.Second
    sed -i '/Third/{n;d}' "${scratch}/CONTRIBUTING.md"
done
accept dev "" ATest.Second
sed -i '/^| `/d' "${scratch}/CONTRIBUTING.md"
refuse "lists nothing" dev "" ATest.Second
