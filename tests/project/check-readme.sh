#!/usr/bin/env bash
# check-readme.sh SOURCE-DIRECTORY INCLUDE-DIRECTORY LIBRARY-DIRECTORY COMPILER
#
# The program in README.md compiles without a warning, runs, and prints what README.md says. What README.md, CHANGELOG.md,
# CONTRIBUTING.md and docs/ link to is there.
set -euo pipefail

source=$1
include=$2
library=$3
compiler=$4
scratch=$(mktemp -d)
trap 'rm -rf "${scratch}"' EXIT
cd "${source}"

refuse() {
    echo "$*"
    exit 1
}

# block LANGUAGE: the text of README.md's one code block in that language.
block() {
    local count
    count=$(grep -c "^\`\`\`$1\$" README.md) || true
    [[ ${count} -eq 1 ]] || refuse "README.md has ${count} blocks of $1, not one"
    sed -n "/^\`\`\`$1\$/,/^\`\`\`\$/p" README.md | sed '1d;$d'
}

# without_stamps: drops the stamps of log lines, which differ each time.
without_stamps() {
    sed -E 's|^Log\[[0-9/]+ [0-9:]+ [0-6]\]||'
}

block cpp >"${scratch}/program.cpp"
"${compiler}" -std=c++11 -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror -I "${include}" \
    "${scratch}/program.cpp" -L "${library}" -lkalvoren-sharedd -o "${scratch}/program" ||
    refuse "the program in README.md does not compile"
LD_LIBRARY_PATH="${library}" "${scratch}/program" 2>"${scratch}/errors" >"${scratch}/output" ||
    { cat "${scratch}/errors"; refuse "the program in README.md fails"; }
diff <(block text | without_stamps) <(cat "${scratch}/output" "${scratch}/errors" | without_stamps) ||
    refuse "the program in README.md prints something else"

shopt -s nullglob
for document in README.md CHANGELOG.md CONTRIBUTING.md docs/*.md; do
    while read -r target; do
        [[ -e $(dirname "${document}")/${target} ]] || refuse "${document} links to ${target}, which is not there"
    done < <(grep -oE '\]\([^)#]+' "${document}" | sed 's/^](//' | grep -vE '^[a-z]+:' || true)
done
