// The wired areas and the services through the public calls, one row per behaviour: a record
// as the tool builds it goes in; the result, the commands run (recorded, not run), the files
// written, the store and the log come out. The device tests prove the same commands in a real
// kernel; these rows pin what only the bytes show.
#include "support/test_support.h"

#include "qmt_conf.h"
#include "qmtnm.h"
#include "qmtnm_try.h"
#include "tools/areas.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstring>
#include <initializer_list>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using nmtest::file_text;
using nmtest::logs;
using strings = std::vector<std::string>;

namespace {

enum how {
    set,  // qmtnm_lcl_set with the activate flag set
    boot, // stored with the flag clear, then applied from the store as at start-up
};

// expect: "/path=bytes" a file's content, "/path@mode" its permission bits, "section/key=value"
// a stored value of the network domain in the store's text form, "log=function: text" a line
// logged, "flag=N".
struct row {
    const char *area;
    how mode;
    const char *words; // field=value|...
    uint32_t result;
    std::string commands; // one a line, in order; "*": not looked at
    strings expect;
    strings before = {}; // before the set: "path=value" stored, "set:words" a set of the area
};

const char *const kQosOff = "iptables -t mangle -D OUTPUT -j qos_mangle_chain &>/dev/null\n"
                            "iptables -t mangle -F qos_mangle_chain &>/dev/null\n"
                            "iptables -t mangle -X qos_mangle_chain &>/dev/null\n";
const char *const kIpfOff = "iptables -D INPUT -j ipf_chain &>/dev/null\n"
                            "iptables -F ipf_chain &>/dev/null\n"
                            "iptables -X ipf_chain &>/dev/null\n"
                            "iptables -N ipf_chain\n"
                            "iptables -A INPUT -j ipf_chain\n";
const std::string kPpp = "noauth\nnoipdefault\ndefaultroute\npersist\nipcp-accept-remote\n"
                         "ipcp-accept-local\nnodetach\nusepeerdns\nmtu 1452\nmru 1452\n"
                         "lcp-echo-interval 20\nlcp-echo-failure 3\nholdoff 10\n"
                         "plugin /lib/ppp/rp-pppoe.so br0\n";
const std::string kDdnsStop = "killall crond &>/dev/null\nrm -f /etc/cron/ddns.conf\n"
                              "rm -f /var/spool/cron/crontabs/root\n";
const char *const kStaticWan = "method=0|ipaddr=10.1.2.3|netmask=255.255.0.0|gateway=10.1.0.1|"
                               "dns1=9.9.9.9|dns2=1.1.1.1";
const char *const kDhcpc = "killall udhcpc > /dev/null\nrm -f /var/nm/udhcpc-*.pid >/dev/null\n";

// clang-format off
const row kRows[] = {
    // ---- QoS ----
    {"qos", set, "enable=1|dscp=46", 0, std::string(kQosOff) +
     "iptables -t mangle -N qos_mangle_chain\niptables -t mangle -A OUTPUT -j qos_mangle_chain\n"
     "iptables -t mangle -A qos_mangle_chain -j DSCP --set-dscp 46\n",
     {"network_qos/enable=1", "network_qos/dscp=46"}},
    {"qos", set, "enable=1|dscp=64", 0xFDF4FFF9, "",
     {"log=check_qos_info_grammar: qos dscp value > 63, errno = -34275335", "network_qos/enable=0"}},
    {"qos", set, "enable=0|dscp=200", 0, kQosOff, {"network_qos/enable=0"}},
    // ---- WAN ----
    {"wan", set, kStaticWan, 0, std::string(kDhcpc) + "ifconfig eth0 10.1.2.3\n"
     "ifconfig eth0 netmask 255.255.0.0\nroute del default &>/dev/null\n"
     "route add default gw 10.1.0.1 &>/dev/null\n",
     {"/var/nm/resolv.conf=nameserver 9.9.9.9\nnameserver 1.1.1.1\n",
      "network_wan/gateway=\"10.1.0.1\"", "network_wan/dns2=\"1.1.1.1\""}},
    // DHCP stores the method alone: the static settings stay for a switch back.
    {"wan", set, "method=1|ipaddr=10.9.9.9", 0,
     std::string(kDhcpc) + "udhcpc -i eth0 -p /var/nm/udhcpd-eth0.pid  &\n",
     {"network_wan/method=1", "network_wan/ipaddr=\"192.168.0.100\""}},
    {"wan", set, "method=2", 0xFDFCFFF9, "", {"log=check_wan_info_grammar: wan info dhcpc value invalid"}},
    // A stored port name that is not an interface name never reaches the shell.
    {"wan", set, kStaticWan, 0xFDFCFFFE, "",
     {"log=set_wan: read network_wan port failed, errno = -33751042"}, {"network_wan/port=\"-a\""}},
    {"lan", set, "ipaddr=10.7.0.1", 0xFDFBFFFE, "",
     {"log=get_lan_config: read lan port fail, errno = -33816578"}, {"network_lan/port=\"$(a)\""}},
    // ---- LAN ----
    {"lan", set, "method=1|ipaddr=192.168.7.1|begin=192.168.7.50|end=192.168.7.60", 0,
     "ifconfig br0 192.168.7.1\nifconfig br0 netmask 255.255.255.0\n"
     "killall udhcpd &>/dev/null\nudhcpd /var/nm/udhcpd.conf\n",
     {"/var/nm/udhcpd.conf=interface br0\nstart 192.168.7.50\nend 192.168.7.60\n"
      "opt subnet 255.255.255.0\nopt lease 28800\nopt router 192.168.7.1\nopt dns 192.168.7.1",
      "/var/nm/udhcpd.leases=", "network_lan/begin=\"192.168.7.50\""}},
    {"lan", set, "method=0|ipaddr=192.168.8.1|begin=1.2.3.4|end=1.2.3.1", 0,
     "ifconfig br0 192.168.8.1\nifconfig br0 netmask 255.255.255.0\nkillall udhcpd &>/dev/null\n",
     {"network_lan/ipaddr=\"192.168.8.1\"", "network_lan/begin=\"192.168.1.100\""}},
    {"lan", set, "begin=192.168.1.200|end=192.168.1.100", 0xFDFBFFF9, "",
     {"log=check_lan_info_grammar: lan info begin_ip > end_ip!"}},
    {"lan", set, "begin=192.168.1.10|end=192.168.2.10", 0xFDFBFFF9, "",
     {"log=check_lan_info_grammar: lan info begin_ip & end_ip in different subnet"}},
    // ---- Ethernet port: settings that wait for a reboot ----
    {"br", set, "mode=1", 0, "",
     {"network_softap/mode=1", "flag=0", "log=br_activate_now: function request reboot"}},
    {"ethtype", set, "type=1", 0, "",
     {"network_eth/type=1", "network_pppoe/enable=0", "network_ddns/enable=0"},
     {"network_pppoe/enable=1", "network_ddns/enable=1"}},
    {"ethtype", set, "type=2", 0, "", {"network_pppoe/enable=1"}, {"network_pppoe/enable=1"}},
    {"ethmac", set, "01:00:5e:00:00:01", 0xFDFDFFF9, "", {}},
    // ---- PPPoE: stored at once, applied at the next start ----
    {"pppoe", set, "enable=1|username=alice|password=s3cret", 0, "",
     {"flag=0", "network_pppoe/username=\"alice\"", "log=pppoe_activate_now: function request reboot"}},
    {"pppoe", boot, "enable=1|username=alice|password=s3cret", 0, "killall pppd &>/dev/null\npppd &\n",
     {"/etc/ppp/options=name \"alice\"\n" + kPpp, "/etc/ppp/pap-secrets=\"alice\"\t*\t\"s3cret\"\n",
      "/etc/ppp/pap-secrets@600", "/etc/ppp/chap-secrets@600"}},
    // A quote or backslash stays inside its quoted word.
    {"pppoe", boot, "enable=1|username=bob\" noauth x|password=pw\\\" *", 0, "*",
     {"/etc/ppp/options=name \"bob\\\" noauth x\"\n" + kPpp,
      "/etc/ppp/chap-secrets=\"bob\\\" noauth x\"\t*\t\"pw\\\\\\\" *\"\n"}},
    {"pppoe", set, "enable=1|username=alice\nplugin /tmp/x.so|password=pw", 0xFDF9FFF9, "",
     {"log=check_pppoe_info_grammar: pppoe username or password value invalid, errno = -33947655"}},
    // ---- DDNS ----
    {"ddns", set, "enable=1|domain=cam.example.net|username=u;reboot|password=$(id)`id`'\"\n", 0,
     kDdnsStop + "mkdir -p /etc/cron\nmkdir -p /var/spool/cron/crontabs\n"
     "chmod +x /etc/cron/ddns.conf\n/etc/cron/ddns.conf > /dev/null\ncrond &\n",
     {"/etc/cron/ddns.conf=#!/bin/sh\nwget -q -O " QMTNM_DDNS_SCRATCH_FILE " -q http://"
      "u%3Breboot:%24%28id%29%60id%60%27%22%0A@" QMTNM_DDNS_UPDATE_HOST
      "/dyndns/update?hostname=cam.example.net&wildcard=OFF\n",
      "/var/spool/cron/crontabs/root=*/1 * * * * /etc/cron/ddns.conf > /dev/null\n"}},
    {"ddns", set, "enable=1|domain=a.net;reboot|username=u|password=p", 0xFDFAFFF9, "", {}},
    {"ddns", set, "enable=0", 0, kDdnsStop, {"network_ddns/enable=0"}, {"network_ddns/enable=1"}},
    // ---- UPnP, Bonjour ----
    {"upnp", set, "enable=1|friendlyName=living room", 0,
     "killall miniupnpd &>/dev/null\nrm -f /var/run/miniupnpd.pid &>/dev/null\n"
     "miniupnpd -f /var/nm/miniupnpd.conf -P /var/run/miniupnpd.pid &\n",
     {"/var/nm/miniupnpd.conf=enable=yes\nfriendlyName=living room\n"}},
    {"bonjour", set, "enable=1|hostname=cam's", 0,
     "killall mDNSResponderPosix &>/dev/null\nrm -f /var/run/mDNSResponder.pid &>/dev/null\n"
     "hostname 'cam'\\''s'\n/bin/mDNSResponderPosix -n -t _http._tcp. -p 80 -b &\n",
     {"network_bonjour/hostname=\"cam's\""}},
    {"bonjour", set, "enable=1|hostname=cam x", 0xFDF7FFF9, "", {}},
    // ---- IP filter ----
    {"ipfilter", set, "enable=1|mode=white|rule=192.168.1.10-192.168.1.20|rule=10.0.0.3-10.0.0.3", 0,
     std::string(kIpfOff) +
     "iptables -A ipf_chain -m iprange --src-range 192.168.1.10-192.168.1.20 -p tcp --dport 80 -j ACCEPT\n\n"
     "iptables -A ipf_chain -m iprange --src-range 10.0.0.3-10.0.0.3 -p tcp --dport 80 -j ACCEPT\n\n"
     "iptables -A ipf_chain -p tcp --dport 80 -j DROP\n", {}},
    // Fewer rules than stored: the surplus goes from the store.
    {"ipfilter", set, "enable=1|mode=black|index=0|rule=10.0.0.7-10.0.0.8", 0, "*",
     {"network_ipfilter/rules/#0/begin_ip=\"10.0.0.7\"", "network_ipfilter/rules/#1/begin_ip=<missing>",
      "network_ipfilter/rules/#2/end_ip=<missing>"},
     {"set:enable=1|mode=black|rule=1.1.1.1-1.1.1.2|rule=1.1.1.3-1.1.1.4|rule=1.1.1.5-1.1.1.6"}},
    {"ipfilter", set, "enable=1|rule=10.0.0.1 ;halt-10.0.0.2", 0xFDF6FFF9, "", {}},
};
// clang-format on

std::string joined(const strings &lines) {
    std::string s;
    for (const auto &l : lines)
        s += l + "\n";
    return s;
}

void check(const std::string &e) {
    size_t eq = e.find('='), mode = e.find('@');
    std::string key = e.substr(0, eq), want = eq == std::string::npos ? "" : e.substr(eq + 1);
    if (e[0] == '/' && mode < eq) {
        struct stat st = {};
        EXPECT_EQ(stat(e.substr(0, mode).c_str(), &st), 0) << e;
        EXPECT_EQ(st.st_mode & 07777, std::stoul(e.substr(mode + 1), nullptr, 8)) << e;
    } else if (e[0] == '/') {
        EXPECT_EQ(file_text(key.c_str()), want) << key;
    } else if (key == "flag") {
        EXPECT_EQ(nmtest::activate_flag(), std::stoul(want));
    } else if (key == "log") {
        size_t colon = want.find(": ");
        EXPECT_TRUE(
            logs().contains(nmtest::logged(want.substr(0, colon).c_str(), want.substr(colon + 2))))
            << want << "\nlogged:\n"
            << joined(logs().texts());
    } else {
        EXPECT_EQ(nmtest::stored("network/" + key), want) << key;
    }
}

using Areas = nmtest::area_test;

TEST_F(Areas, OneBehaviourARow) {
    nmtest::sh(
        "mkdir -p /etc/cron /var/spool/cron/crontabs /etc/ppp; echo old >/var/nm/udhcpd.leases");
    for (const row &r : kRows) {
        SCOPED_TRACE(std::string(r.area) + " " + r.words);
        nmtest::load_defaults();
        const uint32_t id = cli::find_area(r.area)->id;
        for (const auto &b : r.before) {
            if (b.rfind("set:", 0) == 0)
                EXPECT_EQ(qmtnm_lcl_set(id, nmtest::record(r.area, b.substr(4)).data(), 0), 0);
            else
                nmtest::store("network/" + b.substr(0, b.find('=')), b.substr(b.find('=') + 1));
        }
        std::vector<char> rec = nmtest::record(r.area, r.words);
        nmtest::set_activate_flag(r.mode == set);
        nmtest::clear_commands();
        logs().clear();
        int32_t got = qmtnm_lcl_set(id, rec.data(), 0);
        if (r.mode == boot && got == 0) {
            nmtest::clear_commands();
            got = qmtnm_lcl_apply_stored(id);
        }
        EXPECT_EQ(static_cast<uint32_t>(got), r.result) << joined(logs().texts());
        if (r.commands != "*") {
            EXPECT_EQ(joined(nmtest::commands()), r.commands);
        }
        for (const auto &e : r.expect)
            check(e);
    }
}

// The WAN area's get reads the port itself: its address, its first gateway route, the
// resolver file's first two name servers; it clears as much of the record as the caller says.
TEST_F(Areas, WanGetReadsThePortLive) {
    nmtest::sh("ip link add wanport type veth peer name wanpeer; ip link set wanport up;"
               "ip link set wanpeer up; ip addr add 10.20.30.40/24 dev wanport;"
               "ip route add default via 10.20.30.1 dev wanport metric 10;"
               "printf 'nameserver 1.1.1.1\\n# x\\nnameserver 8.8.8.8\\nnameserver 9.9.9.9\\n'"
               " >/var/nm/resolv.conf");
    nmtest::store("network/network_wan/port", "\"wanport\"");
    qmtnm_wan_cfg c;
    memset(&c, 0xAB, sizeof c);
    ASSERT_EQ(qmtnm_lcl_get(QMTNM_ID_WAN, &c, sizeof c), 0);
    char text[5][16];
    for (const auto &[i, a] :
         {std::pair{0, c.ipaddr}, {1, c.netmask}, {2, c.gateway}, {3, c.dns1}, {4, c.dns2}})
        inet_ntop(AF_INET, &a, text[i], sizeof text[i]);
    EXPECT_EQ(c.method, 0u);
    EXPECT_EQ(strings(text, text + 5),
              (strings{"10.20.30.40", "255.255.255.0", "10.20.30.1", "1.1.1.1", "8.8.8.8"}));
    nmtest::sh("ip route del default; ip link del wanport");
    memset(&c, 0xAB, sizeof c);
    qmtnm_lcl_get(QMTNM_ID_WAN, &c, 0);
    EXPECT_EQ(c.gateway.s_addr, 0xABABABABu) << "cleared past the caller's size";
}

} // namespace

