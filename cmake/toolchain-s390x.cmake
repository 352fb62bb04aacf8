# Cross build for s390x (64-bit, big-endian) with Debian's g++-s390x-linux-gnu.
# OpenSSL and GoogleTest are Debian's s390x packages, unpacked with dpkg -x
# into the sysroot by tools/be/fetch-sysroot.sh.
#
#   tools/be/fetch-sysroot.sh build-be/sysroot
#   cmake -S . -B build-be -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-s390x.cmake

set(CMAKE_SYSTEM_PROCESSOR s390x)
set(CM_BE_TRIPLET s390x-linux-gnu)
set(CM_BE_QEMU_NAME qemu-s390x)
include(${CMAKE_CURRENT_LIST_DIR}/cross-big-endian.cmake)
