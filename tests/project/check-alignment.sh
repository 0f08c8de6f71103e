#!/usr/bin/env bash
# check-alignment.sh COMPILER FLAG...
#
# What is compiled with these flags ends at an access to a misaligned address.
set -euo pipefail

compiler=$1
shift
scratch=$(mktemp -d)
trap 'rm -rf "${scratch}"' EXIT

cat >"${scratch}/access.cpp" <<'END'
#include <cstdlib>
int main(int, char** argv) {
    alignas(8) static char bytes[16] = "";
    const int* const pNumber = reinterpret_cast<const int*>(bytes + std::atoi(argv[1]));
    return *pNumber;
}
END
"${compiler}" "$@" "${scratch}/access.cpp" -o "${scratch}/access"
# Started the way the tests are, or the sanitizers of these compilers meet too random an address space.
start=()
! setarch -R true 2>/dev/null || start=(setarch -R)
"${start[@]}" "${scratch}/access" 4 || { echo "an aligned access does not work"; exit 1; }
if "${start[@]}" "${scratch}/access" 1 2>"${scratch}/log"; then
    echo "a misaligned access goes unnoticed"
    exit 1
fi
grep -q 'misaligned address' "${scratch}/log" || { cat "${scratch}/log"; echo "it ends otherwise"; exit 1; }
