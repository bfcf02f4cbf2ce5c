// UPnP, Bonjour and the IP filter through the public calls: the checks as one table with the
// hostile text, the exact commands and file lines, the quoting of the host name, and the IP
// filter's walk over the store's rule list. Commands are recorded, not run.
#include "support/test_support.h"

#include "qmt_conf.h"
#include "qmtnm.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

using nmtest::file_text;
using nmtest::logged;
using nmtest::logs;
using nmtest::stored_str;
using strings = std::vector<std::string>;

namespace {

constexpr int32_t kUpnpInvalid = static_cast<int32_t>(0xFDF8FFF9);
constexpr int32_t kBonjourInvalid = static_cast<int32_t>(0xFDF7FFF9);
constexpr int32_t kIpfInvalid = static_cast<int32_t>(0xFDF6FFF9);

// Copies text into a field; text as long as the field leaves it without a terminator.
template <size_t N> void put(char (&field)[N], const std::string &text) {
    memset(field, 0, N);
    memcpy(field, text.data(), std::min(N, text.size()));
}

qmtnm_upnp_cfg upnp(int32_t enable, const std::string &name) {
    qmtnm_upnp_cfg c = {};
    c.enable = enable;
    put(c.friendlyName, name);
    return c;
}

qmtnm_bonjour_cfg bonjour(int32_t enable, const std::string &name) {
    qmtnm_bonjour_cfg c = {};
    c.enable = enable;
    put(c.hostname, name);
    return c;
}

qmtnm_ipfilter_cfg ipfilter(int32_t enable, int32_t mode, const strings &ranges) {
    qmtnm_ipfilter_cfg c = {};
    c.enable = enable;
    c.mode = mode;
    c.index = static_cast<int32_t>(ranges.size() / 2);
    for (size_t i = 0; i + 1 < ranges.size(); i += 2) {
        put(c.rules[i / 2].begin_ip, ranges[i]);
        put(c.rules[i / 2].end_ip, ranges[i + 1]);
    }
    return c;
}

int stored_int(const char *path3, const char *path2, const char *key) {
    int v = -100;
    if (path2 == nullptr)
        EXPECT_GE(qmt_conf_scanf("network", "%k%k%d", path3, key, &v), 0) << key;
    else
        EXPECT_GE(qmt_conf_scanf("network", "%k%k%k%d", path3, path2, key, &v), 0) << key;
    return v;
}

int stored_rules() {
    int n = -1;
    EXPECT_GE(qmt_conf_scanf("network", "%k%k%z", "network_ipfilter", "rules", &n), 0);
    return n;
}

std::string stored_rule(int i, const char *key) {
    char buf[16] = {};
    if (qmt_conf_scanf("network", "%k%k%i%k%l%s", "network_ipfilter", "rules", i, key, 16, buf) < 0)
        return "<missing>";
    return buf;
}

using Services = nmtest::area_test;

// ---- checks ---------------------------------------------------------------------------------

TEST_F(Services, ChecksRefuseBadValuesAndTextThatWouldBreakOut) {
    const std::string n63(63, 'n'), n64(64, 'n');
    const std::string quotes(46, '\''); // 184 characters once quoted: more than the command holds
    struct row {
        uint32_t id;
        qmtnm_upnp_cfg u;
        qmtnm_bonjour_cfg b;
        qmtnm_ipfilter_cfg f;
        const char *refusal; // null: accepted
    };
    auto U = [](int32_t e, const std::string &n, const char *why) {
        return row{QMTNM_ID_UPNP, upnp(e, n), {}, {}, why};
    };
    auto B = [](int32_t e, const std::string &n, const char *why) {
        return row{QMTNM_ID_BONJOUR, {}, bonjour(e, n), {}, why};
    };
    auto F = [](qmtnm_ipfilter_cfg f, const char *why) {
        return row{QMTNM_ID_IPFILTER, {}, {}, f, why};
    };
    auto idx = [](qmtnm_ipfilter_cfg f, int32_t index) {
        f.index = index;
        return f;
    };
    const row rows[] = {
        U(1, n63, nullptr),
        U(1, "", nullptr),
        U(1, "it's \"my\" $(cam) & <tv>", nullptr),
        U(1, n64, "upnp friendlyname length should < 64, errno=-34013191"),
        U(2, "cam", "upnp enable should 0~1, errno = -34013191"),
        U(0, n64, nullptr), // off: written to the file cut at the field's end
        U(1, "cam\nenable=yes", "upnp friendlyname holds a control character, errno = -34013191"),
        U(0, "cam\r", "upnp friendlyname holds a control character, errno = -34013191"),
        B(1, n64, nullptr),
        B(1, "cam's", nullptr),
        B(1, "", nullptr),
        B(0, "any thing\n", nullptr),
        B(2, "cam", "input bonjour enable value = 2 invalid, errno = -34078727"),
        B(1, "cam\tother", "input hostname value invalid, errno = -34078727"),
        B(1, "cam\nhost", "input hostname value invalid, errno = -34078727"),
        B(1, "cam other", "input hostname value invalid, errno = -34078727"),
        B(1, "cam#x", "input hostname value invalid, errno = -34078727"),
        B(1, "-F/etc/passwd", "input hostname value invalid, errno = -34078727"),
        B(1, quotes, "input hostname value invalid, errno = -34078727"),
        F(ipfilter(1, 1, {"192.168.1.10", "192.168.1.20"}), nullptr),
        F(ipfilter(1, 0, {}), nullptr),
        F(ipfilter(0, 1, {"x", "y"}), nullptr),
        F(ipfilter(1, 1, {}), "white list index should > 0, errno = -34144263"),
        F(ipfilter(1, 1, {"192.168.1.20", "192.168.1.10"}),
          "begin ip & end ip are in wrong format, errno = -34144263"),
        F(ipfilter(1, 1, {"192.168.1.10", "192.168.2.1"}),
          "begin ip & end ip are in wrong format, errno = -34144263"),
        F(ipfilter(1, 0, {"1.1.1.1 $(halt)", "1.1.1.2"}),
          "index=0 begin_ip=1.1.1.1 $(halt) format error, errno = -34144263"),
        F(ipfilter(1, 0, {"1.1.1.1", "1.1.1.2", "1.1.1.1", "1.1.1.9;id"}),
          "index=1 end_ip=1.1.1.9;id format error, errno = -34144263"),
        F(ipfilter(1, 0, {"1.1.1.1", "1.1.1.2\n-j"}),
          "index=0 end_ip=1.1.1.2\n-j format error, errno = -34144263"),
        F(ipfilter(1, 0, {"0x1.1.1.1", "1.1.1.2"}),
          "index=0 begin_ip=0x1.1.1.1 format error, errno = -34144263"),
        F(idx(ipfilter(1, 0, {}), 9), "rule index = 9 out of range, errno = -34144263"),
        F(idx(ipfilter(1, 0, {}), -1), "rule index = -1 out of range, errno = -34144263"),
    };
    const char *funcs[] = {"",
                           "",
                           "",
                           "",
                           "",
                           "",
                           "",
                           "check_upnp_info_grammar",
                           "check_bonjour_info_grammar",
                           "check_ipfilter_info_grammar"};
    int i = 0;
    for (row r : rows) {
        SCOPED_TRACE(i++);
        nmtest::load_defaults();
        nmtest::clear_commands();
        logs().clear();
        void *rec = r.id == QMTNM_ID_UPNP      ? static_cast<void *>(&r.u)
                    : r.id == QMTNM_ID_BONJOUR ? static_cast<void *>(&r.b)
                                               : static_cast<void *>(&r.f);
        int32_t want = r.id == QMTNM_ID_UPNP      ? kUpnpInvalid
                       : r.id == QMTNM_ID_BONJOUR ? kBonjourInvalid
                                                  : kIpfInvalid;
        int32_t got = qmtnm_lcl_set(r.id, rec, 0);
        if (r.refusal == nullptr) {
            EXPECT_EQ(got, 0);
            EXPECT_FALSE(nmtest::commands().empty());
            continue;
        }
        EXPECT_EQ(got, want);
        EXPECT_EQ(logs().texts(), strings{logged(funcs[r.id], r.refusal)});
        EXPECT_TRUE(nmtest::commands().empty());
        EXPECT_EQ(stored_int("network_upnp", nullptr, "enable"), 1) << "nothing stored";
        EXPECT_EQ(stored_str("network_bonjour", "hostname"), "qmtnm");
        EXPECT_EQ(stored_int("network_ipfilter", "common", "enable"), 0);
    }
}

// ---- UPnP -----------------------------------------------------------------------------------

TEST_F(Services, UpnpWritesItsTwoLinesAndRestartsTheDaemonOnlyWhenOn) {
    qmtnm_upnp_cfg on = upnp(1, "living room");
    ASSERT_EQ(qmtnm_lcl_set(QMTNM_ID_UPNP, &on, 0), 0);
    EXPECT_EQ(file_text("/var/nm/miniupnpd.conf"), "enable=yes\nfriendlyName=living room\n");
    EXPECT_EQ(nmtest::commands(),
              (strings{"killall miniupnpd &>/dev/null", "rm -f /var/run/miniupnpd.pid &>/dev/null",
                       "miniupnpd -f /var/nm/miniupnpd.conf -P /var/run/miniupnpd.pid &"}));
    EXPECT_EQ(stored_str("network_upnp", "friendlyName"), "living room");

    // Off: the file is rewritten, the daemon stays stopped, and the stored name is kept.
    nmtest::clear_commands();
    qmtnm_upnp_cfg off = upnp(0, std::string(64, 'x'));
    ASSERT_EQ(qmtnm_lcl_set(QMTNM_ID_UPNP, &off, 0), 0);
    EXPECT_EQ(file_text("/var/nm/miniupnpd.conf"),
              "enable=no\nfriendlyName=" + std::string(64, 'x') + "\n");
    EXPECT_EQ(nmtest::commands(), (strings{"killall miniupnpd &>/dev/null",
                                           "rm -f /var/run/miniupnpd.pid &>/dev/null"}));
    EXPECT_EQ(stored_int("network_upnp", nullptr, "enable"), 0);
    EXPECT_EQ(stored_str("network_upnp", "friendlyName"), "living room");

    qmtnm_upnp_cfg got = upnp(-1, "junk");
    ASSERT_EQ(qmtnm_lcl_get(QMTNM_ID_UPNP, &got, 0), 0);
    EXPECT_EQ(got.enable, 0);
    EXPECT_STREQ(got.friendlyName, "living room"); // read whatever enable is
}

// ---- Bonjour --------------------------------------------------------------------------------

TEST_F(Services, BonjourQuotesTheHostNameAndStartsTheResponder) {
    qmtnm_bonjour_cfg cam = bonjour(1, "cam's");
    ASSERT_EQ(qmtnm_lcl_set(QMTNM_ID_BONJOUR, &cam, 0), 0);
    EXPECT_EQ(nmtest::commands(),
              (strings{"killall mDNSResponderPosix &>/dev/null",
                       "rm -f /var/run/mDNSResponder.pid &>/dev/null", "hostname 'cam'\\''s'",
                       "/bin/mDNSResponderPosix -n -t _http._tcp. -p 80 -b &"}));
    EXPECT_EQ(stored_str("network_bonjour", "hostname"), "cam's");
    // The hosts file was rewritten before the new name was stored: it names the earlier one.
    EXPECT_NE(file_text("/var/conf/hosts").find("\tqmtnm\n"), std::string::npos);

    // A name filling its field is used up to the field's end, and so stored.
    nmtest::clear_commands();
    qmtnm_bonjour_cfg full = bonjour(1, std::string(64, 'h'));
    ASSERT_EQ(qmtnm_lcl_set(QMTNM_ID_BONJOUR, &full, 0), 0);
    EXPECT_EQ(nmtest::commands()[2], "hostname '" + std::string(64, 'h') + "'");
    EXPECT_EQ(stored_str("network_bonjour", "hostname"), std::string(64, 'h'));
    qmtnm_bonjour_cfg back = {};
    ASSERT_EQ(qmtnm_lcl_get(QMTNM_ID_BONJOUR, &back, 0), 0);
    EXPECT_EQ(memcmp(&back, &full, sizeof full), 0) << "read back whole, unterminated";

    // Off: the responder is stopped, nothing else; the stored name stays.
    nmtest::clear_commands();
    qmtnm_bonjour_cfg off = bonjour(0, "other");
    ASSERT_EQ(qmtnm_lcl_set(QMTNM_ID_BONJOUR, &off, 0), 0);
    EXPECT_EQ(nmtest::commands(), (strings{"killall mDNSResponderPosix &>/dev/null",
                                           "rm -f /var/run/mDNSResponder.pid &>/dev/null"}));
    EXPECT_EQ(stored_int("network_bonjour", nullptr, "enable"), 0);
}

TEST_F(Services, BonjourLeavesTheResponderStoppedWhenTheHostsFileFails) {
    ASSERT_GE(qmt_conf_printf("network", "%k%k%r", "network_wan", "ipaddr"), 0);
    qmtnm_bonjour_cfg cam = bonjour(1, "cam");
    EXPECT_EQ(qmtnm_lcl_set(QMTNM_ID_BONJOUR, &cam, 0), static_cast<int32_t>(0xFD00FFFE));
    EXPECT_EQ(nmtest::commands(), (strings{"killall mDNSResponderPosix &>/dev/null",
                                           "rm -f /var/run/mDNSResponder.pid &>/dev/null"}));
    EXPECT_TRUE(
        logs().contains(logged("set_bonjour", "update hosts file failed, errno = -50266114")));
}

// ---- IP filter ------------------------------------------------------------------------------

TEST_F(Services, IpFilterChainsForWhiteAndBlackLists) {
    const strings removal = {"iptables -D INPUT -j ipf_chain &>/dev/null",
                             "iptables -F ipf_chain &>/dev/null",
                             "iptables -X ipf_chain &>/dev/null"};
    const std::string rule = "iptables -A ipf_chain -m iprange --src-range ";
    struct {
        qmtnm_ipfilter_cfg cfg;
        strings after_removal;
    } const rows[] = {
        {ipfilter(1, 1, {"192.168.1.10", "192.168.1.20", "192.168.1.30", "192.168.1.30"}),
         {"iptables -N ipf_chain", "iptables -A INPUT -j ipf_chain",
          rule + "192.168.1.10-192.168.1.20 -p tcp --dport 80 -j ACCEPT\n",
          rule + "192.168.1.30-192.168.1.30 -p tcp --dport 80 -j ACCEPT\n",
          "iptables -A ipf_chain -p tcp --dport 80 -j DROP"}},
        {ipfilter(1, 0, {"10.0.0.1", "10.0.0.9"}),
         {"iptables -N ipf_chain", "iptables -A INPUT -j ipf_chain",
          rule + "10.0.0.1-10.0.0.9 -p tcp --dport 80 -j DROP\n"}},
        {ipfilter(1, 0, {}), {"iptables -N ipf_chain", "iptables -A INPUT -j ipf_chain"}},
        {ipfilter(0, 1, {"10.0.0.1", "10.0.0.9"}), {}},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.after_removal.size());
        nmtest::clear_commands();
        qmtnm_ipfilter_cfg cfg = r.cfg;
        ASSERT_EQ(qmtnm_lcl_set(QMTNM_ID_IPFILTER, &cfg, 0), 0);
        strings want = removal;
        want.insert(want.end(), r.after_removal.begin(), r.after_removal.end());
        EXPECT_EQ(nmtest::commands(), want);
    }
}

