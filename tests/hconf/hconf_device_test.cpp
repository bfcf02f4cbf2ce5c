// Device operations of the hardware store, save_hw_conf and the hconf tool, against the
// driver stand-in (libhconf_standin.so, preloaded by ctest) inside the test namespaces.
#include "hconf_test_util.h"

#include "qmtnm.h"

#include <arpa/inet.h>
#include <cerrno>
#include <sys/ioctl.h>

#ifndef HCONF_TOOL
#error "HCONF_TOOL (the hconf tool, with its emulator if any) must be defined"
#endif

using hconftest::entry_ptr;
using hconftest::image_entry;
using hconftest::stdout_of;

namespace {

class Device : public testing::Test {
  protected:
    void SetUp() override {
        dir_ = hconftest::fresh_dir("hconf-dev");
        image_ = dir_ + "/image";
        setenv("HCONF_STANDIN_IMAGE", image_.c_str(), 1);
        unsetenv("HCONF_STANDIN_FAIL");
        int fd = open(QMT_HCONF_DEVICE, O_RDWR);
        ASSERT_GE(fd, 0) << "no /dev/hconf: run with LD_PRELOAD=<build>/hconf/libhconf_standin.so";
        close(fd);
    }
    void TearDown() override { unsetenv("HCONF_STANDIN_FAIL"); }

    static void fail(const char *what) { setenv("HCONF_STANDIN_FAIL", what, 1); }
    static void no_fail() { unsetenv("HCONF_STANDIN_FAIL"); }

    // Parses and writes one entry; returns the write's result.
    static int put(const std::string &text) {
        int r = -100;
        stdout_of([&] {
            entry_ptr e(qmt_hconf_entry(text.c_str()));
            if (e)
                r = qmt_hconf_write_entry(e.get());
        });
        return r;
    }

    // Writes a record straight to the driver, as another program of the device might.
    static int raw_write(const std::vector<uint8_t> &record) {
        int fd = open(QMT_HCONF_DEVICE, O_RDWR);
        if (fd < 0)
            return -1;
        int r = ioctl(fd, QMT_HCONF_IOC_WRITE_ENTRY, record.data());
        close(fd);
        return r;
    }

    // The store's text form as qmt_hconf_save writes it to a file.
    std::string saved() {
        std::string path = dir_ + "/saved.txt";
        unlink(path.c_str());
        int r = -100;
        std::string out = stdout_of([&] { r = qmt_hconf_save(path.c_str()); });
        EXPECT_EQ(r, 0) << out;
        std::string text;
        EXPECT_TRUE(hconftest::read_file(path, &text));
        return text;
    }

    // Entries of the committed (synced) image, as the stand-in keeps it.
    bool committed(uint32_t *num, std::vector<image_entry> *entries) {
        std::string img;
        return hconftest::read_file(image_, &img) && hconftest::decode_image(img, num, entries);
    }

    // Emulates a restart of the device: the driver reloads the committed image.
    void reboot() { unlink((image_ + ".work").c_str()); }

    std::string dir_;
    std::string image_;
};

// ---- single-request operations -------------------------------------------------------------

TEST_F(Device, EmptyStoreHeader) {
    qmt_hconf_header_rec h = {};
    int r = -100;
    std::string out = stdout_of([&] { r = qmt_hconf_read_header(&h); });
    EXPECT_EQ(r, 0);
    EXPECT_EQ(out, "header: 0x68636f6e num 0 len 12\n");
    EXPECT_EQ(h.magic, QMT_HCONF_MAGIC);
    EXPECT_EQ(h.num, 0u);
    EXPECT_EQ(h.len, 12u);
}

TEST_F(Device, WriteThenReadEntry) {
    ASSERT_EQ(put("0x01000002:0:4:c0a8010a"), 0);
    ASSERT_EQ(put("0x10:1:5:hello"), 0);

    std::vector<uint8_t> buf(8 + 64);
    auto *e = reinterpret_cast<qmt_hconf_entry_rec *>(buf.data());
    e->id = 0x10;
    e->len = 64;
    int r = -100;
    std::string out = stdout_of([&] { r = qmt_hconf_read_entry(e); });
    EXPECT_EQ(r, 0);
    EXPECT_EQ(out, "entry: 0x10 type 1 len 5: hello\n");
    EXPECT_EQ(e->type, 1u);
    EXPECT_EQ(e->len, 5u);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(e->data), 5), "hello");

    qmt_hconf_header_rec h = {};
    out = stdout_of([&] { r = qmt_hconf_read_header(&h); });
    EXPECT_EQ(r, 0);
    EXPECT_EQ(out, "header: 0x68636f6e num 2 len 37\n"); // 12 + (8 + 4) + (8 + 5)
}

