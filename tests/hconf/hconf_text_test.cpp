// Records and text form of the hardware store: ch_hex, the header and entry parsers and the
// two dumps, with every message they print to standard output.
#include "hconf_test_util.h"

#include <cstddef>
#include <sys/mman.h>

using hconftest::entry_ptr;
using hconftest::header_ptr;
using hconftest::stdout_of;

namespace {

// ---- record layout -------------------------------------------------------------------------

TEST(HconfRecords, PackedLayout) {
    EXPECT_EQ(sizeof(qmt_hconf_header_rec), 12u);
    EXPECT_EQ(offsetof(qmt_hconf_header_rec, magic), 0u);
    EXPECT_EQ(offsetof(qmt_hconf_header_rec, num), 4u);
    EXPECT_EQ(offsetof(qmt_hconf_header_rec, len), 8u);
    EXPECT_EQ(sizeof(qmt_hconf_entry_rec), 8u);
    EXPECT_EQ(offsetof(qmt_hconf_entry_rec, id), 0u);
    EXPECT_EQ(offsetof(qmt_hconf_entry_rec, type), 4u);
    EXPECT_EQ(offsetof(qmt_hconf_entry_rec, len), 6u);
    EXPECT_EQ(offsetof(qmt_hconf_entry_rec, data), 8u);
}

TEST(HconfRecords, RequestNumbersAreTheDevicesOwn) {
    // _IO('v', nr) of the device's MIPS kernel, whatever the build host.
    EXPECT_EQ(QMT_HCONF_IOC_READ_ALL, 0x20007601u);
    EXPECT_EQ(QMT_HCONF_IOC_READ_HEADER, 0x20007603u);
    EXPECT_EQ(QMT_HCONF_IOC_WRITE_HEADER, 0x20007604u);
    EXPECT_EQ(QMT_HCONF_IOC_READ_ENTRY, 0x20007605u);
    EXPECT_EQ(QMT_HCONF_IOC_WRITE_ENTRY, 0x20007606u);
    EXPECT_EQ(QMT_HCONF_IOC_SYNC, 0x20007607u);
    EXPECT_EQ(QMT_HCONF_IOC_CLEAR, 0x20007608u);
    EXPECT_EQ(QMT_HCONF_IOC_DELETE, 0x20007609u);
}

// ---- ch_hex --------------------------------------------------------------------------------

TEST(ChHex, EveryHexDigitInBothCases) {
    const char *digits = "0123456789abcdef";
    for (int v = 0; v < 16; ++v) {
        char lower = digits[v];
        char upper = static_cast<char>(lower >= 'a' ? lower - 'a' + 'A' : lower);
        std::string out = stdout_of([&] {
            EXPECT_EQ(ch_hex(lower), v) << lower;
            EXPECT_EQ(ch_hex(upper), v) << upper;
        });
        EXPECT_EQ(out, "");
    }
}

TEST(ChHex, OtherCharactersPrintBadCharAndGiveZero) {
    for (char c : std::string("gGzZ:/ @`x-")) {
        int v = -1;
        std::string out = stdout_of([&] { v = ch_hex(c); });
        EXPECT_EQ(v, 0) << c;
        EXPECT_EQ(out, std::string("ch_hex: ERROR: bad char: ") + c + "\n");
    }
}

// ---- header parser -------------------------------------------------------------------------

struct header_case {
    const char *text;
    bool ok;
    uint32_t num, len; // when ok
    const char *out;   // everything printed
};

const header_case header_cases[] = {
    {"0x68636f6e:64:65536", true, 64, 65536, "header: 0x68636f6e num 64 len 65536\n"},
    {"0x68636f6e:65:0", false, 0, 0, "qmt_hconf_header: ERROR: too much entry: 65\n"},
    {"0x68636f6e:1:65537", false, 0, 0, "qmt_hconf_header: ERROR: too long: 65537\n"},
    {"0x68636f6e:-1:0", false, 0, 0, "qmt_hconf_header: ERROR: too much entry: -1\n"},
    {"0x68636f6e:0:-1", false, 0, 0, "qmt_hconf_header: ERROR: too long: -1\n"},
    {"0x68636f6e 2 100", true, 2, 100, "header: 0x68636f6e num 2 len 100\n"},
    {"0x68636f6e:2:100", true, 2, 100, "header: 0x68636f6e num 2 len 100\n"},
    {"0x68636f6e#2x100", true, 2, 100, "header: 0x68636f6e num 2 len 100\n"},
    // Decimal, hexadecimal and octal numbers, as a base-0 strtol reads them.
    {"1751347054:0x40:0200000", true, 64, 65536, "header: 0x68636f6e num 64 len 65536\n"},
    {"0X68636F6E:010:0x0C", true, 8, 12, "header: 0x68636f6e num 8 len 12\n"},
    {"  0x68636f6e:+3:\t7", true, 3, 7, "header: 0x68636f6e num 3 len 7\n"},
    // Missing numbers count as 0; an empty field is one separator consumed.
    {"0x68636f6e", true, 0, 0, "header: 0x68636f6e num 0 len 0\n"},
    {"0x68636f6e:", true, 0, 0, "header: 0x68636f6e num 0 len 0\n"},
    {"0x68636f6e::5", true, 0, 5, "header: 0x68636f6e num 0 len 5\n"},
    {"0x68636f6e:7", true, 7, 0, "header: 0x68636f6e num 7 len 0\n"},
    {"0x68636f6f:0:0", false, 0, 0, "qmt_hconf_header: ERROR: bad magic: 0x68636f6f\n"},
    {"", false, 0, 0, "qmt_hconf_header: ERROR: bad magic: 0x0\n"},
    {"hcon:0:0", false, 0, 0, "qmt_hconf_header: ERROR: bad magic: 0x0\n"},
    {"-0x68636f6e:0:0", false, 0, 0, "qmt_hconf_header: ERROR: bad magic: 0x979c9092\n"},
    // The device's long is 32 bits: larger numbers saturate.
    {"0x168636f6e:0:0", false, 0, 0, "qmt_hconf_header: ERROR: bad magic: 0x7fffffff\n"},
    {"0x68636f6e:4294967296:0", false, 0, 0,
     "qmt_hconf_header: ERROR: too much entry: 2147483647\n"},
    {"0x68636f6e:-4294967296:0", false, 0, 0,
     "qmt_hconf_header: ERROR: too much entry: -2147483648\n"},
};

void PrintTo(const header_case &c, std::ostream *os) {
    *os << '"' << c.text << '"';
}

class HeaderParse : public testing::TestWithParam<header_case> {};

TEST_P(HeaderParse, ResultAndMessages) {
    const header_case &c = GetParam();
    header_ptr h;
    std::string out = stdout_of([&] { h.reset(qmt_hconf_header(c.text)); });
    EXPECT_EQ(out, c.out);
    if (!c.ok) {
        EXPECT_EQ(h, nullptr);
        return;
    }
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(h->magic, QMT_HCONF_MAGIC);
    EXPECT_EQ(h->num, c.num);
    EXPECT_EQ(h->len, c.len);
}

INSTANTIATE_TEST_SUITE_P(Table, HeaderParse, testing::ValuesIn(header_cases));

// ---- entry parser --------------------------------------------------------------------------

struct entry_case {
    std::string text;
    bool ok;
    uint32_t id;
    uint16_t type;
    std::vector<uint8_t> data; // len is its size
    std::string out;
};

std::vector<uint8_t> bytes(const std::string &s) {
    return std::vector<uint8_t>(s.begin(), s.end());
}

const entry_case entry_cases[] = {
    {"0x01000002:0:4:c0a80101",
     true,
     0x01000002,
     0,
     {0xc0, 0xa8, 0x01, 0x01},
     "entry: 0x1000002 type 0 len 4: c0 a8 01 01 \n"},
    {"0x10:1:5:hello", true, 0x10, 1, bytes("hello"), "entry: 0x10 type 1 len 5: hello\n"},
    {"0x10:2:1:00", false, 0, 0, {}, "qmt_hconf_entry: ERROR: bad entry type: 2\n"},
    {"0x10:3:0:", false, 0, 0, {}, "qmt_hconf_entry: ERROR: bad entry type: 3\n"},
    {"0x10:65535:1:x", false, 0, 0, {}, "qmt_hconf_entry: ERROR: bad entry type: 65535\n"},
    {"0x1:0:1:AB", true, 1, 0, {0xab}, "entry: 0x1 type 0 len 1: ab \n"},
    {"0x1:0:1:ab", true, 1, 0, {0xab}, "entry: 0x1 type 0 len 1: ab \n"},
    {"0x1:0:3:aBcDeF", true, 1, 0, {0xab, 0xcd, 0xef}, "entry: 0x1 type 0 len 3: ab cd ef \n"},
    {"0x1:0:1:g1",
     true,
     1,
     0,
     {0x01},
     "ch_hex: ERROR: bad char: g\nentry: 0x1 type 0 len 1: 01 \n"},
    {"0x1:0:1:zz",
     true,
     1,
     0,
     {0x00},
     "ch_hex: ERROR: bad char: z\nch_hex: ERROR: bad char: z\nentry: 0x1 type 0 len 1: 00 \n"},
    // Type 65536 keeps its low 16 bits: 0, binary. 65537 is text.
    {"0x1:65536:1:7f", true, 1, 0, {0x7f}, "entry: 0x1 type 0 len 1: 7f \n"},
    {"0x1:65537:2:ok", true, 1, 1, bytes("ok"), "entry: 0x1 type 1 len 2: ok\n"},
    // Data shorter than len: read up to the terminator, the rest is zero.
    {"0x1:0:4:c0a8", true, 1, 0, {0xc0, 0xa8, 0, 0}, "entry: 0x1 type 0 len 4: c0 a8 00 00 \n"},
    {"0x1:0:2:abc", true, 1, 0, {0xab, 0xc0}, "entry: 0x1 type 0 len 2: ab c0 \n"},
    {"0x1:0:2:", true, 1, 0, {0, 0}, "entry: 0x1 type 0 len 2: 00 00 \n"},
    {"0x1:0:2", true, 1, 0, {0, 0}, "entry: 0x1 type 0 len 2: 00 00 \n"},
    {"0x1:1:4:hi",
     true,
     1,
     1,
     {'h', 'i', 0, 0},
     std::string("entry: 0x1 type 1 len 4: hi") + std::string(2, '\0') + "\n"},
    // A line read from a file keeps its newline, which is data like any other character.
    {"0x1:0:2:0a\n",
     true,
     1,
     0,
     {0x0a, 0x00},
     "ch_hex: ERROR: bad char: \n\nentry: 0x1 type 0 len 2: 0a 00 \n"},
    {"0x1:1:3:a\nb", true, 1, 1, bytes("a\nb"), "entry: 0x1 type 1 len 3: a\nb\n"},
    {"0x1:1:4:a:b c", true, 1, 1, bytes("a:b "), "entry: 0x1 type 1 len 4: a:b \n"},
    // Zero length, empty text, fields in other bases and blank separators.
    {"0x1:0:0:", true, 1, 0, {}, "entry: 0x1 type 0 len 0: \n"},
    {"", true, 0, 0, {}, "entry: 0x0 type 0 len 0: \n"},
    {"16 1 02 ab", true, 16, 1, bytes("ab"), "entry: 0x10 type 1 len 2: ab\n"},
    {"020:0x0:0x1:ff", true, 16, 0, {0xff}, "entry: 0x10 type 0 len 1: ff \n"},
    // Unsigned 32-bit conventions for the id: saturation and wrap-around of a minus sign.
    {"0x100000000:0:0:", true, 0xffffffffu, 0, {}, "entry: 0xffffffff type 0 len 0: \n"},
    {"-1:0:0:", true, 0xffffffffu, 0, {}, "entry: 0xffffffff type 0 len 0: \n"},
    {"-16:0:0:", true, 0xfffffff0u, 0, {}, "entry: 0xfffffff0 type 0 len 0: \n"},
    // len keeps its low 16 bits too.
    {"0x1:1:65538:xyz", true, 1, 1, bytes("xy"), "entry: 0x1 type 1 len 2: xy\n"},
};

void PrintTo(const entry_case &c, std::ostream *os) {
    *os << testing::PrintToString(c.text);
}

class EntryParse : public testing::TestWithParam<entry_case> {};

TEST_P(EntryParse, ResultAndMessages) {
    const entry_case &c = GetParam();
    entry_ptr e;
    std::string out = stdout_of([&] { e.reset(qmt_hconf_entry(c.text.c_str())); });
    EXPECT_EQ(out, c.out);
    if (!c.ok) {
        EXPECT_EQ(e, nullptr);
        return;
    }
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->id, c.id);
    EXPECT_EQ(e->type, c.type);
    EXPECT_EQ(e->len, c.data.size());
    EXPECT_EQ(hconftest::data_of(e.get()), c.data);
}

