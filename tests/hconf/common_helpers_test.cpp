// The common helpers write_conf_file, nm_get_inaddr and update_hosts_file, inside the test
// namespaces (private /tmp, /var and network; /dev/log captured). save_hw_conf is covered with
// the hardware store's device tests.
#include "hconf_test_util.h"

#include "qmt_conf.h"
#include "qmtnm.h"
#include "support/test_support.h"

#include <arpa/inet.h>
#include <cerrno>
#include <net/if_arp.h>
#include <sys/socket.h>

#ifndef QMTNM_PRODUCT_HOSTNAME
#error "QMTNM_PRODUCT_HOSTNAME must be defined as the library's"
#endif

using nmtest::logs;

namespace {

constexpr int32_t kStoreFail = static_cast<int32_t>(0xFD00FFFEu);
constexpr int32_t kOpenFail = static_cast<int32_t>(0xFD00FFFDu);

std::vector<std::string> error_lines(const char *func, const std::string &text) {
    return {nmtest::logged(func, text)};
}

class LogLevel {
  public:
    explicit LogLevel(int32_t level) : saved_(nm_log_level) { nm_log_level = level; }
    ~LogLevel() { nm_log_level = saved_; }

  private:
    int32_t saved_;
};

// ---- write_conf_file -------------------------------------------------------------------------

class WriteConfFile : public testing::Test {
  protected:
    void SetUp() override {
        dir_ = hconftest::fresh_dir("hconf-wcf");
        logs().clear();
    }
    std::string dir_;
};

TEST_F(WriteConfFile, ErrorCodesAreTheLibrarysOwn) {
    EXPECT_EQ(kOpenFail, QMTNM_ERR(QMTNM_MODULE_CORE, QMTNM_R_IO));
    EXPECT_EQ(kStoreFail, QMTNM_ERR(QMTNM_MODULE_CORE, QMTNM_R_STORE));
    EXPECT_EQ(kOpenFail, -50266115);
    EXPECT_EQ(kStoreFail, -50266114);
}

TEST_F(WriteConfFile, ModeOneCreatesWithMode0644) {
    std::string path = dir_ + "/new.conf";
    mode_t old = umask(0);
    int32_t r = write_conf_file(path.c_str(), 1, "line one\nline two\n");
    umask(old);
    EXPECT_EQ(r, 0);
    std::string text;
    ASSERT_TRUE(hconftest::read_file(path, &text));
    EXPECT_EQ(text, "line one\nline two\n");
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644u);
    EXPECT_EQ(logs().texts(), std::vector<std::string>{});
}

TEST_F(WriteConfFile, ModeOneTruncates) {
    std::string path = dir_ + "/old.conf";
    hconftest::write_file(path, "a much longer earlier content\n");
    EXPECT_EQ(write_conf_file(path.c_str(), 1, "short\n"), 0);
    std::string text;
    ASSERT_TRUE(hconftest::read_file(path, &text));
    EXPECT_EQ(text, "short\n");
}

TEST_F(WriteConfFile, ModeTwoAppendsToAnExistingFile) {
    std::string path = dir_ + "/append.conf";
    hconftest::write_file(path, "first\n");
    EXPECT_EQ(write_conf_file(path.c_str(), 2, "second\n"), 0);
    EXPECT_EQ(write_conf_file(path.c_str(), 2, ""), 0);
    EXPECT_EQ(write_conf_file(path.c_str(), 2, "third\n"), 0);
    std::string text;
    ASSERT_TRUE(hconftest::read_file(path, &text));
    EXPECT_EQ(text, "first\nsecond\nthird\n");
}

struct open_fail_case {
    uint32_t mode;
    const char *name; // below the test's directory
};

class WriteConfFileOpenFails : public WriteConfFile,
                               public testing::WithParamInterface<open_fail_case> {};

TEST_P(WriteConfFileOpenFails, LogsAndReturnsTheCode) {
    std::string path = dir_ + GetParam().name;
    EXPECT_EQ(write_conf_file(path.c_str(), GetParam().mode, "text\n"), kOpenFail);
    EXPECT_FALSE(hconftest::exists(path));
    EXPECT_EQ(logs().texts(),
              error_lines("write_conf_file", "open " + path + " fail, errno = -50266115"));
}

