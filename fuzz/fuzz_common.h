// Shared by the fuzz targets.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

// Reports a property the input broke and stops the run (libFuzzer keeps the input).
[[noreturn]] __attribute__((format(printf, 1, 2))) inline void property_failed(const char *fmt,
                                                                               ...) {
    va_list ap;
    va_start(ap, fmt);
    fputs("property failed: ", stderr);
    vfprintf(stderr, fmt, ap);
    fputc('\n', stderr);
    abort();
}

// The parsers and the hardware store's client print as they go.
inline void quiet_stdout() {
    if (freopen("/dev/null", "w", stdout) == nullptr)
        abort();
}
