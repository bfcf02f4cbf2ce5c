// Stored settings are input too: a store written past the checks (a restored backup, a
// hand-edited store) is refused by the start-up apply, area by area, before anything runs or is
// written; and a text field filled to its size is stored, read back and applied whole.
#include "support/test_support.h"

#include "qmt_conf.h"
#include "qmtnm.h"

#include <arpa/inet.h>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace {

using strings = std::vector<std::string>;
using nmtest::logged;
using nmtest::logs;

template <size_t N> void put(char (&field)[N], const std::string &text) {
    memset(field, 0, N);
    memcpy(field, text.data(), text.size() < N ? text.size() : N);
}

in_addr ip(const char *text) {
    in_addr a{};
    inet_pton(AF_INET, text, &a);
    return a;
}

int32_t invalid(uint32_t id) {
    return QMTNM_ERR(QMTNM_MODULE(id), QMTNM_R_INVALID);
}

// The files an apply writes, which a refused record must leave as they were.
const char *const kFiles[] = {
    "/var/nm/hostapd.conf", "/var/nm/miniupnpd.conf", "/var/conf/hosts",
    "/etc/cron/ddns.conf",  "/etc/ppp/pap-secrets",   "/etc/ppp/options",
    "/var/nm/udhcpd.conf",  "/var/nm/resolv.conf",    "/var/spool/cron/crontabs/root"};

strings files() {
    strings out;
    for (const char *f : kFiles)
        out.push_back(nmtest::file_text(f));
    return out;
}

// One area's record, stored by its persist step alone (no check on that path), as a tampered
// store would hold it.
struct hostile_row {
    const char *what;
    uint32_t id;
    std::function<void(void *)> fill;
    size_t size;
    std::string refusal; // the log line that names the field
};

template <class Rec> std::function<void(void *)> rec(std::function<void(Rec &)> f) {
    return [f](void *p) { f(*static_cast<Rec *>(p)); };
}

const std::string kSta = "check_sta_info_grammar";

const hostile_row kHostile[] = {
    {"ip filter rule running a command", QMTNM_ID_IPFILTER, rec<qmtnm_ipfilter_cfg>([](auto &c) {
         c.enable = 1;
         c.index = 1;
         put(c.rules[0].begin_ip, "1;touch /tmp/p;");
         put(c.rules[0].end_ip, "1.1.1.9");
     }),
     sizeof(qmtnm_ipfilter_cfg),
     logged("check_ipfilter_info_grammar",
            "index=0 begin_ip=1;touch /tmp/p; format error, errno = -34144263")},
    {"ddns domain running a command", QMTNM_ID_DDNS, rec<qmtnm_ddns_cfg>([](auto &c) {
         c.enable = 1;
         put(c.domain, "x;touch /tmp/q;");
         put(c.username, "u");
         put(c.password, "p");
     }),
     sizeof(qmtnm_ddns_cfg),
     logged("get_ddns_config", "stored network_ddns/domain refused, errno = -33882119")},
    {"station WEP key running a command", QMTNM_ID_STA, rec<qmtnm_sta_cfg>([](auto &c) {
         c.enable = 1;
         put(c.ssid, "net");
         c.auth = 1;
         c.index = 1;
         put(c.password, "$(reboot)x");
     }),
     sizeof(qmtnm_sta_cfg),
     logged(kSta.c_str(), "sta wep key of 10 or 26 characters must be hexadecimal, errno = "
                          "-34537479")},
    {"soft AP key opening the network", QMTNM_ID_AP, rec<nm_softap>([](auto &c) {
         c.enable = 1;
         put(c.ssid, "ap");
         c.channel = 6;
         c.auth = 3;
         put(c.password, "12345678\nwpa=0");
     }),
     sizeof(nm_softap),
     logged("get_ap_config", "stored network_softap/password refused, errno = -34603015")},
    {"UPnP name adding a line", QMTNM_ID_UPNP, rec<qmtnm_upnp_cfg>([](auto &c) {
         c.enable = 1;
         put(c.friendlyName, "cam\nsecure_mode=no");
     }),
     sizeof(qmtnm_upnp_cfg),
     logged("get_upnp_config", "stored network_upnp/friendlyName refused, errno = -34013191")},
    {"Bonjour name adding a host line", QMTNM_ID_BONJOUR, rec<qmtnm_bonjour_cfg>([](auto &c) {
         c.enable = 1;
         put(c.hostname, "cam\n10.6.6.6\tevil");
     }),
     sizeof(qmtnm_bonjour_cfg),
     logged("get_bonjr_config", "stored network_bonjour/hostname refused, errno = -34078727")},
    {"PPPoE name adding a pppd option", QMTNM_ID_PPPOE, rec<qmtnm_pppoe_cfg>([](auto &c) {
         c.enable = 1;
         put(c.username, "u\nplugin /tmp/evil.so");
         put(c.password, "p");
     }),
     sizeof(qmtnm_pppoe_cfg),
     logged("get_pppoe_config", "stored network_pppoe/username refused, errno = -33947655")},
    {"QoS DSCP out of range", QMTNM_ID_QOS, rec<qmtnm_qos_cfg>([](auto &c) {
         c.enable = 1;
         c.dscp = 99;
     }),
     sizeof(qmtnm_qos_cfg),
     logged("check_qos_info_grammar", "qos dscp value > 63, errno = -34275335")},
    {"LAN server switch out of range", QMTNM_ID_LAN, rec<qmtnm_lan_cfg>([](auto &c) {
         c.method = 7;
         c.ipaddr = ip("192.168.1.1");
         c.netmask = ip("255.255.255.0");
     }),
     sizeof(qmtnm_lan_cfg), logged("check_lan_info_grammar", "lan info dhcpd value invalid")},
};

