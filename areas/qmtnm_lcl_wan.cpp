// WAN: the upstream wired port, run by a DHCP client or with a static address, netmask,
// default route and two name servers. The port's name is the stored "network_wan"/"port",
// read here and never written. wan_lcl's get reports the live state; wanflash_lcl's get the
// stored settings.
#include "common/area.h"
#include "common/nm_log.h"
#include "common/raii.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

using wan_cfg = qmtnm_wan_cfg;

constexpr uint32_t kModule = QMTNM_MOD_WAN;
constexpr int32_t kInvalid = nm::err(kModule, QMTNM_R_INVALID);
constexpr int32_t kStoreFail = nm::err(kModule, QMTNM_R_STORE);
constexpr int32_t kOpenFail = nm::err(kModule, QMTNM_R_IO);
constexpr size_t kCmdCap = 128;
constexpr int kPortCap = 8;
constexpr const char *kSection = "network_wan";
constexpr const char *kRunDir = "/var/nm";
constexpr const char *kResolvConf = "/var/nm/resolv.conf";
constexpr const char *kRouteTable = "/proc/net/route";

// The static address and netmask are kept in the hardware store as well.
void save_ipaddr(const void *addr) {
    save_hw_conf(0, *static_cast<const in_addr *>(addr));
}
void save_netmask(const void *addr) {
    save_hw_conf(1, *static_cast<const in_addr *>(addr));
}

// In the order they are written; a failed netmask read reports itself as the ipaddr.
constexpr nm::store_field kFields[] = {
    NM_FIELD(wan_cfg, method, i32, "method", 0, "read wan dhcpc fail, errno = %d\n",
             "write wan method fail, errno = %d\n"),
    NM_FIELD(wan_cfg, ipaddr, inaddr, "ipaddr", 16, "read wan ipaddr fail, errno = %d\n",
             "write wan ipaddr fail, errno = %d\n", save_ipaddr),
    NM_FIELD(wan_cfg, netmask, inaddr, "netmask", 16, "read wan ipaddr fail, errno = %d\n",
             "write wan netmask fail, errno = %d\n", save_netmask),
    NM_FIELD(wan_cfg, gateway, inaddr, "gateway", 16, "read wan gateway fail, errno = %d\n",
             "write wan gateway fail, errno = %d\n"),
    NM_FIELD(wan_cfg, dns1, inaddr, "dns1", 16, "read wan dns1 fail, errno = %d\n",
             "write wan dns1 fail, errno = %d\n"),
    NM_FIELD(wan_cfg, dns2, inaddr, "dns2", 16, "read wan dns2 fail, errno = %d\n",
             "write wan dns2 fail, errno = %d\n"),
};
constexpr uint8_t kReadOrder[] = {0, 1, 3, 2, 4, 5}; // the gateway is read before the netmask
// Switching to DHCP stores the method alone: the static settings stay for a later switch back.
constexpr nm::store_map kStore = {kSection, kModule,   kFields, 6, nm::stop_when::nonzero,
                                  0,        kReadOrder};

int32_t get_wan_config(wan_cfg *cfg) {
    return nm::store_read(__func__, kStore, cfg);
}

int32_t read_port(const char *func, char (&port)[kPortCap]) {
    if (nm::store_get_ifname(kSection, port, kPortCap) < 0) {
        nm::log(nm::LOG_GATE_ERR, func, "read network_wan port failed, errno = %d\n", kStoreFail);
        return kStoreFail;
    }
    return 0;
}

int32_t check_wan_info_grammar(lcl_instance *, void *arg1, uintptr_t) {
    const auto *cfg = static_cast<const wan_cfg *>(arg1);
    if (cfg->method >= 2) {
        NM_ERR("wan info dhcpc value invalid\n");
        return kInvalid;
    }
    const struct {
        in_addr addr;
        const char *fail;
    } addrs[] = {{cfg->ipaddr, "wan info ipaddr value invalid\n"},
                 {cfg->gateway, "wan info gateway value invalid\n"},
                 {cfg->netmask, "wan info netmask value invalid\n"},
                 {cfg->dns1, "wan info dns1 value invalid\n"},
                 {cfg->dns2, "wan info dns2 value invalid\n"}};
    for (const auto &a : addrs) {
        if (inet_ntoa(a.addr) == nullptr) {
            NM_ERR("%s", a.fail);
            return kInvalid;
        }
    }
    return 0;
}

// Its failures are a plain -1, as the callers have always had them.
int32_t wan_config_nochange(lcl_instance *, void *arg1, uintptr_t, int32_t *changed) {
    return nm::config_nochange<wan_cfg, get_wan_config>(
        __func__, kModule, static_cast<wan_cfg *>(arg1),
        {"calloc memory fail", "read lan flash fail", -1}, changed);
}

int32_t write_resolv_conf(const char *func, const wan_cfg *cfg) {
    nm::unique_file f(fopen(kResolvConf, "w"));
    if (!f) {
        nm::log(nm::LOG_GATE_ERR, func, "open %s fail, errno = %d", kResolvConf, kOpenFail);
        return kOpenFail;
    }
    fprintf(f.get(), "nameserver %s\n", nm::dotted(cfg->dns1).text);
    fprintf(f.get(), "nameserver %s\n", nm::dotted(cfg->dns2).text);
    return 0;
}

