#!/usr/bin/env bash
# check-alignment.sh COMPILER FLAG...
#
# What is compiled with these flags ends at an access to a misaligned address.
set -euo pipefail
# shellcheck source=scripts/lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/../../scripts/lib.sh"

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
read -r -a start <<<"$(sanitized_start)"
"${start[@]}" "${scratch}/access" 4 || { echo "an aligned access does not work"; exit 1; }
if "${start[@]}" "${scratch}/access" 1 2>"${scratch}/log"; then
    echo "a misaligned access goes unnoticed"
    exit 1
fi
grep -q 'misaligned address' "${scratch}/log" || { cat "${scratch}/log"; echo "it ends otherwise"; exit 1; }