TEST_F(Device, WriteReplacesByIdInPlace) {
    ASSERT_EQ(put("0x1:0:1:aa"), 0);
    ASSERT_EQ(put("0x2:1:3:old"), 0);
    ASSERT_EQ(put("0x3:0:1:cc"), 0);
    ASSERT_EQ(put("0x2:1:5:newer"), 0);
    EXPECT_EQ(saved(), "0x1:0:1:aa\n0x2:1:5:newer\n0x3:0:1:cc\n");
}

TEST_F(Device, WritesPrintNothingOnSuccess) {
    entry_ptr e;
    stdout_of([&] { e.reset(qmt_hconf_entry("0x9:0:1:01")); });
    ASSERT_NE(e, nullptr);
    qmt_hconf_header_rec h = {QMT_HCONF_MAGIC, 1, 21};
    int r1 = -100, r2 = -100, r3 = -100, r4 = -100, r5 = -100;
    std::string out = stdout_of([&] {
        r1 = qmt_hconf_write_entry(e.get());
        r2 = qmt_hconf_write_header(&h);
        r3 = qmt_hconf_sync();
        r4 = qmt_hconf_del_entry(0x9);
        r5 = qmt_hconf_clear();
    });
    EXPECT_EQ(out, "");
    EXPECT_EQ(r1, 0);
    EXPECT_EQ(r2, 0);
    EXPECT_EQ(r3, 0);
    EXPECT_EQ(r4, 0);
    EXPECT_EQ(r5, 0);
}

TEST_F(Device, DeletePassesItsArgumentAsTheId) {
    ASSERT_EQ(put("0x01000002:0:4:c0a8010a"), 0);
    ASSERT_EQ(put("0x01000004:0:4:ffffff00"), 0);
    int r = -100;
    std::string out = stdout_of([&] { r = qmt_hconf_del_entry(0x01000002ul); });
    EXPECT_EQ(r, 0);
    EXPECT_EQ(out, "");
    EXPECT_EQ(saved(), "0x1000004:0:4:ffffff00\n");

    // Nothing with that id: the driver refuses.
    out = stdout_of([&] { r = qmt_hconf_del_entry(0x01000002ul); });
    EXPECT_EQ(r, -1);
    EXPECT_EQ(out, "qmt_hconf_del_entry: ERROR: delete entry failed\n");
}

TEST_F(Device, RefusedRequestsReturnTheDriversResult) {
    std::vector<uint8_t> buf(8 + 16);
    auto *e = reinterpret_cast<qmt_hconf_entry_rec *>(buf.data());
    e->id = 0x77;
    e->len = 16;
    int r = -100;
    std::string out = stdout_of([&] { r = qmt_hconf_read_entry(e); });
    EXPECT_EQ(r, -1);
    EXPECT_EQ(out, "qmt_hconf_read_entry: ERROR: read entry failed\n");

    qmt_hconf_header_rec bad = {0x12345678, 0, 12};
    out = stdout_of([&] { r = qmt_hconf_write_header(&bad); });
    EXPECT_EQ(r, -1);
    EXPECT_EQ(out, "qmt_hconf_write_header: ERROR: write header failed\n");
}

