#!/usr/bin/env bash
# check-examples.sh SOURCE-DIRECTORY INCLUDE-DIRECTORY LIBRARY-DIRECTORY COMPILER
#
# Every example in the headers' comments (from @code to @endcode) compiles without a warning, and runs where it has a main
# function.
set -euo pipefail

source=$1
include=$2
library=$3
compiler=$4
scratch=$(mktemp -d)
trap 'rm -rf "${scratch}"' EXIT

# Writes each example to a file of its own, NAME-OF-HEADER.NUMBER.cpp.
awk -v directory="${scratch}" '
    FNR == 1 { header = FILENAME; sub(/.*\//, "", header); number = 0 }
    /\/\/\/ @code/ {
        file = directory "/" header "." ++number ".cpp"
        print "#include <Kalvoren.h>\n#include <atomic>\n#include <cstdio>\n#include <cstring>" > file
        next
    }
    /\/\/\/ @endcode/ { close(file); file = ""; next }
    file != "" { sub(/^ *\/\/\/ ?/, ""); print > file }
' "${source}"/inc/*.h

examples=0
failures=0
for example in "${scratch}"/*.cpp; do
    [[ -e ${example} ]] || break
    examples=$((examples + 1))
    grep -q 'int main(' "${example}" || echo 'int main() {}' >>"${example}"
    if ! "${compiler}" -std=c++11 -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror -I "${include}/kalvoren" \
        "${example}" -L "${library}" -lkalvoren-sharedd -pthread -o "${scratch}/program"; then
        echo "the example $(basename "${example}" .cpp) does not compile"
        failures=$((failures + 1))
    elif ! LD_LIBRARY_PATH="${library}" "${scratch}/program" >"${scratch}/printed" 2>&1; then
        cat "${scratch}/printed"
        echo "the example $(basename "${example}" .cpp) fails"
        failures=$((failures + 1))
    fi
done
[[ ${examples} -gt 0 ]] || { echo "there are no examples"; exit 1; }
[[ ${failures} -eq 0 ]]
