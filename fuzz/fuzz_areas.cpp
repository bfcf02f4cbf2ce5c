// Fuzzes the configuration areas (in tests/ns-run's overlays only). Byte 0 names an area's row,
// the rest is its record, in a heap block of the row's size. A record the check passes goes through
// compare, activate, apply and persist as the library's set runs them; one it refuses goes to the
// apply, then to the store and the start-up apply, as from a tampered store. Checked: a check
// returns 0 or the area's invalid-input code, a persist after it succeeds, a refused apply runs
// nothing, the start-up apply returns no positive result, and every command run (system() records
// it) and script written is what one of the area's templates formats to, each text in its place:
// split as the shell does ('...' quotes all, a backslash the next character, blanks end a word,
// a run of ; & | < > ( ) or a newline is an operator, a '#' starting a word a comment, and an
// expansion, a double quote or an unterminated quote or escape fails), %s a text, %d a number, %a
// an address. A text is quoted, or holds no pattern character (* ? [ ] { }) nor a '~' the shell
// expands (a word's start, after = or : in an assignment), and no '-' starts its word.
#include "core/lcl_core.h"
#include "fuzz_common.h"
#include "qmt_conf.h"
#include "qmtnm.h"

#include <cctype>
#include <fstream>
#include <iterator>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// A word's characters, each +256 when quoted; an operator's negative.
using word = std::vector<int>;

// Whether c is an unquoted character of set.
bool one_of(const char *set, int c) {
    return c > 0 && c < 256 && strchr(set, c) != nullptr;
}

bool split(const std::string &s, std::vector<word> &out) {
    bool in = false; // whether out.back() is a word still open
    auto open = [&]() -> word & {
        if (!std::exchange(in, true))
            out.emplace_back();
        return out.back();
    };
    for (size_t i = 0; i < s.size(); ++i) {
        const char c = s[i];
        if (c == ' ' || c == '\t') {
            in = false;
        } else if (one_of(";&|<>()\n", c)) {
            in = false;
            out.push_back({-c});
            while (c != '\n' && i + 1 < s.size() && one_of(";&|<>()", s[i + 1]))
                out.back().push_back(-s[++i]);
        } else if (c == '#' && !in) {
            i = s.find('\n', i) - 1; // to the newline, or past the end
        } else if (c == '\\' && i + 1 < s.size()) {
            open().push_back(static_cast<unsigned char>(s[++i]) + 256);
        } else if (c == '\'' && s.find('\'', i + 1) != std::string::npos) {
            for (word &w = open(); s[++i] != '\'';)
                w.push_back(static_cast<unsigned char>(s[i]) + 256);
        } else if (one_of("$`\"\\'", c)) {
            return false; // an expansion, a double quote, or an unterminated quote or escape
        } else {
            open().push_back(static_cast<unsigned char>(c));
        }
    }
    return true;
}

// Whether w[i] may stand in the place of a placeholder %p that starts at w[from].
bool fits(char p, const word &w, size_t i, size_t from) {
    const int c = w[i] & 255;
    if (w[i] < 0 || (p == 's' && i == 0 && c == '-'))
        return false;
    if (p != 's')
        return isdigit(c) || c == (p == 'a' ? '.' : i == from ? '-' : -1);
    auto name = [](int ch) { return ch == '_' || (ch >= 0 && ch < 128 && isalnum(ch)); };
    const size_t n = std::find_if_not(w.begin(), w.end(), name) - w.begin(); // NAME= assigns
    const bool assignment = n > 0 && n < w.size() && w[n] == '=' && !isdigit(w[0]);
    return !one_of("*?[]{}", w[i]) &&
           (w[i] != '~' || (i > 0 && !(assignment && one_of("=:", w[i - 1]))));
}