// ---- every operation's failure paths -------------------------------------------------------

struct op_case {
    const char *func;
    const char *nr;        // the request it issues
    const char *fail_text; // after "<func>: ERROR: "
    int (*call)();
};

void PrintTo(const op_case &c, std::ostream *os) {
    *os << c.func;
}

int call_read_header() {
    qmt_hconf_header_rec h = {};
    return qmt_hconf_read_header(&h);
}
int call_write_header() {
    qmt_hconf_header_rec h = {QMT_HCONF_MAGIC, 0, 12};
    return qmt_hconf_write_header(&h);
}
int call_read_entry() {
    static uint8_t buf[8 + 16];
    auto *e = reinterpret_cast<qmt_hconf_entry_rec *>(buf);
    memset(buf, 0, sizeof buf);
    e->id = 0x42;
    e->len = 16;
    return qmt_hconf_read_entry(e);
}
int call_write_entry() {
    static const uint8_t rec[] = {0x42, 0, 0, 0, 0, 0, 1, 0, 0x5a};
    return qmt_hconf_write_entry(reinterpret_cast<const qmt_hconf_entry_rec *>(rec));
}
int call_del_entry() {
    return qmt_hconf_del_entry(0x42);
}
int call_sync() {
    return qmt_hconf_sync();
}
int call_clear() {
    return qmt_hconf_clear();
}

const op_case op_cases[] = {
    {"qmt_hconf_read_header", "3", "read header failed", call_read_header},
    {"qmt_hconf_write_header", "4", "write header failed", call_write_header},
    {"qmt_hconf_read_entry", "5", "read entry failed", call_read_entry},
    {"qmt_hconf_write_entry", "6", "write entry failed", call_write_entry},
    {"qmt_hconf_del_entry", "9", "delete entry failed", call_del_entry},
    {"qmt_hconf_sync", "7", "sync failed", call_sync},
    {"qmt_hconf_clear", "8", "clear failed", call_clear},
};

class DeviceOp : public Device, public testing::WithParamInterface<op_case> {
  protected:
    void SetUp() override {
        Device::SetUp();
        // The entry that read and delete look for.
        ASSERT_EQ(put("0x42:0:1:5a"), 0);
    }
};

TEST_P(DeviceOp, SucceedsWithOtherRequestsRefused) {
    const op_case &c = GetParam();
    std::string others;
    for (const char *nr : {"1", "2", "3", "4", "5", "6", "7", "8", "9"})
        if (strcmp(nr, c.nr) != 0)
            others += std::string(others.empty() ? "" : ",") + nr;
    fail(others.c_str());
    int r = -100;
    stdout_of([&] { r = c.call(); });
    EXPECT_EQ(r, 0) << c.func << " with requests " << others << " refused";
}

TEST_P(DeviceOp, RefusedRequest) {
    const op_case &c = GetParam();
    fail(c.nr);
    int r = -100;
    std::string out = stdout_of([&] { r = c.call(); });
    EXPECT_EQ(r, -1);
    EXPECT_EQ(out, std::string(c.func) + ": ERROR: " + c.fail_text + "\n");
}

TEST_P(DeviceOp, DeviceCannotBeOpened) {
    const op_case &c = GetParam();
    fail("open");
    int r = -100;
    std::string out = stdout_of([&] { r = c.call(); });
    EXPECT_EQ(r, -1);
    EXPECT_EQ(out, std::string(c.func) + ": ERROR: open /dev/hconf failed\n");
}

INSTANTIATE_TEST_SUITE_P(Table, DeviceOp, testing::ValuesIn(op_cases));

// ---- bounds of the store -------------------------------------------------------------------

