# Cross build for the device: 32-bit little-endian MIPS Linux, with Debian's mipsel-linux-gnu
# toolchain. The target's SQLite and GoogleTest come from the sysroot that
# scripts/deps.d/mips-sysroot.sh unpacks (QMTNM_MIPS_SYSROOT, default /opt/qmtnm-mipsel-sysroot);
# the C and C++ runtime from the toolchain's own /usr/mipsel-linux-gnu. Test binaries run under
# qemu-mipsel with the sysroot as their root (ctest uses CMAKE_CROSSCOMPILING_EMULATOR).
#
#   cmake -S . -B build-mips -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-mipsel.cmake
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mipsel)
set(CMAKE_LIBRARY_ARCHITECTURE mipsel-linux-gnu)

set(QMTNM_MIPS_TRIPLET mipsel-linux-gnu)
if(NOT QMTNM_MIPS_SYSROOT)
  if(DEFINED ENV{QMTNM_MIPS_SYSROOT} AND NOT "$ENV{QMTNM_MIPS_SYSROOT}" STREQUAL "")
    set(QMTNM_MIPS_SYSROOT "$ENV{QMTNM_MIPS_SYSROOT}")
  else()
    set(QMTNM_MIPS_SYSROOT /opt/qmtnm-mipsel-sysroot)
  endif()
endif()
set(QMTNM_MIPS_SYSROOT "${QMTNM_MIPS_SYSROOT}" CACHE PATH "Target libraries for the mipsel build")
# try_compile projects read this file again; hand them the same sysroot.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES QMTNM_MIPS_SYSROOT)

set(CMAKE_C_COMPILER ${QMTNM_MIPS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${QMTNM_MIPS_TRIPLET}-g++)

# Libraries, headers and CMake packages of the target only; programs of the host.
set(CMAKE_FIND_ROOT_PATH ${QMTNM_MIPS_SYSROOT} /usr/${QMTNM_MIPS_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config (SQLite) reads the target's .pc files and prefixes their paths with the sysroot.
set(ENV{PKG_CONFIG_LIBDIR}
    "${QMTNM_MIPS_SYSROOT}/usr/lib/${QMTNM_MIPS_TRIPLET}/pkgconfig:${QMTNM_MIPS_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${QMTNM_MIPS_SYSROOT}")
set(ENV{PKG_CONFIG_PATH} "")

find_program(QMTNM_QEMU_MIPSEL qemu-mipsel)
if(QMTNM_QEMU_MIPSEL)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${QMTNM_QEMU_MIPSEL} -L ${QMTNM_MIPS_SYSROOT})
endif()
