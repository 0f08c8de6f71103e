#!/usr/bin/env bash
# check-version.sh SOURCE-DIRECTORY
#
# What has to name the version for itself names the one of inc/KTypes.h, and the change logs agree on whether it is released.
set -euo pipefail
# shellcheck source=scripts/lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/../../scripts/lib.sh"
ROOT=$(cd "$1" && pwd)
cd "${ROOT}"
failures=0

# expect FILE WHAT EXPECTED FOUND
expect() {
    if [[ $3 != "$4" ]]; then
        echo "$1 has \"$4\" as $2, not \"$3\""
        failures=$((failures + 1))
    fi
}

version=$(library_version) || die "inc/KTypes.h has no version"
library=libkalvoren-sharedd.so.${version}

expect tools/kplist/kplist.1 version "${version}" \
    "$(sed -n '1s/^\.TH KPLIST .* "Kalvoren \(.*\)" "User Commands"$/\1/p' tools/kplist/kplist.1)"
expect tests/mutation/mutate.py "the library's name" "${library}" \
    "$(sed -n 's/^LIBRARY = "\(.*\)"$/\1/p' tests/mutation/mutate.py)"
while IFS=: read -r document name; do
    expect "${document}" "the library's name" "${library}" "${name}"
done < <(grep -oE 'libkalvoren-sharedd\.so(\.[0-9]+){3}' README.md docs/*.md)
while IFS=: read -r document wanted; do
    expect "${document}" "what programs ask for" "${version%.*}" "${wanted#*Kalvoren }"
done < <(grep -oE 'find_package\(Kalvoren [0-9.]+' README.md docs/*.md)

# What the change log says of this version decides what the packages' has to say.
pending=$(sed -n 's/^To become \([0-9.]*[0-9]\)[,.].*/\1/p' CHANGELOG.md)
newest=$(sed -n 's/^## \[\([0-9.]*\)\] - [0-9-]*$/\1/p' CHANGELOG.md | sed q)
release=$(sed -n 's/^set(CPACK_DEBIAN_PACKAGE_RELEASE \([0-9]*\))$/\1/p' cmake/KalvorenPackage.cmake)
expect CHANGELOG.md "the newest version" "${version}" "${pending:-${newest}}"
distribution=unstable
[[ -z ${pending} ]] || distribution=UNRELEASED
expect packaging/debian/changelog "the newest version" "${version}-${release} ${distribution}" \
    "$(sed -n '1s/^kalvoren (\(.*\)) \([A-Za-z]*\); .*/\1 \2/p' packaging/debian/changelog)"
[[ ${failures} -eq 0 ]]