TEST_F(Device, SixtyFourEntriesFitAndTheNextIsRefused) {
    for (int i = 0; i < 64; ++i)
        ASSERT_EQ(put("0x" + std::to_string(100 + i) + ":0:1:01"), 0) << i;
    qmt_hconf_header_rec h = {};
    std::string out = stdout_of([&] { EXPECT_EQ(qmt_hconf_read_header(&h), 0); });
    EXPECT_EQ(h.num, 64u);
    EXPECT_EQ(out, "header: 0x68636f6e num 64 len " + std::to_string(12 + 64 * 9) + "\n");

    int r = -100;
    out = stdout_of([&] {
        entry_ptr e(qmt_hconf_entry("0x999:0:1:01"));
        r = qmt_hconf_write_entry(e.get());
    });
    EXPECT_EQ(r, -1);
    EXPECT_EQ(out, "entry: 0x999 type 0 len 1: 01 \n"
                   "qmt_hconf_write_entry: ERROR: write entry failed\n");
    // Replacing one of the 64 still works.
    EXPECT_EQ(put("0x100:1:2:ok"), 0);
}

TEST_F(Device, ImageOf65536BytesIsTheLimit) {
    // 12 + 8 + 65508 = 65528: room for one more empty entry (8 bytes) and nothing more.
    ASSERT_EQ(put("0x1:1:65508:"), 0);
    EXPECT_EQ(put("0x2:0:1:00"), -1);
    EXPECT_EQ(put("0x2:0:0:"), 0);
    qmt_hconf_header_rec h = {};
    stdout_of([&] { EXPECT_EQ(qmt_hconf_read_header(&h), 0); });
    EXPECT_EQ(h.len, 65536u);
    EXPECT_EQ(h.num, 2u);
}

// ---- save ------------------------------------------------------------------------------------

TEST_F(Device, EmptyStoreSavesAnEmptyFile) {
    std::string path = dir_ + "/empty.txt";
    int r = -100;
    std::string out = stdout_of([&] { r = qmt_hconf_save(path.c_str()); });
    EXPECT_EQ(r, 0);
    EXPECT_EQ(out, "");
    std::string text = "not empty";
    ASSERT_TRUE(hconftest::read_file(path, &text));
    EXPECT_EQ(text, "");
}

TEST_F(Device, SaveToStandardOutputLeavesItOpen) {
    ASSERT_EQ(put("0x01000002:0:4:c0a8010a"), 0);
    ASSERT_EQ(put("0x10:1:5:hello"), 0);
    int r = -100;
    std::string out = stdout_of([&] { r = qmt_hconf_save(nullptr); });
    EXPECT_EQ(r, 0);
    EXPECT_EQ(out, "0x1000002:0:4:c0a8010a\n0x10:1:5:hello\n");
    EXPECT_NE(fcntl(1, F_GETFD), -1);
    EXPECT_EQ(fprintf(stdout, "%s", ""), 0);
    EXPECT_EQ(ferror(stdout), 0);
}

TEST_F(Device, SaveToAnUnopenableFileReportsAndReturnsZero) {
    ASSERT_EQ(put("0x1:0:1:01"), 0);
    std::string path = dir_ + "/no/such/dir/out.txt";
    int r = -100;
    std::string out = stdout_of([&] { r = qmt_hconf_save(path.c_str()); });
    EXPECT_EQ(r, 0);
    EXPECT_EQ(out, "qmt_hconf_save: ERROR: open " + path + " failed\n");
}

TEST_F(Device, SaveFailures) {
    int r = -100;
    fail("1");
    std::string path = dir_ + "/out.txt";
    std::string out = stdout_of([&] { r = qmt_hconf_save(path.c_str()); });
    EXPECT_EQ(r, -1);
    EXPECT_EQ(out, "qmt_hconf_save: ERROR: failed read all\n");
    EXPECT_FALSE(hconftest::exists(path)); // the output is opened only after the read

    fail("open");
    out = stdout_of([&] { r = qmt_hconf_save(path.c_str()); });
    EXPECT_EQ(r, -1);
    EXPECT_EQ(out, "qmt_hconf_save: ERROR: open /dev/hconf failed\n");
}

