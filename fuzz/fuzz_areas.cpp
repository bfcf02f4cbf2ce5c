// Fuzzes the configuration areas with arbitrary settings records. Input: byte 0 is the instance
// id of the area (a byte that names no row is skipped), the rest the record's bytes (cut at the
// record's size, a short one zero-filled) in a heap block of exactly the record's size. The
// record goes to the area's check and, when the check passes, to its compare, activate, apply
// and persist operations, as the library's set would run them. A record the check refuses goes to
// the instance's apply, which must refuse it too, and is then stored past the check and applied
// by the start-up apply (its read, check and apply, as under the lock), as a tampered store
// would be.
//
// Properties checked besides the sanitizers: a check returns 0 or the area's invalid-input code;
// a persist of a record that passed the check succeeds; a refused record runs nothing when
// applied directly; every command the apply or the start-up apply runs is one of
// the area's command templates, its caller text kept inside its word (shell_words.h), and so is
// every shell script it writes. Commands are recorded here, never run: this file defines
// system(), which the library's calls reach first. The store is reset to the factory settings
// before every input, so that an input does the same on its own as in a run.
//
// The areas write their files under /etc, /var and /tmp: the target refuses to run outside a
// mount namespace of its own (scripts/test.d/30-fuzz.sh runs it under tests/ns-run, where those
// are throwaway overlays), and SYSCONF_DB must name the store's database.
#include "core/lcl_core.h"
#include "qmt_conf.h"
#include "qmtnm.h"
#include "shell_words.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

#if !defined(QMTNM_DDNS_UPDATE_HOST) || !defined(QMTNM_DDNS_SCRATCH_FILE) ||                       \
    !defined(QMTNM_DEFAULTS_CONF)
#error "the library's build-time settings and the factory settings' path must be defined"
#endif

// ---- the recorder of system() ----

namespace {
std::vector<std::string> recorded;
}

extern "C" int system(const char *cmd) {
    if (cmd != nullptr)
        recorded.emplace_back(cmd);
    return 0;
}

