#!/usr/bin/env bash
# check-gdb.sh SOURCE-DIRECTORY INCLUDE-DIRECTORY LIBRARY-DIRECTORY COMPILER [EMULATOR...]
#
# The pretty-printers show live objects, and the same objects in a core file, as what they mean. With an EMULATOR, the
# objects of a program in it, through its stub for remote debuggers.
set -euo pipefail
# shellcheck source=scripts/lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/../../scripts/lib.sh"

source=$1
include=$2
library=$3
compiler=$4
emulator=("${@:5}")
gdb=gdb
[[ ${#emulator[@]} -eq 0 ]] || gdb="gdb-multiarch"
if ! command -v "${gdb}" >/dev/null; then
    echo "${gdb} is not installed"
    exit 77
fi
# The emulator's stub traces nothing.
if [[ ${#emulator[@]} -eq 0 ]] && ! may_trace; then
    echo "this machine lets no debugger trace a program"
    exit 77
fi
scratch=$(mktemp -d)
trap 'rm -rf "${scratch}"' EXIT

"${compiler}" -std=c++11 -g -O0 -I "${include}/kalvoren" "${source}/tests/project/gdb/printed.cpp" -L "${library}" \
    -lkalvoren-sharedd -o "${scratch}/printed"

cat >"${scratch}/expected" <<'END'
$1 = "gate \"north\"\n"
$2 = ""
$3 = "/etc/device" TYPE_DIRECTORY
$4 = 2 elements = {"a", "b"}
$5 = 2000-01-01 00:00:00.000005 UTC (UTC+9:00)
$6 = 3 bytes: 61 62 63
$7 = IPV4 TCP UNICAST 127.0.0.1:80
$8 = "door", "open", 3 bytes
$9 = PROPERTY_NONE "" = {[0] = PROPERTY_KEY "a" = {[0] = PROPERTY_STRING "x"}}
END

commands=()
for name in text empty path fields time block endpoint message node; do
    commands+=(-ex "print ${name}")
done
debug() {
    LD_LIBRARY_PATH="${library}" "${gdb}" -nx -q -batch -ex "source ${source}/tools/gdb/kalvoren_gdb.py" "$@" 2>&1 || true
}
compare() {
    if ! diff "${scratch}/expected" <(grep '^\$[0-9]' "${scratch}/$1"); then
        cat "${scratch}/$1"
        echo "the debugger prints something else of $2"
        exit 1
    fi
}

if [[ ${#emulator[@]} -gt 0 ]]; then
    LD_LIBRARY_PATH="${library}" "${emulator[@]}" -g "${scratch}/stub" "${scratch}/printed" >"${scratch}/output" 2>&1 &
    stub=$!
    trap 'kill "${stub}" 2>/dev/null || true; rm -rf "${scratch}"' EXIT
    for ((attempt = 0; attempt < 300; ++attempt)); do
        [[ ! -S ${scratch}/stub ]] || break
        kill -0 "${stub}" 2>/dev/null || { cat "${scratch}/output"; echo "the emulator did not start"; exit 1; }
        sleep 0.1
    done
    # Without the sysroot option gdb would fetch each library through the stub.
    debug "${scratch}/printed" -ex "set sysroot ${emulator[*]: -1}" -ex "set solib-search-path ${library}" \
        -ex "target remote ${scratch}/stub" -ex "set breakpoint pending on" -ex "break KDebug::Time" -ex continue -ex up \
        "${commands[@]}" -ex kill >"${scratch}/remote"
    compare remote "objects in the emulator"
    exit 0
fi

debug "${scratch}/printed" -ex "break KDebug::Time" -ex run -ex up "${commands[@]}" \
    -ex "generate-core-file ${scratch}/core" >"${scratch}/live"
compare live "live objects"
debug "${scratch}/printed" "${scratch}/core" -ex up "${commands[@]}" >"${scratch}/dead"
compare dead "a core file"
