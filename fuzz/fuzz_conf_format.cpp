// Fuzzes the settings store's format directives through qmt_conf_scanf and qmt_conf_printf.
//
// Input: byte 0 selects the call (bit 0 set: printf, clear: scanf) and the domain (bit 1 set:
// the first field, else "network"); the rest is split at '\n' into fields: [domain], the
// format, then one field per argument the format consumes, in order. A field "\x01" stands
// for a null string.
//
// The calls are variadic, so the arguments must have the types the directives consume. The
// harness walks the format the way the store's own parser does (two characters a directive)
// and builds each argument with its directive's type: a string for %k and %K, an int for %i,
// %l and a written %d, an int* for a read %d and %z, a char buffer of exactly the preceding %l
// capacity for a read %s, a string for a written %s, nothing for %r. The walk stops at the first
// character pair that is not a known directive: the parser stops there too, consuming nothing
// more. At most kMaxArgs arguments are built (the format is cut after them), and a few pointers
// to a zeroed buffer follow them, so that even a parser that went further would find readable
// memory rather than garbage. Buffers are heap blocks of their exact size, so AddressSanitizer
// reports any write past a capacity.
//
// Properties checked besides the sanitizers: a read string is terminated within its capacity;
// a successful write reads back equal through the same path; a successful delete leaves
// nothing to read.
#include "qmt_conf.h"

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

constexpr size_t kMaxArgs = 8;
constexpr int kMaxCapacity = 65536;

alignas(16) char pad_area[4096];

[[noreturn]] void property_failed(const char *what, const std::string &format) {
    fprintf(stderr, "property failed: %s (format \"%s\")\n", what, format.c_str());
    abort();
}

struct argument {
    bool is_int = false;
    int value = 0;
    void *ptr = nullptr;
};

template <class... A> int invoke(bool write, const char *domain, const char *format, A... a) {
    void *pad = pad_area;
    if (write)
        return qmt_conf_printf(domain, format, a..., pad, pad, pad, pad);
    return qmt_conf_scanf(domain, format, a..., pad, pad, pad, pad);
}

// Passes args[0..n) as a call's variadic arguments, each with its own type.
template <class... A>
int dispatch(bool write, const char *domain, const char *format, const argument *args, size_t n,
             A... acc) {
    if constexpr (sizeof...(A) >= kMaxArgs) {
        return invoke(write, domain, format, acc...);
    } else {
        if (n == 0)
            return invoke(write, domain, format, acc...);
        if (args->is_int)
            return dispatch(write, domain, format, args + 1, n - 1, acc..., args->value);
        return dispatch(write, domain, format, args + 1, n - 1, acc..., args->ptr);
    }
}

int to_int(const std::string &s) {
    long long v = strtoll(s.c_str(), nullptr, 0);
    if (v > INT_MAX)
        return INT_MAX;
    if (v < INT_MIN)
        return INT_MIN;
    return static_cast<int>(v);
}

// Owns the heap blocks handed to one call.
struct arena {
    std::vector<std::unique_ptr<char[]>> blocks;
    char *alloc(size_t n) {
        blocks.emplace_back(new char[n]());
        return blocks.back().get();
    }
};

struct directive {
    char letter;
    size_t arg;      // index of its argument, when it has one
    int capacity;    // %s reads: the buffer's size
    const char *str; // %s writes, %k: the string passed
};

struct built_call {
    std::string format; // possibly cut after kMaxArgs arguments
    std::vector<argument> args;
    std::vector<directive> directives;
};

const char *field_string(const std::vector<std::string> &fields, size_t &next) {
    if (next >= fields.size())
        return "";
    const std::string &f = fields[next++];
    return f == "\x01" ? nullptr : f.c_str();
}

built_call build(bool write, const std::string &format, const std::vector<std::string> &fields,
                 size_t next, arena &mem) {
    built_call c;
    int last_capacity = -1;
    size_t pos = 0;
    for (; pos + 1 < format.size() && format[pos] == '%'; pos += 2) {
        char letter = format[pos + 1];
        bool consumes = letter == 'k' || letter == 'K' || letter == 'i' || letter == 'l' ||
                        letter == 's' || letter == 'd' || letter == 'z';
        if (!consumes && letter != 'r')
            break;
        if (consumes && c.args.size() == kMaxArgs)
            break;
        directive d{letter, c.args.size(), 0, nullptr};
        argument a;
        switch (letter) {
        case 'k':
        case 'K':
            d.str = field_string(fields, next);
            a.ptr = const_cast<char *>(d.str);
            break;
        case 'i':
            a.is_int = true;
            a.value = next < fields.size() ? to_int(fields[next++]) : 0;
            break;
        case 'l':
            a.is_int = true;
            a.value = next < fields.size() ? to_int(fields[next++]) : 1;
            if (a.value > kMaxCapacity)
                a.value = kMaxCapacity;
            last_capacity = a.value;
            break;
        case 's':
            if (write) {
                d.str = field_string(fields, next);
                a.ptr = const_cast<char *>(d.str);
            } else {
                d.capacity = last_capacity >= 1 ? last_capacity : 1;
                a.ptr = mem.alloc(static_cast<size_t>(d.capacity));
            }
            break;
        case 'd':
            if (write) {
                a.is_int = true;
                a.value = next < fields.size() ? to_int(fields[next++]) : 0;
            } else {
                a.ptr = mem.alloc(sizeof(int));
            }
            break;
        case 'z':
            a.ptr = mem.alloc(sizeof(int));
            break;
        default: // 'r'
            break;
        }
        c.directives.push_back(d);
        if (letter != 'r')
            c.args.push_back(a);
    }
    // Past the last argument built, only characters that consume nothing may follow.
    bool cut = pos + 1 < format.size() && format[pos] == '%' && c.args.size() == kMaxArgs;
    c.format = cut ? format.substr(0, pos) : format;
    return c;
}

