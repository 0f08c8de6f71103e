#!/usr/bin/env bash
# check-programs.sh SOURCE-DIRECTORY INCLUDE-DIRECTORY LIBRARY-DIRECTORY COMPILER DOCUMENT
#
# Every block of cpp in a document is a program that compiles without a warning, runs, and prints what the next block
# (of text) says. Each runs in an empty directory of its own that has the examples in it.
set -euo pipefail

source=$1
include=$2
library=$3
compiler=$4
document=$5
scratch=$(mktemp -d)
trap 'rm -rf "${scratch}"' EXIT

# Writes the blocks of the document to 1.cpp, 1.text, 2.cpp and so on: a program, and what it prints.
awk -v directory="${scratch}" '
    /^```cpp$/ { ++number; file = directory "/" number ".cpp"; next }
    /^```text$/ { if (number > 0) { file = directory "/" number ".text" } next }
    /^```/ { if (file != "") { close(file) } file = ""; next }
    file != "" { print > file }
' "${source}/${document}"

# The stamps of log lines differ each time.
without_stamps() {
    sed -E 's|^Log\[[0-9/]+ [0-9:]+ [0-6]\]||'
}

failures=0
fail() {
    echo "${document}: program $1 $2"
    failures=$((failures + 1))
}

programs=0
for program in "${scratch}"/*.cpp; do
    programs=$((programs + 1))
    number=$(basename "${program}" .cpp)
    grep -q 'int main(' "${program}" || fail "${number}" "has no main function, so that it cannot be tried"
    mkdir "${scratch}/${number}"
    ln -s "${source}/examples" "${scratch}/${number}/examples"
    if ! "${compiler}" -std=c++11 -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror -I "${include}" \
        -I "${include}/kalvoren" "${program}" -L "${library}" -lkalvoren-sharedd -pthread -o "${scratch}/program"; then
        fail "${number}" "does not compile"
    elif ! (cd "${scratch}/${number}" && LD_LIBRARY_PATH="${library}" ../program >../printed 2>&1); then
        cat "${scratch}/printed"
        fail "${number}" "fails"
    elif ! diff <(without_stamps <"${scratch}/${number}.text") <(without_stamps <"${scratch}/printed"); then
        fail "${number}" "prints something else"
    fi
done

[[ ${programs} -gt 0 ]] || fail 0 "is not there: the document has none"
[[ ${failures} -eq 0 ]]