// The station's get also reads the supplicant's state, and the DDNS apply writes into directories
// it makes: the recorded commands do neither.
class Stored : public nmtest::area_test {
    void SetUp() override {
        area_test::SetUp();
        nmtest::sh("echo wpa_state=INACTIVE >/var/nm/status_info;"
                   "mkdir -p /etc/cron /var/spool/cron/crontabs /etc/ppp");
    }
};

TEST_F(Stored, ARefusedStoredRecordIsNotAppliedAndTheOtherAreasAre) {
    // Marking first, the wired ports, the filter before the services, the radios last.
    const std::vector<uint32_t> want = {
        QMTNM_ID_QOS,  QMTNM_ID_WAN,  QMTNM_ID_LAN,     QMTNM_ID_IPFILTER, QMTNM_ID_PPPOE,
        QMTNM_ID_DDNS, QMTNM_ID_UPNP, QMTNM_ID_BONJOUR, QMTNM_ID_AP,       QMTNM_ID_STA};
    std::vector<uint32_t> order(QMTNM_ID_COUNT);
    order.resize(qmtnm_lcl_boot_order(order.data(), QMTNM_ID_COUNT));
    EXPECT_EQ(order, want);
    for (const auto &r : kHostile) {
        SCOPED_TRACE(r.what);
        nmtest::load_defaults();
        std::vector<char> block(r.size, 0);
        r.fill(block.data());
        lcl_instance *inst = get_lcl_instance(r.id);
        ASSERT_EQ(inst->flush(inst, block.data(), 0), 0);
        // Called directly, the instance's apply refuses the record too.
        nmtest::clear_commands();
        strings before = files();
        EXPECT_EQ(inst->set(inst, block.data(), 0), invalid(r.id));
        logs().clear();
        EXPECT_EQ(qmtnm_lcl_apply_stored(r.id), invalid(r.id));
        for (const std::string &cmd : nmtest::commands())
            EXPECT_NE(cmd.find(" status &>"), std::string::npos) << "only the station's reading";
        EXPECT_EQ(files(), before);
        EXPECT_TRUE(logs().contains(r.refusal));
        EXPECT_TRUE(logs().contains(logged(
            "qmtnm_lcl_apply_stored",
            "stored " + std::string(inst->name) +
                " settings refused, not applied, errno = " + std::to_string(invalid(r.id)))));
        // At start-up the other areas still run, and the first refusal is the result.
        nmtest::clear_commands();
        EXPECT_EQ(qmtnm_lcl_apply_stored(QMTNM_APPLY_ALL), invalid(r.id));
        EXPECT_FALSE(nmtest::commands().empty());
        for (const std::string &cmd : nmtest::commands())
            EXPECT_EQ(cmd.find("/tmp/"), std::string::npos) << cmd;
    }
}