int run(bool write, const char *domain, const built_call &c) {
    return dispatch(write, domain, c.format.c_str(), c.args.data(), c.args.size());
}

// After a successful write of a value or a delete, reads the same path back.
void check_written(const char *domain, const built_call &c) {
    const directive &last = c.directives.back();
    built_call rd;
    for (size_t i = 0; i + 1 < c.directives.size(); ++i) {
        rd.format += '%';
        rd.format += c.directives[i].letter;
        rd.args.push_back(c.args[c.directives[i].arg]);
    }
    arena mem;
    argument out;
    if (last.letter == 's') {
        size_t len = strlen(last.str);
        if (len + 1 > static_cast<size_t>(kMaxCapacity))
            return;
        argument cap;
        cap.is_int = true;
        cap.value = static_cast<int>(len + 1);
        rd.args.push_back(cap);
        rd.format += "%l%s";
        out.ptr = mem.alloc(len + 1);
        rd.args.push_back(out);
        if (rd.args.size() > kMaxArgs)
            return;
        int r = run(false, domain, rd);
        if (r < 0 || strcmp(static_cast<char *>(out.ptr), last.str) != 0)
            property_failed("written string reads back", c.format);
    } else if (last.letter == 'd') {
        rd.format += "%d";
        out.ptr = mem.alloc(sizeof(int));
        rd.args.push_back(out);
        if (rd.args.size() > kMaxArgs)
            return;
        int r = run(false, domain, rd);
        int got;
        memcpy(&got, out.ptr, sizeof got);
        if (r < 0 || got != c.args[last.arg].value)
            property_failed("written int reads back", c.format);
    } else if (last.letter == 'r') {
        rd.format += "%d";
        out.ptr = mem.alloc(sizeof(int));
        rd.args.push_back(out);
        if (rd.args.size() > kMaxArgs)
            return;
        if (run(false, domain, rd) != QMT_CONF_ENOENT)
            property_failed("deleted value is gone", c.format);
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    const char *db = getenv("SYSCONF_DB");
    if (db == nullptr || *db == '\0') {
        static char dir[] = "/tmp/qmtnm-fuzz-conf.XXXXXX";
        if (mkdtemp(dir) == nullptr)
            abort();
        static std::string path = std::string(dir) + "/fuzz.db";
        setenv("SYSCONF_DB", path.c_str(), 1);
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1)
        return 0;
    bool write = (data[0] & 1) != 0;
    bool own_domain = (data[0] & 2) != 0;
    std::vector<std::string> fields(1);
    for (size_t i = 1; i < size; ++i) {
        if (data[i] == '\n')
            fields.emplace_back();
        else
            fields.back() += static_cast<char>(data[i]);
    }
    size_t next = 0;
    const char *domain = "network";
    if (own_domain)
        domain = field_string(fields, next);
    if (next >= fields.size())
        return 0;
    // The format is a C string: it ends at its first NUL.
    std::string format = fields[next++].c_str();
    arena mem;
    built_call c = build(write, format, fields, next, mem);
    int r = run(write, domain, c);

    if (r >= 0 && !write) {
        for (const directive &d : c.directives) {
            if (d.letter == 's' && d.capacity > 0 &&
                strnlen(static_cast<char *>(c.args[d.arg].ptr), static_cast<size_t>(d.capacity)) >=
                    static_cast<size_t>(d.capacity))
                property_failed("read string terminated within its capacity", c.format);
            if (d.letter == 'z') {
                int count;
                memcpy(&count, c.args[d.arg].ptr, sizeof count);
                if (count < 0)
                    property_failed("list count not negative", c.format);
            }
        }
    }
    if (r >= 0 && write && !c.directives.empty())
        check_written(domain, c);
    return 0;
}
