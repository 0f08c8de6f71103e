#!/usr/bin/env bash
# check-behaviour.sh SOURCE-DIRECTORY
#
# docs/behaviour.md has a section for every public class, alone or with another, and none for what is none; every row names a
# test, and every test it names is there.
# The backquotes in the patterns are those of the document.
# shellcheck disable=SC2016
set -euo pipefail
cd "$1"

failures=0
classes() {
    sed -nE 's/^class KALVOREN_API (K[A-Za-z]+) .*/\1/p' inc/*.h | LC_ALL=C sort
}
sections() {
    sed -n 's/^## //p' docs/behaviour.md | sed 's/ and /\n/g' | LC_ALL=C sort
}
if ! diff <(classes) <(sections); then
    echo "docs/behaviour.md has other sections (>) than inc/ has classes (<)"
    failures=$((failures + 1))
fi

while read -r name; do
    suite=${name%%.*}
    if ! grep -qE "^TEST(_F|_P)?\(${suite}, ${name#*.}\)" tests/*.cpp; then
        echo "docs/behaviour.md names ${name}, which is no test"
        failures=$((failures + 1))
    fi
done < <(grep -oE '`K[A-Za-z]+Test\.[A-Za-z0-9]+`' docs/behaviour.md | tr -d '`' | sort -u)

while read -r row; do
    if ! grep -qE '`K[A-Za-z]+Test\.[A-Za-z0-9]+` \|$' <<<"${row}"; then
        echo "docs/behaviour.md has a row without a test: ${row}"
        failures=$((failures + 1))
    fi
done < <(grep '^| ' docs/behaviour.md | grep -v '^| you would expect ')

[[ ${failures} -eq 0 ]]
