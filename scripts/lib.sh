# shellcheck shell=bash
# What the scripts share. To be read by a script, not started.

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
JOBS=${KALVOREN_JOBS:-$(nproc)}
# What any build of the library needs.
BUILD_PACKAGES=(cmake ninja-build g++)
# What the example camera's plug-in needs; without it the camera is built all the same.
CAMERA_PACKAGES=(libturbojpeg0-dev)
# What looks at the camera's page, and at texts in it.
BROWSER_PACKAGES=(chromium fonts-dejavu-core)
export ROOT JOBS BUILD_PACKAGES CAMERA_PACKAGES BROWSER_PACKAGES

die() {
    echo "$(basename "$0"): $*" >&2
    exit 1
}

headline() {
    printf '\n=== %s ===\n' "$*"
}

is_installed() {
    [[ $(dpkg-query --show --showformat='${db:Status-Status}' "$1" 2>/dev/null) == installed ]]
}

as_root() {
    if [[ $(id -u) -eq 0 ]]; then
        "$@"
    elif command -v sudo >/dev/null; then
        sudo "$@"
    else
        die "to install packages, run this as root or install sudo"
    fi
}

# Installs the Debian packages that are missing. Touches neither the network nor the system when none is.
require_packages() {
    local package missing=()
    if ! command -v dpkg-query >/dev/null; then
        echo "This is not a Debian system; going on with the tools that are there." >&2
        return
    fi
    for package in "$@"; do
        if ! is_installed "${package}" && [[ " ${missing[*]} " != *" ${package} "* ]]; then
            missing+=("${package}")
        fi
    done
    if [[ ${#missing[@]} -eq 0 ]]; then
        return
    fi
    echo "Installing the Debian packages that are missing: ${missing[*]}"
    as_root apt-get update -qq || die "the package lists could not be fetched"
    as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null ||
        die "these packages could not be installed: ${missing[*]}"
}

preset_names() {
    # The names of the build presets, in their order in the file.
    sed -n '/"buildPresets"/,/\]/s/.*"name": "\([a-z-]*\)".*/\1/p' "${ROOT}/CMakePresets.json" | paste -s -d ' '
}

is_preset() {
    [[ " $(preset_names) " == *" $1 "* ]]
}

# The version, from the header that tells it to programs.
library_version() {
    sed -n 's/^#define KALVOREN_VERSION "\([0-9.]*\)"$/\1/p' "${ROOT}/inc/KTypes.h" | grep .
}

# packages_of PRESET: what it needs to be built and tested, in Debian packages.
packages_of() {
    # What looks at the built library, at its packages and at the documentation.
    local inspection="abigail-tools lintian dpkg-dev file python3 pkg-config"
    # From the sources in locales a test makes the locales that it needs.
    echo "${BUILD_PACKAGES[*]} googletest locales"
    case $1 in
        dev | release | clang)
            echo "libbenchmark-dev clang clang-format ${inspection} gdb doxygen valgrind ${CAMERA_PACKAGES[*]} ${BROWSER_PACKAGES[*]}"
            ;;
        mutate) echo "clang clang-format ${inspection} gdb doxygen valgrind" ;;
        asan | tsan) echo "${CAMERA_PACKAGES[*]}" ;;
        ubsan) echo "clang ${CAMERA_PACKAGES[*]}" ;;
        coverage) echo "gcovr ${CAMERA_PACKAGES[*]}" ;;
        fuzz) echo "clang" ;;
        arm | arm-release) echo "g++-arm-linux-gnueabihf qemu-user ${inspection} gdb-multiarch" ;;
    esac
}

# Prints what a program with sanitizers is started by: those of GCC 12 and Clang 14 need the address-space layout of kernels
# with at most 28 random bits. Where there are more, or only root may know, its addresses are not random at all.
sanitized_start() {
    local bits
    bits=$(cat /proc/sys/vm/mmap_rnd_bits 2>/dev/null) || bits=unknown
    if [[ ${bits} == unknown || ${bits} -gt 28 ]] && setarch -R true 2>/dev/null; then
        echo "setarch -R"
    fi
}

# Whether a debugger may trace a program here. Where there is none to ask, it is not the machine that forbids it.
may_trace() {
    local said
    command -v gdb >/dev/null || return 0
    said=$(gdb -nx -q -batch -ex run --args true 2>&1) || true
    [[ ${said} != *"ptrace: Operation not permitted"* && ${said} != *"Could not trace the inferior"* ]]
}

# configure_preset PRESET [CMAKE-OPTION...]
configure_preset() {
    (cd "${ROOT}" && cmake --preset "$@" --log-level=WARNING >/dev/null)
}

# Configures build/demo: what is shown, in a directory of its own, so that it needs nothing that only tests and benchmarks do.
configure_demo() {
    configure_preset release -B build/demo -DKALVOREN_BUILD_TESTS=OFF -DKALVOREN_BUILD_BENCHMARKS=OFF
}

# build_preset PRESET [TARGET...]
build_preset() {
    local preset=$1
    shift
    cmake --build "${ROOT}/build/${preset}" --parallel "${JOBS}" ${1:+--target "$@"}
}

# Makes a preset ready for its tests to be run.
prepare_preset() {
    local packages
    read -r -d '' -a packages < <(packages_of "$1"; printf '\0') || true
    require_packages "${packages[@]}"
    configure_preset "$1"
    build_preset "$1"
}