// With the activate flag clear a set only stores: the check still keeps a refused record out.
TEST_F(Stored, ARefusedRecordIsNotStoredWhileChangesWaitForAReboot) {
    nmtest::set_activate_flag(0);
    qmtnm_qos_cfg qos = {1, 99};
    EXPECT_EQ(qmtnm_lcl_set(QMTNM_ID_QOS, &qos, 0), invalid(QMTNM_ID_QOS));
    EXPECT_EQ(qmtnm_lcl_apply_stored(QMTNM_ID_QOS), 0) << "the factory settings stay stored";
}

TEST_F(Stored, FullTextFieldsComeBackWholeAndAreAppliedWhole) {
    const std::string ssid(32, 's'), domain = std::string(24, 'd') + ".example", user(32, 'u'),
                                     host(64, 'h');
    qmtnm_sta_cfg sta = {};
    sta.enable = 1;
    put(sta.ssid, ssid);
    put(sta.wps_pin, "12345670"); // as stored
    qmtnm_ddns_cfg ddns = {};
    ddns.enable = 1;
    put(ddns.domain, domain);
    put(ddns.username, user);
    put(ddns.password, user);
    qmtnm_pppoe_cfg pppoe = {};
    pppoe.enable = 1;
    put(pppoe.username, user);
    put(pppoe.password, "p");
    qmtnm_bonjour_cfg bonjour = {};
    bonjour.enable = 1;
    put(bonjour.hostname, host);
    const struct {
        uint32_t id;
        void *rec;
        size_t size;
        size_t compared; // the stored part of the record
        std::string applied;
    } rows[] = {
        {QMTNM_ID_STA, &sta, sizeof sta, offsetof(qmtnm_sta_cfg, link_state),
         "set_network 0 ssid '\"" + ssid + "\"'"},
        {QMTNM_ID_DDNS, &ddns, sizeof ddns, sizeof ddns, "/etc/cron/ddns.conf > /dev/null"},
        {QMTNM_ID_PPPOE, &pppoe, sizeof pppoe, offsetof(qmtnm_pppoe_cfg, connected), "pppd &"},
        {QMTNM_ID_BONJOUR, &bonjour, sizeof bonjour, sizeof bonjour, "hostname '" + host + "'"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(get_lcl_instance(r.id)->name);
        lcl_instance *inst = get_lcl_instance(r.id);
        ASSERT_EQ(inst->flush(inst, r.rec, 0), 0);
        std::vector<char> back(r.size, 0);
        ASSERT_EQ(qmtnm_lcl_get(r.id, back.data(), r.size), 0);
        EXPECT_EQ(memcmp(back.data(), r.rec, r.compared), 0);
        nmtest::clear_commands();
        ASSERT_EQ(qmtnm_lcl_apply_stored(r.id), 0);
        bool applied = false;
        for (const std::string &cmd : nmtest::commands())
            applied = applied || cmd.find(r.applied) != std::string::npos;
        EXPECT_TRUE(applied) << r.applied;
    }
    EXPECT_NE(nmtest::file_text("/etc/cron/ddns.conf").find("hostname=" + domain + "&"),
              std::string::npos);
    EXPECT_NE(nmtest::file_text("/etc/ppp/options").find("name \"" + user + "\"\n"),
              std::string::npos);
    // A stored text longer than its field is refused, not cut to another value.
    ASSERT_EQ(
        qmt_conf_printf("network", "%k%k%s", "network_sta", "ssid", std::string(33, 's').c_str()),
        0);
    EXPECT_EQ(qmtnm_lcl_apply_stored(QMTNM_ID_STA), invalid(QMTNM_ID_STA));
    // A set replaces a stored record that the read refuses.
    EXPECT_EQ(qmtnm_lcl_set(QMTNM_ID_STA, &sta, 0), 0);
    EXPECT_EQ(nmtest::stored_str("network_sta", "ssid"), ssid);
}

} // namespace
