// The Ethernet port (MAC address, bridge, Ethernet type), PPPoE and DDNS through the public
// calls: the checks as tables, hostile text kept out of the shell and the generated files, the
// exact commands and file lines, the store writes, and the reboot that PPPoE, bridge and type
// changes ask for. Commands are recorded, not run.
#include "support/test_support.h"

#include "qmt_conf.h"
#include "qmtnm.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

using nmtest::file_text;
using nmtest::logged;
using nmtest::logs;
using strings = std::vector<std::string>;

namespace {

const int32_t kMacInvalid = static_cast<int32_t>(0xFDFDFFF9);
const int32_t kPppoeInvalid = static_cast<int32_t>(0xFDF9FFF9);
const int32_t kDdnsInvalid = static_cast<int32_t>(0xFDFAFFF9);

int32_t stored_int(const char *section, const char *key) {
    int v = -100;
    EXPECT_GE(qmt_conf_scanf("network", "%k%k%d", section, key, &v), 0) << section << key;
    return v;
}

template <size_t N> void put(char (&field)[N], const std::string &text) {
    memset(field, 0, N);
    memcpy(field, text.data(), std::min(N, text.size()));
}

qmtnm_pppoe_cfg pppoe(int32_t enable, const std::string &user, const std::string &pass) {
    qmtnm_pppoe_cfg c = {};
    c.enable = enable;
    put(c.username, user);
    put(c.password, pass);
    return c;
}

qmtnm_ddns_cfg ddns(uint32_t enable, const std::string &domain, const std::string &user,
                    const std::string &pass) {
    qmtnm_ddns_cfg c = {};
    c.enable = enable;
    put(c.domain, domain);
    put(c.username, user);
    put(c.password, pass);
    return c;
}

// Runs an area's apply operation as the start-up does: through its exported instance record.
int32_t apply(lcl_instance &inst, void *record) {
    return inst.set(&inst, record, 0);
}

class Port : public testing::Test {
  protected:
    void SetUp() override {
        nmtest::load_defaults();
        nmtest::set_activate_flag(1);
        nmtest::run_commands(false);
        // Made by the DDNS apply's own "mkdir -p" commands, which are only recorded here.
        nmtest::sh("mkdir -p /etc/cron /var/spool/cron/crontabs");
        nmtest::clear_commands();
        nm_log_level = 1;
        logs().clear();
    }
    void TearDown() override {
        nmtest::run_commands(true);
        nmtest::set_activate_flag(1);
    }
};

// ---- MAC address -----------------------------------------------------------------------------

TEST_F(Port, MacCheckAcceptsOnlySixUnicastOctets) {
    struct {
        const char *text;
        const char *refusal; // null: accepted
    } const rows[] = {
        {"00:11:22:33:44:55", nullptr},
        {"02:11:22:33:44:55", nullptr},
        {"0:1:2:3:4:5", nullptr}, // single digits parse
        {"aA:bB:cC:dD:eE:f0", nullptr},
        {"01:11:22:33:44:55", "input mac addr is multicast addr!"},
        {"ff:ff:ff:ff:ff:ff", "input mac addr all 0xff or 0x00!"},
        {"00:00:00:00:00:00", "input mac addr all 0xff or 0x00!"},
        {"00:11:22:33:44", "input mac addr format err!"},
        {"00:11:22:33:44:55:", "input mac addr format err!"},
        {"000:11:22:33:44:55", "input mac addr format err!"},
        {"00:11:22:33:44:555", "input mac addr format err!"},
        {"+0:11:22:33:44:55", "input mac addr format err!"},
        {" 0:11:22:33:44:55", "input mac addr format err!"},
        // These pass the length and the six conversions; the rest would reach the shell.
        {"0:1:2:3:4:5;reboot", "input mac addr format err!"},
        {"0:1:2:3:4:5 up", "input mac addr format err!"},
        {"0:1:2:3:4:5|sh", "input mac addr format err!"},
        {"0:1:2:3:4:5\nid", "input mac addr format err!"},
        {"0:1:2:3:4:5$(id)", "input mac addr format err!"},
        {"00:11:22:33:44:55:66", "input mac addr value invalid!"}, // 20 characters
        {"00:11:22:33:44:55;x", "input mac addr value invalid!"},  // 19 characters
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.text);
        logs().clear();
        nmtest::clear_commands();
        int32_t got = qmtnm_lcl_set(QMTNM_ID_ETHMAC, const_cast<char *>(r.text), 0);
        if (r.refusal == nullptr) {
            EXPECT_EQ(got, 0);
            EXPECT_EQ(nmtest::commands(), (strings{"ifconfig eth0 down",
                                                   std::string("ifconfig eth0 hw ether ") + r.text,
                                                   "ifconfig eth0 up"}));
            continue;
        }
        EXPECT_EQ(got, kMacInvalid);
        EXPECT_EQ(logs().texts(),
                  strings{logged("check_macaddr_info_grammar", std::string(r.refusal))});
        EXPECT_TRUE(nmtest::commands().empty());
    }
}

