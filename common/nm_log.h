// Logging of the library: every line goes to syslog at LOG_ERR as "%-20s--> " + text, gated by
// nm_log_level (errors at 0 or more, information at 1 or more, traces at 2 or more, the chattiest
// notes at 3 or more).
#pragma once

#include <cstdint>

namespace nm {

enum log_gate : int32_t {
    LOG_GATE_ERR = 0,
    LOG_GATE_INFO = 1,
    LOG_GATE_TRACE = 2,
    LOG_GATE_DEBUG = 3
};

// Logs fmt (the text after the "%-20s--> " prefix) under the function name func.
void log(int32_t gate, const char *func, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));

} // namespace nm

// The logging function's own name is the first field of every line.
#define NM_ERR(...) ::nm::log(::nm::LOG_GATE_ERR, __func__, __VA_ARGS__)
#define NM_INFO(...) ::nm::log(::nm::LOG_GATE_INFO, __func__, __VA_ARGS__)
#define NM_TRACE(...) ::nm::log(::nm::LOG_GATE_TRACE, __func__, __VA_ARGS__)
#define NM_DEBUG(...) ::nm::log(::nm::LOG_GATE_DEBUG, __func__, __VA_ARGS__)