// Whether w[wi..] is what the template word t[ti..] formats to.
bool match(const word &t, size_t ti, const word &w, size_t wi) {
    if (ti == t.size())
        return wi == w.size();
    if ((t[ti] & 255) != '%' || ti + 1 == t.size() || !one_of("sda", t[ti + 1] & 255))
        return wi < w.size() && w[wi] == t[ti] && match(t, ti + 1, w, wi + 1);
    const char p = static_cast<char>(t[ti + 1] & 255);
    for (size_t end = wi;; ++end) {
        if (end > wi && !fits(p, w, end - 1, wi))
            return false;
        if ((end > wi || p == 's') && match(t, ti + 2, w, end))
            return true;
        if (end == w.size())
            return false;
    }
}

bool matches(const std::string &line, const char *tmpl) {
    std::vector<word> l, t;
    auto same = [](const word &t, const word &w) { return match(t, 0, w, 0); };
    return split(line, l) && split(tmpl, t) && l.size() == t.size() &&
           std::equal(t.begin(), t.end(), l.begin(), same);
}

struct area_row {
    uint32_t id;
    lcl_instance *inst;
    size_t size; // the record's bytes
    std::vector<const char *> commands;
    const char *script = nullptr, *script_tmpl = nullptr; // a file the apply writes for the shell
    const char *feed = nullptr; // instead of a record: the input goes here, the get reads it
};