int32_t set_wan(lcl_instance *, void *arg1, uintptr_t) {
    const auto *cfg = static_cast<const wan_cfg *>(arg1);
    char port[kPortCap] = {};
    if (int32_t r = read_port(__func__, port); r < 0)
        return r;
    nm::run_cmd(kCmdCap, "killall udhcpc > /dev/null");
    nm::run_cmd(kCmdCap, "rm -f %s/udhcpc-*.pid >/dev/null", kRunDir);
    if (cfg->method != 0) {
        // The client's pid file is "udhcpd-<port>.pid", and two blanks stand before the "&":
        // the device's scripts know the line as it is.
        nm::run_cmd(kCmdCap, "udhcpc -i %s -p %s/udhcpd-%s.pid  &", port, kRunDir, port);
        return 0;
    }
    nm::run_cmd(kCmdCap, "ifconfig %s %s", port, nm::dotted(cfg->ipaddr).text);
    nm::run_cmd(kCmdCap, "ifconfig %s netmask %s", port, nm::dotted(cfg->netmask).text);
    nm::run_cmd(kCmdCap, "route del default &>/dev/null");
    nm::run_cmd(kCmdCap, "route add default gw %s &>/dev/null", nm::dotted(cfg->gateway).text);
    return write_resolv_conf(__func__, cfg);
}

int32_t wan_flush_config(lcl_instance *, void *arg1, uintptr_t) {
    return nm::store_write(__func__, kStore, arg1);
}

// The gateway of the first route on the port that is up and goes through a gateway (the
// table's hexadecimal gateway is already in network byte order); 0 when there is none.
int32_t read_gateway(const char *func, const char *port, in_addr *gateway) {
    nm::unique_file f(fopen(kRouteTable, "r"));
    if (!f) {
        nm::log(nm::LOG_GATE_ERR, func, "open %s fail, errno = %d\n", kRouteTable, kOpenFail);
        return kOpenFail;
    }
    char line[256];
    while (fgets(line, sizeof line, f.get())) {
        char ifname[17], dest[129], via[129], mask[129];
        unsigned flags;
        int refcnt, use, metric, mtu, window, irtt;
        int n = sscanf(line, "%16s %128s %128s %X %d %d %d %128s %d %d %d", ifname, dest, via,
                       &flags, &refcnt, &use, &metric, mask, &mtu, &window, &irtt);
        if (n < 10 || (flags & 3) != 3 || strcmp(ifname, port) != 0)
            continue;
        gateway->s_addr = static_cast<in_addr_t>(strtoul(via, nullptr, 16));
        break;
    }
    return 0;
}

// dns1 and dns2 from the first two "nameserver" lines of the resolver file.
int32_t read_resolv_conf(const char *func, wan_cfg *cfg) {
    nm::unique_file f(fopen(kResolvConf, "r"));
    if (!f) {
        nm::log(nm::LOG_GATE_ERR, func, "open %s fail, errno = %d", kResolvConf, kOpenFail);
        return kOpenFail;
    }
    in_addr *servers[] = {&cfg->dns1, &cfg->dns2};
    size_t found = 0;
    char line[256];
    while (found < 2 && fgets(line, sizeof line, f.get())) {
        char word[256], value[256];
        if (sscanf(line, "%255s %255s", word, value) == 2 && strcmp(word, "nameserver") == 0)
            inet_aton(value, servers[found++]);
    }
    return 0;
}

// The live state: the stored method, the port's address and netmask, the default route's
// gateway and the resolver's name servers. size is the record's size, cleared first.
int32_t get_wan(lcl_instance *, void *arg1, uintptr_t size) {
    auto *cfg = static_cast<wan_cfg *>(arg1);
    memset(cfg, 0, std::min<uintptr_t>(size, sizeof *cfg));
    char port[kPortCap] = {};
    if (int32_t r = read_port(__func__, port); r < 0)
        return r;
    if (nm::store_get_int(kSection, "method", reinterpret_cast<int32_t *>(&cfg->method)) < 0) {
        NM_ERR("read wan method fail, errno = %d\n", kStoreFail);
        return kStoreFail;
    }
    if (int32_t r = nm_get_inaddr(port, 0, &cfg->ipaddr); r < 0) {
        NM_ERR("read wan ipaddr fail, errno = %d\n", r);
        return r;
    }
    if (int32_t r = nm_get_inaddr(port, 2, &cfg->netmask); r < 0) {
        NM_ERR("read wan netmask fail, errno = %d\n", r);
        return r;
    }
    if (int32_t r = read_gateway(__func__, port, &cfg->gateway); r < 0)
        return r;
    return read_resolv_conf(__func__, cfg);
}

int32_t get_wanflash(lcl_instance *, void *arg1, uintptr_t) {
    return get_wan_config(static_cast<wan_cfg *>(arg1));
}

} // namespace

lcl_instance wan_lcl = {
    "wan_lcl",
    check_wan_info_grammar,
    wan_config_nochange,
    nullptr,
    wan_flush_config,
    nullptr,
    nm::checked_apply<check_wan_info_grammar, set_wan>,
    get_wan,
    nullptr,
    nullptr,
    0,
    0,
    0,
};

lcl_instance wanflash_lcl = {
    "wanflash_lcl", nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
    get_wanflash,   nullptr, nullptr, 0,       0,       0,
};
