#!/usr/bin/env bash
# check-package.sh SOURCE-DIRECTORY ARCHITECTURE COMPILER READELF [TOOLCHAIN-FILE [EMULATOR...]]
#
# Makes the Debian packages of an architecture (amd64, armhf), has lintian look at them, installs them into a root of their
# own, and builds and runs a small program against what is there, once by find_package and once by pkg-config.
set -euo pipefail
# shellcheck source=scripts/lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/../../scripts/lib.sh"

source=$1
architecture=$2
compiler=$3
readelf=$4
toolchain=${5:-}
emulator=("${@:6}")
scratch=$(mktemp -d)
trap 'rm -rf "${scratch}"' EXIT
version=$(library_version)

refuse() {
    echo "$*"
    exit 1
}
for tool in lintian dpkg-parsechangelog python3; do
    command -v "${tool}" >/dev/null || { echo "${tool} is not installed"; exit 77; }
done

"${source}/scripts/package" "${architecture}" >"${scratch}/log" 2>&1 || { cat "${scratch}/log"; refuse "no packages"; }
packages=("${source}"/build/packages/*_"${architecture}".deb)
[[ ${#packages[@]} -eq 3 ]] || refuse "there should be three packages, not ${packages[*]}"

# dpkg itself where it may give files to root, with its database in the root of their own; else just the files.
root=${scratch}/root
mkdir -p "${root}/var/lib/dpkg"
if [[ $(id -u) -eq 0 ]]; then
    dpkg --root="${root}" --force-depends --force-architecture --force-script-chrootless --install "${packages[@]}" \
        >"${scratch}/log" 2>&1 || { cat "${scratch}/log"; refuse "the packages do not install"; }
    for name in libkalvoren1 libkalvoren-dev kalvoren-tools; do
        grep -q ' installed' <(dpkg --root="${root}" --status "${name}:${architecture}") || refuse "${name} is not installed"
    done
else
    for package in "${packages[@]}"; do
        dpkg -x "${package}" "${root}"
    done
fi

case ${architecture} in
    amd64) triplet=x86_64-linux-gnu protection=strong ;;
    armhf) triplet=arm-linux-gnueabihf protection=plain ;;
esac
libraries=${root}/usr/lib/${triplet}
library=${libraries}/libkalvoren-sharedd.so.${version}

# Each package explains itself, and the library says to dpkg what programs that use it need.
for name in libkalvoren1 libkalvoren-dev kalvoren-tools; do
    for file in copyright changelog.Debian.gz; do
        [[ -s ${root}/usr/share/doc/${name}/${file} ]] || refuse "${name} has no ${file}"
    done
done
[[ -s ${root}/usr/share/man/man1/kplist.1.gz ]] || refuse "the manual page of kplist is not there"
[[ -s ${root}/usr/share/gdb/auto-load/usr/lib/${triplet}/libkalvoren-sharedd.so.${version}-gdb.py ]] ||
    refuse "gdb would not find the printers"
dpkg-deb --control "${source}"/build/packages/libkalvoren1_*_"${architecture}".deb "${scratch}/control"
grep -qxF "libkalvoren-sharedd 1 libkalvoren1 (>= ${version})" "${scratch}/control/shlibs" || refuse "the shlibs file is wrong"
grep -qx 'activate-noawait ldconfig' "${scratch}/control/triggers" || refuse "the loader's cache would not be renewed"

# Nothing that the library needs of libc is newer than what the package asks for.
asked=$(sed -n 's/^Depends:.*libc6 (>= \([0-9.]*\)).*/\1/p' "${scratch}/control/control")
used=$("${readelf}" --version-info --wide "${libraries}/libkalvoren-sharedd.so.1" | grep -oE 'GLIBC_[0-9.]+' |
    sed 's/GLIBC_//' | sort -V | tail -n 1)
[[ $(printf '%s\n' "${asked}" "${used}" | sort -V | tail -n 1) == "${asked}" ]] ||
    refuse "the library needs glibc ${used}, the package asks for ${asked}"

# What is shipped is what was promised of the library, and as hard to misuse.
nm=${readelf%readelf}nm
"${source}/tests/project/check-library.sh" "${library}" "${readelf}" "${nm}" ||
    refuse "the library is not as promised"
"${source}/tests/project/check-flags.py" "${source}" "${source}/build/package/${architecture}" "${protection}" \
    "${library}" "${readelf}" || refuse "what is shipped is not compiled as hard to misuse"
"${source}/tests/project/check-hardening.sh" "${readelf}" "${nm}" "${root}/usr/bin/kplist" || refuse "kplist is not hardened"

# The bill of materials names the library's files with their sums, and what the library needs.
python3 - "${root}/usr/share/doc/libkalvoren1/kalvoren.spdx.json" "${source}" <<'END' || refuse "the bill of materials is wrong"
import hashlib, json, pathlib, sys

bill = json.load(open(sys.argv[1]))
source = pathlib.Path(sys.argv[2])
assert bill["spdxVersion"] == "SPDX-2.3"
assert {package["name"] for package in bill["packages"]} == {"kalvoren", "glibc", "libstdc++", "libgcc"}
names = set()
for entry in bill["files"]:
    names.add(entry["fileName"][2:])
    content = (source / entry["fileName"]).read_bytes()
    sums = {sum["algorithm"]: sum["checksumValue"] for sum in entry["checksums"]}
    assert sums["SHA1"] == hashlib.sha1(content).hexdigest(), entry["fileName"]
    assert sums["SHA256"] == hashlib.sha256(content).hexdigest(), entry["fileName"]
expected = [*source.glob("inc/*.h"), *source.glob("src/**/*.h"), *source.glob("src/**/*.cpp")]
missing = {str(path.relative_to(source)) for path in expected} - names
assert not missing, missing
identifiers = {entry["SPDXID"] for entry in bill["files"] + bill["packages"]} | {bill["SPDXID"]}
for relation in bill["relationships"]:
    assert {relation["spdxElementId"], relation["relatedSpdxElement"]} <= identifiers, relation
END

# gdb loads the printers by itself with the library of that path. Here the path begins with the root of their own.
debugger=gdb
[[ -z ${toolchain} ]] || debugger=gdb-multiarch
if command -v "${debugger}" >/dev/null; then
    mkdir -p "${scratch}/auto-load$(dirname "${root}")"
    ln -s "${root}/usr/share/gdb/auto-load" "${scratch}/auto-load${root}"
    "${debugger}" -nx -batch -iex "set auto-load scripts-directory ${scratch}/auto-load" -iex "set auto-load safe-path /" \
        "${library}" -ex "info pretty-printer" >"${scratch}/log" 2>&1
    grep -q '^ *kalvoren' "${scratch}/log" || { cat "${scratch}/log"; refuse "gdb does not load the printers by itself"; }
fi

# run PROGRAM: with the library of the packages, natively or in the emulator.
run() {
    local output
    output=$(LD_LIBRARY_PATH="${libraries}" "${emulator[@]}" "$@") || refuse "$1 failed: ${output}"
    echo "${output}"
}

options=(-DCMAKE_PREFIX_PATH="${root}/usr" -DCMAKE_CXX_COMPILER="${compiler}" -DCMAKE_LIBRARY_ARCHITECTURE="${triplet}")
if [[ -n ${toolchain} ]]; then
    options=(-DKalvoren_DIR="${libraries}/cmake/Kalvoren" -DCMAKE_TOOLCHAIN_FILE="${toolchain}")
fi
if ! { cmake -S "${source}/tests/project/consumer" -B "${scratch}/consumer" -G Ninja "${options[@]}" &&
    cmake --build "${scratch}/consumer"; } >"${scratch}/log" 2>&1; then
    cat "${scratch}/log"
    refuse "a program that uses find_package does not build"
fi
grep -q "^Kalvoren_DIR:[A-Z]*=${libraries}/" "${scratch}/consumer/CMakeCache.txt" || refuse "another Kalvoren was found"
[[ $(run "${scratch}/consumer/consumer") == "one, two, three" ]] || refuse "the program prints something else"

read -r -a flags < <(PKG_CONFIG_LIBDIR="${libraries}/pkgconfig" PKG_CONFIG_SYSTEM_INCLUDE_PATH='' \
    PKG_CONFIG_SYSTEM_LIBRARY_PATH='' pkg-config --cflags --libs kalvoren)
"${compiler}" -std=c++11 "${source}/tests/project/consumer/consumer.cpp" "${flags[@]}" -o "${scratch}/by-pkg-config" ||
    refuse "a program that uses pkg-config does not build"
[[ $(run "${scratch}/by-pkg-config") == "one, two, three" ]] || refuse "the program by pkg-config prints something else"

[[ $(run "${root}/usr/bin/kplist" --version) == *" ${version}" ]] || refuse "kplist does not run"
