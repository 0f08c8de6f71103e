#!/usr/bin/env bash
# check-includes.sh HEADER-DIRECTORY
#
# Public headers bring in the C++ library and each other, no header of the operating system: its types and macros stay out
# of the programs that use the library. The one exception is <netdb.h> in KNet.h, whose macro HOST_NOT_FOUND has to be
# defined before KNet.h can take it away. No header is included that is not one of ours or standard.
set -euo pipefail

directory=$1
status=0

refuse() {
    echo "$1: $2"
    status=1
}

for header in "${directory}"/*.h; do
    name=$(basename "${header}")
    while read -r included; do
        [[ ${name}:${included} == "KNet.h:<netdb.h>" ]] || refuse "${name}" "includes ${included} of the operating system"
    done < <(sed -nE 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*(<[^>]*[./][^>]*>).*/\1/p' "${header}")
    while read -r included; do
        [[ -e ${directory}/${included} ]] || refuse "${name}" "includes ${included}, which is not a public header"
    done < <(sed -nE 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*"([^"]*)".*/\1/p' "${header}")
    [[ ${name} == Kalvoren.h || ! -e ${directory}/Kalvoren.h ]] || grep -q "\"${name}\"" "${directory}/Kalvoren.h" ||
        refuse "${name}" "is not included by Kalvoren.h"
done
exit "${status}"
