// Commands run through the device's shell, the tests and encodings that keep caller text in its
// place there and in generated files, and the activate step that asks for a reboot.
#include "common/area.h"
#include "common/nm_log.h"

#include <cctype>
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

bool host_name(const char *s) {
    constexpr size_t kMaxLabel = 63;
    size_t n = strlen(s);
    if (n == 0 || n > 253)
        return false;
    const char *label = s;
    for (const char *p = s;; ++p) {
        if (*p != '.' && *p != '\0') {
            if (!isalnum(static_cast<unsigned char>(*p)) && *p != '-')
                return false;
            continue;
        }
        size_t len = static_cast<size_t>(p - label);
        if (len == 0 || len > kMaxLabel || label[0] == '-' || p[-1] == '-')
            return false;
        if (*p == '\0')
            return true;
        label = p + 1;
    }
}

bool hex_groups(const char *s, size_t count, char sep) {
    for (size_t i = 0; i < count; ++i) {
        if (i > 0 && *s++ != sep)
            return false;
        size_t digits = 0;
        while (digits < 3 && isxdigit(static_cast<unsigned char>(s[digits])))
            ++digits;
        if (digits == 0 || digits > 2)
            return false;
        s += digits;
    }
    return *s == '\0';
}

bool has_control(const char *s) {
    for (; *s; ++s)
        if (iscntrl(static_cast<unsigned char>(*s)))
            return true;
    return false;
}

bool text_ok(text_rule rule, const char *s) {
    if (*s == '\0')
        return true;
    switch (rule) {
    case text_rule::any:
        return true;
    case text_rule::no_control:
        return !has_control(s);
    case text_rule::host_name:
        return host_name(s);
    case text_rule::host_word:
        return !has_control(s) && strpbrk(s, " #") == nullptr && s[0] != '-';
    case text_rule::digits:
        return strspn(s, "0123456789") == strlen(s);
    }
    return false;
}

bool url_encode(const char *s, char *out, size_t cap) {
    static const char hex[] = "0123456789ABCDEF";
    size_t n = 0;
    for (; *s; ++s) {
        unsigned char c = static_cast<unsigned char>(*s);
        bool plain = isalnum(c) || strchr("-._~", c) != nullptr;
        size_t need = plain ? 1 : 3;
        if (n + need >= cap) {
            out[n] = '\0';
            return false;
        }
        if (plain) {
            out[n++] = static_cast<char>(c);
        } else {
            out[n++] = '%';
            out[n++] = hex[c >> 4];
            out[n++] = hex[c & 0xF];
        }
    }
    out[n] = '\0';
    return true;
}

bool all_hex(const char *s) {
    return *s != '\0' && strspn(s, "0123456789abcdefABCDEF") == strlen(s);
}

namespace {
// Copies s into out, each character c as subst(c) (null: c itself). False if cut at cap.
template <class Subst> bool escape(const char *s, char *out, size_t cap, Subst subst) {
    size_t n = 0;
    for (; *s; ++s) {
        const char *with = subst(*s);
        size_t need = with ? strlen(with) : 1;
        if (n + need >= cap) {
            out[n] = '\0';
            return false;
        }
        if (with) {
            memcpy(out + n, with, need);
            n += need;
        } else {
            out[n++] = *s;
        }
    }
    out[n] = '\0';
    return true;
}
} // namespace

bool pppd_escape(const char *s, char *out, size_t cap) {
    return escape(s, out, cap, [](char c) -> const char * {
        return c == '"' ? "\\\"" : c == '\\' ? "\\\\" : nullptr;
    });
}

bool shell_squote(const char *s, char *out, size_t cap) {
    return escape(s, out, cap,
                  [](char c) -> const char * { return c == '\'' ? "'\\''" : nullptr; });
}

int32_t request_reboot(const char *func, uint32_t *activate, const char *line) {
    if (*activate == 0)
        return 0;
    *activate = 0;
    log(LOG_GATE_INFO, func, "%s", line);
    return 0;
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