#define ROW(id, area, record) QMTNM_ID_##id, &area##_lcl, sizeof(record)
#define NUL " &>/dev/null"
#define WPA "wpa_cli -p/var/run/wpa_supplicant "
#define W(x) WPA x NUL
#define SET(x) W("set_network 0 " x)
#define LED(v, f) "echo " v " >/sys/class/leds/wifi_led/" f
#define IPT "iptables -t mangle -"
#define QMC " qos_mangle_chain"
#define IPF "iptables -A ipf_chain -m iprange --src-range %a-%a -p tcp --dport 80 -j "
// clang-format off
const area_row kAreas[] = {
    {ROW(QOS, qos, qmtnm_qos_cfg), {IPT "D OUTPUT -j" QMC NUL, IPT "N" QMC, IPT "F" QMC NUL,
        IPT "X" QMC NUL, IPT "A OUTPUT -j" QMC, IPT "A" QMC " -j DSCP --set-dscp %d"}},
    {ROW(WAN, wan, qmtnm_wan_cfg), {"killall udhcpc > /dev/null", "route del default" NUL,
        "rm -f /var/nm/udhcpc-*.pid >/dev/null", "udhcpc -i %s -p /var/nm/udhcpd-%s.pid  &",
        "ifconfig %s %a", "ifconfig %s netmask %a", "route add default gw %a" NUL}},
    {ROW(LAN, lan, qmtnm_lan_cfg), {"ifconfig %s %a", "ifconfig %s netmask %a",
        "killall udhcpd" NUL, "udhcpd /var/nm/udhcpd.conf"}},
    {ROW(BR, br, qmtnm_br_cfg), {}}, {ROW(ETHTYPE, ethtype, qmtnm_ethtype_cfg), {}},
    // The MAC text: the longest the check takes, its terminator, and one byte more.
    {ROW(ETHMAC, ethmac, char[QMTNM_MAC_TEXT_MAX + 1]), {"ifconfig eth0 down", "ifconfig eth0 up",
        "ifconfig eth0 hw ether %s"}},
    {ROW(PPPOE, pppoe, qmtnm_pppoe_cfg), {"killall pppd" NUL, "pppd &"}},
    {ROW(DDNS, ddns, qmtnm_ddns_cfg), {"killall crond" NUL, "rm -f /etc/cron/ddns.conf", "crond &",
        "rm -f /var/spool/cron/crontabs/root", "mkdir -p /etc/cron", "chmod +x /etc/cron/ddns.conf",
        "mkdir -p /var/spool/cron/crontabs", "/etc/cron/ddns.conf > /dev/null"},
        "/etc/cron/ddns.conf", "#!/bin/sh\nwget -q -O " QMTNM_DDNS_SCRATCH_FILE " -q http://%s:%s@"
        QMTNM_DDNS_UPDATE_HOST "/dyndns/update?hostname=%s&wildcard=OFF\n"},
    {ROW(STA, sta, qmtnm_sta_cfg), {W("remove_network 0"), W("ap_scan 1"), W("add_network"),
        SET("ssid '\"%s\"'"), SET("scan_ssid 1"), SET("wep_key%d %s"), SET("key_mgmt NONE"),
        SET("wep_key%d '\"%s\"'"), SET("wep_tx_keyidx %d"), SET("psk '\"%s\"'"), W("save_config"),
        W("select_network 0"), W("wps_pbc any"), W("wps_pin any %s"), W("remove_network 1"),
        WPA "wps_cancel", WPA "reconfigure", WPA "-iwlan0 status &>/var/nm/status_info",
        LED("none", "trigger"), LED("timer", "trigger"), LED("0", "brightness"),
        LED("1", "brightness"), LED("%d", "delay_on"), LED("%d", "delay_off")}},
    {ROW(AP, ap, nm_softap), {"killall hostapd > /dev/null 2>&1",
        "killall -1 hostapd > /dev/null 2>&1"}},
    {ROW(UPNP, upnp, qmtnm_upnp_cfg), {"killall miniupnpd" NUL, "rm -f /var/run/miniupnpd.pid" NUL,
        "miniupnpd -f /var/nm/miniupnpd.conf -P /var/run/miniupnpd.pid &"}},
    {ROW(BONJOUR, bonjour, qmtnm_bonjour_cfg), {"killall mDNSResponderPosix" NUL, "hostname '%s'",
        "rm -f /var/run/mDNSResponder.pid" NUL,
        "/bin/mDNSResponderPosix -n -t _http._tcp. -p 80 -b &"}},
    {ROW(IPFILTER, ipfilter, qmtnm_ipfilter_cfg), {"iptables -N ipf_chain", IPF "ACCEPT\n",
        "iptables -F ipf_chain" NUL, "iptables -D INPUT -j ipf_chain" NUL, IPF "DROP\n",
        "iptables -X ipf_chain" NUL, "iptables -A INPUT -j ipf_chain",
        "iptables -A ipf_chain -p tcp --dport 80 -j DROP"}},
    // The scan table that wpa_cli leaves, into three entries' room.
    {ROW(SCANRESULT, scanresult, qmtnm_scan_entry[3]), {}, nullptr, nullptr, "/var/nm/scan_info"},
};
// Against "h %s" the matcher takes a quote kept by its escape, and refuses a text out of its
// quotes, an expansion, an option, a pattern, a second line and a tilde the shell expands.
const char *const kMatcherCases[] = {"h 'it'\\''s'", "h 'a'b'", "h $(x)", "h -n", "h *", "h 1\nx",
                                     "h X=a:~r"};
// clang-format on

std::vector<std::string> recorded;

#define refuse(why) (fputs("fuzz_areas: " why "\n", stderr), exit(1))

std::string read_file(const char *path) {
    std::ifstream f(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(f), {}};
}

