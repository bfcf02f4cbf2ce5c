// Records and text form of the hardware store: the header and entry parsers (with ch_hex) and
// the two dumps, with every message they print to standard output. A successful parse prints
// the dump of the record it built, so the printed text pins every field of the result.
#include "hconf_test_util.h"

#include <cstring>
#include <sys/mman.h>

using hconftest::stdout_of;

namespace {

bool ends_with(const std::string &text, const std::string &tail) {
    return text.size() >= tail.size() &&
           text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

std::string repeat(const std::string &s, size_t n) {
    std::string out;
    while (n--)
        out += s;
    return out;
}

TEST(HeaderParse, ResultAndMessages) {
    const std::string e = "qmt_hconf_header: ERROR: ";
    struct {
        const char *text;
        std::string out; // everything printed: the dump of the result, or the refusal
    } const rows[] = {
        {"0x68636f6e:64:65536", "header: 0x68636f6e num 64 len 65536\n"}, // largest accepted
        {"0x68636f6e:65:0", e + "too much entry: 65\n"},
        {"0x68636f6e:-1:0", e + "too much entry: -1\n"},
        {"0x68636f6e:1:65537", e + "too long: 65537\n"},
        {"0x68636f6e:0:-1", e + "too long: -1\n"},
        // The separator is any one character.
        {"0x68636f6e 2 100", "header: 0x68636f6e num 2 len 100\n"},
        {"0x68636f6e#2x100", "header: 0x68636f6e num 2 len 100\n"},
        // Decimal, hexadecimal and octal numbers, as a base-0 strtol reads them.
        {"1751347054:0x40:0200000", "header: 0x68636f6e num 64 len 65536\n"},
        {"0X68636F6E:010:0x0C", "header: 0x68636f6e num 8 len 12\n"},
        {"  0x68636f6e:+3:\t7", "header: 0x68636f6e num 3 len 7\n"},
        // Missing numbers count as 0; an empty field is one separator consumed.
        {"0x68636f6e", "header: 0x68636f6e num 0 len 0\n"},
        {"0x68636f6e::5", "header: 0x68636f6e num 0 len 5\n"},
        {"0x68636f6f:0:0", e + "bad magic: 0x68636f6f\n"},
        {"", e + "bad magic: 0x0\n"},
        {"-0x68636f6e:0:0", e + "bad magic: 0x979c9092\n"},
        // The device's long is 32 bits: larger numbers saturate.
        {"0x168636f6e:0:0", e + "bad magic: 0x7fffffff\n"},
        {"0x68636f6e:4294967296:0", e + "too much entry: 2147483647\n"},
        {"0x68636f6e:-4294967296:0", e + "too much entry: -2147483648\n"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.text);
        hconftest::header_ptr h;
        EXPECT_EQ(stdout_of([&] { h.reset(qmt_hconf_header(r.text)); }), r.out);
        EXPECT_EQ(h != nullptr, r.out.rfind("header: ", 0) == 0);
        if (h) {
            EXPECT_EQ(stdout_of([&] { qmt_hconf_header_dump(h.get()); }), r.out);
        }
    }
}

TEST(EntryParse, ResultAndMessages) {
    const std::string bad = "ch_hex: ERROR: bad char: ";
    struct {
        std::string text;
        std::string out; // everything printed, ending in the dump of the result
    } const rows[] = {
        {"0x01000002:0:4:c0a80101", "entry: 0x1000002 type 0 len 4: c0 a8 01 01 \n"},
        {"0x10:1:5:hello", "entry: 0x10 type 1 len 5: hello\n"},
        {"0x10:2:1:00", "qmt_hconf_entry: ERROR: bad entry type: 2\n"},
        {"0x10:65535:1:x", "qmt_hconf_entry: ERROR: bad entry type: 65535\n"},
        // Every hex digit in both cases; the characters next to their ranges are bad (0).
        {"0x1:0:11:0123456789ABCDEFabcdef",
         "entry: 0x1 type 0 len 11: 01 23 45 67 89 ab cd ef ab cd ef \n"},
        {"0x1:0:4:/:@G`gg1", bad + "/\n" + bad + ":\n" + bad + "@\n" + bad + "G\n" + bad + "`\n" +
                                 bad + "g\n" + bad + "g\n" +
                                 "entry: 0x1 type 0 len 4: 00 00 00 01 \n"},
        // Type 65536 keeps its low 16 bits: 0, binary. 65537 is text.
        {"0x1:65536:1:7f", "entry: 0x1 type 0 len 1: 7f \n"},
        {"0x1:65537:2:ok", "entry: 0x1 type 1 len 2: ok\n"},
        // Data shorter than len: read up to the terminator, the rest is zero.
        {"0x1:0:4:c0a8", "entry: 0x1 type 0 len 4: c0 a8 00 00 \n"},
        {"0x1:0:2:abc", "entry: 0x1 type 0 len 2: ab c0 \n"},
        {"0x1:0:2", "entry: 0x1 type 0 len 2: 00 00 \n"},
        {"0x1:1:4:hi", std::string("entry: 0x1 type 1 len 4: hi") + std::string(2, '\0') + "\n"},
        {"0x5:0:65535:0102", "entry: 0x5 type 0 len 65535: 01 02 " + repeat("00 ", 65533) + "\n"},
        // A line read from a file keeps its newline, which is data like any other character.
        {"0x1:0:2:0a\n", bad + "\n\nentry: 0x1 type 0 len 2: 0a 00 \n"},
        {"0x1:1:3:a\nb", "entry: 0x1 type 1 len 3: a\nb\n"},
        {"0x1:1:4:a:b c", "entry: 0x1 type 1 len 4: a:b \n"},
        // Zero length, empty text, fields in other bases and blank separators.
        {"0x1:0:0:", "entry: 0x1 type 0 len 0: \n"},
        {"", "entry: 0x0 type 0 len 0: \n"},
        {"16 1 02 ab", "entry: 0x10 type 1 len 2: ab\n"},
        {"020:0x0:0x1:ff", "entry: 0x10 type 0 len 1: ff \n"},
        // Unsigned 32-bit conventions for the id: saturation and wrap-around of a minus sign.
        {"0x100000000:0:0:", "entry: 0xffffffff type 0 len 0: \n"},
        {"-16:0:0:", "entry: 0xfffffff0 type 0 len 0: \n"},
        // len keeps its low 16 bits too.
        {"0x1:1:65538:xyz", "entry: 0x1 type 1 len 2: xy\n"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(testing::PrintToString(r.text.substr(0, 40)));
        hconftest::entry_ptr e;
        EXPECT_EQ(stdout_of([&] { e.reset(qmt_hconf_entry(r.text.c_str())); }), r.out);
        EXPECT_EQ(e == nullptr, r.out.find("bad entry type") != std::string::npos);
        if (e) {
            EXPECT_TRUE(ends_with(r.out, stdout_of([&] { qmt_hconf_entry_dump(e.get()); })));
        }
    }
}

// The text ends, its terminator included, at the last byte of a readable page that is followed
// by an inaccessible one: one byte read too far and the process faults.
const char *guarded(const std::string &text) {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void *m = mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (m == MAP_FAILED || mprotect(static_cast<char *>(m) + page, page, PROT_NONE) != 0)
        abort();
    char *at = static_cast<char *>(m) + page - (text.size() + 1);
    return static_cast<const char *>(memcpy(at, text.c_str(), text.size() + 1));
}

TEST(GuardedText, ParsersNeverReadPastTheText) {
    struct {
        bool header;
        const char *text;
    } const rows[] = {
        {false, "0x1:0:4:c0a8"},
        {false, "0x1:0:3:a"},
        {false, "0x1:0:65535:"},
        {false, "0x1:1:100:hi"},
        {false, "0x1:1:65535:"},
        {false, "0x1:0:9"},
        {false, "0x1:1:9:"},
        {false, "0x1:"},
        {false, "0x"},
        {false, ""},
        {false, "0x1:0:1:g"},
        {true, "0x68636f6e"},
        {true, "0x68636f6e:"},
        {true, "0x68636f6e:1"},
        {true, "0x68636f6e:1:0x"},
        {true, ""},
        {true, "0x"},
        {true, "-"},
    };
    for (const auto &r : rows) {
        // In a child: a read past the text faults there and fails this case alone.
        const bool parses = !r.header || strncmp(r.text, "0x68636f6e", 10) == 0;
        EXPECT_EXIT(
            {
                const char *t = guarded(r.text);
                if (freopen("/dev/null", "w", stdout) == nullptr)
                    exit(3);
                void *parsed = r.header ? static_cast<void *>(qmt_hconf_header(t))
                                        : static_cast<void *>(qmt_hconf_entry(t));
                const int status = parsed != nullptr ? 0 : 1;
                free(parsed);
                exit(status);
            },
            testing::ExitedWithCode(parses ? 0 : 1), "")
            << r.text;
    }
}

// The dumps read records at any alignment, as records stand inside an image.
TEST(Dump, HeaderFieldsSignedAndEntriesOfEveryType) {
    qmt_hconf_header_rec h = {0xffffffffu, 0xffffffffu, 0x80000000u};
    int r = 0;
    std::string out = stdout_of([&] { r = qmt_hconf_header_dump(&h); });
    EXPECT_EQ(out, "header: 0xffffffff num -1 len -2147483648\n");
    EXPECT_EQ(r, static_cast<int>(out.size()));
    struct {
        std::vector<uint8_t> rec;
        std::string out;
    } const rows[] = {
        {{4, 3, 2, 1, 0, 0, 3, 0, 0x00, 0x7f, 0xff}, "entry: 0x1020304 type 0 len 3: 00 7f ff \n"},
        {{0x10, 0, 0, 0, 1, 0, 4, 0, 'a', '\t', 'b', 0xe9}, "entry: 0x10 type 1 len 4: a\tb\xe9\n"},
        // Any type but 0 prints its data as characters.
        {{0x20, 0, 0, 0, 7, 0, 2, 0, 'o', 'k'}, "entry: 0x20 type 7 len 2: ok\n"},
    };
    for (const auto &row : rows) {
        alignas(8) uint8_t buf[32] = {};
        memcpy(buf + 3, row.rec.data(), row.rec.size());
        const auto *e = reinterpret_cast<const qmt_hconf_entry_rec *>(buf + 3);
        EXPECT_EQ(stdout_of([&] { r = qmt_hconf_entry_dump(e); }), row.out);
        EXPECT_EQ(r, '\n');
    }
}

} // namespace