TEST_F(Device, SaveReportsAndSkipsDataOfAnInvalidType) {
    ASSERT_EQ(put("0x1:0:2:abcd"), 0);
    ASSERT_EQ(raw_write({0x30, 0, 0, 0, 2, 0, 3, 0, 'x', 'y', 'z'}), 0); // type 2
    ASSERT_EQ(put("0x40:1:2:ok"), 0);
    std::string path = dir_ + "/out.txt";
    int r = -100;
    std::string out = stdout_of([&] { r = qmt_hconf_save(path.c_str()); });
    EXPECT_EQ(r, 0);
    EXPECT_EQ(out, "qmt_hconf_save: ERROR: invalid entry type: 2\n");
    std::string text;
    ASSERT_TRUE(hconftest::read_file(path, &text));
    EXPECT_EQ(text, "0x1:0:2:abcd\n0x30:2:3:\n0x40:1:2:ok\n");
}

// Whatever the driver returns, the save stays within the 65536-byte image.
TEST_F(Device, SaveStopsAtAnEntryRunningPastTheImage) {
    std::string img(65536, '\0');
    auto put32 = [&](size_t off, uint32_t v) { memcpy(&img[off], &v, 4); };
    auto put16 = [&](size_t off, uint16_t v) { memcpy(&img[off], &v, 2); };
    put32(0, QMT_HCONF_MAGIC);
    put32(4, 64);
    put32(8, 65536);
    put32(12, 0x1); // first entry: id 1, type 0, len 2
    put16(16, 0);
    put16(18, 2);
    img[20] = static_cast<char>(0xab);
    img[21] = static_cast<char>(0xcd);
    put32(22, 0x2); // second entry claims 65535 bytes from offset 30
    put16(26, 1);
    put16(28, 0xffff);
    hconftest::write_file(image_, img);
    EXPECT_EQ(saved(), "0x1:0:2:abcd\n");
}

// ---- update ----------------------------------------------------------------------------------

TEST_F(Device, UpdateWritesEveryEntryInOrderAndSkipsShortLines) {
    std::string path = dir_ + "/in.txt";
    hconftest::write_file(path, "0x3:0:1:03\n"
                                "\n"
                                "0x1:1:2:hi\n"
                                "abcd\n"
                                "\n"
                                "0x2:0:0:\n"
                                "12345");
    int r = -100;
    std::string out = stdout_of([&] { r = qmt_hconf_update(path.c_str()); });
    EXPECT_EQ(r, 0);
    EXPECT_EQ(out, "entry: 0x3 type 0 len 1: 03 \n"
                   "entry: 0x1 type 1 len 2: hi\n"
                   "entry: 0x2 type 0 len 0: \n");
    EXPECT_EQ(saved(), "0x3:0:1:03\n0x1:1:2:hi\n0x2:0:0:\n");
}

TEST_F(Device, UpdateDoesNotSync) {
    std::string path = dir_ + "/in.txt";
    hconftest::write_file(path, "0x5:0:1:05\n");
    stdout_of([&] { EXPECT_EQ(qmt_hconf_update(path.c_str()), 0); });
    EXPECT_FALSE(hconftest::exists(image_)); // nothing was ever committed
    reboot();
    EXPECT_EQ(saved(), "");
}

TEST_F(Device, UpdateStopsAtALineOfTypeTwo) {
    std::string path = dir_ + "/in.txt";
    hconftest::write_file(path, "0x1:0:1:01\n0x30:2:1:00\n0x2:0:1:02\n");
    int r = -100;
    std::string out = stdout_of([&] { r = qmt_hconf_update(path.c_str()); });
    EXPECT_EQ(r, -1);
    EXPECT_EQ(out, "entry: 0x1 type 0 len 1: 01 \n"
                   "qmt_hconf_entry: ERROR: bad entry type: 2\n"
                   "qmt_hconf_update: ERROR: failed parse entry: 0x30:2:1:00\n\n");
    EXPECT_EQ(saved(), "0x1:0:1:01\n"); // earlier lines stay written
}