TEST_F(Port, MacSetWithTheFlagClearChangesNothing) {
    nmtest::set_activate_flag(0);
    char text[] = "02:11:22:33:44:55";
    EXPECT_EQ(qmtnm_lcl_set(QMTNM_ID_ETHMAC, text, 0), 0);
    EXPECT_TRUE(nmtest::commands().empty());
    EXPECT_EQ(logs().texts(), strings{logged("qmtnm_lcl_set", "need reboot to activate action")});
}

TEST_F(Port, MacGetReadsTheWanPortsHardwareAddress) {
    ASSERT_EQ(nmtest::sh("ip link add eth0 type veth peer name eth0p && ip link set eth0 "
                         "address 02:aa:bb:cc:dd:ee && echo ok"),
              "ok\n");
    qmtnm_mac_addr mac = {};
    ASSERT_EQ(qmtnm_lcl_get(QMTNM_ID_ETHMAC, &mac, 0), 0);
    const unsigned char want[6] = {0x02, 0xaa, 0xbb, 0xcc, 0xdd, 0xee};
    EXPECT_EQ(memcmp(mac.octet, want, 6), 0);
    nmtest::sh("ip link del eth0");
    ASSERT_GE(qmt_conf_printf("network", "%k%k%s", "network_wan", "port", "eth0;x"), 0);
    EXPECT_EQ(qmtnm_lcl_get(QMTNM_ID_ETHMAC, &mac, 0), static_cast<int32_t>(0xFDFDFFFE));
    EXPECT_TRUE(
        logs().contains(logged("get_mac_addr", "read network_wan port failed, erron = -33685506")));
}

// ---- bridge and Ethernet type ------------------------------------------------------------------

TEST_F(Port, BridgeAndTypeAreStoredAndAskForAReboot) {
    qmtnm_br_cfg br = {1};
    ASSERT_EQ(qmtnm_lcl_set(QMTNM_ID_BR, &br, 0), 0);
    EXPECT_EQ(nmtest::activate_flag(), 0u);
    EXPECT_EQ(stored_int("network_softap", "mode"), 1);
    EXPECT_EQ(logs().texts(), (strings{logged("br_activate_now", "function request reboot"),
                                       logged("qmtnm_lcl_set", "need reboot to activate action")}));
    qmtnm_br_cfg got = {-1};
    ASSERT_EQ(qmtnm_lcl_get(QMTNM_ID_BR, &got, 0), 0);
    EXPECT_EQ(got.mode, 1);

    // The same value again: up-to-date, and a set flag stays set.
    nmtest::set_activate_flag(1);
    logs().clear();
    ASSERT_EQ(qmtnm_lcl_set(QMTNM_ID_BR, &br, 0), 0);
    EXPECT_EQ(nmtest::activate_flag(), 1u);
    EXPECT_EQ(logs().texts(), strings{logged("qmtnm_lcl_set", "config is up-to-date")});
    EXPECT_TRUE(nmtest::commands().empty());
}

TEST_F(Port, EthernetTypeOneSwitchesPppoeAndDdnsOffInTheStore) {
    struct {
        int32_t type;
        int32_t pppoe_after, ddns_after;
    } const rows[] = {{1, 0, 0}, {0, 1, 1}, {2, 1, 1}, {-1, 1, 1}};
    for (const auto &r : rows) {
        SCOPED_TRACE(r.type);
        nmtest::load_defaults();
        ASSERT_GE(qmt_conf_printf("network", "%k%k%d", "network_eth", "type", 7), 0);
        ASSERT_GE(qmt_conf_printf("network", "%k%k%d", "network_pppoe", "enable", 1), 0);
        ASSERT_GE(qmt_conf_printf("network", "%k%k%d", "network_ddns", "enable", 1), 0);
        nmtest::set_activate_flag(1);
        logs().clear();
        qmtnm_ethtype_cfg t = {r.type};
        ASSERT_EQ(qmtnm_lcl_set(QMTNM_ID_ETHTYPE, &t, 0), 0);
        EXPECT_EQ(stored_int("network_eth", "type"), r.type);
        EXPECT_EQ(stored_int("network_pppoe", "enable"), r.pppoe_after);
        EXPECT_EQ(stored_int("network_ddns", "enable"), r.ddns_after);
        EXPECT_EQ(nmtest::activate_flag(), 0u);
        EXPECT_TRUE(logs().contains(logged("ethtype_activate_now", "function request reboot")));
    }
    // The running pppd and DDNS schedule are left for the reboot.
    EXPECT_TRUE(nmtest::commands().empty());
}

