// Records and text form of the hardware store: the parsers (with ch_hex) and the dumps. A parse
// prints the dump of what it built, so the printed text pins every field. Each text is parsed at
// the end of a readable page followed by an inaccessible one: a read past the terminator faults.
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

TEST(HconfText, ParseAndDump) {
    const std::string H = "qmt_hconf_header: ERROR: ", bad = "ch_hex: ERROR: bad char: ";
    const struct {
        bool header;
        std::string in, out;
    } rows[] = {
        {true, "0x68636f6e:64:65536", "header: 0x68636f6e num 64 len 65536\n"},
        {true, "0x68636f6e:65:0", H + "too much entry: 65\n"},
        {true, "0x68636f6e:-1:0", H + "too much entry: -1\n"},
        {true, "0x68636f6e:1:65537", H + "too long: 65537\n"},
        // Any one character separates numbers of base 0, as strtol reads them, of 32 bits.
        {true, "  1751347054#0X40 +0200000", "header: 0x68636f6e num 64 len 65536\n"},
        {true, "0x68636f6e:0x", "header: 0x68636f6e num 0 len 0\n"},
        {true, "-0x68636f6e:0:0", H + "bad magic: 0x979c9092\n"},
        {true, "0x168636f6e:0:0", H + "bad magic: 0x7fffffff\n"},
        {true, "0x68636f6e:-4294967296:0", H + "too much entry: -2147483648\n"},
        {false, "0x01000002:0:4:c0a80101", "entry: 0x1000002 type 0 len 4: c0 a8 01 01 \n"},
        {false, "0x10:1:5:hello", "entry: 0x10 type 1 len 5: hello\n"},
        {false, "0x10:2:1:00", "qmt_hconf_entry: ERROR: bad entry type: 2\n"},
        {false, "0x1:0:11:0123456789ABCDEFabcdef",
         "entry: 0x1 type 0 len 11: 01 23 45 67 89 ab cd ef ab cd ef \n"},
        {false, "0x1:0:4:/:@G`gg1",
         bad + "/\n" + bad + ":\n" + bad + "@\n" + bad + "G\n" + bad + "`\n" + bad + "g\n" + bad +
             "g\nentry: 0x1 type 0 len 4: 00 00 00 01 \n"},
        // Type and len keep their low 16 bits; the id is unsigned.
        {false, "0x1:65536:1:7f", "entry: 0x1 type 0 len 1: 7f \n"},
        {false, "0x1:1:65538:xyz", "entry: 0x1 type 1 len 2: xy\n"},
        {false, "0x100000000:0:0:", "entry: 0xffffffff type 0 len 0: \n"},
        {false, "-16:0:0:", "entry: 0xfffffff0 type 0 len 0: \n"},
        // Data shorter than len: read up to the terminator, the rest is zero.
        {false, "0x1:0:4:c0a", "entry: 0x1 type 0 len 4: c0 a0 00 00 \n"},
        {false, "0x1:", "entry: 0x1 type 0 len 0: \n"},
        {false, "0x1:1:4:hi", "entry: 0x1 type 1 len 4: hi\0\0\n"s},
        {false, "0x1:1:65535:", "entry: 0x1 type 1 len 65535: " + std::string(65535, '\0') + "\n"},
        // A line read from a file keeps its newline, which is data like any other character.
        {false, "0x1:0:2:0a\n", bad + "\n\nentry: 0x1 type 0 len 2: 0a 00 \n"},
    };
    for (const auto &r : rows) {
        const char *text = at_page_end(r.in);
        void *rec = nullptr;
        EXPECT_EQ(stdout_of([&] {
                      rec = r.header ? static_cast<void *>(qmt_hconf_header(text))
                                     : static_cast<void *>(qmt_hconf_entry(text));
                  }),
                  r.out)
            << r.in;
        // Refused exactly when the parser says so; the dump of the result is the last printed.
        EXPECT_EQ(rec == nullptr, r.out.find("qmt_hconf_") != std::string::npos) << r.in;
        const std::string dump = stdout_of([&] {
            rec &&r.header ? qmt_hconf_header_dump(static_cast<qmt_hconf_header_rec *>(rec))
            : rec          ? qmt_hconf_entry_dump(static_cast<qmt_hconf_entry_rec *>(rec))
                           : 0;
        });
        EXPECT_EQ(r.out.substr(r.out.size() - std::min(dump.size(), r.out.size())), dump) << r.in;
        free(rec);
    }
}

} // namespace
