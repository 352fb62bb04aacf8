# Cross build for s390x (64-bit, big-endian) with Debian's g++-s390x-linux-gnu.
#
# OpenSSL and GoogleTest come from a build-local sysroot holding Debian's
# s390x packages unpacked with dpkg -x (tools/be/fetch-sysroot.sh).  Pass its
# location as -DCM_BE_SYSROOT=<dir> (or in the environment); the default is
# <build dir>/sysroot.  Test programs, including gtest discovery, run under
# qemu-s390x from qemu-user.  Python and the catalogue generator stay the
# host's.
#
#   tools/be/fetch-sysroot.sh build-be/sysroot
#   cmake -S . -B build-be -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-s390x.cmake

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR s390x)

set(CM_BE_TRIPLET s390x-linux-gnu)
set(CMAKE_LIBRARY_ARCHITECTURE ${CM_BE_TRIPLET})
set(CMAKE_C_COMPILER ${CM_BE_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${CM_BE_TRIPLET}-g++)

if(NOT CM_BE_SYSROOT)
  if(DEFINED ENV{CM_BE_SYSROOT})
    set(CM_BE_SYSROOT $ENV{CM_BE_SYSROOT})
  else()
    set(CM_BE_SYSROOT ${CMAKE_BINARY_DIR}/sysroot)
  endif()
endif()
get_filename_component(CM_BE_SYSROOT "${CM_BE_SYSROOT}" ABSOLUTE)
set(CM_BE_SYSROOT "${CM_BE_SYSROOT}" CACHE PATH "Unpacked s390x packages (OpenSSL, GoogleTest)")
# try_compile projects read this file again in their own build directories.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES CM_BE_SYSROOT)

set(CM_BE_TARGET_ROOT /usr/${CM_BE_TRIPLET})   # the cross libc and libstdc++
set(CM_BE_SYSROOT_LIBDIR ${CM_BE_SYSROOT}/usr/lib/${CM_BE_TRIPLET})

# Target libraries and headers only from the cross root and the sysroot;
# programs (python3, qemu) from the host.
set(CMAKE_FIND_ROOT_PATH ${CM_BE_TARGET_ROOT} ${CM_BE_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(OPENSSL_ROOT_DIR ${CM_BE_SYSROOT}/usr)
set(GTest_DIR ${CM_BE_SYSROOT_LIBDIR}/cmake/GTest)
# Debian keeps OpenSSL's configuration headers in the multiarch directory,
# which the cross compiler does not search by itself.
set(CMAKE_C_STANDARD_INCLUDE_DIRECTORIES ${CM_BE_SYSROOT}/usr/include/${CM_BE_TRIPLET})
set(CMAKE_CXX_STANDARD_INCLUDE_DIRECTORIES ${CM_BE_SYSROOT}/usr/include/${CM_BE_TRIPLET})
# Lets the linker resolve libcrypto.so.3 when it is only an indirect
# dependency (through libconfigmanager.so).
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-rpath-link,${CM_BE_SYSROOT_LIBDIR}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-Wl,-rpath-link,${CM_BE_SYSROOT_LIBDIR}")

# -L: the guest's dynamic loader and libc come from the cross root.
# -E: OpenSSL from the sysroot.
find_program(CM_BE_QEMU qemu-s390x REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR
    ${CM_BE_QEMU} -L ${CM_BE_TARGET_ROOT} -E LD_LIBRARY_PATH=${CM_BE_SYSROOT_LIBDIR})
