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

# The emulator, through a small wrapper in the build tree. A test may preload a target library
# into its program and the children it starts (LD_PRELOAD): the wrapper hands LD_PRELOAD to the
# emulated program only (qemu's -E), never to the host's loader of qemu itself, which would
# print a "wrong ELF class" complaint into the program's output. The wrapper is linked
# statically so that no host loader sees LD_PRELOAD on the way in either (children that a test
# starts through the wrapper carry the variable).
find_program(QMTNM_QEMU_MIPSEL qemu-mipsel)
find_program(QMTNM_HOST_CC NAMES cc gcc)
if(QMTNM_QEMU_MIPSEL AND QMTNM_HOST_CC)
  set(QMTNM_QEMU_RUN ${CMAKE_BINARY_DIR}/qemu-mipsel-run)
  set(QMTNM_QEMU_RUN_SRC [=[
/* Runs a mipsel program under qemu-mipsel with the target sysroot; LD_PRELOAD goes to the
 * emulated program only. Written by cmake/toolchain-mipsel.cmake. */
#define _POSIX_C_SOURCE 200809L
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

int main(int argc, char **argv) {
    char **args = calloc((size_t)argc + 6, sizeof *args);
    const char *preload = getenv("LD_PRELOAD");
    int n = 0;
    if (args == NULL)
        return 127;
    args[n++] = (char *)"@QMTNM_QEMU_MIPSEL@";
    args[n++] = (char *)"-L";
    args[n++] = (char *)"@QMTNM_MIPS_SYSROOT@";
    if (preload != NULL && preload[0] != 0) {
        size_t len = strlen(preload) + sizeof "LD_PRELOAD=";
        char *opt = malloc(len);
        if (opt == NULL)
            return 127;
        snprintf(opt, len, "LD_PRELOAD=%s", preload);
        args[n++] = (char *)"-E";
        args[n++] = opt;
        unsetenv("LD_PRELOAD");
    }
    for (int i = 1; i < argc; ++i)
        args[n++] = argv[i];
    args[n] = NULL;
    execv(args[0], args);
    perror(args[0]);
    return 127;
}
]=])
  file(CONFIGURE OUTPUT ${QMTNM_QEMU_RUN}.c CONTENT "${QMTNM_QEMU_RUN_SRC}" @ONLY)
  if(NOT EXISTS ${QMTNM_QEMU_RUN} OR ${QMTNM_QEMU_RUN}.c IS_NEWER_THAN ${QMTNM_QEMU_RUN})
    execute_process(
      COMMAND ${QMTNM_HOST_CC} -std=c99 -O2 -Wall -Wextra -Werror -static
              -o ${QMTNM_QEMU_RUN} ${QMTNM_QEMU_RUN}.c
      RESULT_VARIABLE rc ERROR_VARIABLE err)
    if(NOT rc EQUAL 0)
      message(FATAL_ERROR "cannot build the emulator wrapper ${QMTNM_QEMU_RUN}: ${err}")
    endif()
  endif()
  set(CMAKE_CROSSCOMPILING_EMULATOR ${QMTNM_QEMU_RUN})
endif()
