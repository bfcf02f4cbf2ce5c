// Fuzzes the settings store's format directives through qmt_conf_scanf and qmt_conf_printf.
//
// Input: byte 0 selects the call (bit 0 set: printf, clear: scanf) and the domain (bit 1 set: the
// first field, else "network"); the rest is split at '\n' into fields: [domain], the format, then
// one field per argument the format consumes, in order. A field "\x01" stands for a null string.
//
// The calls are variadic, so each argument is built with the type its directive consumes, walking
// the format as the store's parser does (two characters a directive, stopping at the first pair
// that is none): a string for %k, %K and a written %s; an int for %i, %l and a written %d; an int*
// for a read %d and %z; a char buffer of exactly the preceding %l capacity for a read %s; nothing
// for %r. At most kMaxArgs arguments are built (the format is cut after them), followed by a few
// pointers to a zeroed pad, so that a parser going further finds readable memory. Buffers are heap
// blocks of their exact size: AddressSanitizer reports a write past a capacity.
//
// Properties: a read string is terminated within its capacity; a read list count is not
// negative; a successful write reads back equal through the same path; a successful delete leaves
// nothing to read.
#include "fuzz_common.h"
#include "qmt_conf.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr size_t kMaxArgs = 8;
constexpr int kMaxCapacity = 65536;
alignas(16) char pad_area[4096];

struct arg {
    char letter;
    bool is_int;
    int value; // an int's value, or a read buffer's size
    void *ptr;
};

struct call {
    bool write;
    const char *domain;
    std::string format;
    std::vector<arg> args; // one a directive
    std::vector<std::unique_ptr<char[]>> blocks;
    char *alloc(size_t n) { return blocks.emplace_back(new char[n]()).get(); }
};

template <class... A> int invoke(const call &c, A... a) {
    void *p = pad_area;
    return c.write ? qmt_conf_printf(c.domain, c.format.c_str(), a..., p, p, p, p)
                   : qmt_conf_scanf(c.domain, c.format.c_str(), a..., p, p, p, p);
}

// Passes c.args[i..] as the variadic arguments, each with its own type.
template <class... A> int run(const call &c, size_t i = 0, A... acc) {
    if constexpr (sizeof...(A) >= kMaxArgs) {
        return invoke(c, acc...);
    } else {
        if (i == c.args.size())
            return invoke(c, acc...);
        const arg &a = c.args[i];
        if (a.letter == 'r')
            return run(c, i + 1, acc...);
        return a.is_int ? run(c, i + 1, acc..., a.value) : run(c, i + 1, acc..., a.ptr);
    }
}

void build(call &c, const std::vector<std::string> &fields, size_t next) {
    auto text = [&]() -> char * {
        const char *s = next < fields.size() ? fields[next++].c_str() : "";
        return strcmp(s, "\x01") == 0 ? nullptr : const_cast<char *>(s);
    };
    auto number = [&](int otherwise) {
        if (next >= fields.size())
            return otherwise;
        long long v = strtoll(fields[next++].c_str(), nullptr, 0);
        return static_cast<int>(std::clamp<long long>(v, INT_MIN, INT_MAX));
    };
    int capacity = 1;
    size_t pos = 0, used = 0;
    for (; pos + 1 < c.format.size() && c.format[pos] == '%'; pos += 2) {
        const char l = c.format[pos + 1];
        if (strchr("kKilsdzr", l) == nullptr || (l != 'r' && used == kMaxArgs))
            break;
        arg a{l, false, 0, nullptr};
        if (l == 'k' || l == 'K' || (l == 's' && c.write))
            a.ptr = text();
        else if (l == 'i' || l == 'l' || (l == 'd' && c.write))
            a = {l, true, l == 'l' ? std::min(number(1), kMaxCapacity) : number(0), nullptr};
        else if (l == 's')
            a = {l, false, std::max(capacity, 1),
                 c.alloc(static_cast<size_t>(std::max(capacity, 1)))};
        else if (l != 'r')
            a.ptr = c.alloc(sizeof(int));
        if (l == 'l')
            capacity = a.value;
        used += l != 'r';
        c.args.push_back(a);
    }
    // Past the last argument built, only characters that consume nothing may follow.
    if (used == kMaxArgs && pos + 1 < c.format.size() && c.format[pos] == '%')
        c.format.resize(pos);
}

// After a successful write of a value or a delete, reads the same path back.
void check_written(const call &w) {
    const arg &last = w.args.back();
    if (strchr("sdr", last.letter) == nullptr)
        return;
    call r{false, w.domain, "", {w.args.begin(), w.args.end() - 1}, {}};
    for (const arg &a : r.args)
        r.format += std::string("%") + a.letter;
    size_t n = last.letter == 's' ? strlen(static_cast<char *>(last.ptr)) + 1 : sizeof(int);
    if (last.letter == 's')
        r.args.push_back({'l', true, static_cast<int>(n), nullptr});
    r.format += last.letter == 's' ? "%l%s" : "%d";
    r.args.push_back({last.letter == 's' ? 's' : 'd', false, 0, r.alloc(n)});
    if (n > kMaxCapacity || std::count_if(r.args.begin(), r.args.end(), [](const arg &a) {
                                return a.letter != 'r';
                            }) > static_cast<long>(kMaxArgs))
        return;
    int got = run(r);
    const void *out = r.args.back().ptr;
    if (last.letter == 'r' ? got != QMT_CONF_ENOENT
                           : got < 0 || memcmp(out, last.letter == 's' ? last.ptr : &last.value, n))
        property_failed("%%%c written with \"%s\" does not read back", last.letter,
                        w.format.c_str());
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    static char dir[] = "/tmp/qmtnm-fuzz-conf.XXXXXX";
    static std::string path;
    const char *db = getenv("SYSCONF_DB");
    if (db == nullptr || *db == '\0') {
        if (mkdtemp(dir) == nullptr)
            abort();
        path = std::string(dir) + "/fuzz.db";
        setenv("SYSCONF_DB", path.c_str(), 1);
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1)
        return 0;
    std::vector<std::string> fields(1);
    for (size_t i = 1; i < size; ++i)
        if (data[i] == '\n')
            fields.emplace_back();
        else
            fields.back() += static_cast<char>(data[i]);
    size_t next = 0;
    call c{(data[0] & 1) != 0, "network", "", {}, {}};
    if (data[0] & 2)
        c.domain = next < fields.size() ? fields[next++].c_str() : "";
    if (c.domain != nullptr && strcmp(c.domain, "\x01") == 0)
        c.domain = nullptr;
    if (next >= fields.size())
        return 0;
    c.format = fields[next++].c_str(); // a C string: it ends at its first NUL
    build(c, fields, next);
    int r = run(c);
    if (r < 0 || c.args.empty())
        return 0;
    if (c.write)
        check_written(c);
    for (const arg &a : c.args) {
        int count = 0;
        if (!c.write && a.letter == 's' &&
            strnlen(static_cast<char *>(a.ptr), a.value) >= size_t(a.value))
            property_failed("a read string unterminated within %d bytes (\"%s\")", a.value,
                            c.format.c_str());
        if (!c.write && a.letter == 'z' && (memcpy(&count, a.ptr, sizeof count), count < 0))
            property_failed("a list count of %d (\"%s\")", count, c.format.c_str());
    }
    return 0;
}