INSTANTIATE_TEST_SUITE_P(Table, WriteConfFileOpenFails,
                         testing::Values(open_fail_case{2, "/missing.conf"},
                                         open_fail_case{1, "/no/such/dir/x.conf"},
                                         open_fail_case{2, "/no/such/dir/x.conf"}));

TEST_F(WriteConfFile, ErrorsAreLoggedAtLevelZero) {
    LogLevel level(0);
    std::string path = dir_ + "/missing.conf";
    EXPECT_EQ(write_conf_file(path.c_str(), 2, "x"), kOpenFail);
    EXPECT_EQ(logs().texts().size(), 1u);
}

// Any other mode writes the text to descriptor 0 and closes it. Run in a child, whose
// descriptor 0 is the write end of a pipe.
class WriteConfFileOtherMode : public WriteConfFile,
                               public testing::WithParamInterface<uint32_t> {};

TEST_P(WriteConfFileOtherMode, WritesToDescriptorZeroAndClosesIt) {
    std::string path = dir_ + "/untouched.conf";
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    fflush(nullptr);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        close(p[0]);
        if (dup2(p[1], 0) != 0)
            _exit(10);
        close(p[1]);
        int32_t r = write_conf_file(path.c_str(), GetParam(), "to stdin\n");
        if (r != 0)
            _exit(11);
        if (fcntl(0, F_GETFD) != -1 || errno != EBADF)
            _exit(12); // descriptor 0 must be closed now
        _exit(0);
    }
    close(p[1]);
    std::string got;
    char buf[256];
    ssize_t n;
    while ((n = read(p[0], buf, sizeof buf)) > 0)
        got.append(buf, static_cast<size_t>(n));
    close(p[0]);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(got, "to stdin\n");
    EXPECT_FALSE(hconftest::exists(path));
}

INSTANTIATE_TEST_SUITE_P(Table, WriteConfFileOtherMode,
                         testing::Values(0u, 3u, 4u, 0x80000000u, 0xFFFFFFFFu));

// ---- nm_get_inaddr ---------------------------------------------------------------------------

// A veth pair of the test's own network namespace, with a known hardware address.
class GetInaddr : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        ip({"link", "add", "hcv0", "type", "veth", "peer", "name", "hcv1"});
        ip({"link", "set", "hcv0", "address", "02:11:22:33:44:55"});
        ip({"addr", "add", "192.0.2.10/24", "dev", "hcv0"});
    }
    static void TearDownTestSuite() { ip({"link", "del", "hcv0"}); }
    static void ip(const std::vector<std::string> &args) {
        hconftest::run_result r = hconftest::run("ip", args);
        ASSERT_EQ(r.status, 0) << "ip failed: " << r.out;
    }
    static std::string dotted(uint32_t addr) {
        char text[INET_ADDRSTRLEN];
        inet_ntop(AF_INET, &addr, text, sizeof text);
        return text;
    }
};

TEST_F(GetInaddr, AddressAndNetmaskOfAnInterface) {
    uint32_t addr = 0;
    EXPECT_EQ(nm_get_inaddr("hcv0", 0, &addr), 0);
    EXPECT_EQ(dotted(addr), "192.0.2.10");
    uint32_t mask = 0;
    EXPECT_EQ(nm_get_inaddr("hcv0", 2, &mask), 0);
    EXPECT_EQ(dotted(mask), "255.255.255.0");
}

TEST_F(GetInaddr, LoopbackAddress) {
    uint32_t addr = 0, mask = 0;
    EXPECT_EQ(nm_get_inaddr("lo", 0, &addr), 0);
    EXPECT_EQ(dotted(addr), "127.0.0.1");
    EXPECT_EQ(nm_get_inaddr("lo", 2, &mask), 0);
    EXPECT_EQ(dotted(mask), "255.0.0.0");
}

