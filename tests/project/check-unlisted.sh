#!/usr/bin/env bash
# check-unlisted.sh SOURCE-DIRECTORY [CMAKE-OPTION...]
#
# A file that is not listed ends the configure step, and a build that was configured before notices a new one.
set -euo pipefail

source=$1
shift
options=("$@")
scratch=$(mktemp -d)
trap 'rm -rf "${scratch}"' EXIT

cd "${source}"
mkdir "${scratch}/source"
cp -R CMakeLists.txt LICENSE README.md CHANGELOG.md cmake docs inc packaging src tests fuzz tools examples bench \
    "${scratch}/source"

configure() {
    cmake -S "${scratch}/source" -B "${scratch}/build" -G Ninja -DKALVOREN_BUILD_TESTS=ON -DKALVOREN_BUILD_TOOLS=ON \
        -DKALVOREN_BUILD_EXAMPLES=ON -DKALVOREN_BUILD_BENCHMARKS=ON "${options[@]}" >"${scratch}/log" 2>&1
}

refuse() {
    echo "$*"
    cat "${scratch}/log"
    exit 1
}

# expect_refusal FILE COMMAND...: the command fails and says which file is not listed.
expect_refusal() {
    local file=$1
    shift
    if "$@"; then
        refuse "${file} went unnoticed"
    fi
    if ! grep -q "must be listed" "${scratch}/log" || ! grep -qF "$(basename "${file}")" "${scratch}/log"; then
        refuse "${file} is not named as the reason"
    fi
}

build() {
    cmake --build "${scratch}/build" >"${scratch}/log" 2>&1
}

configure || refuse "the project does not configure without a forgotten file"

forgotten=(src/KForgotten.cpp src/Forgotten.h src/api/KForgotten.cpp inc/KForgotten.h tests/KForgottenTest.cpp
    tests/torture/forgotten.cpp fuzz/KForgottenFuzz.cpp tools/kplist/forgotten.cpp examples/forgotten.cpp)
if grep -q '^benchmark_DIR:PATH=/' "${scratch}/build/CMakeCache.txt"; then
    forgotten+=(bench/KForgottenBench.cpp)
fi
for file in "${forgotten[@]}"; do
    touch "${scratch}/source/${file}"
    expect_refusal "${file}" configure
    rm "${scratch}/source/${file}"
done

configure || refuse "the project does not configure after the forgotten files went"
touch "${scratch}/source/tests/KForgottenTest.cpp"
expect_refusal tests/KForgottenTest.cpp build