INSTANTIATE_TEST_SUITE_P(Table, EntryParse, testing::ValuesIn(entry_cases));

TEST(EntryParse, LargestLengthIsAllocatedZeroed) {
    entry_ptr e;
    std::string out = stdout_of([&] { e.reset(qmt_hconf_entry("0x5:0:65535:0102")); });
    ASSERT_NE(e, nullptr);
    ASSERT_EQ(e->len, 65535u);
    EXPECT_EQ(e->data[0], 1);
    EXPECT_EQ(e->data[1], 2);
    for (size_t i = 2; i < 65535; ++i)
        ASSERT_EQ(e->data[i], 0) << i;
    EXPECT_EQ(out.rfind("entry: 0x5 type 0 len 65535: 01 02 00 ", 0), 0u);
    EXPECT_EQ(out.size(), std::string("entry: 0x5 type 0 len 65535: ").size() + 3 * 65535 + 1);
}

// ---- the parsers never read past the caller's text ---------------------------------------

// The text ends (its terminator included) at the last byte of a readable page that is followed
// by an inaccessible one: one byte too far and the process faults.
class guarded_text {
  public:
    explicit guarded_text(const std::string &text) {
        long page = sysconf(_SC_PAGESIZE);
        size_ = static_cast<size_t>(page) * 2;
        void *m = mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (m == MAP_FAILED) {
            ADD_FAILURE() << "mmap";
            return;
        }
        base_ = static_cast<char *>(m);
        if (mprotect(base_ + page, static_cast<size_t>(page), PROT_NONE) != 0)
            ADD_FAILURE() << "mprotect";
        text_ = base_ + page - (text.size() + 1);
        memcpy(text_, text.c_str(), text.size() + 1);
    }
    ~guarded_text() {
        if (base_)
            munmap(base_, size_);
    }
    const char *c_str() const { return text_; }

