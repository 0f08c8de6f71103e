#!/usr/bin/env bash
# check-style.sh SOURCE-DIRECTORY
#
# Every C++ file is formatted as .clang-format says. Versions of clang-format differ in what they make of the same file, so
# that only the one the project is formatted with has a say; without it the test is skipped (exit status 77).
set -euo pipefail

version=14
cd "$1"
formatter=$(command -v "clang-format-${version}" || command -v clang-format || true)
if [[ -z ${formatter} ]] || ! "${formatter}" --version | grep -q "version ${version}\."; then
    echo "clang-format ${version} is not installed: the formatting is not checked"
    exit 77
fi
mapfile -d '' files < <(find inc src tests fuzz tools examples bench -name '*.h' -print0 -o -name '*.cpp' -print0)
[[ ${#files[@]} -gt 0 ]] || { echo "no C++ files found below $1"; exit 1; }
"${formatter}" --dry-run -Werror "${files[@]}"
