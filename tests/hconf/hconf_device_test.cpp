// Device operations of the hardware store, save_hw_conf and the hconf tool, against the
// driver stand-in (libhconf_standin.so, preloaded by ctest) inside the test namespaces. The
// stand-in answers only the device's own request numbers and fails requests on demand.
#include "hconf_test_util.h"

#include "qmtnm.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <sys/ioctl.h>

#ifndef HCONF_TOOL
#error "HCONF_TOOL (the hconf tool, with its emulator if any) must be defined"
#endif

using hconftest::stdout_of;

namespace {

class Device : public testing::Test {
  protected:
    void SetUp() override {
        dir_ = hconftest::fresh_dir("hconf-dev");
        image_ = dir_ + "/image";
        setenv("HCONF_STANDIN_IMAGE", image_.c_str(), 1);
        no_fail();
        int fd = open(QMT_HCONF_DEVICE, O_RDWR);
        ASSERT_GE(fd, 0) << "no /dev/hconf: run with LD_PRELOAD=<build>/hconf/libhconf_standin.so";
        close(fd);
    }
    void TearDown() override { no_fail(); }

    // The stand-in fails these requests ("open" or request numbers, comma-separated).
    static void fail(const char *what) { setenv("HCONF_STANDIN_FAIL", what, 1); }
    static void no_fail() { unsetenv("HCONF_STANDIN_FAIL"); }

    // Parses and writes one entry; returns the write's result.
    static int put(const std::string &text) {
        int r = -100;
        stdout_of([&] {
            hconftest::entry_ptr e(qmt_hconf_entry(text.c_str()));
            if (e)
                r = qmt_hconf_write_entry(e.get());
        });
        return r;
    }

    // The store's text form as qmt_hconf_save writes it to a file; messages is what the save
    // prints.
    std::string saved(const std::string &messages = "") {
        std::string path = dir_ + "/saved.txt";
        unlink(path.c_str());
        int r = -100;
        EXPECT_EQ(stdout_of([&] { r = qmt_hconf_save(path.c_str()); }), messages);
        EXPECT_EQ(r, 0);
        return hconftest::read_file(path);
    }

    // Emulates a restart of the device: the driver reloads the committed (synced) image.
    void reboot() { unlink((image_ + ".work").c_str()); }

