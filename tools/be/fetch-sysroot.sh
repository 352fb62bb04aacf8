#!/usr/bin/env bash
# Unpacks Debian's s390x OpenSSL (libssl3 + libssl-dev) and GoogleTest
# (libgtest-dev: static libraries built by the same g++ 12) into a
# build-local sysroot for the big-endian cross build.  The packages are only
# unpacked with dpkg -x, never installed, so the host's own packages are left
# alone.  Safe to run repeatedly: does nothing once the sysroot is complete.
#
#   tools/be/fetch-sysroot.sh [SYSROOT]      (default: build-be/sysroot)
set -euo pipefail

ARCH=s390x
TRIPLET=s390x-linux-gnu
SYSROOT=${1:-build-be/sysroot}
PACKAGES=(libssl3 libssl-dev libgtest-dev)
STAMP="$SYSROOT/.complete"

if [[ -f "$STAMP" && -f "$SYSROOT/usr/lib/$TRIPLET/libcrypto.so" \
      && -f "$SYSROOT/usr/include/$TRIPLET/openssl/opensslconf.h" \
      && -f "$SYSROOT/usr/lib/$TRIPLET/libgtest.a" ]]; then
    exit 0
fi

as_root() {
    if [[ $(id -u) -eq 0 ]]; then "$@"; else sudo "$@"; fi
}

# apt only downloads packages of architectures dpkg knows about.  Adding one
# installs nothing; it just makes the index for it available.
if ! dpkg --print-foreign-architectures | grep -qx "$ARCH"; then
    echo "fetch-sysroot: adding dpkg architecture $ARCH"
    as_root dpkg --add-architecture "$ARCH"
    as_root apt-get update
elif ! apt-cache show "libssl-dev:$ARCH" >/dev/null 2>&1; then
    as_root apt-get update
fi

mkdir -p "$SYSROOT"
SYSROOT=$(cd "$SYSROOT" && pwd)
DL="$SYSROOT/.debs"
rm -rf "$DL"
mkdir -p "$DL"

# apt-get download writes to the current directory.  As root, apt would hand
# the download to its _apt user, which usually cannot write into a build
# tree; download as root directly instead.
APT_OPTS=()
if [[ $(id -u) -eq 0 ]]; then APT_OPTS=(-o APT::Sandbox::User=root); fi
(cd "$DL" && apt-get "${APT_OPTS[@]}" download "${PACKAGES[@]/%/:$ARCH}")

for deb in "$DL"/*.deb; do
    echo "fetch-sysroot: unpacking $(basename "$deb")"
    dpkg -x "$deb" "$SYSROOT"
done

# libcrypto.so is a relative link to libcrypto.so.3: check that it resolves
# inside the sysroot, and that everything the build looks for is there.
test -e "$SYSROOT/usr/lib/$TRIPLET/libcrypto.so"
test -f "$SYSROOT/usr/include/$TRIPLET/openssl/opensslconf.h"
test -f "$SYSROOT/usr/lib/$TRIPLET/libgtest.a"
test -f "$SYSROOT/usr/lib/$TRIPLET/cmake/GTest/GTestConfig.cmake"

rm -rf "$DL"
touch "$STAMP"
echo "fetch-sysroot: OpenSSL and GoogleTest for $ARCH ready in $SYSROOT"
