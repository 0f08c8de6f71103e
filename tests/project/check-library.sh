#!/usr/bin/env bash
# check-library.sh LIBRARY READELF NM
#
# The shared library has the name, the needs, the exports and the hardening that it should have.
set -euo pipefail

library=$1
readelf=$2
nm=$3
status=0

refuse() {
    echo "$(basename "${library}"): $*"
    status=1
}

# The name is written out, unlike elsewhere: whoever changes it should have to say so here too.
[[ $(basename "$(realpath "${library}")") == libkalvoren-sharedd.so.1.0.0 ]] || refuse "has another file name"

dynamic=$("${readelf}" --dynamic --wide "${library}")
grep -q 'Library soname: \[libkalvoren-sharedd\.so\.1\]' <<<"${dynamic}" || refuse "has another soname"
grep -qE 'TEXTREL|RPATH|RUNPATH' <<<"${dynamic}" && refuse "has text relocations or a search path of its own"

# The language's standard library and libc, and on older systems the parts into which libc was split.
allowed='libstdc\+\+\.so\.6|libgcc_s\.so\.1|libc\.so\.6|libm\.so\.6|libpthread\.so\.0|libdl\.so\.2|librt\.so\.1'
allowed+='|ld-linux.*\.so\.[0-9]+'
while read -r needed; do
    refuse "needs ${needed}"
done < <(sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' <<<"${dynamic}" | grep -vxE "${allowed}")

# Instantiations of the standard library's templates would take part in the symbol look-up of every program.
symbols=$("${nm}" --dynamic --defined-only --format=posix "${library}" | cut -d ' ' -f 1)
[[ -n ${symbols} ]] || refuse "exports nothing"
while read -r symbol; do
    refuse "exports $(c++filt "${symbol}"), which is not its own"
done < <(grep -E '^_Z(T[VIST])?(N?K?(St|S[absiod]|9__gnu_cxx)|GVN?)' <<<"${symbols}")
"$(dirname "${BASH_SOURCE[0]}")/check-hardening.sh" "${readelf}" "${nm}" "${library}" || status=1
imports=$("${nm}" --dynamic --undefined-only --format=posix "${library}")
grep -q '^__vsnprintf_chk' <<<"${imports}" || refuse "is compiled without checked calls"
exit "${status}"
