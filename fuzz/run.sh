#!/usr/bin/env bash
# run.sh PROGRAM TARGET DIRECTORY [keep]
#
# Lets a fuzz target look for inputs that fail, for KALVOREN_FUZZ_SECONDS seconds (10 where it is not set). It starts from the
# corpus that is kept and from what it found before in this build directory. An input that fails is left in
# DIRECTORY/findings/TARGET; once the fault is mended, it belongs in fuzz/regressions/TARGET.
#
# With "keep" it looks for nothing: of what it found before in this build directory, and of what was kept before, it takes as
# few inputs as reach everything that all of them reach into the corpus that is kept. Those with a name of their own stay.
set -euo pipefail
# shellcheck source=scripts/lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/../scripts/lib.sh"

program=$1
target=$2
directory=$3
source=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

mkdir -p "${directory}/corpus/${target}" "${directory}/findings/${target}"
kept=()
for place in corpus regressions; do
    if [[ -d ${source}/${place}/${target} ]]; then
        kept+=("${source}/${place}/${target}")
    fi
done

read -r -a start <<<"$(sanitized_start)"
dictionary=()
if [[ -f ${source}/dictionaries/${target} ]]; then
    dictionary=("-dict=${source}/dictionaries/${target}")
fi

if [[ ${4:-} == keep ]]; then
    corpus=${source}/corpus/${target}
    merged=${directory}/merged/${target}
    # What was found has the SHA-1 of its bytes for a name.
    found=(-type f -regextype egrep -regex '.*/[0-9a-f]{40}')
    # In a directory of its own: a merge that fails, or is interrupted, leaves what was kept.
    rm -rf "${merged}"
    mkdir -p "${merged}"
    find "${corpus}" "${found[@]}" -exec cp -t "${directory}/corpus/${target}" {} +
    find "${corpus}" -type f ! \( "${found[@]}" \) -exec cp -t "${merged}" {} +
    # The fuzzer starts itself through a shell and quotes nothing: the paths are those that were given, which may be relative.
    "${start[@]}" "${program}" -merge=1 -set_cover_merge=1 -timeout=25 -rss_limit_mb=2048 \
        "${merged}" "${directory}/corpus/${target}"
    # It may read nothing and say that all went well.
    if [[ -z $(find "${merged}" "${found[@]}" -print -quit) && -n $(find "${directory}/corpus/${target}" -type f -print -quit) ]]; then
        die "of what was found for ${target}, the merge chose nothing"
    fi
    # First what is new, so that there is never less than what all of them reach.
    find "${merged}" "${found[@]}" -exec cp -t "${corpus}" {} +
    while read -r -d '' input; do
        [[ -e ${merged}/$(basename "${input}") ]] || rm "${input}"
    done < <(find "${corpus}" "${found[@]}" -print0)
    rm -r "${merged}"
    exit 0
fi

exec "${start[@]}" "${program}" -max_total_time="${KALVOREN_FUZZ_SECONDS:-10}" -timeout=25 -rss_limit_mb=2048 \
    -print_final_stats=1 -verbosity=1 "${dictionary[@]}" -artifact_prefix="${directory}/findings/${target}/" \
    "${directory}/corpus/${target}" "${kept[@]}"
