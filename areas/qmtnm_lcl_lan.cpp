// LAN: the address of the LAN port and the DHCP server (udhcpd) with its pool. The port's name
// is the stored "network_lan"/"port", read here and never written. The device's own address is
// the router and name server that the server hands out.
#include "common/area.h"
#include "common/nm_log.h"
#include "common/raii.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

using lan_cfg = qmtnm_lan_cfg;

constexpr uint32_t kModule = QMTNM_MOD_LAN;
constexpr int32_t kInvalid = nm::err(kModule, QMTNM_R_INVALID);
constexpr int32_t kStoreFail = nm::err(kModule, QMTNM_R_STORE);
constexpr int32_t kOpenFail = nm::err(kModule, QMTNM_R_IO);
constexpr size_t kCmdCap = 128;
constexpr const char *kSection = "network_lan";
constexpr const char *kRunDir = "/var/nm";
constexpr const char *kConfName = "udhcpd.conf";
constexpr const char *kLeasesName = "udhcpd.leases";

// In the order they are written: a server switched off keeps the stored pool.
constexpr nm::store_field kFields[] = {
    NM_FIELD(lan_cfg, ipaddr, inaddr, "ipaddr", 16, "read lan ipaddr fail, errno=%d",
             "write lan ipaddr fail, errno = %d\n"),
    NM_FIELD(lan_cfg, netmask, inaddr, "netmask", 16, "read lan netmask fail, errno=%d",
             "write lan netmask fail, errno = %d\n"),
    NM_FIELD(lan_cfg, method, i32, "method", 0, "read lan method fail, errno = %d\n",
             "write lan method fail, errno = %d\n"),
    NM_FIELD(lan_cfg, begin, inaddr, "begin", 16, "read lan begin_ip fail, errno = %d\n",
             "write lan begin_ip fail, errno = %d\n"),
    NM_FIELD(lan_cfg, end, inaddr, "end", 16, "read lan end_ip fail, errno = %d\n",
             "write lan end_ip fail, errno = %d\n"),
};
constexpr nm::store_map kStore = {kSection, kModule, kFields, 5, nm::stop_when::zero, 2};
// Reads: the stored address (used only when the port is the bridge), then the server and pool,
// which are read whatever the switch.
constexpr nm::store_map kAddrStore = {kSection, kModule, kFields, 2};
constexpr nm::store_map kPoolStore = {kSection, kModule, kFields + 2, 3};

// The stored settings; for a port other than the bridge, the address and netmask are the
// interface's own, and an interface without an address reads as an empty record. Kept out of
// line: the get and the compare share one copy.
[[gnu::noinline]] int32_t get_lan_config(lan_cfg *cfg) {
    char port[6] = {};
    if (nm::store_get_ifname(kSection, port, sizeof port) < 0) {
        NM_ERR("read lan port fail, errno = %d\n", kStoreFail);
        return kStoreFail;
    }
    if (strcmp(port, "br0") == 0) {
        if (int32_t r = nm::store_read(__func__, kAddrStore, cfg); r < 0)
            return r;
    } else {
        if (int32_t r = nm_get_inaddr(port, 0, &cfg->ipaddr); r < 0) {
            NM_ERR("read lan ipaddr fail, errno = %d\n", r);
            memset(cfg, 0, sizeof *cfg);
            return 0;
        }
        if (int32_t r = nm_get_inaddr(port, 2, &cfg->netmask); r < 0) {
            NM_ERR("read lan netmask fail, errno = %d\n", r);
            return r;
        }
    }
    return nm::store_read(__func__, kPoolStore, cfg);
}

// The pool's order is tested with the octets weighed as they lie in memory, the first one
// least: the natural order within a /24, while a wider pool that crosses a third-octet
// boundary, such as 10.0.1.5 to 10.0.2.3, counts as running backwards.
uint32_t pool_rank(in_addr addr) {
    const auto *b = reinterpret_cast<const unsigned char *>(&addr.s_addr);
    return b[0] | b[1] << 8 | b[2] << 16 | static_cast<uint32_t>(b[3]) << 24;
}

int32_t invalid(const char *text) {
    nm::log(nm::LOG_GATE_ERR, "check_lan_info_grammar", "%s", text);
    return kInvalid;
}

