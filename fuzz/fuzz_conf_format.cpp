// Fuzzes the settings store's directives through qmt_conf_scanf and qmt_conf_printf. Byte 0
// selects the call (bit 0: printf, else scanf) and the domain (bit 1: the first field, else
// "network"); the rest splits at '\n' into fields: [domain], the format, one for each caller's
// value ("\x01": a null string). Each argument has its directive's type; a read's buffer has the
// exact size it is given. Checked: a read text ends within its buffer, a count is not negative, a
// write reads back, a deleted path is empty; at most kMaxArgs, then pointers to a pad.
#include "fuzz_common.h"
#include "qmt_conf.h"

#include <variant>

namespace {

constexpr size_t kMaxArgs = 8;
alignas(16) char pad[4096];

// A call, its format walked as the store's parser does: k K i l, then the value's directive.
struct call {
    bool write;
    const char *domain;
    std::string format;
    std::vector<std::variant<int, void *>> args = {};
    char action = 0;  // the value's directive: s d z r
    int capacity = 1; // a read text's buffer size: the last %l's, at least 1
    std::vector<std::unique_ptr<char[]>> blocks = {};
    void *alloc(int n) { return blocks.emplace_back(new char[static_cast<size_t>(n)]()).get(); }
};

// Calls with c.args[i..] as the variadic arguments, each of its own type.
template <class... A> int run(const call &c, size_t i = 0, A... a) {
    if constexpr (sizeof...(A) < kMaxArgs)
        if (i < c.args.size())
            return std::visit([&](auto v) { return run(c, i + 1, a..., v); }, c.args[i]);
    void *p = pad;
    auto *f = c.write ? qmt_conf_printf : qmt_conf_scanf;
    return f(c.domain, c.format.c_str(), a..., p, p, p, p);
}

void build(call &c, const std::vector<std::string> &fields, size_t next) {
    size_t pos = 0;
    for (; !c.action && pos + 1 < c.format.size() && c.format[pos] == '%'; pos += 2) {
        const char l = c.format[pos + 1];
        if (strchr("kKilsdzr", l) == nullptr || (l != 'r' && c.args.size() == kMaxArgs))
            break;
        const bool takes = strchr("kKil", l) || (c.write && strchr("sd", l)); // a caller's value
        const char *f = takes && next < fields.size() ? fields[next++].c_str() : nullptr;
        const auto n =
            static_cast<int>(std::clamp(f ? strtoll(f, nullptr, 0) : l == 'l', -(1LL << 31),
                                        l == 'l' ? 65536 : (1LL << 31) - 1));
        c.action = strchr("sdzr", l) ? l : 0;
        c.capacity = l == 'l' ? std::max(1, n) : c.capacity;
        if (strchr("il", l) || (c.write && l == 'd'))
            c.args.push_back(n);
        else if (takes)
            c.args.push_back(const_cast<char *>(!f ? "" : strcmp(f, "\x01") ? f : nullptr));
        else if (l != 'r')
            c.args.push_back(c.alloc(l == 's' ? c.capacity : sizeof(int)));
    }
    if (!c.action && c.args.size() == kMaxArgs && pos + 1 < c.format.size() && c.format[pos] == '%')
        c.format.resize(pos); // past the last argument, only directives that consume none
}

// After a successful write of a value or a delete, reads the same path back.
void check_written(const call &w) {
    const bool str = w.action == 's';
    const char *text = str ? static_cast<char *>(std::get<void *>(w.args.back())) : "";
    const int n = str ? static_cast<int>(strlen(text) + 1) : sizeof(int);
    call r{false, w.domain, "", {w.args.begin(), w.args.end() - (w.action != 'r')}};
    r.format = w.format.substr(0, 2 * r.args.size()) + (str ? "%l%s" : "%d");
    if (str)
        r.args.push_back(n);
    r.args.push_back(r.alloc(n));
    if (n > 65536 || r.args.size() > kMaxArgs)
        return;
    const int got = run(r);
    const auto *out = static_cast<char *>(std::get<void *>(r.args.back()));
    if (w.action == 'r'
            ? got != QMT_CONF_ENOENT
            : got < 0 || (str ? strcmp(out, text) != 0
                              : memcmp(out, &std::get<int>(w.args.back()), sizeof(int)) != 0))
        property_failed("%%%c written by \"%s\" does not read back", w.action, w.format.c_str());
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    setenv("SYSCONF_DB", "/tmp/qmtnm-fuzz-conf.db", 0); // unless the caller names one
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::vector<std::string> fields(1);
    for (size_t i = 1; i < size; ++i)
        data[i] == '\n' ? fields.emplace_back() : fields.back() += static_cast<char>(data[i]);
    const size_t next = size > 0 && (data[0] & 2) ? 1 : 0;
    if (size == 0 || next >= fields.size())
        return 0;
    const char *domain = !next ? "network" : fields[0] == "\x01" ? nullptr : fields[0].c_str();
    call c{(data[0] & 1) != 0, domain, fields[next].c_str()};
    build(c, fields, next + 1); // the format is a C string: it ends at its first NUL
    if (run(c) < 0 || !c.action)
        return 0;
    if (c.write) // a value (s d) or a delete (r): the parser takes nothing else
        return check_written(c), 0;
    const auto *out = static_cast<char *>(std::get<void *>(c.args.back())); // a read: s, d or z
    if (c.action == 's' &&
        strnlen(out, static_cast<size_t>(c.capacity)) == static_cast<size_t>(c.capacity))
        property_failed("a read text unterminated in %d bytes (\"%s\")", c.capacity,
                        c.format.c_str());
    if (int count = 0; c.action == 'z' && (memcpy(&count, out, sizeof count), count < 0))
        property_failed("a read count of %d (\"%s\")", count, c.format.c_str());
    return 0;
}