    std::string dir_;
    std::string image_;
};

// Each single-request operation succeeds with every request but its own refused, reports its
// own refusal, and reports a device that cannot be opened.
TEST_F(Device, EachOperationIssuesItsOwnRequest) {
    const qmt_hconf_header_rec w = {QMT_HCONF_MAGIC, 1, 21};
    const uint8_t wrec[] = {0x42, 0, 0, 0, 0, 0, 1, 0, 0x5a}; // id 0x42, type 0, len 1, data
    qmt_hconf_header_rec h = {};
    uint8_t rec[8 + 16] = {};
    auto *e = reinterpret_cast<qmt_hconf_entry_rec *>(rec);
    // What a read left in the caller's record, as its dump.
    auto header_now = [&] { return stdout_of([&] { qmt_hconf_header_dump(&h); }); };
    auto entry_now = [&] { return stdout_of([&] { qmt_hconf_entry_dump(e); }); };
    struct {
        std::string func;
        const char *nr, *fail_text;
        std::string ok_out;
        std::function<int()> call;
        std::function<std::string()> filled;
    } const ops[] = {
        {"qmt_hconf_read_header", "3", "read header failed", "header: 0x68636f6e num 1 len 21\n",
         [&] { return qmt_hconf_read_header(&h); }, header_now},
        {"qmt_hconf_write_header", "4", "write header failed", "",
         [&] { return qmt_hconf_write_header(&w); }, nullptr},
        // The caller gives the id and, as len, the room for the data.
        {"qmt_hconf_read_entry", "5", "read entry failed", "entry: 0x42 type 0 len 1: 5a \n",
         [&] { return e->id = 0x42, e->len = 16, qmt_hconf_read_entry(e); }, entry_now},
        {"qmt_hconf_write_entry", "6", "write entry failed", "",
         [&] { return qmt_hconf_write_entry(reinterpret_cast<const qmt_hconf_entry_rec *>(wrec)); },
         nullptr},
        // The argument is passed through: the stand-in refuses an id it does not hold.
        {"qmt_hconf_del_entry", "9", "delete entry failed", "",
         [] { return qmt_hconf_del_entry(0x42); }, nullptr},
        {"qmt_hconf_sync", "7", "sync failed", "", qmt_hconf_sync, nullptr},
        {"qmt_hconf_clear", "8", "clear failed", "", qmt_hconf_clear, nullptr},
    };
    for (const auto &op : ops) {
        SCOPED_TRACE(op.func);
        no_fail();
        ASSERT_EQ(put("0x42:0:1:5a"), 0); // the entry that read and delete look for
        std::string others;
        for (const char *nr : {"1", "2", "3", "4", "5", "6", "7", "8", "9"})
            if (strcmp(nr, op.nr) != 0)
                others += std::string(others.empty() ? "" : ",") + nr;
        struct {
            std::string fail;
            int result;
            std::string out;
        } const runs[] = {
            {others, 0, op.ok_out},
            {op.nr, -1, op.func + ": ERROR: " + op.fail_text + "\n"},
            {"open", -1, op.func + ": ERROR: open /dev/hconf failed\n"},
        };
        for (const auto &run : runs) {
            fail(run.fail.c_str());
            int r = -100;
            EXPECT_EQ(stdout_of([&] { r = op.call(); }), run.out) << run.fail;
            EXPECT_EQ(r, run.result) << run.fail;
            if (r == 0 && op.filled) {
                EXPECT_EQ(op.filled(), op.ok_out) << "the caller's record";
            }
        }
    }
}

// So a client that used the build host's _IO encoding would fail every test here.
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

// The stand-in holds what the driver holds: 64 entries within a 65536-byte image. The save of a
// full image keeps its last entry.
TEST_F(Device, StoreBoundsAndTheSaveOfAFullImage) {
    for (int i = 0; i < 64; ++i)
        ASSERT_EQ(put("0x" + std::to_string(100 + i) + ":0:1:01"), 0) << i;
    EXPECT_EQ(put("0x999:0:1:01"), -1);
    EXPECT_EQ(put("0x100:1:2:ok"), 0); // replacing one of the 64 still works
    stdout_of([] { EXPECT_EQ(qmt_hconf_clear(), 0); });
    ASSERT_EQ(put("0x1:0:65508:"), 0); // 12 + 8 + 65508 = 65528: room for one empty entry
    EXPECT_EQ(put("0x2:0:1:00"), -1);
    EXPECT_EQ(put("0x2:0:0:"), 0);
    EXPECT_EQ(saved(), "0x1:0:65508:" + std::string(2 * 65508, '0') + "\n0x2:0:0:\n");
}

TEST_F(Device, SaveWritesOneLinePerEntryInStoreOrderAndReportsFailures) {
    EXPECT_EQ(saved(), "");
    ASSERT_EQ(put("0x01000002:0:4:c0a8010a"), 0);
    ASSERT_EQ(put("0x10:1:5:hello"), 0);
    // A null path: the lines go to standard output, which stays open.
    int r = -100;
    EXPECT_EQ(stdout_of([&] { r = qmt_hconf_save(nullptr); }),
              "0x1000002:0:4:c0a8010a\n0x10:1:5:hello\n");
    EXPECT_EQ(r, 0);
    EXPECT_NE(fcntl(1, F_GETFD), -1);
    EXPECT_EQ(fprintf(stdout, "%s", ""), 0);
    EXPECT_EQ(ferror(stdout), 0);
    // An entry of an invalid type (written by another program) is reported, its data skipped.
    const uint8_t type2[] = {0x30, 0, 0, 0, 2, 0, 3, 0, 'x', 'y', 'z'};
    ASSERT_EQ(qmt_hconf_write_entry(reinterpret_cast<const qmt_hconf_entry_rec *>(type2)), 0);
    ASSERT_EQ(put("0x40:1:2:ok"), 0);
    EXPECT_EQ(saved("qmt_hconf_save: ERROR: invalid entry type: 2\n"),
              "0x1000002:0:4:c0a8010a\n0x10:1:5:hello\n0x30:2:3:\n0x40:1:2:ok\n");

    const std::string path = dir_ + "/out.txt", no_dir = dir_ + "/no/dir/out.txt";
    struct {
        const char *fail;
        std::string path;
        int result;
        std::string out;
    } const rows[] = {
        // The output is opened only after the read.
        {"1", path, -1, "qmt_hconf_save: ERROR: failed read all\n"},
        {"open", path, -1, "qmt_hconf_save: ERROR: open /dev/hconf failed\n"},
        // Reported by the message alone.
        {"", no_dir, 0, "qmt_hconf_save: ERROR: open " + no_dir + " failed\n"},
    };
    for (const auto &row : rows) {
        fail(row.fail);
        int r = -100;
        EXPECT_EQ(stdout_of([&] { r = qmt_hconf_save(row.path.c_str()); }), row.out);
        EXPECT_EQ(r, row.result);
        EXPECT_FALSE(hconftest::exists(row.path));
    }
}

// Whatever the driver returns, the save stays within the 65536-byte image.
TEST_F(Device, SaveStopsAtAnEntryRunningPastTheImage) {
    std::string img(65536, '\0');
    const uint32_t words[] = {QMT_HCONF_MAGIC, 64, 65536, 0x1};
    memcpy(&img[0], words, sizeof words);
    const uint8_t rest[] = {0, 0, 2, 0, 0xab, 0xcd,              // entry 1: type 0, len 2, data
                            2, 0, 0, 0, 1,    0,    0xff, 0xff}; // entry 2 claims 65535 bytes
    memcpy(&img[16], rest, sizeof rest);
    hconftest::write_file(image_, img);
    EXPECT_EQ(saved(), "0x1:0:2:abcd\n");
}

TEST_F(Device, UpdateWritesEveryEntryInOrderSkipsShortLinesAndDoesNotSync) {
    const std::string path = dir_ + "/in.txt", q(5000, 'q');
    hconftest::write_file(path, "0x3:0:1:03\n\n0x1:1:2:hi\nabcd\n\n0x8:1:5000:" + q +
                                    "\n0x2:0:0:\n12345");
    int r = -100;
    EXPECT_EQ(stdout_of([&] { r = qmt_hconf_update(path.c_str()); }),
              "entry: 0x3 type 0 len 1: 03 \nentry: 0x1 type 1 len 2: hi\n"
              "entry: 0x8 type 1 len 5000: " +
                  q + "\nentry: 0x2 type 0 len 0: \n");
    EXPECT_EQ(r, 0);
    EXPECT_EQ(saved(), "0x3:0:1:03\n0x1:1:2:hi\n0x8:1:5000:" + q + "\n0x2:0:0:\n");
    reboot();
    EXPECT_EQ(saved(), "");
}

// Entries of earlier lines stay written.
TEST_F(Device, UpdateStopsAtTheFirstFailure) {
    const std::string in = dir_ + "/in.txt", missing = dir_ + "/missing.txt";
    hconftest::write_file(in, "0x1:0:1:01\n0x30:2:1:00\n0x2:0:1:02\n");
    const std::string first = "entry: 0x1 type 0 len 1: 01 \n";
    struct {
        const char *fail;
        std::string path, out, kept;
    } const rows[] = {
        {"", in,
         first + "qmt_hconf_entry: ERROR: bad entry type: 2\n"
                 "qmt_hconf_update: ERROR: failed parse entry: 0x30:2:1:00\n\n",
         "0x1:0:1:01\n"},
        {"6", in, first + "qmt_hconf_write_entry: ERROR: write entry failed\n", ""},
        {"open", in, first + "qmt_hconf_write_entry: ERROR: open /dev/hconf failed\n", ""},
        {"", missing, "qmt_hconf_update: ERROR: open " + missing + " failed\n", ""},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.out);
        stdout_of([] { EXPECT_EQ(qmt_hconf_clear(), 0); });
        fail(row.fail);
        int r = -100;
        EXPECT_EQ(stdout_of([&] { r = qmt_hconf_update(row.path.c_str()); }), row.out);
        EXPECT_EQ(r, -1);
        no_fail();
        EXPECT_EQ(saved(), row.kept);
    }
}

