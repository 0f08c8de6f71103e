#!/usr/bin/env bash
# check-scripts.sh SOURCE-DIRECTORY
#
# Each script explains itself and refuses what it does not know, from any directory and without doing anything else.
set -euo pipefail

source=$1
cd /
count=0

refuse() {
    echo "$*"
    exit 1
}

for script in "${source}"/scripts/*; do
    [[ -x ${script} ]] || continue
    name=scripts/$(basename "${script}")
    [[ $("${script}" --help | head -n 1) == "Usage: ${name}"* ]] || refuse "${name} --help does not tell the usage"
    if message=$("${script}" --unknown-option 2>&1); then
        refuse "${name} accepts an option that it does not know"
    fi
    [[ ${message} == *"unknown "*"--unknown-option"* ]] || refuse "${name} says instead: ${message}"
    count=$((count + 1))
done
[[ ${count} -gt 0 ]] || refuse "there are no scripts"
