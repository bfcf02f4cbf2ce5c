// Shared by the hardware-store parser fuzzers.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace hconf_fuzz {

// The parsers print every record they build: keep standard output quiet.
inline void silence_stdout() {
    if (freopen("/dev/null", "w", stdout) == nullptr)
        abort();
}

// The input as a text in a heap block of exactly its length plus the terminator, so that any
// read past the terminator is an AddressSanitizer report.
inline char *exact_text(const uint8_t *data, size_t size) {
    auto *text = static_cast<char *>(malloc(size + 1));
    if (text == nullptr)
        abort();
    if (size)
        memcpy(text, data, size);
    text[size] = '\0';
    return text;
}

[[noreturn]] inline void property_failed(const char *what) {
    fprintf(stderr, "property failed: %s\n", what);
    abort();
}

} // namespace hconf_fuzz
