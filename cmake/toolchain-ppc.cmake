# Cross build for 32-bit big-endian PowerPC, the gateway's own processor,
# with Debian's g++-powerpc-linux-gnu.  Debian ships no powerpc OpenSSL or
# GoogleTest to unpack, so tools/be/build-ppc-sysroot.sh builds a static
# libcrypto and GoogleTest from their Debian sources into a cached sysroot.
# time_t and off_t keep the 32-bit widths of the platform's default ABI, as
# on the device.
#
#   tools/be/build-ppc-sysroot.sh build-ppc/sysroot
#   cmake -S . -B build-ppc -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-ppc.cmake

set(CMAKE_SYSTEM_PROCESSOR powerpc)
set(CM_BE_TRIPLET powerpc-linux-gnu)
set(CM_BE_QEMU_NAME qemu-ppc)
include(${CMAKE_CURRENT_LIST_DIR}/cross-big-endian.cmake)

# The static libcrypto does 64-bit atomic operations, which 32-bit PowerPC
# gets from libatomic.
set(CMAKE_C_STANDARD_LIBRARIES "-latomic")
set(CMAKE_CXX_STANDARD_LIBRARIES "-latomic")