namespace {

// ---- the areas ----

#define WPA_CLI "wpa_cli -p/var/run/wpa_supplicant"
#define LED "/sys/class/leds/wifi_led"

// A file the apply writes that the shell runs: its whole text against its template.
struct script_file {
    const char *path;
    const char *tmpl;
};

struct area_row {
    uint32_t id; // the input's first byte
    lcl_instance *inst;
    size_t size; // the record's bytes
    std::vector<const char *> commands;
    std::vector<script_file> scripts = {};
    // Instead of a record: the input is written to this file, and the get fills an entry array
    // of size bytes from it.
    const char *feed_file = nullptr;
};

const area_row kAreas[] = {
    {QMTNM_ID_QOS,
     &qos_lcl,
     sizeof(qmtnm_qos_cfg),
     {"iptables -t mangle -D OUTPUT -j qos_mangle_chain &>/dev/null",
      "iptables -t mangle -F qos_mangle_chain &>/dev/null",
      "iptables -t mangle -X qos_mangle_chain &>/dev/null",
      "iptables -t mangle -N qos_mangle_chain", "iptables -t mangle -A OUTPUT -j qos_mangle_chain",
      "iptables -t mangle -A qos_mangle_chain -j DSCP --set-dscp %d"}},
    {QMTNM_ID_WAN,
     &wan_lcl,
     sizeof(qmtnm_wan_cfg),
     {"killall udhcpc > /dev/null", "rm -f /var/nm/udhcpc-*.pid >/dev/null",
      "udhcpc -i %s -p /var/nm/udhcpd-%s.pid  &", "ifconfig %s %a", "ifconfig %s netmask %a",
      "route del default &>/dev/null", "route add default gw %a &>/dev/null"}},
    {QMTNM_ID_LAN,
     &lan_lcl,
     sizeof(qmtnm_lan_cfg),
     {"ifconfig %s %a", "ifconfig %s netmask %a", "killall udhcpd &>/dev/null",
      "udhcpd /var/nm/udhcpd.conf"}},
    {QMTNM_ID_BR, &br_lcl, sizeof(qmtnm_br_cfg), {}},
    {QMTNM_ID_ETHTYPE, &ethtype_lcl, sizeof(qmtnm_ethtype_cfg), {}},
    // The MAC text: the longest the check takes, with its terminator, and one byte more.
    {QMTNM_ID_ETHMAC,
     &ethmac_lcl,
     QMTNM_MAC_TEXT_MAX + 1,
     {"ifconfig eth0 down", "ifconfig eth0 hw ether %s", "ifconfig eth0 up"}},
    {QMTNM_ID_PPPOE, &pppoe_lcl, sizeof(qmtnm_pppoe_cfg), {"killall pppd &>/dev/null", "pppd &"}},
    {QMTNM_ID_DDNS,
     &ddns_lcl,
     sizeof(qmtnm_ddns_cfg),
     {"killall crond &>/dev/null", "rm -f /etc/cron/ddns.conf",
      "rm -f /var/spool/cron/crontabs/root", "mkdir -p /etc/cron",
      "mkdir -p /var/spool/cron/crontabs", "chmod +x /etc/cron/ddns.conf",
      "/etc/cron/ddns.conf > /dev/null", "crond &"},
     {{"/etc/cron/ddns.conf",
       "#!/bin/sh\nwget -q -O " QMTNM_DDNS_SCRATCH_FILE " -q http://%s:%s@" QMTNM_DDNS_UPDATE_HOST
       "/dyndns/update?hostname=%s&wildcard=OFF\n"}}},
    {QMTNM_ID_STA,
     &sta_lcl,
     sizeof(qmtnm_sta_cfg),
     {WPA_CLI " remove_network 0 &>/dev/null",
      WPA_CLI " ap_scan 1 &>/dev/null",
      WPA_CLI " add_network &>/dev/null",
      WPA_CLI " set_network 0 ssid '\"%s\"' &>/dev/null",
      WPA_CLI " set_network 0 scan_ssid 1 &>/dev/null",
      WPA_CLI " set_network 0 key_mgmt NONE &>/dev/null",
      WPA_CLI " set_network 0 wep_key%d %s &>/dev/null",
      WPA_CLI " set_network 0 wep_key%d '\"%s\"' &>/dev/null",
      WPA_CLI " set_network 0 wep_tx_keyidx %d &>/dev/null",
      WPA_CLI " set_network 0 psk '\"%s\"' &>/dev/null",
      WPA_CLI " select_network 0 &>/dev/null",
      WPA_CLI " save_config &>/dev/null",
      WPA_CLI " wps_pbc any &>/dev/null",
      WPA_CLI " wps_pin any %s &>/dev/null",
      WPA_CLI " remove_network 1 &>/dev/null",
      WPA_CLI " wps_cancel",
      WPA_CLI " reconfigure",
      WPA_CLI " -iwlan0 status &>/var/nm/status_info", // the start-up apply's read
      "echo none >" LED "/trigger",
      "echo 0 >" LED "/brightness",
      "echo 1 >" LED "/brightness",
      "echo timer >" LED "/trigger",
      "echo %d >" LED "/delay_on",
      "echo %d >" LED "/delay_off"}},
    {QMTNM_ID_AP,
     &ap_lcl,
     sizeof(nm_softap),
     {"killall hostapd > /dev/null 2>&1", "killall -1 hostapd > /dev/null 2>&1"}},
    {QMTNM_ID_UPNP,
     &upnp_lcl,
     sizeof(qmtnm_upnp_cfg),
     {"killall miniupnpd &>/dev/null", "rm -f /var/run/miniupnpd.pid &>/dev/null",
      "miniupnpd -f /var/nm/miniupnpd.conf -P /var/run/miniupnpd.pid &"}},
    {QMTNM_ID_BONJOUR,
     &bonjour_lcl,
     sizeof(qmtnm_bonjour_cfg),
     {"killall mDNSResponderPosix &>/dev/null", "rm -f /var/run/mDNSResponder.pid &>/dev/null",
      "hostname '%s'", "/bin/mDNSResponderPosix -n -t _http._tcp. -p 80 -b &"}},
    {QMTNM_ID_IPFILTER,
     &ipfilter_lcl,
     sizeof(qmtnm_ipfilter_cfg),
     {"iptables -D INPUT -j ipf_chain &>/dev/null", "iptables -F ipf_chain &>/dev/null",
      "iptables -X ipf_chain &>/dev/null", "iptables -N ipf_chain",
      "iptables -A INPUT -j ipf_chain",
      "iptables -A ipf_chain -m iprange --src-range %a-%a -p tcp --dport 80 -j ACCEPT\n",
      "iptables -A ipf_chain -m iprange --src-range %a-%a -p tcp --dport 80 -j DROP\n",
      "iptables -A ipf_chain -p tcp --dport 80 -j DROP"}},
    // The scan table that wpa_cli leaves, into three entries' room.
    {QMTNM_ID_SCANRESULT,
     &scanresult_lcl,
     3 * sizeof(qmtnm_scan_entry),
     {},
     {},
     "/var/nm/scan_info"},
};

// ---- the process's surroundings ----

std::string factory_settings;
int log_fd = -1;

[[noreturn]] void refuse(const char *why) {
    fprintf(stderr, "fuzz_areas: %s\n", why);
    exit(1);
}

[[noreturn]] void property_failed(const area_row &row, const std::string &what) {
    fprintf(stderr, "property failed: %s: %s\n", row.inst->name, what.c_str());
    abort();
}

// The text with its control characters and backslashes escaped, for a report.
std::string shown(const std::string &s) {
    std::string out;
    for (unsigned char c : s) {
        if (c == '\\' || c < 0x20 || c >= 0x7F) {
            char hex[8];
            snprintf(hex, sizeof hex, "\\x%02x", c);
            out += hex;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

// Whether every directory the areas write under is a throwaway overlay of this process's own
// mount namespace, as tests/ns-run makes them.
bool private_directories() {
    std::ifstream f("/proc/self/mountinfo");
    std::string line;
    size_t found = 0;
    const char *const dirs[] = {"/etc", "/var", "/tmp", "/dev"};
    while (std::getline(f, line)) {
        // "id parent major:minor root mount-point options ... - type source ..."
        std::istringstream fields(line);
        std::string id, parent, dev, root, point, word;
        fields >> id >> parent >> dev >> root >> point;
        while (fields >> word && word != "-") {
        }
        std::string type;
        fields >> type;
        for (const char *d : dirs)
            if (point == d && type == "overlay")
                ++found;
    }
    return found >= std::size(dirs);
}

void reset_store() {
    FILE *f = fmemopen(const_cast<char *>(factory_settings.data()), factory_settings.size(), "r");
    if (f == nullptr || sysconf_load(f, 1) <= 0)
        refuse("cannot load the factory settings into the store");
    fclose(f);
}

// The library's syslog lines land on a socket of this process; they are read and dropped.
void bind_log() {
    log_fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    strcpy(addr.sun_path, "/dev/log");
    unlink(addr.sun_path);
    if (log_fd < 0 || bind(log_fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0)
        refuse("cannot bind /dev/log");
}

void drain_log() {
    char buf[1024];
    while (recv(log_fd, buf, sizeof buf, MSG_DONTWAIT) > 0) {
    }
}

// The matcher must tell a command that keeps its caller text in place from one that does not.
void check_matcher() {
    struct {
        const char *command, *tmpl;
        bool ok;
    } const cases[] = {
        {"hostname 'it'\\''s'", "hostname '%s'", true},
        {"hostname 'a b;c|d&e'", "hostname '%s'", true},
        {"hostname 'a'b'", "hostname '%s'", false},
        {"hostname 'a' 'b'", "hostname '%s'", false},
        {"hostname 'a';reboot''", "hostname '%s'", false},
        {"hostname 'a'$(reboot)''", "hostname '%s'", false},
        {"hostname 'a'`reboot`''", "hostname '%s'", false},
        {"hostname 'a'*''", "hostname '%s'", false},
        {"hostname '-n'", "hostname '%s'", false},
        {"ifconfig eth0 hw ether 02:11:22:33:44:55", "ifconfig eth0 hw ether %s", true},
        {"ifconfig eth0 hw ether 02:11\nreboot", "ifconfig eth0 hw ether %s", false},
        {"ifconfig eth0 hw ether #02", "ifconfig eth0 hw ether %s", false},
        {"ifconfig eth0 hw ether", "ifconfig eth0 hw ether %s", false},
        {"x -A c -m r --src-range 1.2.3.4-1.2.3.5 -j DROP\n",
         "x -A c -m r --src-range %s-%s -j DROP\n", true},
        {"x -A c -m r --src-range 1.2.3.4 -1.2.3.5 -j DROP\n",
         "x -A c -m r --src-range %s-%s -j DROP\n", false},
        {"route add default gw 10.0.0.1 &>/dev/null", "route add default gw %a &>/dev/null", true},
        {"route add default gw 10.0.0.1 & >/dev/null", "route add default gw %a &>/dev/null",
         false},
        {"p set_network 0 wep_key3 0123456789 &>/dev/null",
         "p set_network 0 wep_key%d %s &>/dev/null", true},
        {"w http://a:~b@h", "w http://%s:%s@h", true},
        {"w ~root", "w %s", false},
        {"w X=a:~root", "w X=%s", false},
        {"p \"a\\\"b\" c", "p \"%s\" c", true},
        {"p \"a\"b\" c", "p \"%s\" c", false},
    };
    for (const auto &c : cases)
        if (shell_words::matches(c.command, c.tmpl) != c.ok) {
            fprintf(stderr, "fuzz_areas: the matcher says %s to \"%s\" against \"%s\"\n",
                    c.ok ? "no" : "yes", shown(c.command).c_str(), shown(c.tmpl).c_str());
            abort();
        }
}

std::string read_file(const char *path) {
    std::ifstream f(path, std::ios::binary);
    std::ostringstream s;
    s << f.rdbuf();
    return s.str();
}

void check_commands(const area_row &row) {
    for (const std::string &cmd : recorded) {
        bool known = false;
        for (const char *tmpl : row.commands)
            known = known || shell_words::matches(cmd, tmpl);
        if (!known)
            property_failed(row, "command \"" + shown(cmd) + "\" is none of the area's");
    }
    for (const script_file &s : row.scripts) {
        if (access(s.path, F_OK) != 0)
            continue;
        std::string text = read_file(s.path);
        if (!shell_words::matches(text, s.tmpl))
            property_failed(row,
                            std::string(s.path) + " \"" + shown(text) + "\" is not its template");
    }
}

void feed_file(const area_row &row, const uint8_t *data, size_t size) {
    {
        std::ofstream f(row.feed_file, std::ios::binary | std::ios::trunc);
        f.write(reinterpret_cast<const char *>(data), static_cast<std::streamsize>(size));
    }
    std::unique_ptr<void, decltype(&free)> room(malloc(row.size), free);
    memset(room.get(), 0, row.size);
    int32_t r = row.inst->get(row.inst, room.get(), row.size);
    const int32_t most = static_cast<int32_t>(row.size / sizeof(qmtnm_scan_entry)) - 2;
    if (r < -2 || r > most)
        property_failed(row, "get returned " + std::to_string(r));
}

// A record the check refuses: the instance's own apply refuses it too, running nothing; stored
// past the check (as a tampered store would hold it), the start-up apply runs nothing outside
// the area's templates.
void refused_record(const area_row &row, void *rec) {
    lcl_instance *inst = row.inst;
    const int32_t invalid = QMTNM_ERR(QMTNM_MODULE(row.id), QMTNM_R_INVALID);
    if (inst->set != nullptr && inst->set(inst, rec, 0) != invalid)
        property_failed(row, "the apply took a record its check refuses");
    if (!recorded.empty())
        property_failed(row, "the refused apply ran \"" + shown(recorded[0]) + "\"");
    if (inst->flush == nullptr)
        return;
    inst->flush(inst, rec, 0);
    size_t count = 0;
    const nm::stored_apply *order = nm::boot_order(&count);
    for (size_t i = 0; i < count; ++i)
        if (order[i].inst == inst && nm::apply_stored_locked(order[i]) > 0)
            property_failed(row, "the start-up apply returned a positive result");
    check_commands(row);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    if (!private_directories())
        refuse("the areas write under /etc, /var and /tmp: run under tests/ns-run");
    if (getenv("SYSCONF_DB") == nullptr)
        refuse("SYSCONF_DB must name the store's database");
    // With the LED there, a WPS set would wait two minutes for a link.
    if (access(LED "/trigger", F_OK) == 0)
        refuse(LED " exists here");
    check_matcher();
    factory_settings = read_file(QMTNM_DEFAULTS_CONF);
    if (factory_settings.empty())
        refuse("no factory settings at " QMTNM_DEFAULTS_CONF);
    for (const char *dir : {"/var/nm", "/var/conf", "/etc/ppp", "/etc/cron", "/var/spool",
                            "/var/spool/cron", "/var/spool/cron/crontabs"})
        if (mkdir(dir, 0755) != 0 && errno != EEXIST)
            refuse("cannot make the areas' directories");
    bind_log();
    // What the station's get reads after asking the supplicant (the recorder runs nothing).
    std::ofstream("/var/nm/status_info") << "wpa_state=INACTIVE\n";
    // The hardware store's client prints its failures (there is no /dev/hconf here).
    if (freopen("/dev/null", "w", stdout) == nullptr)
        abort();
    nm_log_level = 3; // every message formatted, the chattiest included
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0)
        return 0;
    const area_row *row = nullptr;
    for (const area_row &r : kAreas)
        if (r.id == data[0])
            row = &r;
    if (row == nullptr)
        return 0;
    ++data;
    --size;
    reset_store();
    recorded.clear();
    if (row->feed_file) {
        feed_file(*row, data, size);
        drain_log();
        return 0;
    }
    for (const script_file &s : row->scripts)
        unlink(s.path);

    std::unique_ptr<void, decltype(&free)> block(malloc(row->size), free);
    void *rec = block.get();
    memset(rec, 0, row->size);
    memcpy(rec, data, size < row->size ? size : row->size);

    lcl_instance *inst = row->inst;
    if (inst->check) {
        int32_t r = inst->check(inst, rec, 0);
        const int32_t invalid = QMTNM_ERR(QMTNM_MODULE(row->id), QMTNM_R_INVALID);
        if (r != 0 && r != invalid)
            property_failed(*row, "check returned " + std::to_string(r));
        if (r != 0) {
            refused_record(*row, rec);
            drain_log();
            return 0;
        }
    }
    if (inst->nochange) {
        int32_t changed = 0;
        inst->nochange(inst, rec, 0, &changed);
    }
    if (inst->activate_now) {
        uint32_t activate = 1;
        inst->activate_now(inst, rec, 0, &activate);
    }
    if (inst->set)
        inst->set(inst, rec, 0);
    if (inst->flush)
        if (int32_t r = inst->flush(inst, rec, 0); r != 0)
            property_failed(*row, "persist returned " + std::to_string(r));
    check_commands(*row);
    drain_log();
    return 0;
}