TEST_F(GetInaddr, HardwareAddressIsTheWholeSockaddr) {
    uint8_t out[16];
    memset(out, 0xAA, sizeof out);
    EXPECT_EQ(nm_get_inaddr("hcv0", 4, out), 0);
    uint16_t family;
    memcpy(&family, out, 2);
    EXPECT_EQ(family, ARPHRD_ETHER);
    const uint8_t mac[] = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
    EXPECT_EQ(memcmp(out + 2, mac, 6), 0);
    for (int i = 8; i < 16; ++i)
        EXPECT_EQ(out[i], 0) << i; // the kernel's padding, copied too

    memset(out, 0xAA, sizeof out);
    EXPECT_EQ(nm_get_inaddr("lo", 4, out), 0);
    memcpy(&family, out, 2);
    EXPECT_EQ(family, ARPHRD_LOOPBACK);
    for (int i = 2; i < 16; ++i)
        EXPECT_EQ(out[i], 0) << i;
}

TEST_F(GetInaddr, MissingInterfaceIsNoDevice) {
    for (int32_t which : {0, 1, 2, 4, 7}) {
        uint8_t out[16];
        memset(out, 0xAA, sizeof out);
        EXPECT_EQ(nm_get_inaddr("hcnone0", which, out), -ENODEV) << which;
        for (uint8_t b : out)
            EXPECT_EQ(b, 0xAA);
    }
}

TEST_F(GetInaddr, OtherSelectorsLeaveOutUnchanged) {
    for (int32_t which : {1, 3, 5, 6, -1, 100}) {
        uint8_t out[16];
        memset(out, 0xAA, sizeof out);
        EXPECT_EQ(nm_get_inaddr("hcv0", which, out), 0) << which;
        for (uint8_t b : out)
            EXPECT_EQ(b, 0xAA) << which;
    }
}

// The interface exists but has no IPv4 address: the second request's errno comes back.
TEST_F(GetInaddr, InterfaceWithoutAddress) {
    uint32_t addr = 0x12345678;
    EXPECT_EQ(nm_get_inaddr("hcv1", 0, &addr), -EADDRNOTAVAIL);
    EXPECT_EQ(addr, 0x12345678u);
    EXPECT_EQ(nm_get_inaddr("hcv1", 2, &addr), -EADDRNOTAVAIL);
    EXPECT_EQ(addr, 0x12345678u);
}

// ---- update_hosts_file -----------------------------------------------------------------------

constexpr const char *kHosts = "/var/conf/hosts";

int put_str(const char *section, const char *key, const char *value) {
    return qmt_conf_printf("network", "%k%k%s", section, key, value);
}
int del_key(const char *section, const char *key) {
    return qmt_conf_printf("network", "%k%k%r", section, key);
}

std::string hosts_text(const std::string &wan, const std::string &lan, const std::string &host) {
    return "# Do not remove the following line, or various programs\n"
           "# that require network functionality will fail.\n"
           "127.0.0.1\tlocalhost.localdomain\tlocalhost\n" +
           wan + "\t" + host + "\n" + lan + "\t" + QMTNM_PRODUCT_HOSTNAME "\n";
}

class UpdateHosts : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(put_str("network_wan", "ipaddr", "192.168.0.100"), 0);
        ASSERT_EQ(put_str("network_lan", "ipaddr", "192.168.1.1"), 0);
        ASSERT_EQ(put_str("network_bonjour", "hostname", "qmtnm"), 0);
        unlink(kHosts);
        logs().clear();
    }
    static std::string hosts() {
        std::string text;
        EXPECT_TRUE(hconftest::read_file(kHosts, &text));
        return text;
    }
};

TEST_F(UpdateHosts, WritesTheFiveLines) {
    EXPECT_EQ(update_hosts_file(), 0);
    EXPECT_EQ(hosts(), hosts_text("192.168.0.100", "192.168.1.1", "qmtnm"));
    EXPECT_EQ(hosts(), std::string("# Do not remove the following line, or various programs\n"
                                   "# that require network functionality will fail.\n"
                                   "127.0.0.1\tlocalhost.localdomain\tlocalhost\n"
                                   "192.168.0.100\tqmtnm\n"
                                   "192.168.1.1\t") +
                           QMTNM_PRODUCT_HOSTNAME + "\n");
    EXPECT_EQ(logs().texts(), std::vector<std::string>{}); // no trace at level 1
}

