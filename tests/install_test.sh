#!/bin/bash
# Installs the build into a scratch prefix, then builds a C consumer of it twice: through
# find_package(qmtnm) and through pkg-config.
set -euo pipefail
src=$1 build=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" >/dev/null
for f in include/qmtnm.h include/qmt_conf.h lib/pkgconfig/qmtnm.pc lib/cmake/qmtnm/qmtnmConfig.cmake \
         lib/libqmtnm.so.1 lib/libsysconf.so.1 bin/qmtnm bin/sysconf share/qmtnm/defaults.conf \
         share/bash-completion/completions/qmtnm; do
    [ -e "$work/prefix/$f" ] || { echo "not installed: $f"; exit 1; }
done
cmake -S "$src/tests/install" -B "$work/consumer" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/consumer" >/dev/null
PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig" gcc -std=c99 -Wall -Wextra -Werror \
    $(PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig" pkg-config --cflags qmtnm) \
    "$src/tests/install/consumer.c" -o "$work/consumer-pc" \
    $(PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig" pkg-config --libs qmtnm)
for exe in "$work/consumer/consumer" "$work/consumer-pc"; do
    out=$(LD_LIBRARY_PATH="$work/prefix/lib" "$exe")
    [ "$out" = "qos_lcl 11" ] || { echo "$exe printed '$out'"; exit 1; }
done
echo "install: find_package and pkg-config consumers built and ran"
