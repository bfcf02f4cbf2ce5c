// Records and text form of the hardware store: parsers (with ch_hex) and dumps. A parse prints the
// dump of what it built, so the printed text pins every field. Each text is parsed at the end of
// a readable page followed by an inaccessible one: a parser reading past the terminator faults.
#include "hconf_test_util.h"

#include <cstring>
#include <sys/mman.h>
#include <unistd.h>

using namespace std::string_literals;

namespace {

const char *at_page_end(const std::string &text) {
    static char *end = [] {
        const long page = sysconf(_SC_PAGESIZE);
        auto *m = static_cast<char *>(
            mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        if (m == MAP_FAILED || mprotect(m + page, page, PROT_NONE) != 0)
            abort();
        return m + page;
    }();
    return static_cast<char *>(memcpy(end - text.size() - 1, text.c_str(), text.size() + 1));
}

const std::string H = "qmt_hconf_header: ERROR: ", E = "qmt_hconf_entry: ERROR: bad entry type: ",
                  bad = "ch_hex: ERROR: bad char: ";

// The dump of a header (kind h or H) or an entry record, and what the dump returned.
std::string dump(char kind, const void *rec, int &n) {
    return stdout_of([&] {
        n = tolower(kind) == 'h'
                ? qmt_hconf_header_dump(static_cast<const qmt_hconf_header_rec *>(rec))
                : qmt_hconf_entry_dump(static_cast<const qmt_hconf_entry_rec *>(rec));
    });
}

TEST(HconfText, ParsesAndDumps) {
    struct {
        char kind; // h/e: header/entry text parsed; H/E: record bytes dumped
        std::string in, out;
    } const rows[] = {
        {'h', "0x68636f6e:64:65536", "header: 0x68636f6e num 64 len 65536\n"},
        {'h', "0x68636f6e:65:0", H + "too much entry: 65\n"},
        {'h', "0x68636f6e:-1:0", H + "too much entry: -1\n"},
        {'h', "0x68636f6e:1:65537", H + "too long: 65537\n"},
        // Any one character separates; numbers in base 0, as strtol reads them.
        {'h', "0x68636f6e#2x100", "header: 0x68636f6e num 2 len 100\n"},
        {'h', "1751347054:0x40:0200000", "header: 0x68636f6e num 64 len 65536\n"},
        {'h', "  0X68636F6E:+3:\t7", "header: 0x68636f6e num 3 len 7\n"},
        {'h', "0x68636f6e", "header: 0x68636f6e num 0 len 0\n"},
        {'h', "0x68636f6e:1:0x", "header: 0x68636f6e num 1 len 0\n"},
        {'h', "0x68636f6f:0:0", H + "bad magic: 0x68636f6f\n"},
        {'h', "-0x68636f6e:0:0", H + "bad magic: 0x979c9092\n"},
        // The device's long is 32 bits: larger numbers saturate.
        {'h', "0x168636f6e:0:0", H + "bad magic: 0x7fffffff\n"},
        {'h', "0x68636f6e:-4294967296:0", H + "too much entry: -2147483648\n"},
        {'e', "0x01000002:0:4:c0a80101", "entry: 0x1000002 type 0 len 4: c0 a8 01 01 \n"},
        {'e', "0x10:1:5:hello", "entry: 0x10 type 1 len 5: hello\n"},
        {'e', "0x10:2:1:00", E + "2\n"},
        {'e', "0x1:0:11:0123456789ABCDEFabcdef",
         "entry: 0x1 type 0 len 11: 01 23 45 67 89 ab cd ef ab cd ef \n"},
        {'e', "0x1:0:4:/:@G`gg1",
         bad + "/\n" + bad + ":\n" + bad + "@\n" + bad + "G\n" + bad + "`\n" + bad + "g\n" + bad +
             "g\n" + "entry: 0x1 type 0 len 4: 00 00 00 01 \n"},
        // Type and len keep their low 16 bits; the id is an unsigned 32-bit number.
        {'e', "0x1:65536:1:7f", "entry: 0x1 type 0 len 1: 7f \n"},
        {'e', "0x1:1:65538:xyz", "entry: 0x1 type 1 len 2: xy\n"},
        {'e', "0x100000000:0:0:", "entry: 0xffffffff type 0 len 0: \n"},
        {'e', "-16:0:0:", "entry: 0xfffffff0 type 0 len 0: \n"},
        // Data shorter than len: read up to the terminator, the rest is zero.
        {'e', "0x1:0:4:c0a8", "entry: 0x1 type 0 len 4: c0 a8 00 00 \n"},
        {'e', "0x1:0:2:abc", "entry: 0x1 type 0 len 2: ab c0 \n"},
        {'e', "0x1:", "entry: 0x1 type 0 len 0: \n"},
        {'e', "", "entry: 0x0 type 0 len 0: \n"},
        {'e', "0x1:1:4:hi", "entry: 0x1 type 1 len 4: hi\0\0\n"s},
        {'e', "0x1:1:65535:", "entry: 0x1 type 1 len 65535: " + std::string(65535, '\0') + "\n"},
        // A line read from a file keeps its newline, which is data like any other character.
        {'e', "0x1:0:2:0a\n", bad + "\n\nentry: 0x1 type 0 len 2: 0a 00 \n"},
        // Records in the device's byte order, read at any alignment; fields of a header signed.
        {'H', "\xff\xff\xff\xff\xff\xff\xff\xff\0\0\0\x80"s,
         "header: 0xffffffff num -1 len -2147483648\n"},
        {'E', "\4\3\2\1\0\0\3\0\0\x7f\xff"s, "entry: 0x1020304 type 0 len 3: 00 7f ff \n"},
        {'E', "\x10\0\0\0\1\0\4\0a\tb\xe9"s, "entry: 0x10 type 1 len 4: a\tb\xe9\n"},
        {'E', " \0\0\0\7\0\2\0ok"s, "entry: 0x20 type 7 len 2: ok\n"}, // any type but 0 is text
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(testing::PrintToString(r.in));
        int n = 0;
        if (isupper(r.kind)) {
            alignas(8) char buf[32] = {};
            EXPECT_EQ(dump(r.kind, memcpy(buf + 3, r.in.data(), r.in.size()), n), r.out);
            EXPECT_EQ(n, r.kind == 'H' ? static_cast<int>(r.out.size()) : '\n');
            continue;
        }
        const char *text = at_page_end(r.in);
        void *rec = nullptr;
        EXPECT_EQ(stdout_of([&] {
                      rec = r.kind == 'h' ? static_cast<void *>(qmt_hconf_header(text))
                                          : static_cast<void *>(qmt_hconf_entry(text));
                  }),
                  r.out);
        // Refused exactly when the parser says so; a parse prints the dump of its result last.
        EXPECT_EQ(rec == nullptr, r.out.find("qmt_hconf_") != std::string::npos);
        const std::string last = rec ? dump(r.kind, rec, n) : "";
        EXPECT_EQ(r.out.substr(r.out.size() - std::min(last.size(), r.out.size())), last);
        free(rec);
    }
}

} // namespace
