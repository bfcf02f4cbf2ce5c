// The common helpers write_conf_file, nm_get_inaddr and update_hosts_file in the test namespaces
// (private /tmp, /var and network; /dev/log captured). save_hw_conf is with the device tests.
#include "qmt_conf.h"
#include "support/test_support.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <net/if_arp.h>
#include <sys/stat.h>
#include <tuple>

using strings = std::vector<std::string>;

namespace {

const int32_t kStoreFail = static_cast<int32_t>(0xFD00FFFEu),
              kOpenFail = static_cast<int32_t>(0xFD00FFFDu),
              kRefused = static_cast<int32_t>(0xFD00FFF9u);

TEST(CommonHelpers, WriteConfFile) {
    const std::string x = "/tmp/x.conf", none = "/tmp/none.conf", deep = "/tmp/no/x.conf";
    umask(0);
    nm_log_level = 0; // errors are logged from level 0 up
    const struct {
        std::string path;
        uint32_t mode;
        const char *text;
        std::string file; // after the call
    } rows[] = {
        {x, 1, "a much longer first content\n", "a much longer first content\n"},
        {x, 1, "first\n", "first\n"},
        {x, 2, "second\n", "first\nsecond\n"},
        {none, 2, "text\n", "<missing>"}, // appending never creates
        {deep, 1, "text\n", "<missing>"},
    };
    for (const auto &r : rows) {
        nmtest::logs().clear();
        const int32_t result = write_conf_file(r.path.c_str(), r.mode, r.text);
        EXPECT_EQ(result, r.file == "<missing>" ? kOpenFail : 0) << r.path;
        EXPECT_EQ(nmtest::file_text(r.path.c_str()), r.file);
        EXPECT_EQ(nmtest::logs().texts(),
                  result ? strings{nmtest::logged("write_conf_file",
                                                  "open " + r.path + " fail, errno = -50266115")}
                         : strings{});
    }
    struct stat st;
    EXPECT_EQ(stat(x.c_str(), &st) == 0 ? st.st_mode & 07777 : 0, 0644u);
}

// A veth pair: hcv0 with an address and a known hardware address, hcv1 without an address.
TEST(CommonHelpers, GetInaddr) {
    ASSERT_EQ(nmtest::sh("ip link add hcv0 type veth peer name hcv1 && ip link set hcv0 address "
                         "02:11:22:33:44:55 && ip addr add 192.0.2.10/24 dev hcv0 && echo ok"),
              "ok\n");
    std::vector<uint8_t> hw{0, 0, 2, 0x11, 0x22, 0x33, 0x44, 0x55, 0, 0, 0, 0, 0, 0, 0, 0};
    const uint16_t ether = ARPHRD_ETHER; // the whole sockaddr, the kernel's padding too
    memcpy(hw.data(), &ether, 2);
    const struct {
        const char *ifname;
        int32_t which, result;
        std::vector<uint8_t> out; // written at the start of out; the rest stays
    } rows[] = {
        {"hcv0", 0, 0, {192, 0, 2, 10}},
        {"hcv0", 2, 0, {255, 255, 255, 0}},
        {"hcv0", 4, 0, hw},
        {"hcv0", 1, 0, {}}, // other selectors read nothing
        {"hcnone0", 0, -ENODEV, {}},
        {"hcv1", 2, -EADDRNOTAVAIL, {}},
    };
    for (const auto &r : rows) {
        std::vector<uint8_t> out(16, 0xAA), want = r.out;
        want.resize(16, 0xAA);
        EXPECT_EQ(nm_get_inaddr(r.ifname, r.which, out.data()), r.result) << r.ifname << r.which;
        EXPECT_EQ(out, want) << r.ifname << r.which;
    }
}

TEST(CommonHelpers, UpdateHostsFile) {
    const char *hosts = "/var/conf/hosts", *gone = "<removed from the store>";
    const std::string h64(64, 'h'),
        W = "192.168.0.100", L = "192.168.1.1", earlier(4000, '#'),
        refused = "stored address or hostname refused, errno = -50266119",
        missing = " fail, errno = -50266114";
    nm_log_level = 2;
    const struct {
        std::string wan, lan, host;
        int32_t result;
        std::string log; // for a failure
    } rows[] = {
        {W, L, "qmtnm", 0, ""},
        {W, L, "", 0, ""},
        {"255.255.255.255", "10.0.0.1", h64, 0, ""},
        // A stored value that would not stay one field of its line leaves the file as it was.
        {W, L, "cam\n10.6.6.6\tevil", kRefused, refused},
        {W, L, "cam evil", kRefused, refused},
        {W, L, "-cam", kRefused, refused},
        {W, L, h64 + "h", kRefused, refused},
        {"1.1.1.1\t#", L, "cam", kRefused, refused},
        {W, "1.2.3.4 x", "cam", kRefused, refused},
        {gone, L, "cam", kStoreFail, "get wan port ip" + missing},
        {W, gone, gone, kStoreFail, "get lan port ip" + missing}, // the first missing one
        {W, L, gone, kStoreFail, "get hostname" + missing},
        {W, L, "cam", kOpenFail, "open /var/conf/hosts fail, errno = -50266115"}, // a directory
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.wan + "/" + r.lan + "/" + r.host);
        for (const auto &[section, key, value] : {std::tuple{"network_wan", "ipaddr", r.wan},
                                                  {"network_lan", "ipaddr", r.lan},
                                                  {"network_bonjour", "hostname", r.host}}) {
            ASSERT_EQ(qmt_conf_printf("network", "%k%k%s", section, key, value.c_str()), 0);
            if (value == gone) {
                ASSERT_EQ(qmt_conf_printf("network", "%k%k%r", section, key), 0);
            }
        }
        unlink(hosts);
        if (r.result == kOpenFail)
            ASSERT_EQ(mkdir(hosts, 0755), 0);
        else
            std::ofstream(hosts) << earlier;
        nmtest::logs().clear();
        EXPECT_EQ(update_hosts_file(), r.result);
        const std::string trace = "wan_ip: " + r.wan + " lan_ip: " + r.lan + " hostname: " + r.host;
        EXPECT_EQ(nmtest::logs().texts(),
                  strings{nmtest::logged("update_hosts_file", r.result ? r.log : trace)});
        const std::string head = "# Do not remove the following line, or various programs\n# that "
                                 "require network functionality will fail.\n127.0.0.1\tlocalhost."
                                 "localdomain\tlocalhost\n";
        if (r.result != kOpenFail) {
            EXPECT_EQ(nmtest::file_text(hosts), r.result
                                                    ? earlier
                                                    : head + r.wan + "\t" + r.host + "\n" + r.lan +
                                                          "\t" + QMTNM_PRODUCT_HOSTNAME + "\n");
        }
    }
}

} // namespace
