#!/usr/bin/env bash
# check-skips.sh SOURCE-DIRECTORY PRESET RESULTS [LACKING]
#
# The tests that were skipped in a preset are those that CONTRIBUTING.md lists for it, and no others; their number is
# printed. A test may also be listed for a machine that lacks something, which is looked for: LACKING, words with commas
# between, says instead what is not there ("" for nothing). The results are CTest's, as JUnit.
set -euo pipefail
# shellcheck source=scripts/lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/../../scripts/lib.sh"

source=$1
preset=$2
results=$3

# What some tests need of the user or of the machine, found out as they do it.
has_root() {
    [[ $(id -u) -eq 0 ]]
}
has_namespaces() {
    local user=()
    has_root || user=(--user --map-root-user)
    unshare "${user[@]}" --net --mount --uts sh -c 'mount --make-rprivate / && ip link add here type veth peer name there' \
        >/dev/null 2>&1
}
has_raw() {
    local capabilities
    capabilities=$(awk '/^CapEff:/ { print $2 }' /proc/self/status)
    (((0x${capabilities} >> 13) & 1))  # CAP_NET_RAW
}
has_network() {
    ip -4 -oneline address show 2>/dev/null | grep -v ' 127\.' >/dev/null
}
has_descriptors() {
    [[ $(ulimit -H -n) == unlimited || $(ulimit -H -n) -ge 1200 ]]
}
has_large() {
    local file status=0
    file=$(mktemp)
    truncate --size 3G "${file}" 2>/dev/null || status=1
    rm "${file}"
    return "${status}"
}
has_devices() {
    [[ -c /dev/full && -c /dev/ptmx ]]
}
has_ptrace() {
    may_trace
}
KNOWN=(root namespaces raw network descriptors large devices ptrace)

lacking=,
if [[ $# -gt 3 ]]; then
    lacking=,$4,
else
    for need in "${KNOWN[@]}"; do
        "has_${need}" || lacking+=${need},
    done
fi

failures=0
complain() {
    echo "$*"
    failures=$((failures + 1))
}

# entry_applies ENTRY: whether an entry of the second column is about this run: a preset, a lack, or a preset with one.
entry_applies() {
    local where=${1%%without *} need status=0
    need=${1#"${where}"}
    where=${where% }
    need=${need#without }
    if [[ -n ${where} ]]; then
        is_preset "${where}" || complain "CONTRIBUTING.md names ${where}, which is no preset"
        [[ ${where} == "${preset}" ]] || status=1
    fi
    if [[ -n ${need} ]]; then
        [[ " ${KNOWN[*]} " == *" ${need} "* ]] || complain "CONTRIBUTING.md names ${need}, which nobody looks for"
        [[ ${lacking} == *,"${need}",* ]] || status=1
    fi
    return "${status}"
}

# row_applies ENTRIES: whether one of them is, or where they are exceptions, none.
row_applies() {
    local entries=${1#all but } entry found=no
    while read -r entry; do
        if entry_applies "${entry}"; then
            found=yes
        fi
    done < <(tr , '\n' <<<"${entries}")
    if [[ ${entries} == "$1" ]]; then
        [[ ${found} == yes ]]
    else
        [[ ${found} == no ]]
    fi
}

# The names of the tests that have a status of those given.
tests_that() {
    sed -n "s/.*<testcase name=\"\([^\"]*\)\".* status=\"\($1\)\".*/\1/p" "${results}"
}

mapfile -t ran < <(tests_that 'run\|fail')
mapfile -t skipped < <(tests_that 'notrun\|disabled')
listed=()
rows=0
while IFS='|' read -r _ test where _; do
    test=$(tr -d ' `' <<<"${test}")
    rows=$((rows + 1))
    row_applies "$(xargs <<<"${where}")" || continue
    listed+=("${test}")
    for name in "${ran[@]}"; do
        # shellcheck disable=SC2053 # a row may be about all tests of a class
        [[ ${name} != ${test} ]] || complain "${name} ran in ${preset}, but CONTRIBUTING.md says that it cannot"
    done
done < <(sed -n '/^## What does not run everywhere/,/^## /{/^| `/p}' "${source}/CONTRIBUTING.md")
[[ ${rows} -gt 0 ]] || complain "CONTRIBUTING.md lists nothing"

is_listed() {
    local pattern
    for pattern in "${listed[@]}"; do
        # shellcheck disable=SC2053
        [[ $1 != ${pattern} ]] || return 0
    done
    return 1
}
for name in "${skipped[@]}"; do
    is_listed "${name}" || complain "${name} was skipped in ${preset}, but CONTRIBUTING.md does not say why"
done
# Two presets do not build everything.
if [[ ! ${preset} =~ ^(fuzz|mutate)$ ]]; then
    for pattern in "${listed[@]}"; do
        found=no
        for name in "${ran[@]}" "${skipped[@]}"; do
            # shellcheck disable=SC2053
            [[ ${name} != ${pattern} ]] || found=yes
        done
        [[ ${found} == yes ]] || complain "CONTRIBUTING.md lists ${pattern}, which ${preset} does not have"
    done
fi
[[ ${failures} -eq 0 ]] || exit 1
echo "${preset}: $((${#ran[@]} + ${#skipped[@]})) tests, of which ${#skipped[@]} were skipped, those that CONTRIBUTING.md lists"