TEST_F(Device, UpdateStopsAtAFailedWrite) {
    std::string path = dir_ + "/in.txt";
    hconftest::write_file(path, "0x1:0:1:01\n0x2:0:1:02\n");
    fail("6");
    int r = -100;
    std::string out = stdout_of([&] { r = qmt_hconf_update(path.c_str()); });
    EXPECT_EQ(r, -1);
    EXPECT_EQ(out, "entry: 0x1 type 0 len 1: 01 \n"
                   "qmt_hconf_write_entry: ERROR: write entry failed\n");
    no_fail();
    EXPECT_EQ(saved(), "");

    fail("open");
    out = stdout_of([&] { r = qmt_hconf_update(path.c_str()); });
    EXPECT_EQ(r, -1);
    EXPECT_EQ(out, "entry: 0x1 type 0 len 1: 01 \n"
                   "qmt_hconf_write_entry: ERROR: open /dev/hconf failed\n");
}

TEST_F(Device, UpdateOfAMissingFile) {
    std::string path = dir_ + "/missing.txt";
    int r = -100;
    std::string out = stdout_of([&] { r = qmt_hconf_update(path.c_str()); });
    EXPECT_EQ(r, -1);
    EXPECT_EQ(out, "qmt_hconf_update: ERROR: open " + path + " failed\n");
}

TEST_F(Device, UpdateOfAnEmptyFile) {
    std::string path = dir_ + "/empty.txt";
    hconftest::write_file(path, "");
    int r = -100;
    std::string out = stdout_of([&] { r = qmt_hconf_update(path.c_str()); });
    EXPECT_EQ(r, 0);
    EXPECT_EQ(out, "");
}

// A long line (a large text entry) is read whole.
TEST_F(Device, UpdateOfALongLine) {
    std::string data(5000, 'q');
    std::string path = dir_ + "/in.txt";
    hconftest::write_file(path, "0x8:1:5000:" + data + "\n");
    stdout_of([&] { EXPECT_EQ(qmt_hconf_update(path.c_str()), 0); });
    EXPECT_EQ(saved(), "0x8:1:5000:" + data + "\n");
}

// ---- clear and sync ------------------------------------------------------------------------

TEST_F(Device, ClearEmptiesTheStore) {
    ASSERT_EQ(put("0x1:0:1:01"), 0);
    int r = -100;
    std::string out = stdout_of([&] { r = qmt_hconf_clear(); });
    EXPECT_EQ(r, 0);
    EXPECT_EQ(out, "");
    EXPECT_EQ(saved(), "");
}

TEST_F(Device, SyncCommitsWhatSurvivesARestart) {
    ASSERT_EQ(put("0x1:0:1:01"), 0);
    stdout_of([] { EXPECT_EQ(qmt_hconf_sync(), 0); });
    ASSERT_EQ(put("0x2:0:1:02"), 0);
    EXPECT_EQ(saved(), "0x1:0:1:01\n0x2:0:1:02\n");
    reboot();
    EXPECT_EQ(saved(), "0x1:0:1:01\n");
}

// ---- save_hw_conf (common helper) ----------------------------------------------------------

TEST_F(Device, SaveHwConfIpAddressIsWrittenAndSynced) {
    in_addr addr;
    ASSERT_EQ(inet_pton(AF_INET, "192.168.1.10", &addr), 1);
    std::string out = stdout_of([&] { save_hw_conf(0, addr); });
    EXPECT_EQ(out, "entry: 0x1000002 type 0 len 4: c0 a8 01 0a \n");

    // The committed image holds it, so the sync came after the write.
    uint32_t num = 0;
    std::vector<image_entry> entries;
    ASSERT_TRUE(committed(&num, &entries));
    ASSERT_EQ(num, 1u);
    EXPECT_EQ(entries[0], (image_entry{0x01000002, 0, {0xc0, 0xa8, 0x01, 0x0a}}));
    reboot();
    EXPECT_EQ(saved(), "0x1000002:0:4:c0a8010a\n");
}

