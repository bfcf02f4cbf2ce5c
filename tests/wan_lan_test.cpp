// WAN and LAN through the public calls, in the test's private network namespace: the checks,
// the exact commands and files, the store writes and where they stop, and the live reading of
// the WAN port from the kernel's own route table and the resolver file.
#include "support/test_support.h"

#include "qmt_conf.h"
#include "qmtnm.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

using nmtest::file_text;
using nmtest::logged;
using nmtest::logs;
using strings = std::vector<std::string>;

namespace {

const int32_t kWanInvalid = static_cast<int32_t>(0xFDFCFFF9);
const int32_t kWanStore = static_cast<int32_t>(0xFDFCFFFE);
const int32_t kWanOpen = static_cast<int32_t>(0xFDFCFFFD);
const int32_t kLanInvalid = static_cast<int32_t>(0xFDFBFFF9);
const int32_t kLanStore = static_cast<int32_t>(0xFDFBFFFE);

in_addr ip(const char *text) {
    in_addr a{};
    EXPECT_EQ(inet_pton(AF_INET, text, &a), 1) << text;
    return a;
}

std::string text(in_addr a) {
    char t[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, &a, t, sizeof t);
}

void store_port(const char *section, const char *port) {
    ASSERT_GE(qmt_conf_printf("network", "%k%k%s", section, "port", port), 0);
}

void write_file(const char *path, const std::string &content) {
    std::ofstream(path) << content;
}

// Through popen: system() is the recorder's, which the tests set to record only.
void ip_cmd(const std::string &args) {
    EXPECT_EQ(nmtest::sh("ip " + args + " 2>&1 && echo ok"), "ok\n") << "ip " << args;
}

using WanLan = nmtest::area_test;

// ---- checks ----------------------------------------------------------------------------------

TEST_F(WanLan, LanCheckTestsTheSwitchThenThePoolsSubnetAndOrder) {
    struct {
        uint32_t method;
        const char *mask, *begin, *end;
        const char *refusal; // null: accepted
    } const rows[] = {
        {0, "255.255.255.0", "192.168.1.200", "10.0.0.1", nullptr}, // pool ignored when off
        {1, "255.255.255.0", "192.168.1.100", "192.168.1.200", nullptr},
        {1, "255.255.255.0", "192.168.1.100", "192.168.1.100", nullptr},
        {1, "255.255.0.0", "10.0.1.5", "10.0.1.9", nullptr},
        {1, "255.255.255.0", "192.168.1.200", "192.168.1.100", "lan info begin_ip > end_ip!"},
        {1, "255.255.255.0", "192.168.1.10", "192.168.2.10",
         "lan info begin_ip & end_ip in different subnet"},
        // The order weighs the last octet most: a wide pool across a third-octet boundary
        // runs backwards.
        {1, "255.255.0.0", "10.0.1.5", "10.0.2.3", "lan info begin_ip > end_ip!"},
        {1, "255.255.0.0", "10.0.2.3", "10.0.1.5", nullptr},
        {2, "255.255.255.0", "192.168.1.100", "192.168.1.200", "lan info dhcpd value invalid"},
        {0xFFFFFFFFu, "255.255.255.0", "192.168.1.100", "192.168.1.200",
         "lan info dhcpd value invalid"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(std::to_string(r.method) + " " + r.begin + "-" + r.end + "/" + r.mask);
        nmtest::load_defaults();
        logs().clear();
        qmtnm_lan_cfg c = {r.method, ip("192.168.1.1"), ip(r.mask), ip(r.begin), ip(r.end)};
        int32_t got = qmtnm_lcl_set(QMTNM_ID_LAN, &c, 0);
        if (r.refusal == nullptr) {
            EXPECT_EQ(got, 0);
            continue;
        }
        EXPECT_EQ(got, kLanInvalid);
        EXPECT_EQ(logs().texts(),
                  strings{logged("check_lan_info_grammar", std::string(r.refusal))});
        EXPECT_EQ(nmtest::stored_str("network_lan", "netmask"), "255.255.255.0")
            << "refused, yet stored";
    }
    // The WAN check refuses only a method other than 0 and 1.
    qmtnm_wan_cfg w = {2, {}, {}, {}, {}, {}};
    logs().clear();
    nmtest::clear_commands();
    EXPECT_EQ(qmtnm_lcl_set(QMTNM_ID_WAN, &w, 0), kWanInvalid);
    EXPECT_EQ(logs().texts(),
              strings{logged("check_wan_info_grammar", "wan info dhcpc value invalid")});
    EXPECT_TRUE(nmtest::commands().empty());
}

// ---- applying and storing --------------------------------------------------------------------

TEST_F(WanLan, StaticWanRunsItsCommandsWritesTheResolverAndStoresEverything) {
    qmtnm_wan_cfg c = {
        0, ip("10.1.2.3"), ip("255.255.0.0"), ip("10.1.0.1"), ip("9.9.9.9"), ip("1.1.1.1")};
    ASSERT_EQ(qmtnm_lcl_set(QMTNM_ID_WAN, &c, 0), 0);
    EXPECT_EQ(nmtest::commands(), (strings{
                                      "killall udhcpc > /dev/null",
                                      "rm -f /var/nm/udhcpc-*.pid >/dev/null",
                                      "ifconfig eth0 10.1.2.3",
                                      "ifconfig eth0 netmask 255.255.0.0",
                                      "route del default &>/dev/null",
                                      "route add default gw 10.1.0.1 &>/dev/null",
                                  }));
    EXPECT_EQ(file_text("/var/nm/resolv.conf"), "nameserver 9.9.9.9\nnameserver 1.1.1.1\n");
    qmtnm_wan_cfg back = {};
    ASSERT_EQ(qmtnm_lcl_get(QMTNM_ID_WANFLASH, &back, 0), 0);
    EXPECT_EQ(memcmp(&back, &c, sizeof c), 0);

    // DHCP stores the method alone: the static settings stay for a switch back.
    nmtest::clear_commands();
    c.method = 1;
    c.ipaddr = ip("10.9.9.9");
    ASSERT_EQ(qmtnm_lcl_set(QMTNM_ID_WAN, &c, 0), 0);
    EXPECT_EQ(nmtest::commands(), (strings{
                                      "killall udhcpc > /dev/null",
                                      "rm -f /var/nm/udhcpc-*.pid >/dev/null",
                                      "udhcpc -i eth0 -p /var/nm/udhcpd-eth0.pid  &",
                                  }));
    ASSERT_EQ(qmtnm_lcl_get(QMTNM_ID_WANFLASH, &back, 0), 0);
    EXPECT_EQ(back.method, 1u);
    EXPECT_EQ(text(back.ipaddr), "10.1.2.3");
    EXPECT_EQ(text(back.dns2), "1.1.1.1");
}

TEST_F(WanLan, WanFlushStopsAtTheFirstRefusedKey) {
    nmtest::store_sql("CREATE TRIGGER refuse BEFORE INSERT ON conf WHEN "
                      "NEW.path='network/network_wan/gateway' BEGIN SELECT RAISE(ABORT,'x'); END");
    qmtnm_wan_cfg c = {
        0, ip("10.1.2.3"), ip("255.255.0.0"), ip("10.1.0.1"), ip("9.9.9.9"), ip("1.1.1.1")};
    EXPECT_EQ(qmtnm_lcl_set(QMTNM_ID_WAN, &c, 0), kWanStore);
    nmtest::store_sql("DROP TRIGGER refuse");
    EXPECT_EQ(logs().texts(),
              strings{logged("wan_flush_config", "write wan gateway fail, errno = -33751042")});
    EXPECT_EQ(nmtest::stored_str("network_wan", "ipaddr"), "10.1.2.3");
    EXPECT_EQ(nmtest::stored_str("network_wan", "netmask"), "255.255.0.0");
    EXPECT_EQ(nmtest::stored_str("network_wan", "gateway"), "192.168.0.1");
    EXPECT_EQ(nmtest::stored_str("network_wan", "dns1"), "192.168.0.1");
}

TEST_F(WanLan, WanStoreReadFailures) {
    // A missing netmask reports itself as the ipaddr; the compare then fails with a plain -1.
    nmtest::store_sql("DELETE FROM conf WHERE path='network/network_wan/netmask'");
    qmtnm_wan_cfg c = {};
    EXPECT_EQ(qmtnm_lcl_get(QMTNM_ID_WANFLASH, &c, 0), kWanStore);
    EXPECT_EQ(qmtnm_lcl_set(QMTNM_ID_WAN, &c, 0), -1);
    EXPECT_EQ(logs().texts(),
              (strings{logged("get_wan_config", "read wan ipaddr fail, errno = -33751042"),
                       logged("get_wan_config", "read wan ipaddr fail, errno = -33751042"),
                       logged("wan_config_nochange", "read lan flash fail")}));
    EXPECT_TRUE(nmtest::commands().empty());
}

TEST_F(WanLan, LanWithTheServerOnWritesItsFilesInOrder) {
    write_file("/var/nm/udhcpd.leases", "an old lease\n");
    qmtnm_lan_cfg c = {1, ip("192.168.7.1"), ip("255.255.255.0"), ip("192.168.7.50"),
                       ip("192.168.7.60")};
    ASSERT_EQ(qmtnm_lcl_set(QMTNM_ID_LAN, &c, 0), 0);
    EXPECT_EQ(nmtest::commands(), (strings{
                                      "ifconfig br0 192.168.7.1",
                                      "ifconfig br0 netmask 255.255.255.0",
                                      "killall udhcpd &>/dev/null",
                                      "udhcpd /var/nm/udhcpd.conf",
                                  }));
    EXPECT_EQ(file_text("/var/nm/udhcpd.conf"), "interface br0\n"
                                                "start 192.168.7.50\n"
                                                "end 192.168.7.60\n"
                                                "opt subnet 255.255.255.0\n"
                                                "opt lease 28800\n"
                                                "opt router 192.168.7.1\n"
                                                "opt dns 192.168.7.1");
    EXPECT_EQ(file_text("/var/nm/udhcpd.leases"), "");
    // The hosts file is rewritten from the store during the apply, before the new address is
    // stored, so it still names the earlier one.
    EXPECT_NE(file_text("/var/conf/hosts").find("192.168.1.1\t"), std::string::npos);
    qmtnm_lan_cfg back = {};
    ASSERT_EQ(qmtnm_lcl_get(QMTNM_ID_LAN, &back, 0), 0);
    EXPECT_EQ(memcmp(&back, &c, sizeof c), 0);

    // Identical: nothing runs; the chattiest level says why.
    nmtest::clear_commands();
    nm_log_level = 3;
    ASSERT_EQ(qmtnm_lcl_set(QMTNM_ID_LAN, &c, 0), 0);
    EXPECT_TRUE(nmtest::commands().empty());
    EXPECT_EQ(logs().texts(),
              (strings{logged("lan_config_nochange", "input lan info nothing change"),
                       logged("qmtnm_lcl_set", "config is up-to-date")}));
}

TEST_F(WanLan, LanWithTheServerOffKeepsItsFilesAndTheStoredPool) {
    write_file("/var/nm/udhcpd.conf", "earlier");
    qmtnm_lan_cfg c = {0, ip("192.168.8.1"), ip("255.255.255.0"), ip("1.2.3.4"), ip("1.2.3.1")};
    ASSERT_EQ(qmtnm_lcl_set(QMTNM_ID_LAN, &c, 0), 0);
    EXPECT_EQ(nmtest::commands(), (strings{
                                      "ifconfig br0 192.168.8.1",
                                      "ifconfig br0 netmask 255.255.255.0",
                                      "killall udhcpd &>/dev/null",
                                  }));
    EXPECT_EQ(file_text("/var/nm/udhcpd.conf"), "earlier");
    EXPECT_EQ(nmtest::stored_str("network_lan", "ipaddr"), "192.168.8.1");
    EXPECT_EQ(nmtest::stored_str("network_lan", "begin"), "192.168.1.100");
    EXPECT_EQ(nmtest::stored_str("network_lan", "end"), "192.168.1.200");
}

TEST_F(WanLan, StoredPortsThatAreNotInterfaceNamesNeverReachTheShell) {
    // A name longer than the port's buffer (7 characters for the WAN, 5 for the LAN's read) is
    // refused whole, not cut to another interface's name.
    for (const char *port : {"eth0;reboot", "br0 x", "-a", "$(halt)", "", "wanportX"}) {
        SCOPED_TRACE(port);
        store_port("network_wan", port);
        store_port("network_lan", port);
        logs().clear();
        qmtnm_wan_cfg w = {0, ip("10.1.2.3"), ip("255.255.0.0"), ip("10.1.0.1"), {}, {}};
        EXPECT_EQ(qmtnm_lcl_set(QMTNM_ID_WAN, &w, 0), kWanStore);
        qmtnm_lan_cfg l = {0, ip("10.7.0.1"), ip("255.255.255.0"), {}, {}};
        EXPECT_EQ(qmtnm_lcl_set(QMTNM_ID_LAN, &l, 0), kLanStore);
        EXPECT_EQ(qmtnm_lcl_get(QMTNM_ID_WAN, &w, sizeof w), kWanStore);
        EXPECT_TRUE(nmtest::commands().empty());
        EXPECT_EQ(logs().texts(),
                  (strings{logged("set_wan", "read network_wan port failed, errno = -33751042"),
                           logged("get_lan_config", "read lan port fail, errno = -33816578"),
                           logged("lan_config_nochange", "read lan flash fail, errno = -33816578"),
                           logged("get_wan", "read network_wan port failed, errno = -33751042")}));
    }
}

// ---- the live WAN reading: the namespace's own interfaces and routes ------------------------

class LiveWan : public WanLan {
  protected:
    static void SetUpTestSuite() {
        ip_cmd("link add wanport type veth peer name wanpeer");
        ip_cmd("link add other type veth peer name otherpeer");
        ip_cmd("addr add 10.20.30.40/24 dev wanport");
        ip_cmd("addr add 172.16.0.2/24 dev other");
        ip_cmd("link set wanport up");
        ip_cmd("link set wanpeer up");
        ip_cmd("link set other up");
        ip_cmd("link set otherpeer up");
    }
    static void TearDownTestSuite() {
        ip_cmd("link del wanport");
        ip_cmd("link del other");
    }
    void SetUp() override {
        WanLan::SetUp();
        store_port("network_wan", "wanport");
        nmtest::sh("while ip route del default 2>/dev/null; do :; done;"
                   "ip route del 192.0.2.0/24 2>/dev/null");
    }
    qmtnm_wan_cfg get(uintptr_t size = sizeof(qmtnm_wan_cfg)) {
        qmtnm_wan_cfg c;
        memset(&c, 0xAB, sizeof c);
        last_ = qmtnm_lcl_get(QMTNM_ID_WAN, &c, size);
        return c;
    }
    int32_t last_ = 0;
};

TEST_F(LiveWan, GatewayIsTheFirstUpGatewayRouteOnThePort) {
    write_file("/var/nm/resolv.conf", "search lan\nnameserver 10.20.30.1\n");
    // Routes through a gateway on another port, and a route on the port without a gateway,
    // are not the port's gateway.
    ip_cmd("route add default via 172.16.0.1 dev other metric 5");
    ip_cmd("route add 192.0.2.0/24 dev wanport");
    qmtnm_wan_cfg c = get();
    ASSERT_EQ(last_, 0);
    EXPECT_EQ(c.method, 0u);
    EXPECT_EQ(text(c.ipaddr), "10.20.30.40");
    EXPECT_EQ(text(c.netmask), "255.255.255.0");
    EXPECT_EQ(c.gateway.s_addr, 0u) << "no gateway route on the port";
    EXPECT_EQ(text(c.dns1), "10.20.30.1");
    EXPECT_EQ(c.dns2.s_addr, 0u) << "one nameserver line";

    ip_cmd("route add default via 10.20.30.1 dev wanport metric 10");
    write_file("/var/nm/resolv.conf", "nameserver 1.1.1.1\n# x\nnameserver 8.8.8.8\nnameserver "
                                      "9.9.9.9\n");
    c = get();
    ASSERT_EQ(last_, 0);
    EXPECT_EQ(text(c.gateway), "10.20.30.1");
    EXPECT_EQ(text(c.dns1), "1.1.1.1");
    EXPECT_EQ(text(c.dns2), "8.8.8.8");

    // The second argument is the record's size: that much is cleared before the reading.
    ip_cmd("route del default via 10.20.30.1 dev wanport");
    EXPECT_EQ(get(0).gateway.s_addr, 0xABABABABu);
    EXPECT_EQ(get().gateway.s_addr, 0u);
}

TEST_F(LiveWan, FailuresOfTheLiveReading) {
    // No resolver file: the interface was read, the file cannot be opened.
    unlink("/var/nm/resolv.conf");
    get();
    EXPECT_EQ(last_, kWanOpen);
    EXPECT_EQ(logs().texts(),
              strings{logged("get_wan", "open /var/nm/resolv.conf fail, errno = -33751043")});
    // A port that is not there: the interface query's -errno.
    store_port("network_wan", "nosuch0");
    logs().clear();
    get();
    EXPECT_EQ(last_, -ENODEV);
    EXPECT_EQ(logs().texts(), strings{logged("get_wan", "read wan ipaddr fail, errno = -19")});
}

TEST_F(LiveWan, LanOnAnotherPortReadsTheLiveAddress) {
    store_port("network_lan", "other");
    qmtnm_lan_cfg c = {};
    ASSERT_EQ(qmtnm_lcl_get(QMTNM_ID_LAN, &c, 0), 0);
    EXPECT_EQ(text(c.ipaddr), "172.16.0.2");
    EXPECT_EQ(text(c.netmask), "255.255.255.0");
    EXPECT_EQ(c.method, 1u);
    EXPECT_EQ(text(c.begin), "192.168.1.100");
    // Without an address the record is empty and the read succeeds.
    ip_cmd("addr flush dev other");
    memset(&c, 0xAB, sizeof c);
    EXPECT_EQ(qmtnm_lcl_get(QMTNM_ID_LAN, &c, 0), 0);
    EXPECT_EQ(c.method | c.ipaddr.s_addr | c.netmask.s_addr | c.begin.s_addr | c.end.s_addr, 0u);
    ip_cmd("addr add 172.16.0.2/24 dev other");
}

} // namespace
