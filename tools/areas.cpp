#include "areas.h"

#include "qmtnm.h"

#include <cstring>
#include <iterator>

namespace cli {
namespace {

#define CLI_FIELD(rec, member, type)                                                               \
    field {                                                                                        \
#member, ftype::type, offsetof(rec, member), sizeof(rec::member)                           \
    }
// CLI_AREA_AS: an area whose set starts from another instance's get, or that cannot be set.
#define CLI_AREA_AS(name, id, rec, fields, stored_id, settable)                                    \
    area {                                                                                         \
        name, name "_lcl", id, sizeof(rec), fields, std::size(fields), stored_id, settable         \
    }
#define CLI_AREA(name, id, rec, fields) CLI_AREA_AS(name, id, rec, fields, id, true)

const field qos_fields[] = {
    CLI_FIELD(qmtnm_qos_cfg, enable, i32),
    CLI_FIELD(qmtnm_qos_cfg, dscp, i32),
};

const field wan_fields[] = {
    CLI_FIELD(qmtnm_wan_cfg, method, u32),   CLI_FIELD(qmtnm_wan_cfg, ipaddr, ipv4),
    CLI_FIELD(qmtnm_wan_cfg, netmask, ipv4), CLI_FIELD(qmtnm_wan_cfg, gateway, ipv4),
    CLI_FIELD(qmtnm_wan_cfg, dns1, ipv4),    CLI_FIELD(qmtnm_wan_cfg, dns2, ipv4),
};

const field lan_fields[] = {
    CLI_FIELD(qmtnm_lan_cfg, method, u32),   CLI_FIELD(qmtnm_lan_cfg, ipaddr, ipv4),
    CLI_FIELD(qmtnm_lan_cfg, netmask, ipv4), CLI_FIELD(qmtnm_lan_cfg, begin, ipv4),
    CLI_FIELD(qmtnm_lan_cfg, end, ipv4),
};

const area all_areas[] = {
    // wan reports the live port; a set starts from the stored settings (wanflash).
    CLI_AREA_AS("wan", QMTNM_ID_WAN, qmtnm_wan_cfg, wan_fields, QMTNM_ID_WANFLASH, true),
    CLI_AREA_AS("wanflash", QMTNM_ID_WANFLASH, qmtnm_wan_cfg, wan_fields, QMTNM_ID_WANFLASH, false),
    CLI_AREA("lan", QMTNM_ID_LAN, qmtnm_lan_cfg, lan_fields),
    CLI_AREA("qos", QMTNM_ID_QOS, qmtnm_qos_cfg, qos_fields),
};

// Short names of every instance, by id, for decoding error codes.
const char *const instance_names[QMTNM_ID_COUNT] = {
    "br",         "ethtype", "ethmac",   "wan",    "lan",   "ddns",     "pppoe",
    "upnp",       "bonjour", "ipfilter", nullptr,  "qos",   "wanflash", "doscan",
    "scanresult", "sta",     "ap",       "stapin", "appin",
};

} // namespace

const area *areas_begin() {
    return std::begin(all_areas);
}
const area *areas_end() {
    return std::end(all_areas);
}

const area *find_area(const char *name) {
    for (const area &a : all_areas)
        if (!strcmp(name, a.name) || !strcmp(name, a.instance))
            return &a;
    return nullptr;
}

const char *area_name_by_id(uint32_t id) {
    return id < QMTNM_ID_COUNT ? instance_names[id] : nullptr;
}

} // namespace cli