TEST_F(UpdateHosts, TruncatesAnEarlierFile) {
    hconftest::write_file(kHosts, std::string(4000, '#'));
    EXPECT_EQ(update_hosts_file(), 0);
    EXPECT_EQ(hosts(), hosts_text("192.168.0.100", "192.168.1.1", "qmtnm"));
}

TEST_F(UpdateHosts, EmptyHostName) {
    ASSERT_EQ(put_str("network_bonjour", "hostname", ""), 0);
    EXPECT_EQ(update_hosts_file(), 0);
    std::string text = hosts();
    EXPECT_EQ(text, hosts_text("192.168.0.100", "192.168.1.1", ""));
    EXPECT_NE(text.find("\n192.168.0.100\t\n"), std::string::npos);
}

TEST_F(UpdateHosts, LongValuesAreCutToTheirBuffers) {
    ASSERT_EQ(put_str("network_wan", "ipaddr", "255.255.255.255"), 0); // 15 characters: kept
    ASSERT_EQ(put_str("network_lan", "ipaddr", "1234567890123456789"), 0);
    std::string longname(80, 'h');
    ASSERT_EQ(put_str("network_bonjour", "hostname", longname.c_str()), 0);
    EXPECT_EQ(update_hosts_file(), 0);
    EXPECT_EQ(hosts(), hosts_text("255.255.255.255", "123456789012345", std::string(63, 'h')));
}

TEST_F(UpdateHosts, TraceAtLevelTwo) {
    LogLevel level(2);
    EXPECT_EQ(update_hosts_file(), 0);
    EXPECT_EQ(logs().texts(),
              error_lines("update_hosts_file",
                          "wan_ip: 192.168.0.100 lan_ip: 192.168.1.1 hostname: qmtnm"));
}

struct store_fail_case {
    const char *section;
    const char *key;
    const char *message;
};

class UpdateHostsStoreFails : public UpdateHosts,
                              public testing::WithParamInterface<store_fail_case> {};

TEST_P(UpdateHostsStoreFails, LogsTheKeyAndLeavesTheFile) {
    hconftest::write_file(kHosts, "earlier\n");
    ASSERT_EQ(del_key(GetParam().section, GetParam().key), 0);
    LogLevel level(0);
    EXPECT_EQ(update_hosts_file(), kStoreFail);
    EXPECT_EQ(logs().texts(), error_lines("update_hosts_file", GetParam().message));
    EXPECT_EQ(hosts(), "earlier\n");
}

INSTANTIATE_TEST_SUITE_P(Table, UpdateHostsStoreFails,
                         testing::Values(store_fail_case{"network_wan", "ipaddr",
                                                         "get wan port ip fail, errno = -50266114"},
                                         store_fail_case{"network_lan", "ipaddr",
                                                         "get lan port ip fail, errno = -50266114"},
                                         store_fail_case{"network_bonjour", "hostname",
                                                         "get hostname fail, errno = -50266114"}));

// The keys are read in order: with all three missing, the first one is reported.
TEST_F(UpdateHosts, FirstMissingKeyIsReported) {
    ASSERT_EQ(del_key("network_bonjour", "hostname"), 0);
    ASSERT_EQ(del_key("network_lan", "ipaddr"), 0);
    EXPECT_EQ(update_hosts_file(), kStoreFail);
    EXPECT_EQ(logs().texts(),
              error_lines("update_hosts_file", "get lan port ip fail, errno = -50266114"));
}

TEST_F(UpdateHosts, HostsFileCannotBeOpened) {
    ASSERT_EQ(mkdir(kHosts, 0755), 0);
    LogLevel level(2);
    int32_t r = update_hosts_file();
    rmdir(kHosts);
    EXPECT_EQ(r, kOpenFail);
    // Only the open failure: the trace comes after a successful open.
    EXPECT_EQ(logs().texts(),
              error_lines("update_hosts_file", "open /var/conf/hosts fail, errno = -50266115"));
}

} // namespace
