// Commands run through the device's shell, and the test for text that may stand in one.
#include "common/area.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace nm {

bool plain_name(const char *s) {
    constexpr size_t kMax = 63;
    size_t n = strnlen(s, kMax + 1);
    if (n == 0 || n > kMax || s[0] == '-')
        return false;
    return strspn(s, "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-_") == n;
}

int run_cmd(size_t cap, const char *fmt, ...) {
    char cmd[1024];
    if (cap > sizeof cmd)
        cap = sizeof cmd;
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(cmd, cap, fmt, ap);
    va_end(ap);
    return system(cmd);
}

} // namespace nm
