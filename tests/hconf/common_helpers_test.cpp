// The common helpers write_conf_file, nm_get_inaddr and update_hosts_file, inside the test
// namespaces (private /tmp, /var and network; /dev/log captured). save_hw_conf is covered with
// the hardware store's device tests.
#include "hconf_test_util.h"

#include "qmt_conf.h"
#include "qmtnm.h"
#include "support/test_support.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <net/if_arp.h>
#include <tuple>
#include <utility>

#ifndef QMTNM_PRODUCT_HOSTNAME
#error "QMTNM_PRODUCT_HOSTNAME must be defined as the library's"
#endif

using nmtest::logged;
using nmtest::logs;
using strings = std::vector<std::string>;

namespace {

constexpr int32_t kStoreFail = static_cast<int32_t>(0xFD00FFFEu);
constexpr int32_t kOpenFail = static_cast<int32_t>(0xFD00FFFDu);

class LogLevel {
  public:
    explicit LogLevel(int32_t level) : saved_(nm_log_level) { nm_log_level = level; }
    ~LogLevel() { nm_log_level = saved_; }

  private:
    int32_t saved_;
};

// ---- write_conf_file -------------------------------------------------------------------------

TEST(WriteConfFile, ModeOneCreatesAndTruncatesModeTwoAppends) {
    const std::string path = hconftest::fresh_dir("hconf-wcf") + "/x.conf";
    logs().clear();
    mode_t old = umask(0);
    EXPECT_EQ(write_conf_file(path.c_str(), 1, "a much longer first content\n"), 0);
    umask(old);
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644u);
    EXPECT_EQ(write_conf_file(path.c_str(), 1, "first\n"), 0);
    EXPECT_EQ(write_conf_file(path.c_str(), 2, "second\n"), 0);
    EXPECT_EQ(write_conf_file(path.c_str(), 2, ""), 0);
    EXPECT_EQ(write_conf_file(path.c_str(), 2, "third\n"), 0);
    EXPECT_EQ(hconftest::read_file(path), "first\nsecond\nthird\n");
    EXPECT_TRUE(logs().texts().empty());
}

// Mode 2 never creates; errors are logged from level 0 up.
TEST(WriteConfFile, OpenFailureIsLoggedAndReturned) {
    const std::string dir = hconftest::fresh_dir("hconf-wcf");
    LogLevel level(0);
    for (const auto &[mode, name] : {std::pair<uint32_t, const char *>{2, "/missing.conf"},
                                     {1, "/no/such/dir/x.conf"},
                                     {2, "/no/such/dir/x.conf"}}) {
        const std::string path = dir + name;
        logs().clear();
        EXPECT_EQ(write_conf_file(path.c_str(), mode, "text\n"), kOpenFail);
        EXPECT_FALSE(hconftest::exists(path));
        EXPECT_EQ(logs().texts(),
                  strings{logged("write_conf_file", "open " + path + " fail, errno = -50266115")});
    }
}

// Any other mode writes the text to descriptor 0 and closes it. Run in a child, whose
// descriptor 0 is the write end of a pipe.
TEST(WriteConfFile, OtherModesWriteToDescriptorZeroAndCloseIt) {
    const std::string path = hconftest::fresh_dir("hconf-wcf") + "/untouched.conf";
    for (uint32_t mode : {0u, 3u, 4u, 0x80000000u, 0xFFFFFFFFu}) {
        int p[2];
        ASSERT_EQ(pipe(p), 0);
        fflush(nullptr);
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            if (dup2(p[1], 0) != 0)
                _exit(10);
            close(p[0]);
            close(p[1]);
            if (write_conf_file(path.c_str(), mode, "to stdin\n") != 0)
                _exit(11);
            _exit(fcntl(0, F_GETFD) == -1 && errno == EBADF ? 0 : 12); // 0 must be closed now
        }
        close(p[1]);
        char buf[64];
        ssize_t n = read(p[0], buf, sizeof buf);
        close(p[0]);
        int status = -1;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_EQ(status, 0) << mode; // exited with 0
        EXPECT_EQ(std::string(buf, n > 0 ? static_cast<size_t>(n) : 0), "to stdin\n") << mode;
    }
    EXPECT_FALSE(hconftest::exists(path));
}