// ---- a change that rolls back unless confirmed ----

// The network domain in the store's text form, the pending change's own section aside.
std::string settings() {
    char *text = nullptr;
    size_t len = 0;
    FILE *f = open_memstream(&text, &len);
    sysconf_dump(f, "network/");
    fclose(f);
    std::string all(text, len), out;
    free(text);
    for (size_t at = 0, end; at < all.size(); at = end + 1) {
        end = all.find('\n', at);
        if (all.compare(at, 24, "network/network_pending/") != 0)
            out += all.substr(at, end - at + 1);
    }
    return out;
}

int32_t set_area(const char *area, const std::string &words) {
    return qmtnm_lcl_set(cli::find_area(area)->id, nmtest::record(area, words).data(), 0);
}

constexpr int32_t kTry(int32_t reason) {
    return QMTNM_ERR(QMTNM_MODULE_TRY, reason);
}

qmtnm_try_info state() {
    qmtnm_try_info info{};
    EXPECT_EQ(qmtnm_try_state(&info), 0);
    return info;
}

constexpr uint32_t bits(std::initializer_list<uint32_t> ids) {
    uint32_t m = 0;
    for (uint32_t id : ids)
        m |= 1u << id;
    return m;
}

// Each area's first stored record wins; a rollback stores every touched section back byte for
// byte (values the change added go) and applies each area as its start-up apply does.
TEST_F(Areas, RollbackRestoresTheStoreAndReappliesInStartUpOrder) {
    const std::string before = settings();
    EXPECT_EQ(qmtnm_try_begin(0), kTry(QMTNM_R_INVALID));
    EXPECT_EQ(qmtnm_try_begin(QMTNM_TRY_MAX_SECONDS + 1), kTry(QMTNM_R_INVALID));
    ASSERT_EQ(qmtnm_try_begin(600), 0);
    EXPECT_EQ(qmtnm_try_begin(600), kTry(QMTNM_R_BUSY));
    EXPECT_EQ(
        set_area("ipfilter", "enable=1|mode=white|rule=10.0.0.1-10.0.0.2|rule=10.0.0.5-10.0.0.6"),
        0);
    EXPECT_EQ(set_area("qos", "enable=1|dscp=46"), 0);
    EXPECT_EQ(set_area("qos", "dscp=10"), 0);
    EXPECT_EQ(set_area("lan", "ipaddr=192.168.7.1|begin=192.168.7.50|end=192.168.7.60"), 0);
    qmtnm_try_info info = state();
    EXPECT_EQ(info.phase, QMTNM_TRY_PENDING);
    EXPECT_EQ(info.areas, bits({QMTNM_ID_QOS, QMTNM_ID_LAN, QMTNM_ID_IPFILTER}));
    EXPECT_GE(info.seconds_left, 599u);
    nmtest::clear_commands();
    EXPECT_EQ(qmtnm_try_rollback(), 0);
    EXPECT_EQ(settings(), before);
    const std::string rollback = joined(nmtest::commands());
    nmtest::clear_commands();
    for (uint32_t id : {QMTNM_ID_QOS, QMTNM_ID_LAN, QMTNM_ID_IPFILTER})
        qmtnm_lcl_apply_stored(id);
    EXPECT_EQ(rollback, joined(nmtest::commands()));
    check("log=qmtnm_try_rollback: pending change rolled back (asked for), restored: qos_lcl "
          "lan_lcl ipfilter_lcl");
    info = state();
    EXPECT_EQ(info.phase, QMTNM_TRY_ROLLED_BACK);
    EXPECT_EQ(info.areas, bits({QMTNM_ID_QOS, QMTNM_ID_LAN, QMTNM_ID_IPFILTER}));
    EXPECT_EQ(qmtnm_try_rollback(), kTry(QMTNM_R_FAIL));
}