TEST_F(Port, EthernetTypeFlushStopsAtARefusedPppoeSwitch) {
    nmtest::store_sql("CREATE TRIGGER refuse BEFORE INSERT ON conf WHEN "
                      "NEW.path='network/network_pppoe/enable' BEGIN SELECT RAISE(ABORT,'x'); END");
    ASSERT_GE(qmt_conf_printf("network", "%k%k%d", "network_ddns", "enable", 1), 0);
    qmtnm_ethtype_cfg t = {1};
    EXPECT_EQ(qmtnm_lcl_set(QMTNM_ID_ETHTYPE, &t, 0), static_cast<int32_t>(0xFDFEFFFE));
    nmtest::store_sql("DROP TRIGGER refuse");
    EXPECT_TRUE(
        logs().contains(logged("ethtype_flush_config", "Disable pppoe fail, erron = -33619970")));
    EXPECT_EQ(stored_int("network_eth", "type"), 1);
    EXPECT_EQ(stored_int("network_ddns", "enable"), 1);
}

// ---- PPPoE ------------------------------------------------------------------------------------

const strings kOptionLines = {
    "noauth",
    "noipdefault",
    "defaultroute",
    "persist",
    "ipcp-accept-remote",
    "ipcp-accept-local",
    "nodetach",
    "usepeerdns",
    "mtu 1452",
    "mru 1452",
    "lcp-echo-interval 20",
    "lcp-echo-failure 3",
    "holdoff 10",
    "plugin /lib/ppp/rp-pppoe.so br0",
};

std::string options_file(const std::string &name_line) {
    std::string s = name_line + "\n";
    for (const auto &l : kOptionLines)
        s += l + "\n";
    return s;
}

TEST_F(Port, PppoeSetIsStoredAndAsksForARebootWithoutTouchingPppd) {
    const std::string options = file_text("/etc/ppp/options");
    qmtnm_pppoe_cfg c = pppoe(1, "alice", "s3cret");
    ASSERT_EQ(qmtnm_lcl_set(QMTNM_ID_PPPOE, &c, 0), 0);
    EXPECT_EQ(nmtest::activate_flag(), 0u);
    EXPECT_TRUE(nmtest::commands().empty());
    EXPECT_EQ(file_text("/etc/ppp/options"), options);
    EXPECT_EQ(logs().texts(), (strings{logged("pppoe_activate_now", "function request reboot"),
                                       logged("qmtnm_lcl_set", "need reboot to activate action")}));
    EXPECT_EQ(stored_int("network_pppoe", "enable"), 1);
    EXPECT_EQ(nmtest::stored_str("network_pppoe", "username"), "alice");
    EXPECT_EQ(nmtest::stored_str("network_pppoe", "password"), "s3cret");

    // Off stores the switch alone; the account stays for the next time.
    qmtnm_pppoe_cfg off = pppoe(0, "", "");
    ASSERT_EQ(qmtnm_lcl_set(QMTNM_ID_PPPOE, &off, 0), 0);
    EXPECT_EQ(stored_int("network_pppoe", "enable"), 0);
    EXPECT_EQ(nmtest::stored_str("network_pppoe", "username"), "alice");
    qmtnm_pppoe_cfg got = pppoe(-1, "x", "x");
    got.connected = 5;
    ASSERT_EQ(qmtnm_lcl_get(QMTNM_ID_PPPOE, &got, 0), 0);
    EXPECT_EQ(std::string(got.username), "alice");
    EXPECT_EQ(got.connected, 5) << "off: the live fields are left alone";
}

int32_t check_ok(qmtnm_pppoe_cfg &c) {
    return pppoe_lcl.check(&pppoe_lcl, &c, 0);
}

