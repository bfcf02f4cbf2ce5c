// The settings store: every directive the library uses, capacity truncation, ill-formed
// formats, lists, several processes and threads writing at once, fork, a writer killed mid-way.
#include "support/test_support.h"

#include "qmt_conf.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr const char *D = "network";

class Store : public testing::Test {
  protected:
    void SetUp() override { nmtest::load_defaults(); }
};

TEST_F(Store, IntegersAndStringsRoundTrip) {
    int v = -1;
    ASSERT_EQ(qmt_conf_printf(D, "%k%k%d", "network_qos", "dscp", -17), 0);
    ASSERT_EQ(qmt_conf_scanf(D, "%k%k%d", "network_qos", "dscp", &v), 0);
    EXPECT_EQ(v, -17);
    // A write replaces the value at the path.
    ASSERT_EQ(qmt_conf_printf(D, "%k%k%d", "network_qos", "dscp", 46), 0);
    ASSERT_EQ(qmt_conf_scanf(D, "%k%k%d", "network_qos", "dscp", &v), 0);
    EXPECT_EQ(v, 46);

    char buf[64];
    ASSERT_EQ(qmt_conf_printf(D, "%k%k%s", "network_wan", "ipaddr", "10.0.0.1"), 0);
    ASSERT_EQ(qmt_conf_scanf(D, "%k%k%l%s", "network_wan", "ipaddr", 16, buf), 0);
    EXPECT_STREQ(buf, "10.0.0.1");
    // %K addresses the key as %k does.
    ASSERT_EQ(qmt_conf_printf(D, "%k%k%s", "network_softap", "ssid", "my ap 'quoted' \"x\""), 0);
    ASSERT_EQ(qmt_conf_scanf(D, "%k%K%l%s", "network_softap", "ssid", 33, buf), 0);
    EXPECT_STREQ(buf, "my ap 'quoted' \"x\"");
    // Nested group.
    ASSERT_EQ(qmt_conf_printf(D, "%k%k%k%d", "network_ipfilter", "common", "mode", 2), 0);
    ASSERT_EQ(qmt_conf_scanf(D, "%k%k%k%d", "network_ipfilter", "common", "mode", &v), 0);
    EXPECT_EQ(v, 2);
    // An empty string is a value, not a missing one.
    ASSERT_EQ(qmt_conf_printf(D, "%k%k%s", "network_bonjour", "hostname", ""), 0);
    strcpy(buf, "junk");
    ASSERT_EQ(qmt_conf_scanf(D, "%k%k%l%s", "network_bonjour", "hostname", 64, buf), 0);
    EXPECT_STREQ(buf, "");
}

TEST_F(Store, StringReadsStopAtCapacity) {
    struct {
        const char *stored;
        int cap;
        const char *expected;
    } const rows[] = {
        {"255.255.255.255", 16, "255.255.255.255"},     // 15 characters fit in 16
        {"1234567890123456789", 16, "123456789012345"}, // cut to 15 and terminated
        {"br0-long", 6, "br0-l"},                       // the LAN record's capacity 6
        {"br0-long", 8, "br0-lon"},
        {"x", 1, ""},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.stored);
        ASSERT_EQ(qmt_conf_printf(D, "%k%k%s", "network_lan", "port", r.stored), 0);
        char buf[32];
        memset(buf, '#', sizeof buf);
        ASSERT_EQ(qmt_conf_scanf(D, "%k%k%l%s", "network_lan", "port", r.cap, buf), 0);
        EXPECT_STREQ(buf, r.expected);
        EXPECT_EQ(buf[r.cap], '#') << "wrote past the capacity";
    }
}

