#!/usr/bin/env bash
# check-header.sh COMPILER HEADER
#
# Compiles a public header alone and first, and once more behind itself, under each promised language standard, with the
# warnings of our own builds as errors.
set -euo pipefail

compiler=$1
header=$2
directory=$(dirname "${header}")
name=$(basename "${header}")

for standard in 11 14 17 20; do
    printf '#include "%s"\n#include "%s"\n' "${name}" "${name}" |
        "${compiler}" -x c++ "-std=c++${standard}" -fsyntax-only -I "${directory}" \
            -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror - ||
        { echo "${name} does not compile alone as C++${standard} with ${compiler}"; exit 1; }
done
