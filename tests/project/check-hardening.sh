#!/usr/bin/env bash
# check-hardening.sh READELF NM FILE...
#
# Each library or program has canaries, everything resolved and made read-only before the program starts, no executable stack,
# and nothing both writable and executable; a program lies at another address each time.
set -euo pipefail

readelf=$1
nm=$2
files=("${@:3}")
[[ ${#files[@]} -gt 0 ]] || { echo "there are no files"; exit 1; }
status=0

refuse() {
    echo "$(basename "${file}"): $*"
    status=1
}

# check_file: looks at ${file}.
check_file() {
    local dynamic segments imports
    dynamic=$("${readelf}" --dynamic --wide "${file}")
    segments=$("${readelf}" --program-headers --wide "${file}")
    imports=$("${nm}" --dynamic --undefined-only --format=posix "${file}" | cut -d ' ' -f 1 | sed 's/@.*//')
    grep -qx '__stack_chk_fail' <<<"${imports}" || refuse "is compiled without stack protection"
    grep -qE '\(FLAGS\).*BIND_NOW|\(FLAGS_1\).*NOW' <<<"${dynamic}" || refuse "binds its calls late"
    grep -q 'GNU_RELRO' <<<"${segments}" || refuse "leaves its tables writable"
    grep -qE 'GNU_STACK.* RW ' <<<"${segments}" || refuse "asks for an executable stack"
    ! grep -qE 'LOAD.* RWE ' <<<"${segments}" || refuse "has memory that is writable and executable"
    grep -q '^Elf file type is DYN' <<<"$(sed '/^$/d' <<<"${segments}")" || refuse "has to lie at a fixed address"
}

for file in "${files[@]}"; do
    check_file
done
exit "${status}"