// ---- nm_get_inaddr ---------------------------------------------------------------------------

// A veth pair of the test's own network namespace: hcv0 with an address and a known hardware
// address, hcv1 without an address.
TEST(GetInaddr, AddressNetmaskAndHardwareAddressOfAnInterface) {
    ASSERT_EQ(nmtest::sh("ip link add hcv0 type veth peer name hcv1 && "
                         "ip link set hcv0 address 02:11:22:33:44:55 && "
                         "ip addr add 192.0.2.10/24 dev hcv0 && echo ok"),
              "ok\n");
    std::vector<uint8_t> hw(16, 0); // the whole sockaddr, the kernel's padding too
    const uint16_t ether = ARPHRD_ETHER;
    const uint8_t mac[] = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
    memcpy(hw.data(), &ether, 2);
    memcpy(hw.data() + 2, mac, 6);
    struct {
        const char *ifname;
        int32_t which;
        int result;
        std::vector<uint8_t> out; // what is written at the start of out; the rest stays
    } const rows[] = {
        {"hcv0", 0, 0, {192, 0, 2, 10}},
        {"hcv0", 2, 0, {255, 255, 255, 0}},
        {"lo", 0, 0, {127, 0, 0, 1}},
        {"hcv0", 4, 0, hw},
        // Other selectors read nothing once the interface exists.
        {"hcv0", 1, 0, {}},
        {"hcv0", 3, 0, {}},
        {"hcv0", 5, 0, {}},
        {"hcv0", -1, 0, {}},
        {"hcnone0", 0, -ENODEV, {}},
        {"hcnone0", 1, -ENODEV, {}},
        {"hcnone0", 4, -ENODEV, {}},
        // The second request's errno.
        {"hcv1", 0, -EADDRNOTAVAIL, {}},
        {"hcv1", 2, -EADDRNOTAVAIL, {}},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(std::string(r.ifname) + " " + std::to_string(r.which));
        std::vector<uint8_t> out(16, 0xAA), want = r.out;
        want.resize(16, 0xAA);
        EXPECT_EQ(nm_get_inaddr(r.ifname, r.which, out.data()), r.result);
        EXPECT_EQ(out, want);
    }
    nmtest::sh("ip link del hcv0");
}

// ---- update_hosts_file -----------------------------------------------------------------------

constexpr const char *kHosts = "/var/conf/hosts";

void store(const std::string &wan, const std::string &lan, const std::string &host) {
    for (const auto &[section, key, value] :
         {std::tuple<const char *, const char *, std::string>{"network_wan", "ipaddr", wan},
          {"network_lan", "ipaddr", lan},
          {"network_bonjour", "hostname", host}})
        ASSERT_EQ(qmt_conf_printf("network", "%k%k%s", section, key, value.c_str()), 0);
}

