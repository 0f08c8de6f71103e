#!/usr/bin/env bash
# check-install.sh BUILD-DIRECTORY SOURCE-DIRECTORY COMPILER [TOOLCHAIN-FILE [EMULATOR...]]
#
# Installs the library into a scratch directory, moves it elsewhere, and builds and runs a small program against it out of
# tree, once by find_package and once by pkg-config. Runs the installed tools.
set -euo pipefail
# shellcheck source=scripts/lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/../../scripts/lib.sh"

build=$1
source=$2
compiler=$3
toolchain=${4:-}
emulator=("${@:5}")
scratch=$(mktemp -d)
trap 'rm -rf "${scratch}"' EXIT
version=$(library_version)
name=libkalvoren-sharedd.so.${version}

refuse() {
    echo "$*"
    exit 1
}

cmake --install "${build}" --prefix "${scratch}/first" >"${scratch}/log" || refuse "the library does not install"
mv "${scratch}/first" "${scratch}/moved"
prefix=${scratch}/moved

# What is installed, and nothing else beside it.
diff <(cd "${source}/inc" && ls) <(cd "${prefix}/include/kalvoren" && ls) ||
    refuse "the installed headers are not those of the library"
[[ $(ls "${prefix}/include") == kalvoren ]] || refuse "headers lie outside include/kalvoren"
for file in cmake/Kalvoren/KalvorenConfig.cmake cmake/Kalvoren/KalvorenConfigVersion.cmake pkgconfig/kalvoren.pc; do
    [[ -s ${prefix}/lib/${file} ]] || refuse "lib/${file} is not installed"
done
[[ -f ${prefix}/lib/${name} && ! -L ${prefix}/lib/${name} ]] || refuse "${name} is not installed"
for link in libkalvoren-sharedd.so.1 libkalvoren-sharedd.so; do
    [[ -L ${prefix}/lib/${link} ]] || refuse "lib/${link} is not a link"
    [[ $(realpath "${prefix}/lib/${link}") == */"${name}" ]] || refuse "lib/${link} leads elsewhere"
done
[[ -s ${prefix}/share/doc/kalvoren/kalvoren.spdx.json ]] || refuse "the bill of materials is not installed"
[[ ! -e ${prefix}/share/doc/libkalvoren1 ]] || refuse "what only the Debian packages have is installed"
if grep -rlF -e "${source}" -e "${scratch}/first" "${prefix}/lib/cmake" "${prefix}/lib/pkgconfig"; then
    refuse "the files above name directories of the machine they were built on"
fi

# run PROGRAM: as a native program or in the emulator, with the installed library.
run() {
    local output
    output=$(LD_LIBRARY_PATH="${prefix}/lib" "${emulator[@]}" "$1") || refuse "$1 failed: ${output}"
    [[ ${output} == "one, two, three" ]] || refuse "$1 printed: ${output}"
}

# By find_package.
options=(-DCMAKE_PREFIX_PATH="${prefix}" -DCMAKE_CXX_COMPILER="${compiler}")
if [[ -n ${toolchain} ]]; then
    options=(-DKalvoren_DIR="${prefix}/lib/cmake/Kalvoren" -DCMAKE_TOOLCHAIN_FILE="${toolchain}")
fi
if ! { cmake -S "${source}/tests/project/consumer" -B "${scratch}/consumer" -G Ninja "${options[@]}" &&
    cmake --build "${scratch}/consumer"; } >"${scratch}/log" 2>&1; then
    cat "${scratch}/log"
    refuse "a program that uses find_package does not build"
fi
run "${scratch}/consumer/consumer"

# By pkg-config.
command -v pkg-config >/dev/null || refuse "pkg-config is not installed"
pkg() {
    PKG_CONFIG_LIBDIR="${prefix}/lib/pkgconfig" pkg-config "$@" kalvoren
}
[[ $(pkg --modversion) == "${version}" ]] || refuse "pkg-config reports version $(pkg --modversion)"
read -r -a flags <<<"$(pkg --cflags --libs)"
"${compiler}" -std=c++11 "${source}/tests/project/consumer/consumer.cpp" "${flags[@]}" -o "${scratch}/by-pkg-config" ||
    refuse "a program that uses pkg-config does not build"
run "${scratch}/by-pkg-config"

# gdb finds the printers beside the library, and loads them from a directory that is safe.
[[ -s ${prefix}/lib/${name}-gdb.py ]] || refuse "gdb's printers are not installed"
debugger=gdb
[[ -z ${toolchain} ]] || debugger=gdb-multiarch
if command -v "${debugger}" >/dev/null; then
    "${debugger}" -nx -batch -iex "set auto-load safe-path ${prefix}/lib" "${prefix}/lib/${name}" -ex "info pretty-printer" \
        >"${scratch}/log" 2>&1
    grep -q '^ *kalvoren' "${scratch}/log" || { cat "${scratch}/log"; refuse "gdb does not load the printers"; }
fi

# The tools find the library beside them.
if [[ -x ${build}/tools/kplist ]]; then
    "${emulator[@]}" "${prefix}/bin/kplist" --version >/dev/null || refuse "the installed kplist does not run"
    [[ -s ${prefix}/share/man/man1/kplist.1 ]] || refuse "the manual page of kplist is not installed"
fi