TEST_F(Port, PppoeApplyWritesOptionsAndSecretsThenStartsPppd) {
    const std::string u32(32, 'u'), p32(32, 'p');
    struct {
        const char *what;
        std::string user, pass;
        std::string name_line, secret;
    } const rows[] = {
        {"ordinary", "alice", "s3cret", "name \"alice\"", "\"alice\"\t*\t\"s3cret\"\n"},
        // 32 and 32 characters: the line is cut at 63, shortening the password and dropping the
        // closing quote and the newline.
        {"cut at 63", u32, p32, "name \"" + u32 + "\"",
         "\"" + u32 + "\"\t*\t\"" + p32.substr(0, 25)},
        // A quote or backslash stays inside its quoted word.
        {"quote", "bob\" noauth x", "pw", "name \"bob\\\" noauth x\"",
         "\"bob\\\" noauth x\"\t*\t\"pw\"\n"},
        {"backslash", "bob\\", "pw\\\" *", "name \"bob\\\\\"",
         "\"bob\\\\\"\t*\t\"pw\\\\\\\" *\"\n"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        nmtest::clear_commands();
        // The secrets files are the owner's alone, also when they were there with other modes.
        chmod("/etc/ppp/pap-secrets", 0644);
        qmtnm_pppoe_cfg c = pppoe(1, r.user, r.pass);
        ASSERT_EQ(check_ok(c), 0);
        ASSERT_EQ(apply(pppoe_lcl, &c), 0);
        EXPECT_EQ(file_text("/etc/ppp/options"), options_file(r.name_line));
        for (const char *secrets : {"/etc/ppp/pap-secrets", "/etc/ppp/chap-secrets"}) {
            struct stat st = {};
            EXPECT_EQ(stat(secrets, &st), 0);
            EXPECT_EQ(st.st_mode & 07777, 0600u) << secrets;
            EXPECT_EQ(file_text(secrets), r.secret);
        }
        EXPECT_EQ(nmtest::commands(), (strings{"killall pppd &>/dev/null", "pppd &"}));
    }
    // Off only stops pppd; its files stay.
    nmtest::clear_commands();
    qmtnm_pppoe_cfg off = pppoe(0, "", "");
    ASSERT_EQ(apply(pppoe_lcl, &off), 0);
    EXPECT_EQ(nmtest::commands(), strings{"killall pppd &>/dev/null"});
    EXPECT_NE(file_text("/etc/ppp/options"), "<missing>");
}

TEST_F(Port, PppoeCheckRefusesEmptyOrLongNamesAndLineBreaks) {
    struct {
        int32_t enable;
        std::string user, pass;
        const char *refusal;
    } const rows[] = {
        {0, "", "", nullptr},
        {2, "alice", "pw", nullptr},
        {1, std::string(32, 'u'), "pw", nullptr},
        {1, "", "pw", "pppoe username length FAIL of range!, errno = -33947655"},
        {1, "alice", "", "pppoe password length FAIL of range!, errno = -33947655"},
        {1, "alice\nplugin /tmp/x.so", "pw",
         "pppoe username or password value invalid, errno = -33947655"},
        {1, "alice", "pw\"\n\"eve\"\t*\t\"x",
         "pppoe username or password value invalid, errno = -33947655"},
        {1, "alice", "pw\r", "pppoe username or password value invalid, errno = -33947655"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.user + "/" + r.pass);
        nmtest::load_defaults();
        nmtest::set_activate_flag(1);
        logs().clear();
        qmtnm_pppoe_cfg c = pppoe(r.enable, r.user, r.pass);
        int32_t got = qmtnm_lcl_set(QMTNM_ID_PPPOE, &c, 0);
        if (r.refusal == nullptr) {
            EXPECT_EQ(got, 0);
            EXPECT_EQ(stored_int("network_pppoe", "enable"), r.enable);
            continue;
        }
        EXPECT_EQ(got, kPppoeInvalid);
        EXPECT_EQ(logs().texts(), strings{logged("check_pppoe_info_grammar", r.refusal)});
        EXPECT_EQ(stored_int("network_pppoe", "enable"), 0) << "refused, yet stored";
        EXPECT_EQ(nmtest::activate_flag(), 1u);
    }
}

// ---- DDNS -------------------------------------------------------------------------------------

const strings kDdnsStop = {"killall crond &>/dev/null", "rm -f /etc/cron/ddns.conf",
                           "rm -f /var/spool/cron/crontabs/root"};

TEST_F(Port, DdnsApplyWritesTheScriptAndCrontabWithEncodedCredentials) {
    struct {
        std::string user, pass, url_user, url_pass;
    } const rows[] = {
        {"alice", "Secret42", "alice", "Secret42"},
        {"a&b @c", "p:w d&x@", "a%26b%20%40c", "p%3Aw%20d%26x%40"},
        {"u;reboot", "$(id)`id`'\"\n", "u%3Breboot", "%24%28id%29%60id%60%27%22%0A"},
        {"x/y?z#", "-._~%", "x%2Fy%3Fz%23", "-._~%25"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.user);
        nmtest::clear_commands();
        qmtnm_ddns_cfg c = ddns(1, "cam.example.net", r.user, r.pass);
        ASSERT_EQ(qmtnm_lcl_set(QMTNM_ID_DDNS, &c, 0), 0);
        EXPECT_EQ(file_text("/etc/cron/ddns.conf"),
                  "#!/bin/sh\nwget -q -O " QMTNM_DDNS_SCRATCH_FILE " -q http://" + r.url_user +
                      ":" + r.url_pass +
                      "@" QMTNM_DDNS_UPDATE_HOST
                      "/dyndns/update?hostname=cam.example.net&wildcard=OFF\n");
        EXPECT_EQ(file_text("/var/spool/cron/crontabs/root"),
                  "*/1 * * * * /etc/cron/ddns.conf > /dev/null\n");
        strings want = kDdnsStop;
        want.insert(want.end(),
                    {"mkdir -p /etc/cron", "mkdir -p /var/spool/cron/crontabs",
                     "chmod +x /etc/cron/ddns.conf", "/etc/cron/ddns.conf > /dev/null", "crond &"});
        EXPECT_EQ(nmtest::commands(), want);
        EXPECT_EQ(nmtest::stored_str("network_ddns", "username"), r.user);
        EXPECT_EQ(nmtest::stored_str("network_ddns", "password"), r.pass);
    }
    // Off: crond stopped, script and crontab removed, only the switch stored.
    nmtest::clear_commands();
    qmtnm_ddns_cfg off = ddns(0, "", "", "");
    ASSERT_EQ(qmtnm_lcl_set(QMTNM_ID_DDNS, &off, 0), 0);
    EXPECT_EQ(nmtest::commands(), kDdnsStop);
    EXPECT_EQ(stored_int("network_ddns", "enable"), 0);
    EXPECT_EQ(nmtest::stored_str("network_ddns", "domain"), "cam.example.net");
}

TEST_F(Port, DdnsCheckWantsAHostNameAndCredentials) {
    const std::string d32 = std::string(28, 'd') + ".net";
    struct {
        uint32_t enable, type;
        std::string domain, user;
        const char *refusal;
    } const rows[] = {
        {0, 9, "", "", nullptr},
        {1, 0, "cam.example.net", "u", nullptr},
        {1, 0, d32, "u", nullptr}, // 32 characters fill the field
        {1, 0, "a-b.c1", "u", nullptr},
        {1, 1, "cam.example.net", "u", "ddns type FAIL of range!, errno = -33882119"},
        {1, 0, "", "u", "ddns domain length FAIL of range!, errno = -33882119"},
        {1, 0, "cam.example.net", "", "ddns username length FAIL of range!, errno = -33882119"},
        {1, 0, "cam.example.net&x=1", "u", "ddns domain value invalid, errno = -33882119"},
        {1, 0, "cam example", "u", "ddns domain value invalid, errno = -33882119"},
        {1, 0, "a.b;reboot", "u", "ddns domain value invalid, errno = -33882119"},
        {1, 0, "-o.example", "u", "ddns domain value invalid, errno = -33882119"},
        {1, 0, "a..b", "u", "ddns domain value invalid, errno = -33882119"},
        {1, 0, "a.b\n", "u", "ddns domain value invalid, errno = -33882119"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.domain);
        nmtest::load_defaults();
        logs().clear();
        nmtest::clear_commands();
        qmtnm_ddns_cfg c = ddns(r.enable, r.domain, r.user, "pw");
        c.type = r.type;
        int32_t got = qmtnm_lcl_set(QMTNM_ID_DDNS, &c, 0);
        if (r.refusal == nullptr) {
            EXPECT_EQ(got, 0);
            continue;
        }
        EXPECT_EQ(got, kDdnsInvalid);
        EXPECT_EQ(logs().texts(), strings{logged("check_ddns_info_grammar", r.refusal)});
        EXPECT_TRUE(nmtest::commands().empty());
        EXPECT_EQ(stored_int("network_ddns", "enable"), 0) << "refused, yet stored";
    }
}

} // namespace
