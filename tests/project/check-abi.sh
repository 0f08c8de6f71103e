#!/usr/bin/env bash
# check-abi.sh SOURCE-DIRECTORY LIBRARY READELF ARCHITECTURE
#
# The library's classes, tables of virtual operations and exported operations are those of the baseline in abi/.
set -euo pipefail

source=$1
library=$2
readelf=$3
architecture=$4

skip() {
    echo "$*: the layout is not compared"
    exit 77
}
if [[ ! -s ${source}/abi/${architecture}.xml ]]; then
    # The two that the project keeps must be there.
    [[ ${architecture} != x86_64 && ${architecture} != arm ]] || { echo "abi/${architecture}.xml is missing"; exit 1; }
    skip "there is no baseline for ${architecture}"
fi
command -v abidiff >/dev/null || skip "abidiff is not installed"
sections=$("${readelf}" --sections --wide "${library}")
grep -q ' \.debug_info ' <<<"${sections}" || skip "there is no debug information"

# Whatever abidiff reports counts: it cannot tell which change is harmless to programs, and none is expected.
if ! abidiff --leaf-changes-only --harmless --no-show-locs "${source}/abi/${architecture}.xml" "${library}"; then
    echo "the binary interface is not that of abi/${architecture}.xml; scripts/abi --help tells more"
    exit 1
fi
