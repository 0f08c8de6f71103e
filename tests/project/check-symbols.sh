#!/usr/bin/env bash
# check-symbols.sh SOURCE-DIRECTORY LIBRARY NM ARCHITECTURE
#
# The library exports exactly the symbols that abi/ lists: the public interface. A constructor or destructor is there once
# for each way in which compilers call it.
set -euo pipefail

source=$1
library=$2
nm=$3
architecture=$4

if [[ ! -s ${source}/abi/symbols-${architecture}.txt ]]; then
    # The two that the project keeps must be there.
    [[ ${architecture} != x86_64 && ${architecture} != arm ]] || { echo "its list of symbols is missing"; exit 1; }
    echo "there is no list for ${architecture}"
    exit 77
fi
listed() {
    LC_ALL=C sort "${source}/abi/symbols.txt" "${source}/abi/symbols-${architecture}.txt"
}
exported() {
    "${nm}" --dynamic --defined-only --format=posix "${library}" | cut -d ' ' -f 1 | c++filt | LC_ALL=C sort
}
if ! diff <(listed) <(exported); then
    echo "the exported symbols (>) are not those that abi/ lists (<); scripts/abi --help tells more"
    exit 1
fi