// save_hw_conf (a common helper): the address or netmask entry, written, then committed; it
// reports nothing of its own.
TEST_F(Device, SaveHwConfWritesAndCommitsTheAddressEntries) {
    auto addr = [](const char *text) {
        in_addr a{};
        EXPECT_EQ(inet_pton(AF_INET, text, &a), 1);
        return a;
    };
    EXPECT_EQ(stdout_of([&] {
                  save_hw_conf(1, addr("255.255.255.0"));
                  save_hw_conf(0, addr("192.168.1.10"));
                  save_hw_conf(1, addr("255.255.0.0")); // replaces the earlier netmask
              }),
              "entry: 0x1000004 type 0 len 4: ff ff ff 00 \n"
              "entry: 0x1000002 type 0 len 4: c0 a8 01 0a \n"
              "entry: 0x1000004 type 0 len 4: ff ff 00 00 \n");
    for (int32_t which : {2, 3, -1, 4, 100})
        EXPECT_EQ(stdout_of([&] { save_hw_conf(which, addr("10.0.0.7")); }), "") << which;
    const std::string committed = "0x1000004:0:4:ffff0000\n0x1000002:0:4:c0a8010a\n";
    reboot();
    EXPECT_EQ(saved(), committed);

    fail("7");
    EXPECT_EQ(stdout_of([&] { save_hw_conf(0, addr("10.0.0.7")); }),
              "entry: 0x1000002 type 0 len 4: 0a 00 00 07 \nqmt_hconf_sync: ERROR: sync failed\n");
    fail("open");
    EXPECT_EQ(stdout_of([&] { save_hw_conf(1, addr("10.0.0.7")); }),
              "entry: 0x1000004 type 0 len 4: 0a 00 00 07 \n"
              "qmt_hconf_write_entry: ERROR: open /dev/hconf failed\n"
              "qmt_hconf_sync: ERROR: open /dev/hconf failed\n");
    no_fail();
    EXPECT_EQ(saved(), "0x1000004:0:4:ffff0000\n0x1000002:0:4:0a000007\n");
    reboot();
    EXPECT_EQ(saved(), committed);
}