TEST_F(Device, SaveHwConfNetmaskReplacesTheEarlierValue) {
    in_addr mask;
    ASSERT_EQ(inet_pton(AF_INET, "255.255.255.0", &mask), 1);
    in_addr ip;
    ASSERT_EQ(inet_pton(AF_INET, "10.0.0.7", &ip), 1);
    stdout_of([&] {
        save_hw_conf(1, mask);
        save_hw_conf(0, ip);
    });
    ASSERT_EQ(inet_pton(AF_INET, "255.255.0.0", &mask), 1);
    std::string out = stdout_of([&] { save_hw_conf(1, mask); });
    EXPECT_EQ(out, "entry: 0x1000004 type 0 len 4: ff ff 00 00 \n");
    uint32_t num = 0;
    std::vector<image_entry> entries;
    ASSERT_TRUE(committed(&num, &entries));
    ASSERT_EQ(num, 2u);
    EXPECT_EQ(entries[0], (image_entry{0x01000004, 0, {0xff, 0xff, 0x00, 0x00}}));
    EXPECT_EQ(entries[1], (image_entry{0x01000002, 0, {0x0a, 0x00, 0x00, 0x07}}));
}

TEST_F(Device, SaveHwConfOtherSelectorsDoNothing) {
    in_addr addr;
    ASSERT_EQ(inet_pton(AF_INET, "192.168.1.10", &addr), 1);
    for (int32_t which : {2, 3, -1, 4, 100}) {
        std::string out = stdout_of([&] { save_hw_conf(which, addr); });
        EXPECT_EQ(out, "") << which;
    }
    EXPECT_FALSE(hconftest::exists(image_));
    EXPECT_FALSE(hconftest::exists(image_ + ".work"));
}

TEST_F(Device, SaveHwConfReportsNothingOfItsOwn) {
    in_addr addr;
    ASSERT_EQ(inet_pton(AF_INET, "192.168.1.10", &addr), 1);
    fail("7");
    std::string out = stdout_of([&] { save_hw_conf(0, addr); });
    EXPECT_EQ(out, "entry: 0x1000002 type 0 len 4: c0 a8 01 0a \n"
                   "qmt_hconf_sync: ERROR: sync failed\n");
    no_fail();
    EXPECT_FALSE(hconftest::exists(image_));
    EXPECT_EQ(saved(), "0x1000002:0:4:c0a8010a\n");

    fail("open");
    out = stdout_of([&] { save_hw_conf(1, addr); });
    EXPECT_EQ(out, "entry: 0x1000004 type 0 len 4: c0 a8 01 0a \n"
                   "qmt_hconf_write_entry: ERROR: open /dev/hconf failed\n"
                   "qmt_hconf_sync: ERROR: open /dev/hconf failed\n");
}

// ---- the stand-in as other processes see it ------------------------------------------------

