#!/usr/bin/env bash
# check-links.sh SOURCE-DIRECTORY
#
# What the documents link to in this tree is there.
set -euo pipefail
cd "$1"

failures=0
for document in *.md docs/*.md; do
    while read -r target; do
        if [[ ! -e $(dirname "${document}")/${target} ]]; then
            echo "${document} links to ${target}, which is not there"
            failures=$((failures + 1))
        fi
    done < <(grep -oE '\]\([^)#]+' "${document}" | sed 's/^](//' | grep -vE '^[a-z]+:' || true)
done
[[ ${failures} -eq 0 ]]
