// The Ethernet port: its MAC address (ethmac_lcl: set on eth0 at once, never stored), the bridge
// setting (br_lcl: the soft AP's stored mode) and the Ethernet type (ethtype_lcl). A bridge or
// type change is only stored and asks for a reboot; type 1 also switches PPPoE and DDNS off in
// the store.
#include "common/area.h"
#include "common/nm_log.h"

#include <cstdio>
#include <cstring>

namespace {

constexpr int32_t kMacInvalid = nm::err(QMTNM_MOD_ETHMAC, QMTNM_R_INVALID);
constexpr int32_t kMacStoreFail = nm::err(QMTNM_MOD_ETHMAC, QMTNM_R_STORE);
constexpr int32_t kBrStoreFail = nm::err(QMTNM_MOD_BR, QMTNM_R_STORE);
constexpr int32_t kEthStoreFail = nm::err(QMTNM_MOD_ETHTYPE, QMTNM_R_STORE);
constexpr size_t kCmdCap = 64;
constexpr int kEthType1 = 1; // the type that rules out PPPoE and DDNS

// ---- MAC address ----

int32_t mac_invalid(const char *text) {
    nm::log(nm::LOG_GATE_ERR, "check_macaddr_info_grammar", "%s", text);
    return kMacInvalid;
}

// The text goes into a shell command as it is, so nothing but the six octets may stand in it.
int32_t check_macaddr_info_grammar(lcl_instance *, void *arg1, uintptr_t) {
    const char *text = static_cast<const char *>(arg1);
    if (strnlen(text, QMTNM_MAC_TEXT_MAX + 1) > QMTNM_MAC_TEXT_MAX)
        return mac_invalid("input mac addr value invalid!\n");
    unsigned o[6];
    if (sscanf(text, "%02x:%02x:%02x:%02x:%02x:%02x", &o[0], &o[1], &o[2], &o[3], &o[4], &o[5]) <
            6 ||
        !nm::hex_groups(text, 6, ':'))
        return mac_invalid("input mac addr format err!\n");
    int ff = 0, zero = 0;
    for (unsigned v : o) {
        ff += v == 0xFF;
        zero += v == 0x00;
    }
    if (ff == 6 || zero == 6)
        return mac_invalid("input mac addr all 0xff or 0x00!\n");
    if (o[0] & 1)
        return mac_invalid("input mac addr is multicast addr!\n");
    return 0;
}

// Always eth0, whatever the WAN port is.
int32_t set_mac_addr(lcl_instance *, void *arg1, uintptr_t) {
    nm::run_cmd(kCmdCap, "ifconfig eth0 down");
    nm::run_cmd(kCmdCap, "ifconfig eth0 hw ether %s", static_cast<const char *>(arg1));
    nm::run_cmd(kCmdCap, "ifconfig eth0 up");
    return 0;
}

// The WAN port's hardware address, six raw bytes.
int32_t get_mac_addr(lcl_instance *, void *arg1, uintptr_t) {
    char port[8] = {};
    if (nm::store_get_ifname("network_wan", port, sizeof port) < 0) {
        NM_ERR("read network_wan port failed, erron = %d", kMacStoreFail);
        return kMacStoreFail;
    }
    unsigned char hw[16] = {}; // family, then the address
    if (int32_t r = nm_get_inaddr(port, 4, hw); r < 0) {
        NM_ERR("read wan port mac fail, errno = %d", r);
        return r;
    }
    memcpy(arg1, hw + 2, 6);
    return 0;
}

// ---- bridge and Ethernet type: one stored integer each ----

struct stored_int {
    const char *section;
    const char *key;
    int32_t code;
    const char *get_fail;
    const char *nochange_fail;
    const char *flush_fail;
};

constexpr stored_int kBridge = {"network_softap",
                                "mode",
                                kBrStoreFail,
                                "read network_softap mode fail, errno = %d\n",
                                "get softap mode fail, errno = %d\n",
                                "set softap mode fail, errno = %d\n"};
constexpr stored_int kEthType = {"network_eth",
                                 "type",
                                 kEthStoreFail,
                                 "read network_eth type fail, errno = %d\n",
                                 "read ethernet type fail, errno = %d\n",
                                 "write eth type fail, errno = %d\n"};

int32_t int_get(const char *func, const stored_int &s, void *arg1) {
    if (nm::store_get_int(s.section, s.key, static_cast<int32_t *>(arg1)) < 0) {
        nm::log(nm::LOG_GATE_ERR, func, s.get_fail, s.code);
        return s.code;
    }
    return 0;
}

int32_t int_nochange(const char *func, const stored_int &s, const void *arg1, int32_t *changed) {
    int32_t stored = 0;
    if (nm::store_get_int(s.section, s.key, &stored) < 0) {
        nm::log(nm::LOG_GATE_ERR, func, s.nochange_fail, s.code);
        return s.code;
    }
    *changed = stored != *static_cast<const int32_t *>(arg1) ? 1 : 0;
    return 0;
}

int32_t int_flush(const char *func, const stored_int &s, const void *arg1) {
    if (nm::store_put_int(s.section, s.key, *static_cast<const int32_t *>(arg1)) < 0) {
        nm::log(nm::LOG_GATE_ERR, func, s.flush_fail, s.code);
        return s.code;
    }
    return 0;
}

int32_t br_config_nochange(lcl_instance *, void *arg1, uintptr_t, int32_t *changed) {
    return int_nochange(__func__, kBridge, arg1, changed);
}

int32_t br_activate_now(lcl_instance *, void *, uintptr_t, uint32_t *activate) {
    return nm::request_reboot(__func__, activate);
}

int32_t br_flush_config(lcl_instance *, void *arg1, uintptr_t) {
    return int_flush(__func__, kBridge, arg1);
}

int32_t get_br_enable(lcl_instance *, void *arg1, uintptr_t) {
    return int_get(__func__, kBridge, arg1);
}

int32_t ethtype_config_nochange(lcl_instance *, void *arg1, uintptr_t, int32_t *changed) {
    return int_nochange(__func__, kEthType, arg1, changed);
}

int32_t ethtype_activate_now(lcl_instance *, void *, uintptr_t, uint32_t *activate) {
    return nm::request_reboot(__func__, activate);
}

// Type 1 switches PPPoE and DDNS off in the store; the running pppd and DDNS schedule stay until
// the reboot that the change asks for.
int32_t ethtype_flush_config(lcl_instance *, void *arg1, uintptr_t) {
    if (int32_t r = int_flush(__func__, kEthType, arg1); r < 0)
        return r;
    if (*static_cast<const int32_t *>(arg1) != kEthType1)
        return 0;
    if (nm::store_put_int("network_pppoe", "enable", 0) < 0) {
        NM_ERR("Disable pppoe fail, erron = %d\n", kEthStoreFail);
        return kEthStoreFail;
    }
    if (nm::store_put_int("network_ddns", "enable", 0) < 0) {
        NM_ERR("Disable ddns fail, errno = %d\n", kEthStoreFail);
        return kEthStoreFail;
    }
    return 0;
}

int32_t get_ethtype(lcl_instance *, void *arg1, uintptr_t) {
    return int_get(__func__, kEthType, arg1);
}

} // namespace

lcl_instance br_lcl = {
    "br_lcl",
    nullptr,
    br_config_nochange,
    br_activate_now,
    br_flush_config,
    nullptr,
    nullptr,
    get_br_enable,
    nullptr,
    nullptr,
    0,
    0,
    0,
};

lcl_instance ethtype_lcl = {
    "ethtype_lcl",
    nullptr,
    ethtype_config_nochange,
    ethtype_activate_now,
    ethtype_flush_config,
    nullptr,
    nullptr,
    get_ethtype,
    nullptr,
    nullptr,
    0,
    0,
    0,
};

lcl_instance ethmac_lcl = {
    "ethmac_lcl",
    check_macaddr_info_grammar,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nm::checked_apply<check_macaddr_info_grammar, set_mac_addr>,
    get_mac_addr,
    nullptr,
    nullptr,
    0,
    0,
    0,
};