TEST_F(Store, FailuresAreNegative) {
    int v = 0;
    char buf[16];
    EXPECT_EQ(qmt_conf_scanf(D, "%k%k%d", "network_qos", "nosuchkey", &v), QMT_CONF_ENOENT);
    EXPECT_EQ(qmt_conf_scanf(D, "%k%k%l%s", "network_nosuch", "x", 16, buf), QMT_CONF_ENOENT);
    // Type mismatch: the port is a string.
    EXPECT_LT(qmt_conf_scanf(D, "%k%k%d", "network_wan", "port", &v), 0);

    struct {
        bool write;
        const char *format;
    } const ill_formed[] = {
        {false, ""},         {false, "%k%k"},    {false, "%k%d"},     {false, "%k%k%x"},
        {false, "%k%kd"},    {false, "%k%k%s"},  {false, "%k%k%d%d"}, {false, "%k%k%r"},
        {false, "%k%k%l%d"}, {false, "%k%k%d "}, {false, "%"},        {false, "%k%k%l"},
        {true, "%k%k%z"},    {true, "%k%k%l%s"}, {true, "%k%k"},      {true, "%k%k%d%r"},
        {true, "%i%k%k%d"},  {true, "k%k%d"},
    };
    for (const auto &r : ill_formed) {
        SCOPED_TRACE(r.format);
        // Arguments enough for any prefix of these formats, all harmless.
        int out = 0;
        int rc = r.write
                     ? qmt_conf_printf(D, r.format, "network_qos", "enable", 16, 0, 0, 0)
                     : qmt_conf_scanf(D, r.format, "network_qos", "enable", 16, &out, &out, &out);
        EXPECT_EQ(rc, QMT_CONF_EFORMAT);
    }
    // Bad components: empty, with a '/', or a reserved '#'.
    EXPECT_EQ(qmt_conf_printf(D, "%k%k%d", "", "x", 1), QMT_CONF_EFORMAT);
    EXPECT_EQ(qmt_conf_printf(D, "%k%k%d", "network_qos", "a/b", 1), QMT_CONF_EFORMAT);
    EXPECT_EQ(qmt_conf_printf(D, "%k%k%d", "network_qos", "#1", 1), QMT_CONF_EFORMAT);
    EXPECT_EQ(qmt_conf_printf(D, "%k%k%s", "network_qos", "x", nullptr), QMT_CONF_EFORMAT);
    EXPECT_EQ(qmt_conf_printf(nullptr, "%k%k%d", "network_qos", "x", 1), QMT_CONF_EFORMAT);
    // Nothing of the above was written.
    EXPECT_EQ(qmt_conf_scanf(D, "%k%k%d", "network_qos", "x", &v), QMT_CONF_ENOENT);
}

TEST_F(Store, ListsCountElementsAndDeleteThem) {
    int count = -1;
    ASSERT_EQ(qmt_conf_scanf(D, "%k%k%z", "network_ipfilter", "rules", &count), 0);
    EXPECT_EQ(count, 0);
    const char *begins[] = {"10.0.0.1", "10.0.1.1", "10.0.2.1"};
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(
            qmt_conf_printf(D, "%k%k%i%k%s", "network_ipfilter", "rules", i, "begin_ip", begins[i]),
            0);
        ASSERT_EQ(
            qmt_conf_printf(D, "%k%k%i%k%s", "network_ipfilter", "rules", i, "end_ip", "10.9.9.9"),
            0);
    }
    ASSERT_EQ(qmt_conf_scanf(D, "%k%k%z", "network_ipfilter", "rules", &count), 0);
    EXPECT_EQ(count, 3);
    char buf[16];
    ASSERT_EQ(
        qmt_conf_scanf(D, "%k%k%i%k%l%s", "network_ipfilter", "rules", 1, "begin_ip", 16, buf), 0);
    EXPECT_STREQ(buf, "10.0.1.1");
    // Deleting both keys of the last element shortens the list; one key keeps it.
    ASSERT_EQ(qmt_conf_printf(D, "%k%k%i%k%r", "network_ipfilter", "rules", 2, "begin_ip"), 0);
    ASSERT_EQ(qmt_conf_scanf(D, "%k%k%z", "network_ipfilter", "rules", &count), 0);
    EXPECT_EQ(count, 3);
    ASSERT_EQ(qmt_conf_printf(D, "%k%k%i%k%r", "network_ipfilter", "rules", 2, "end_ip"), 0);
    ASSERT_EQ(qmt_conf_scanf(D, "%k%k%z", "network_ipfilter", "rules", &count), 0);
    EXPECT_EQ(count, 2);
    EXPECT_EQ(qmt_conf_scanf(D, "%k%k%i%k%l%s", "network_ipfilter", "rules", 2, "end_ip", 16, buf),
              QMT_CONF_ENOENT);
    // Deleting a missing value succeeds; the group "common" is not a list element.
    EXPECT_EQ(qmt_conf_printf(D, "%k%k%i%k%r", "network_ipfilter", "rules", 7, "end_ip"), 0);
    ASSERT_EQ(qmt_conf_scanf(D, "%k%k%z", "network_ipfilter", "common", &count), 0);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(qmt_conf_printf(D, "%k%k%i%k%s", "network_ipfilter", "rules", -1, "end_ip", "x"),
              QMT_CONF_EFORMAT);
}