TEST_F(Services, IpFilterStoreWalk) {
    // Five rules, then two: elements 2..4 go before 0 and 1 are written over.
    strings five;
    for (int i = 0; i < 5; ++i) {
        five.push_back("10.0.0." + std::to_string(i + 1));
        five.push_back("10.0.0." + std::to_string(i + 100));
    }
    qmtnm_ipfilter_cfg cfg = ipfilter(1, 0, five);
    ASSERT_EQ(qmtnm_lcl_set(QMTNM_ID_IPFILTER, &cfg, 0), 0);
    ASSERT_EQ(stored_rules(), 5);
    cfg = ipfilter(1, 1, {"10.0.0.7", "10.0.0.8", "10.0.0.9", "10.0.0.9"});
    ASSERT_EQ(qmtnm_lcl_set(QMTNM_ID_IPFILTER, &cfg, 0), 0);
    EXPECT_EQ(stored_rules(), 2);
    EXPECT_EQ(stored_int("network_ipfilter", "common", "index"), 2);
    EXPECT_EQ(stored_int("network_ipfilter", "common", "mode"), 1);
    EXPECT_EQ(stored_rule(1, "end_ip"), "10.0.0.9");
    EXPECT_EQ(stored_rule(2, "begin_ip"), "<missing>");
    qmtnm_ipfilter_cfg got = {};
    ASSERT_EQ(qmtnm_lcl_get(QMTNM_ID_IPFILTER, &got, 0), 0);
    EXPECT_EQ(memcmp(&got, &cfg, sizeof got), 0);

    // Off: only enable is stored; the rules stay.
    cfg.enable = 0;
    ASSERT_EQ(qmtnm_lcl_set(QMTNM_ID_IPFILTER, &cfg, 0), 0);
    EXPECT_EQ(stored_int("network_ipfilter", "common", "enable"), 0);
    EXPECT_EQ(stored_rules(), 2);

    // A stored index of 12 reads as 8 rules.
    for (int i = 0; i < 12; ++i)
        for (const char *key : {"begin_ip", "end_ip"})
            ASSERT_GE(qmt_conf_printf("network", "%k%k%i%k%s", "network_ipfilter", "rules", i, key,
                                      ("10.1.1." + std::to_string(i)).c_str()),
                      0);
    ASSERT_GE(qmt_conf_printf("network", "%k%k%k%d", "network_ipfilter", "common", "index", 12), 0);
    ASSERT_EQ(qmtnm_lcl_get(QMTNM_ID_IPFILTER, &got, 0), 0);
    EXPECT_EQ(got.index, 8);
    EXPECT_STREQ(got.rules[7].end_ip, "10.1.1.7");
}

} // namespace
