#!/bin/bash
# The unit and namespace tests once more, built with AddressSanitizer and
# UndefinedBehaviorSanitizer: a read of memory that is gone or out of bounds fails the run even
# where the plain build happens to read the right bytes.
set -euo pipefail
top=$(cd "$(dirname "$0")/../.." && pwd)
cd "$top"
build=build-asan
flags="-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer"
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DQMTNM_BUILD_TESTS=ON \
    -DCMAKE_C_FLAGS="$flags" -DCMAKE_CXX_FLAGS="$flags" \
    -DCMAKE_EXE_LINKER_FLAGS="-fsanitize=address,undefined" \
    -DCMAKE_SHARED_LINKER_FLAGS="-fsanitize=address,undefined" >/dev/null
cmake --build "$build" -j"$(nproc)" >/dev/null
# The hardware-store driver stand-in is preloaded by some tests, ahead of the sanitizer's runtime.
export ASAN_OPTIONS=verify_asan_link_order=0:detect_leaks=1
export UBSAN_OPTIONS=print_stacktrace=1
cd "$build"
ctest --output-on-failure -j2 --timeout 300 -E '^(sim_|install$|format$)'