// The tool, a process of its own: one script of calls, each with its exit status and output.
TEST_F(Device, ToolCallsAndExitStatus) {
    const std::string file = dir_ + "/store.txt";
    const std::string all = "0x1000002:0:4:c0a8010a\n0x10:1:11:hello world\n0x20:0:0:\n"
                            "0x30:1:6:a:b:c;\n0x7fffffff:0:3:000102\n";
    struct {
        const char *fail;
        std::vector<std::string> args;
        int status;
        const char *out; // null: not compared
    } const steps[] = {
        {"",
         {"write", "0x01000002:0:4:c0a8010a"},
         0,
         "entry: 0x1000002 type 0 len 4: c0 a8 01 0a \n"},
        {"", {"write", "0x10:1:11:hello world"}, 0, nullptr},
        {"", {"write", "0x20:0:0:"}, 0, nullptr},
        {"", {"write", "0x30:1:6:a:b:c;"}, 0, nullptr},
        {"", {"write", "0x7fffffff:0:3:000102"}, 0, nullptr},
        {"", {"save", file}, 0, ""},
        {"", {"clear"}, 0, ""},
        {"", {"save"}, 0, ""},
        {"", {"update", file}, 0, nullptr},
        {"", {"save"}, 0, all.c_str()},
        {"", {"header"}, 0, "header: 0x68636f6e num 5 len 76\n"},
        {"", {"read", "0x10"}, 0, "entry: 0x10 type 1 len 11: hello world\n"},
        {"", {"sync"}, 0, ""},
        {"", {"delete", "16"}, 0, ""},
        {"", {"read", "0x10"}, 1, "qmt_hconf_read_entry: ERROR: read entry failed\n"},
        {"", {"write", "0x1:2:0:"}, 1, "qmt_hconf_entry: ERROR: bad entry type: 2\n"},
        {"", {"update", dir_ + "/missing"}, 1, nullptr},
        {"", {"save", dir_ + "/no/dir/file"}, 1, nullptr},
        {"8", {"clear"}, 1, "qmt_hconf_clear: ERROR: clear failed\n"},
        {"open", {"sync"}, 1, "qmt_hconf_sync: ERROR: open /dev/hconf failed\n"},
        {"", {}, 2, nullptr},
        {"", {"read"}, 2, nullptr},
        {"", {"frob"}, 2, nullptr},
        {"", {"delete", "x"}, 2, nullptr},
        {"", {"sync", "extra"}, 2, nullptr},
    };
    for (const auto &step : steps) {
        SCOPED_TRACE(testing::PrintToString(step.args));
        fail(step.fail);
        hconftest::run_result r = hconftest::run(HCONF_TOOL, step.args);
        EXPECT_EQ(r.status, step.status) << r.out;
        if (step.out != nullptr) {
            EXPECT_EQ(r.out, step.out);
        }
    }
    no_fail();
    EXPECT_EQ(hconftest::read_file(file), all);
    // What the tool's sync committed, before the delete.
    reboot();
    EXPECT_EQ(saved(), all);
}

} // namespace