void run(const area_row &row, const uint8_t *data, size_t size) {
    lcl_instance *inst = row.inst;
    std::vector<char> block(row.size);
    char *rec = block.data();
    const int32_t invalid = QMTNM_ERR(QMTNM_MODULE(row.id), QMTNM_R_INVALID);
    int32_t r = 0, changed = 0;
    uint32_t activate = 1;
    if (row.feed) { // the get fills the entries' room from the table: -2 .. entries - 2
        std::ofstream(row.feed, std::ios::binary).write(reinterpret_cast<const char *>(data), size);
        if (r = inst->get(inst, rec, row.size);
            r < -2 || r > static_cast<int32_t>(row.size / sizeof(qmtnm_scan_entry)) - 2)
            property_failed("%s: get returned %d", inst->name, r);
        return;
    }
    std::copy(data, data + std::min(size, row.size), rec);
    if (inst->check && (r = inst->check(inst, rec, 0)) != 0 && r != invalid)
        property_failed("%s: check returned %d", inst->name, r);
    if (r != 0) { // refused: by the apply too, running nothing, and stored past the check, by the
                  // start-up apply (read, check, apply) with no positive result
        if (inst->set && (inst->set(inst, rec, 0) != invalid || !recorded.empty()))
            property_failed("%s applied a record its check refuses", inst->name);
        size_t count = 0;
        const nm::stored_apply *order = inst->flush ? nm::boot_order(&count) : nullptr;
        if (inst->flush)
            inst->flush(inst, rec, 0);
        for (size_t i = 0; i < count; ++i)
            if (order[i].inst == inst && (r = nm::apply_stored_locked(order[i])) > 0)
                property_failed("%s: the start-up apply returned %d", inst->name, r);
        return;
    }
    if (inst->nochange)
        inst->nochange(inst, rec, 0, &changed);
    if (inst->activate_now)
        inst->activate_now(inst, rec, 0, &activate);
    if (inst->set)
        inst->set(inst, rec, 0);
    if (inst->flush && (r = inst->flush(inst, rec, 0)) != 0)
        property_failed("%s: persist returned %d", inst->name, r);
}

} // namespace

extern "C" int system(const char *cmd) {
    if (cmd != nullptr)
        recorded.emplace_back(cmd);
    return 0;
}

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    std::string mounts = read_file("/proc/self/mountinfo"); // the last mount of a place counts
    for (const char *d : {" /etc ", " /var ", " /tmp ", " /dev "})
        if (size_t at = mounts.rfind(d);
            at == std::string::npos || mounts.find(" - overlay ", at) > mounts.find('\n', at))
            refuse("the areas write under /etc, /var and /tmp: run under tests/ns-run");
    if (getenv("SYSCONF_DB") == nullptr || access("/sys/class/leds/wifi_led", F_OK) == 0)
        refuse("no SYSCONF_DB, or a Wi-Fi LED (a WPS set would wait for a link)");
    for (const char *c : kMatcherCases)
        if (matches(c, "h %s") != (c == *kMatcherCases))
            property_failed("the matcher is wrong about \"%s\"", c);
    mkdir("/var/spool/cron/crontabs", 0755); // the rest are tests/ns-run's
    unlink("/dev/log"); // the library's syslog lines find no listener there, and are dropped
    std::ofstream("/dev/log").put('\n');
    // What the station's get reads after asking the supplicant (the recorder runs nothing).
    std::ofstream("/var/nm/status_info") << "wpa_state=INACTIVE\n";
    quiet_stdout();   // the hardware store's client prints its failures (no /dev/hconf here)
    nm_log_level = 3; // every message formatted, the chattiest included
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    for (const area_row &row : kAreas) {
        if (size == 0 || row.id != data[0])
            continue;
        FILE *f = fopen(QMTNM_DEFAULTS_CONF, "r"); // the store starts from the factory settings
        if (f == nullptr || sysconf_load(f, 1) <= 0 || fclose(f) != 0)
            refuse("cannot load " QMTNM_DEFAULTS_CONF " into the store");
        recorded.clear();
        if (row.script)
            unlink(row.script);
        run(row, data + 1, size - 1);
        for (const std::string &cmd : recorded)
            if (std::none_of(row.commands.begin(), row.commands.end(),
                             [&](const char *t) { return matches(cmd, t); }))
                property_failed("%s ran \"%s\"", row.inst->name, cmd.c_str());
        std::string script = row.script ? read_file(row.script) : "";
        if (!script.empty() && !matches(script, row.script_tmpl))
            property_failed("%s wrote %s \"%s\"", row.inst->name, row.script, script.c_str());
    }
    return 0;
}
