// Shared by the fuzz targets: a broken property stops the run (libFuzzer keeps the input).
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>
#include <string>
#include <vector>

#define property_failed(...)                                                                       \
    (fputs("property failed: ", stderr), fprintf(stderr, __VA_ARGS__), fputc('\n', stderr), abort())
#define quiet_stdout() (freopen("/dev/null", "w", stdout) ? (void)0 : abort())