TEST(UpdateHosts, WritesTheFiveLinesOverAnEarlierFile) {
    const std::string head = "# Do not remove the following line, or various programs\n"
                             "# that require network functionality will fail.\n"
                             "127.0.0.1\tlocalhost.localdomain\tlocalhost\n";
    struct {
        std::string wan, lan, host;                // stored
        std::string want_wan, want_lan, want_host; // written
    } const rows[] = {
        {"192.168.0.100", "192.168.1.1", "qmtnm", "192.168.0.100", "192.168.1.1", "qmtnm"},
        {"192.168.0.100", "192.168.1.1", "", "192.168.0.100", "192.168.1.1", ""},
        // A name of 64 characters fills the Bonjour record's field and is written whole.
        {"255.255.255.255", "10.0.0.1", std::string(64, 'h'), "255.255.255.255", "10.0.0.1",
         std::string(64, 'h')},
    };
    LogLevel level(2);
    for (const auto &r : rows) {
        SCOPED_TRACE(r.host);
        store(r.wan, r.lan, r.host);
        hconftest::write_file(kHosts, std::string(4000, '#'));
        logs().clear();
        EXPECT_EQ(update_hosts_file(), 0);
        EXPECT_EQ(hconftest::read_file(kHosts), head + r.want_wan + "\t" + r.want_host + "\n" +
                                                    r.want_lan + "\t" + QMTNM_PRODUCT_HOSTNAME +
                                                    "\n");
        EXPECT_EQ(
            logs().texts(),
            strings{logged("update_hosts_file", "wan_ip: " + r.want_wan + " lan_ip: " + r.want_lan +
                                                    " hostname: " + r.want_host)});
    }
    nm_log_level = 1; // no trace below level 2
    logs().clear();
    EXPECT_EQ(update_hosts_file(), 0);
    EXPECT_TRUE(logs().texts().empty());

    // A stored value that would not stay one field of its line leaves the file as it was.
    const struct {
        std::string wan, lan, host;
    } refused[] = {
        {"192.168.0.100", "192.168.1.1", "cam\n10.6.6.6\tevil"},
        {"192.168.0.100", "192.168.1.1", "cam evil"},
        {"192.168.0.100", "192.168.1.1", "-cam"},
        {"192.168.0.100", "192.168.1.1", std::string(65, 'h')},
        {"1.1.1.1\t#", "192.168.1.1", "cam"},
        {"192.168.0.100", "1.2.3.4 x", "cam"},
    };
    for (const auto &r : refused) {
        SCOPED_TRACE(r.host + "/" + r.wan + "/" + r.lan);
        store(r.wan, r.lan, r.host);
        hconftest::write_file(kHosts, "earlier");
        logs().clear();
        EXPECT_EQ(update_hosts_file(), static_cast<int32_t>(0xFD00FFF9));
        EXPECT_EQ(hconftest::read_file(kHosts), "earlier");
        EXPECT_EQ(logs().texts(),
                  strings{logged("update_hosts_file", "stored address or hostname refused, errno = "
                                                      "-50266119")});
    }
}

TEST(UpdateHosts, StoreAndFileFailuresAreLoggedAndReturned) {
    struct {
        strings missing; // section/key pairs removed from the store
        int32_t level, result;
        std::string message;
    } const rows[] = {
        {{"network_wan", "ipaddr"}, 0, kStoreFail, "get wan port ip fail, errno = -50266114"},
        {{"network_lan", "ipaddr"}, 0, kStoreFail, "get lan port ip fail, errno = -50266114"},
        {{"network_bonjour", "hostname"}, 0, kStoreFail, "get hostname fail, errno = -50266114"},
        // The keys are read in order: the first missing one is reported.
        {{"network_bonjour", "hostname", "network_lan", "ipaddr"},
         0,
         kStoreFail,
         "get lan port ip fail, errno = -50266114"},
        // The hosts path a directory: the open failure alone, as the trace follows the open.
        {{}, 2, kOpenFail, "open /var/conf/hosts fail, errno = -50266115"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.message);
        store("192.168.0.100", "192.168.1.1", "qmtnm");
        for (size_t i = 0; i < r.missing.size(); i += 2)
            ASSERT_EQ(qmt_conf_printf("network", "%k%k%r", r.missing[i].c_str(),
                                      r.missing[i + 1].c_str()),
                      0);
        unlink(kHosts);
        if (r.result == kOpenFail)
            ASSERT_EQ(mkdir(kHosts, 0755), 0);
        else
            hconftest::write_file(kHosts, "earlier\n");
        LogLevel level(r.level);
        logs().clear();
        EXPECT_EQ(update_hosts_file(), r.result);
        EXPECT_EQ(logs().texts(), strings{logged("update_hosts_file", r.message)});
        if (r.result == kStoreFail) {
            EXPECT_EQ(hconftest::read_file(kHosts), "earlier\n");
        }
        rmdir(kHosts);
    }
}

} // namespace