  private:
    char *base_ = nullptr;
    char *text_ = nullptr;
    size_t size_ = 0;
};

TEST(GuardedText, ShortDataIsNotOverread) {
    const char *texts[] = {"0x1:0:4:c0a8", "0x1:0:3:a",    "0x1:0:200:", "0x1:0:65535:",
                           "0x1:1:100:hi", "0x1:1:65535:", "0x1:0:9",    "0x1:1:9:",
                           "0x1:",         "0x",           "0",          "",
                           "0x1:0:1:g"};
    for (const char *t : texts) {
        // In a child: a read past the text faults there and fails this test alone.
        EXPECT_EXIT(
            {
                guarded_text g(t);
                if (freopen("/dev/null", "w", stdout) == nullptr)
                    exit(3);
                qmt_hconf_entry_rec *e = qmt_hconf_entry(g.c_str());
                exit(e != nullptr ? 0 : 1);
            },
            testing::ExitedWithCode(0), "")
            << t;
    }
}

TEST(GuardedText, HeaderFieldsAreNotOverread) {
    const char *texts[] = {
        "0x68636f6e", "0x68636f6e:", "0x68636f6e:1", "0x68636f6e:1:", "0x68636f6e:1:0x", "", "0x",
        "-"};
    for (const char *t : texts) {
        int parsed = strncmp(t, "0x68636f6e", 10) == 0 ? 0 : 1;
        EXPECT_EXIT(
            {
                guarded_text g(t);
                if (freopen("/dev/null", "w", stdout) == nullptr)
                    exit(3);
                qmt_hconf_header_rec *h = qmt_hconf_header(g.c_str());
                exit(h != nullptr ? 0 : 1);
            },
            testing::ExitedWithCode(parsed), "")
            << t;
    }
}

