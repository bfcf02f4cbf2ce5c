#include "areas.h"

#include "qmtnm.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
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
        name, name "_lcl", id, sizeof(rec), fields, std::size(fields), stored_id, settable, false  \
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

const field br_fields[] = {CLI_FIELD(qmtnm_br_cfg, mode, i32)};
const field ethtype_fields[] = {CLI_FIELD(qmtnm_ethtype_cfg, type, i32)};
const field ethmac_fields[] = {field{"macaddr", ftype::mac, 0, sizeof(qmtnm_mac_addr)}};

const field pppoe_fields[] = {
    CLI_FIELD(qmtnm_pppoe_cfg, enable, i32),      CLI_FIELD(qmtnm_pppoe_cfg, username, str),
    CLI_FIELD(qmtnm_pppoe_cfg, password, secret), CLI_FIELD(qmtnm_pppoe_cfg, connected, i32),
    CLI_FIELD(qmtnm_pppoe_cfg, ipaddr, ipv4),
};

const field ddns_fields[] = {
    CLI_FIELD(qmtnm_ddns_cfg, enable, u32),      CLI_FIELD(qmtnm_ddns_cfg, type, u32),
    CLI_FIELD(qmtnm_ddns_cfg, domain, str),      CLI_FIELD(qmtnm_ddns_cfg, username, str),
    CLI_FIELD(qmtnm_ddns_cfg, password, secret),
};

const field sta_fields[] = {
    CLI_FIELD(qmtnm_sta_cfg, enable, i32),  CLI_FIELD(qmtnm_sta_cfg, ssid, str),
    CLI_FIELD(qmtnm_sta_cfg, auth, i32),    CLI_FIELD(qmtnm_sta_cfg, encry, i32),
    CLI_FIELD(qmtnm_sta_cfg, index, i32),   CLI_FIELD(qmtnm_sta_cfg, password, secret),
    CLI_FIELD(qmtnm_sta_cfg, use_wps, i32), CLI_FIELD(qmtnm_sta_cfg, push_button, i32),
    CLI_FIELD(qmtnm_sta_cfg, wps_pin, str), CLI_FIELD(qmtnm_sta_cfg, link_state, i32),
};

// wps=pbc joins by push button, wps=pin by the PIN (pin=NNNNNNNN, or the stored one).
bool sta_word(void *record, const char *name, const char *value, bool *known) {
    auto *sta = static_cast<qmtnm_sta_cfg *>(record);
    *known = true;
    if (!strcmp(name, "wps") && (!strcmp(value, "pbc") || !strcmp(value, "pin"))) {
        sta->use_wps = 1;
        sta->push_button = !strcmp(value, "pbc");
        return true;
    }
    if (!strcmp(name, "pin") && strlen(value) < sizeof sta->wps_pin) {
        memset(sta->wps_pin, 0, sizeof sta->wps_pin);
        memcpy(sta->wps_pin, value, strlen(value));
        return true;
    }
    *known = !strcmp(name, "wps") || !strcmp(name, "pin");
    return false;
}

const field ap_fields[] = {
    CLI_FIELD(nm_softap, enable, i32),      CLI_FIELD(nm_softap, ssid, str),
    CLI_FIELD(nm_softap, channel, i32),     CLI_FIELD(nm_softap, hw_mode, i32),
    CLI_FIELD(nm_softap, hide_ssid, i32),   CLI_FIELD(nm_softap, auth, i32),
    CLI_FIELD(nm_softap, encry, i32),       CLI_FIELD(nm_softap, index, i32),
    CLI_FIELD(nm_softap, password, secret), CLI_FIELD(nm_softap, wps_enable, i32),
    CLI_FIELD(nm_softap, wps_pin, str),
};

const field upnp_fields[] = {
    CLI_FIELD(qmtnm_upnp_cfg, enable, i32),
    CLI_FIELD(qmtnm_upnp_cfg, friendlyName, str),
};

const field bonjour_fields[] = {
    CLI_FIELD(qmtnm_bonjour_cfg, enable, i32),
    CLI_FIELD(qmtnm_bonjour_cfg, hostname, str),
};

const field ipfilter_fields[] = {
    CLI_FIELD(qmtnm_ipfilter_cfg, enable, i32),
    CLI_FIELD(qmtnm_ipfilter_cfg, mode, list),
    CLI_FIELD(qmtnm_ipfilter_cfg, index, i32),
    CLI_FIELD(qmtnm_ipfilter_cfg, rules, ranges),
};

// rule=BEGIN-END, repeated: the first one given replaces the stored rules, each adds one.
bool ipfilter_word(void *record, const char *name, const char *value, bool *known) {
    static bool replacing = false; // one set a process
    auto *ipf = static_cast<qmtnm_ipfilter_cfg *>(record);
    *known = !strcmp(name, "rule");
    const char *dash = strchr(value, '-');
    if (!*known || dash == nullptr)
        return false;
    if (!replacing) {
        replacing = true;
        ipf->index = 0;
        memset(ipf->rules, 0, sizeof ipf->rules);
    }
    size_t begin_len = static_cast<size_t>(dash - value);
    qmtnm_ipf_rule &rule = ipf->rules[ipf->index < 0 ? 0 : ipf->index];
    if (ipf->index < 0 || ipf->index >= QMTNM_IPF_RULES || begin_len >= sizeof rule.begin_ip ||
        strlen(dash + 1) >= sizeof rule.end_ip)
        return false;
    memcpy(rule.begin_ip, value, begin_len);
    memcpy(rule.end_ip, dash + 1, strlen(dash + 1));
    ++ipf->index;
    return true;
}

