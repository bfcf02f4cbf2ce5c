// Commands run through the device's shell.
#include "common/area.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace nm {

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
