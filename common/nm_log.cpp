#include "common/nm_log.h"

#include "qmtnm.h"

#include <cstdarg>
#include <cstdio>
#include <syslog.h>

int32_t nm_log_level = 1;

namespace nm {

void log(int32_t gate, const char *func, const char *fmt, ...) {
    if (nm_log_level < gate)
        return;
    char line[512];
    int n = snprintf(line, sizeof line, "%-20s--> ", func);
    if (n < 0 || static_cast<size_t>(n) >= sizeof line)
        n = 0;
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(line + n, sizeof line - static_cast<size_t>(n), fmt, ap);
    va_end(ap);
    syslog(LOG_ERR, "%s", line);
}

} // namespace nm