TEST_F(Store, TextFormRoundTripsAndABadLineChangesNothing) {
    char *text = nullptr;
    size_t len = 0;
    FILE *out = open_memstream(&text, &len);
    ASSERT_EQ(sysconf_dump(out, "network/network_qos/"), 0);
    fclose(out);
    EXPECT_STREQ(text, "network/network_qos/dscp = 0\nnetwork/network_qos/enable = 0\n");
    free(text);

    ASSERT_EQ(sysconf_set_path("network/network_bonjour/hostname", "\"a \\\"b\\\" c\""), 0);
    char buf[64];
    ASSERT_EQ(qmt_conf_scanf(D, "%k%k%l%s", "network_bonjour", "hostname", 64, buf), 0);
    EXPECT_STREQ(buf, "a \"b\" c");

    const char bad[] = "network/network_qos/enable = 1\nnot a line\n";
    FILE *in = fmemopen(const_cast<char *>(bad), strlen(bad), "r");
    EXPECT_EQ(sysconf_load(in, 1), QMT_CONF_EFORMAT);
    fclose(in);
    int v = -1;
    ASSERT_EQ(qmt_conf_scanf(D, "%k%k%d", "network_qos", "enable", &v), 0);
    EXPECT_EQ(v, 0) << "a rejected load changed the store";
    ASSERT_EQ(qmt_conf_scanf(D, "%k%k%l%s", "network_wan", "port", 8, buf), 0);
    EXPECT_STREQ(buf, "eth0");
}

// Writes n values under network_stress/<tag>_<i> and exits 0 if every write succeeded.
int write_many(const char *tag, int n) {
    for (int i = 0; i < n; ++i) {
        std::string key = std::string(tag) + "_" + std::to_string(i);
        if (qmt_conf_printf(D, "%k%k%d", "network_stress", key.c_str(), i * 7) < 0)
            return 1;
    }
    return 0;
}

TEST_F(Store, SeveralProcessesAndThreadsLoseNoWrite) {
    constexpr int kProcs = 4, kWrites = 150;
    // The parent has used the store: its children must not reuse its connection.
    int v;
    ASSERT_EQ(qmt_conf_scanf(D, "%k%k%d", "network_qos", "enable", &v), 0);
    std::vector<pid_t> kids;
    for (int p = 0; p < kProcs; ++p) {
        pid_t pid = fork();
        if (pid == 0) {
            std::string tag = "p" + std::to_string(p);
            int bad = 0;
            std::thread t([&] { bad |= write_many((tag + "t").c_str(), kWrites / 2); });
            bad |= write_many(tag.c_str(), kWrites);
            t.join();
            _exit(bad);
        }
        kids.push_back(pid);
    }
    int parent_bad = write_many("parent", kWrites);
    for (pid_t pid : kids) {
        int status = 0;
        waitpid(pid, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "a writer failed";
    }
    EXPECT_EQ(parent_bad, 0);
    // Every value of every writer is there.
    auto check = [&](const std::string &tag, int n) {
        for (int i = 0; i < n; ++i) {
            int got = -1;
            std::string key = tag + "_" + std::to_string(i);
            ASSERT_EQ(qmt_conf_scanf(D, "%k%k%d", "network_stress", key.c_str(), &got), 0) << key;
            ASSERT_EQ(got, i * 7) << key;
        }
    };
    check("parent", kWrites);
    for (int p = 0; p < kProcs; ++p) {
        check("p" + std::to_string(p), kWrites);
        check("p" + std::to_string(p) + "t", kWrites / 2);
    }
}

TEST_F(Store, AWriterKilledMidWayLeavesEveryAcknowledgedValue) {
    int ack[2];
    ASSERT_EQ(pipe(ack), 0);
    pid_t pid = fork();
    if (pid == 0) {
        close(ack[0]);
        for (int i = 0;; ++i) {
            if (qmt_conf_printf(D, "%k%k%d", "network_crash", "counter", i) < 0)
                _exit(1);
            if (write(ack[1], &i, sizeof i) != sizeof i)
                _exit(1);
        }
    }
    close(ack[1]);
    int last = -1, got;
    for (int n = 0; n < 200 && read(ack[0], &got, sizeof got) == sizeof got; ++n)
        last = got;
    kill(pid, SIGKILL);
    // Values acknowledged before the kill are on disk; at most the one in flight is newer.
    while (read(ack[0], &got, sizeof got) == sizeof got)
        last = got;
    close(ack[0]);
    waitpid(pid, nullptr, 0);
    ASSERT_GE(last, 0);
    int v = -1;
    ASSERT_EQ(qmt_conf_scanf(D, "%k%k%d", "network_crash", "counter", &v), 0);
    EXPECT_TRUE(v == last || v == last + 1) << v << " vs " << last;
    EXPECT_EQ(nmtest::sh(std::string("sqlite3 ") + sysconf_db_path() + " 'PRAGMA integrity_check'"),
              "ok\n");
}

} // namespace