// ---- dumps ---------------------------------------------------------------------------------

TEST(Dump, HeaderLineAndResult) {
    qmt_hconf_header_rec h = {QMT_HCONF_MAGIC, 3, 0x1234};
    int r = 0;
    std::string out = stdout_of([&] { r = qmt_hconf_header_dump(&h); });
    EXPECT_EQ(out, "header: 0x68636f6e num 3 len 4660\n");
    EXPECT_EQ(r, static_cast<int>(out.size()));
}

TEST(Dump, HeaderFieldsAreSignedWhenPrinted) {
    qmt_hconf_header_rec h = {0xffffffffu, 0xffffffffu, 0x80000000u};
    std::string out = stdout_of([&] { qmt_hconf_header_dump(&h); });
    EXPECT_EQ(out, "header: 0xffffffff num -1 len -2147483648\n");
}

// Records inside an image may start at any byte.
TEST(Dump, UnalignedEntryOfEachType) {
    alignas(8) uint8_t buf[32] = {};
    uint8_t *at = buf + 3;
    const uint8_t bin[] = {0x04, 0x03, 0x02, 0x01, 0x00, 0x00, 0x03, 0x00, 0x00, 0x7f, 0xff};
    memcpy(at, bin, sizeof bin);
    int r = 0;
    std::string out = stdout_of(
        [&] { r = qmt_hconf_entry_dump(reinterpret_cast<const qmt_hconf_entry_rec *>(at)); });
    EXPECT_EQ(out, "entry: 0x1020304 type 0 len 3: 00 7f ff \n");
    EXPECT_EQ(r, '\n');

    const uint8_t text[] = {0x10, 0, 0, 0, 0x01, 0x00, 0x04, 0x00, 'a', '\t', 'b', 0xe9};
    memcpy(at, text, sizeof text);
    out = stdout_of(
        [&] { r = qmt_hconf_entry_dump(reinterpret_cast<const qmt_hconf_entry_rec *>(at)); });
    EXPECT_EQ(out, "entry: 0x10 type 1 len 4: a\tb\xe9\n");
    EXPECT_EQ(r, '\n');
}

// A type other than 0 prints its data as characters, whatever the type.
TEST(Dump, InvalidTypeIsDumpedAsCharacters) {
    const uint8_t rec[] = {0x20, 0, 0, 0, 0x07, 0x00, 0x02, 0x00, 'o', 'k'};
    std::string out = stdout_of(
        [&] { qmt_hconf_entry_dump(reinterpret_cast<const qmt_hconf_entry_rec *>(rec)); });
    EXPECT_EQ(out, "entry: 0x20 type 7 len 2: ok\n");
}

// The text form written by the save and the parser agree: every byte survives.
TEST(TextForm, BinaryEntryRoundTrip) {
    std::string text = "0xabcdef01:0:256:";
    char hex[3];
    for (int b = 0; b < 256; ++b) {
        snprintf(hex, sizeof hex, "%02x", b);
        text += hex;
    }
    entry_ptr e;
    std::string out = stdout_of([&] { e.reset(qmt_hconf_entry(text.c_str())); });
    ASSERT_NE(e, nullptr);
    ASSERT_EQ(e->len, 256u);
    for (int b = 0; b < 256; ++b)
        ASSERT_EQ(e->data[b], b);
    EXPECT_EQ(out.find("ERROR"), std::string::npos);
}

} // namespace