const area all_areas[] = {
    // wan reports the live port; a set starts from the stored settings (wanflash).
    CLI_AREA_AS("wan", QMTNM_ID_WAN, qmtnm_wan_cfg, wan_fields, QMTNM_ID_WANFLASH, true),
    CLI_AREA_AS("wanflash", QMTNM_ID_WANFLASH, qmtnm_wan_cfg, wan_fields, QMTNM_ID_WANFLASH, false),
    CLI_AREA("lan", QMTNM_ID_LAN, qmtnm_lan_cfg, lan_fields),
    CLI_AREA("qos", QMTNM_ID_QOS, qmtnm_qos_cfg, qos_fields),
    CLI_AREA("br", QMTNM_ID_BR, qmtnm_br_cfg, br_fields),
    CLI_AREA("ethtype", QMTNM_ID_ETHTYPE, qmtnm_ethtype_cfg, ethtype_fields),
    // A set gives eth0 the address text; a get reads the WAN port's hardware address.
    area{"ethmac", "ethmac_lcl", QMTNM_ID_ETHMAC, sizeof(qmtnm_mac_addr), ethmac_fields,
         std::size(ethmac_fields), QMTNM_ID_ETHMAC, true, true},
    CLI_AREA("pppoe", QMTNM_ID_PPPOE, qmtnm_pppoe_cfg, pppoe_fields),
    CLI_AREA("ddns", QMTNM_ID_DDNS, qmtnm_ddns_cfg, ddns_fields),
    // A get reports the stored station and the supplicant's link state.
    area{"sta", "sta_lcl", QMTNM_ID_STA, sizeof(qmtnm_sta_cfg), sta_fields, std::size(sta_fields),
         QMTNM_ID_STA, true, false, sta_word, "wps=pbc wps=pin pin="},
    CLI_AREA("ap", QMTNM_ID_AP, nm_softap, ap_fields),
    CLI_AREA("upnp", QMTNM_ID_UPNP, qmtnm_upnp_cfg, upnp_fields),
    CLI_AREA("bonjour", QMTNM_ID_BONJOUR, qmtnm_bonjour_cfg, bonjour_fields),
    area{"ipfilter", "ipfilter_lcl", QMTNM_ID_IPFILTER, sizeof(qmtnm_ipfilter_cfg), ipfilter_fields,
         std::size(ipfilter_fields), QMTNM_ID_IPFILTER, true, false, ipfilter_word, "rule="},
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

namespace {
template <class T> T *at(void *record, const field &f) {
    return reinterpret_cast<T *>(static_cast<char *>(record) + f.offset);
}

} // namespace

// Parses text into the field; false with a message on stderr if it does not fit.
bool parse_value(void *record, const field &f, const char *text) {
    char *end = nullptr;
    errno = 0;
    switch (f.type) {
    case ftype::i32: {
        long long v = strtoll(text, &end, 0);
        if (*text && !*end && !errno && v >= INT32_MIN && v <= INT32_MAX) {
            *at<int32_t>(record, f) = static_cast<int32_t>(v);
            return true;
        }
        break;
    }
    case ftype::u32: {
        unsigned long long v = strtoull(text, &end, 0);
        if (*text && *text != '-' && !*end && !errno && v <= UINT32_MAX) {
            *at<uint32_t>(record, f) = static_cast<uint32_t>(v);
            return true;
        }
        break;
    }
    case ftype::ipv4:
        if (inet_pton(AF_INET, text, at<in_addr>(record, f)) == 1)
            return true;
        break;
    case ftype::list:
        if (!strcmp(text, "white") || !strcmp(text, "black")) {
            *at<int32_t>(record, f) = !strcmp(text, "white");
            return true;
        }
        break;
    case ftype::mac:    // set through the area's text argument
    case ftype::ranges: // set with rule=BEGIN-END words
        break;
    case ftype::str:
    case ftype::secret:
        // A text of the field's size fills it, unterminated, as the library takes it.
        if (strlen(text) <= f.size) {
            memset(at<char>(record, f), 0, f.size);
            memcpy(at<char>(record, f), text, strlen(text));
            return true;
        }
        fprintf(stderr, "qmtnm: %s: at most %u characters\n", f.name, f.size);
        return false;
    }
    fprintf(stderr, "qmtnm: %s: '%s' is not a valid value\n", f.name, text);
    return false;
}

const field *find_field(const area &a, const char *name, size_t len) {
    for (size_t i = 0; i < a.field_count; ++i)
        if (strlen(a.fields[i].name) == len && !strncmp(a.fields[i].name, name, len))
            return &a.fields[i];
    return nullptr;
}

} // namespace cli