int32_t check_lan_info_grammar(lcl_instance *, void *arg1, uintptr_t) {
    const auto *cfg = static_cast<const lan_cfg *>(arg1);
    if (inet_ntoa(cfg->ipaddr) == nullptr || inet_ntoa(cfg->netmask) == nullptr)
        return invalid("lan info ipaddr value invalid\n");
    if (cfg->method >= 2)
        return invalid("lan info dhcpd value invalid\n");
    if (cfg->method == 0) {
        NM_TRACE("input disable udhcpd daemon\n");
        return 0;
    }
    if (inet_ntoa(cfg->begin) == nullptr)
        return invalid("lan info begin_ip value invalid\n");
    if (inet_ntoa(cfg->end) == nullptr)
        return invalid("lan info end_ip value invalid\n");
    // Only the pool's two ends are compared; whether they share the device's subnet is not.
    if (((cfg->begin.s_addr ^ cfg->end.s_addr) & cfg->netmask.s_addr) != 0)
        return invalid("lan info begin_ip & end_ip in different subnet\n");
    if (pool_rank(cfg->end) < pool_rank(cfg->begin))
        return invalid("lan info begin_ip > end_ip!\n");
    return 0;
}

int32_t lan_config_nochange(lcl_instance *, void *arg1, uintptr_t, int32_t *changed) {
    int32_t r = nm::config_nochange<lan_cfg, get_lan_config>(
        __func__, kModule, static_cast<lan_cfg *>(arg1),
        {"calloc memory fail", "read lan flash fail, errno = %d"}, changed);
    if (r == 0 && *changed == 0)
        NM_DEBUG("input lan info nothing change");
    return r;
}

// Writes the server's configuration and empties its lease file; false if either cannot be
// opened.
bool update_udhcpd_file(const char *port, const lan_cfg *cfg) {
    char conf[64], leases[64];
    snprintf(conf, sizeof conf, "%s/%s", kRunDir, kConfName);
    snprintf(leases, sizeof leases, "%s/%s", kRunDir, kLeasesName);
    bool ok = true;
    if (nm::unique_file f{fopen(conf, "w+")}) {
        fprintf(f.get(), "interface %s\n", port);
        fprintf(f.get(), "start %s\n", nm::dotted(cfg->begin).text);
        fprintf(f.get(), "end %s\n", nm::dotted(cfg->end).text);
        fprintf(f.get(), "opt subnet %s\n", nm::dotted(cfg->netmask).text);
        fprintf(f.get(), "opt lease 28800\n");
        fprintf(f.get(), "opt router %s\n", nm::dotted(cfg->ipaddr).text);
        fprintf(f.get(), "opt dns %s", nm::dotted(cfg->ipaddr).text); // no final newline
    } else {
        NM_ERR("open %s fail , errno = %d\n", conf, errno);
        ok = false;
    }
    if (nm::unique_file f{fopen(leases, "w+")}; !f) {
        NM_ERR("open %s fail, errno = %d", leases, errno);
        ok = false;
    }
    return ok;
}

int32_t set_lan(lcl_instance *, void *arg1, uintptr_t) {
    const auto *cfg = static_cast<const lan_cfg *>(arg1);
    char port[8] = {};
    if (nm::store_get_ifname(kSection, port, sizeof port) < 0) {
        NM_ERR("read network_lan port failed, errno=%d", kStoreFail);
        return kStoreFail;
    }
    nm::run_cmd(kCmdCap, "ifconfig %s %s", port, nm::dotted(cfg->ipaddr).text);
    nm::run_cmd(kCmdCap, "ifconfig %s netmask %s", port, nm::dotted(cfg->netmask).text);
    update_hosts_file();
    nm::run_cmd(kCmdCap, "killall udhcpd &>/dev/null");
    if (cfg->method == 0)
        return 0;
    if (!update_udhcpd_file(port, cfg)) {
        NM_ERR("update udhcpd file fail, errno=%d\n", kOpenFail);
        return kOpenFail;
    }
    nm::run_cmd(kCmdCap, "udhcpd %s/%s", kRunDir, kConfName);
    return 0;
}

int32_t flush_lan_config(lcl_instance *, void *arg1, uintptr_t) {
    return nm::store_write(__func__, kStore, arg1);
}

int32_t get_lan(lcl_instance *, void *arg1, uintptr_t) {
    return get_lan_config(static_cast<lan_cfg *>(arg1));
}

} // namespace

lcl_instance lan_lcl = {
    "lan_lcl",
    check_lan_info_grammar,
    lan_config_nochange,
    nullptr,
    flush_lan_config,
    nullptr,
    nm::checked_apply<check_lan_info_grammar, set_lan>,
    get_lan,
    nullptr,
    nullptr,
    0,
    0,
    0,
};