TEST_F(Device, WritesAreSeenByOtherProcessesAtOnce) {
    ASSERT_EQ(put("0x1:1:3:abc"), 0);
    hconftest::run_result r = hconftest::run(HCONF_TOOL, {"save"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "0x1:1:3:abc\n");
    r = hconftest::run(HCONF_TOOL, {"write", "0x2:0:1:ff"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(saved(), "0x1:1:3:abc\n0x2:0:1:ff\n");
}

// The stand-in answers only the device's own request numbers, so a client that used the build
// host's _IO encoding would fail every test above.
TEST_F(Device, StandInAnswersOnlyTheDevicesRequestNumbers) {
    int fd = open(QMT_HCONF_DEVICE, O_RDWR);
    ASSERT_GE(fd, 0);
    uint8_t header[12] = {};
    EXPECT_EQ(ioctl(fd, 0x20007603ul, header), 0);
    for (unsigned long other : {0x7603ul, 0x80007603ul, 0x20007703ul, 0x20007602ul}) {
        errno = 0;
        EXPECT_EQ(ioctl(fd, other, header), -1) << std::hex << other;
        EXPECT_EQ(errno, ENOTTY);
    }
    close(fd);
}

// ---- the hconf tool ------------------------------------------------------------------------

TEST_F(Device, ToolSaveClearUpdateRestoresEveryEntryInOrder) {
    const char *texts[] = {"0x01000002:0:4:c0a8010a", "0x01000004:0:4:ffffff00",
                           "0x10:1:11:hello world",   "0x20:0:0:",
                           "0x30:1:6:a:b:c;",         "0x7fffffff:0:3:000102"};
    for (const char *t : texts) {
        hconftest::run_result r = hconftest::run(HCONF_TOOL, {"write", t});
        ASSERT_EQ(r.status, 0) << t << ": " << r.out;
    }
    const std::string expected = "0x1000002:0:4:c0a8010a\n0x1000004:0:4:ffffff00\n"
                                 "0x10:1:11:hello world\n0x20:0:0:\n0x30:1:6:a:b:c;\n"
                                 "0x7fffffff:0:3:000102\n";
    std::string file = dir_ + "/store.txt";
    hconftest::run_result r = hconftest::run(HCONF_TOOL, {"save", file});
    ASSERT_EQ(r.status, 0) << r.out;
    EXPECT_EQ(r.out, "");
    std::string text;
    ASSERT_TRUE(hconftest::read_file(file, &text));
    EXPECT_EQ(text, expected);

    r = hconftest::run(HCONF_TOOL, {"clear"});
    ASSERT_EQ(r.status, 0) << r.out;
    r = hconftest::run(HCONF_TOOL, {"save"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "");

    r = hconftest::run(HCONF_TOOL, {"update", file});
    ASSERT_EQ(r.status, 0) << r.out;
    r = hconftest::run(HCONF_TOOL, {"save"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, expected);

    r = hconftest::run(HCONF_TOOL, {"header"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "header: 0x68636f6e num 6 len 88\n");
}

TEST_F(Device, ToolReadDeleteSync) {
    ASSERT_EQ(put("0x10:1:5:hello"), 0);
    hconftest::run_result r = hconftest::run(HCONF_TOOL, {"read", "0x10"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "entry: 0x10 type 1 len 5: hello\n");
    r = hconftest::run(HCONF_TOOL, {"sync"});
    EXPECT_EQ(r.status, 0);
    uint32_t num = 0;
    std::vector<image_entry> entries;
    ASSERT_TRUE(committed(&num, &entries));
    EXPECT_EQ(num, 1u);
    r = hconftest::run(HCONF_TOOL, {"delete", "16"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(saved(), "");
}

TEST_F(Device, ToolExitStatusTellsFailures) {
    hconftest::run_result r = hconftest::run(HCONF_TOOL, {"read", "0x99"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "qmt_hconf_read_entry: ERROR: read entry failed\n");
    r = hconftest::run(HCONF_TOOL, {"write", "0x1:2:0:"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "qmt_hconf_entry: ERROR: bad entry type: 2\n");
    r = hconftest::run(HCONF_TOOL, {"update", dir_ + "/missing"});
    EXPECT_EQ(r.status, 1);
    r = hconftest::run(HCONF_TOOL, {"save", dir_ + "/no/dir/file"});
    EXPECT_EQ(r.status, 1);
    fail("8");
    r = hconftest::run(HCONF_TOOL, {"clear"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "qmt_hconf_clear: ERROR: clear failed\n");
    fail("open");
    r = hconftest::run(HCONF_TOOL, {"sync"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "qmt_hconf_sync: ERROR: open /dev/hconf failed\n");
    no_fail();
    for (std::vector<std::string> bad :
         {std::vector<std::string>{}, {"read"}, {"frob"}, {"delete", "x"}, {"sync", "extra"}}) {
        r = hconftest::run(HCONF_TOOL, bad);
        EXPECT_EQ(r.status, 2) << r.out;
    }
}

} // namespace
