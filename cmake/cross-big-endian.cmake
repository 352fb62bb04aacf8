# What the big-endian cross builds share; included by cmake/toolchain-*.cmake
# after they set CMAKE_SYSTEM_PROCESSOR, CM_BE_TRIPLET (the Debian cross
# compiler's prefix) and CM_BE_QEMU_NAME (the qemu-user emulator).
#
# OpenSSL and GoogleTest come from a sysroot laid out like Debian's
# (usr/include, usr/lib/<triplet>).  Pass its location as
# -DCM_BE_SYSROOT=<dir> (or in the environment); the default is
# <build dir>/sysroot.  Test programs, including gtest discovery, run under
# qemu-user.  Python and the catalogue generator stay the host's.

set(CMAKE_SYSTEM_NAME Linux)
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
set(CM_BE_SYSROOT "${CM_BE_SYSROOT}" CACHE PATH "Target OpenSSL and GoogleTest")
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
# -rpath-link lets the linker resolve a shared libcrypto when it is only an
# indirect dependency (through libconfigmanager.so); --exclude-libs keeps a
# static one from being exported again by the shared library.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-rpath-link,${CM_BE_SYSROOT_LIBDIR}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-Wl,-rpath-link,${CM_BE_SYSROOT_LIBDIR} -Wl,--exclude-libs,ALL")

# -L: the guest's dynamic loader and libc come from the cross root.
# -E: a shared OpenSSL from the sysroot.
find_program(CM_BE_QEMU ${CM_BE_QEMU_NAME} REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR
    ${CM_BE_QEMU} -L ${CM_BE_TARGET_ROOT} -E LD_LIBRARY_PATH=${CM_BE_SYSROOT_LIBDIR})
