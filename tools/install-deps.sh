#!/usr/bin/env bash
# The Debian 12 packages the build, the tests and the demo need, in one place
# (README, .ci/run and the Makefile all use this script).
#   tools/install-deps.sh          install every package below (root: apt-get)
#   tools/install-deps.sh --native install the packages of the native build only
#   tools/install-deps.sh --list   print the package names, one per line
#   tools/install-deps.sh --check  what `make` runs before configuring: when a
#                                  native build package is missing, install it
#                                  as root with apt-get, else say how to and fail
# One package per line, so that additions merge cleanly.
set -euo pipefail

# Native build, tests, demo, manual page and shell completion.
NATIVE=(
    build-essential
    g++
    cmake
    make
    pkg-config
    python3
    libssl-dev
    libgtest-dev
    googletest
    libbenchmark-dev
    libcli11-dev
    nlohmann-json3-dev
    help2man
    bash-completion
    diffutils
    strace
)

# Big-endian test leg (make test-be): s390x cross compiler and qemu.
BIG_ENDIAN=(
    g++-s390x-linux-gnu
    qemu-user
    ca-certificates
    dpkg-dev
    file
)

# 32-bit PowerPC test leg (make test-ppc): cross compiler and C library;
# qemu-user and dpkg-dev (apt-get source) as above, perl for OpenSSL's
# build, GoogleTest's sources from libgtest-dev.
PPC=(
    g++-powerpc-linux-gnu
    libc6-dev-powerpc-cross
    qemu-user
    dpkg-dev
    perl
)

# Fuzzing (make fuzz): clang with libFuzzer and the sanitizer runtimes.
FUZZ=(
    clang-14
    libclang-rt-14-dev
)

missing() {
    local p
    for p in "$@"; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || echo "$p"
    done
}

install() {
    local sudo=
    [ "$(id -u)" -eq 0 ] || sudo=sudo
    export DEBIAN_FRONTEND=noninteractive
    $sudo apt-get update
    $sudo apt-get install -y --no-install-recommends "$@"
}

case "${1:-}" in
    "") install "${NATIVE[@]}" "${BIG_ENDIAN[@]}" "${PPC[@]}" "${FUZZ[@]}" ;;
    --native) install "${NATIVE[@]}" ;;
    --list) printf '%s\n' "${NATIVE[@]}" "${BIG_ENDIAN[@]}" "${PPC[@]}" "${FUZZ[@]}" | awk '!seen[$0]++' ;;
    --check)
        # Only Debian-like systems can be checked; elsewhere CMake reports.
        command -v dpkg-query >/dev/null || exit 0
        mapfile -t absent < <(missing "${NATIVE[@]}")
        [ "${#absent[@]}" -eq 0 ] && exit 0
        if [ "$(id -u)" -eq 0 ] && command -v apt-get >/dev/null; then
            echo "Installing missing build dependencies: ${absent[*]}"
            install "${absent[@]}"
        else
            echo "Missing build dependencies: ${absent[*]}" >&2
            echo "Install them with:  sudo tools/install-deps.sh --native" >&2
            exit 1
        fi ;;
    *) echo "usage: $0 [--native|--list|--check]" >&2; exit 2 ;;
esac