// A confirm keeps the change; one at the deadline rolls back; at start-up a pending change
// goes back into the store only (an Ethernet type change with PPPoE and DDNS it switched off).
TEST_F(Areas, ConfirmExpiryAndStartUp) {
    const std::string before = settings();
    ASSERT_EQ(qmtnm_try_begin(600), 0);
    EXPECT_EQ(set_area("qos", "enable=1|dscp=46"), 0);
    EXPECT_EQ(qmtnm_try_confirm(), 0);
    EXPECT_EQ(state().phase, QMTNM_TRY_NONE);
    EXPECT_EQ(qmtnm_try_confirm(), kTry(QMTNM_R_FAIL));
    EXPECT_EQ(nmtest::stored("network/network_qos/dscp"), "46");

    const std::string kept = settings();
    ASSERT_EQ(qmtnm_try_begin(600), 0);
    EXPECT_EQ(set_area("qos", "enable=0"), 0);
    nmtest::store("network/network_pending/change/deadline", "1");
    EXPECT_EQ(qmtnm_try_confirm(), kTry(QMTNM_TRY_R_EXPIRED));
    EXPECT_EQ(settings(), kept);

    nmtest::store("network/network_pppoe/enable", "1");
    const std::string booted = settings();
    ASSERT_EQ(qmtnm_try_begin(600), 0);
    EXPECT_EQ(set_area("ethtype", "type=1"), 0);
    EXPECT_EQ(nmtest::stored("network/network_pppoe/enable"), "0");
    EXPECT_EQ(set_area("pppoe", "enable=1|username=u|password=p"), 0); // kept before: not again
    nmtest::clear_commands();
    nmtest::set_activate_flag(1); // as after a power-on
    EXPECT_EQ(qmtnm_try_recover(), 0);
    EXPECT_EQ(settings(), booted);
    EXPECT_EQ(nmtest::commands(), strings{});
    check("flag=1");
    check("log=qmtnm_try_recover: pending change rolled back (found unconfirmed at start-up), "
          "restored: ethtype_lcl pppoe_lcl");
    EXPECT_NE(before, booted);
}

// Nobody confirms: the watchdog, a process of its own, rolls back at the deadline.
TEST_F(Areas, WatchdogRollsBackAtTheDeadline) {
    const std::string before = settings();
    ASSERT_EQ(qmtnm_try_begin(1), 0);
    EXPECT_EQ(set_area("qos", "enable=1|dscp=46"), 0);
    for (int64_t end = nmtest::now_ms() + 5000;
         state().phase == QMTNM_TRY_PENDING && nmtest::now_ms() < end;)
        usleep(50000);
    EXPECT_EQ(state().phase, QMTNM_TRY_ROLLED_BACK);
    EXPECT_EQ(settings(), before);
    check("log=qmtnm_try_watchdog: pending change rolled back (not confirmed by its deadline), "
          "restored: qos_lcl");
}
