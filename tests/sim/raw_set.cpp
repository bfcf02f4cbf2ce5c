// qmtnm-raw-set AREA FIELD HEX: one set of a text field with its bytes exactly as given, through
// qmtnm_lcl_set, starting from the stored record as the qmtnm tool does; prints the result as
// 0x%08X. Unlike the tool's words it can fill a field to its last byte with no terminator, and
// put any text into an IP filter address. The bytes past the record (or the MAC text) are 'Z',
// so a library reading beyond a full field would carry them on. Run by test_hostile.py.
#include "qmtnm.h"

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

struct text_field {
    const char *area, *field;
    uint32_t id;
    size_t record_size, offset, size;
};

#define FIELD(area, id, rec, name, member)                                                         \
    text_field {                                                                                   \
        area, name, id, sizeof(rec), offsetof(rec, member), sizeof(rec::member)                    \
    }

const text_field kFields[] = {
    FIELD("sta", QMTNM_ID_STA, qmtnm_sta_cfg, "ssid", ssid),
    FIELD("sta", QMTNM_ID_STA, qmtnm_sta_cfg, "password", password),
    FIELD("sta", QMTNM_ID_STA, qmtnm_sta_cfg, "wps_pin", wps_pin),
    FIELD("ap", QMTNM_ID_AP, nm_softap, "ssid", ssid),
    FIELD("ap", QMTNM_ID_AP, nm_softap, "password", password),
    FIELD("ap", QMTNM_ID_AP, nm_softap, "wps_pin", wps_pin),
    FIELD("ddns", QMTNM_ID_DDNS, qmtnm_ddns_cfg, "domain", domain),
    FIELD("ddns", QMTNM_ID_DDNS, qmtnm_ddns_cfg, "username", username),
    FIELD("ddns", QMTNM_ID_DDNS, qmtnm_ddns_cfg, "password", password),
    FIELD("pppoe", QMTNM_ID_PPPOE, qmtnm_pppoe_cfg, "username", username),
    FIELD("pppoe", QMTNM_ID_PPPOE, qmtnm_pppoe_cfg, "password", password),
    FIELD("upnp", QMTNM_ID_UPNP, qmtnm_upnp_cfg, "friendlyName", friendlyName),
    FIELD("bonjour", QMTNM_ID_BONJOUR, qmtnm_bonjour_cfg, "hostname", hostname),
    FIELD("ipfilter", QMTNM_ID_IPFILTER, qmtnm_ipfilter_cfg, "begin_ip", rules[0].begin_ip),
    FIELD("ipfilter", QMTNM_ID_IPFILTER, qmtnm_ipfilter_cfg, "end_ip", rules[0].end_ip),
    // The MAC address is set from a text of its own, not a record.
    {"ethmac", "macaddr", QMTNM_ID_ETHMAC, 0, 0, QMTNM_MAC_TEXT_MAX + 1},
};

} // namespace

int main(int argc, char **argv) {
    std::string text;
    for (const char *h = argc == 4 ? argv[3] : ""; h[0] != '\0' && h[1] != '\0'; h += 2) {
        unsigned byte = 0;
        if (sscanf(h, "%2x", &byte) == 1)
            text.push_back(static_cast<char>(byte));
    }
    const text_field *f = nullptr;
    for (const text_field &t : kFields)
        if (argc == 4 && !strcmp(t.area, argv[1]) && !strcmp(t.field, argv[2]))
            f = &t;
    if (f == nullptr || text.size() > f->size || text.size() * 2 != strlen(argv[3])) {
        fputs("usage: qmtnm-raw-set AREA FIELD HEX (of at most the field's size)\n", stderr);
        return 2;
    }
    // The record (or the MAC text), then 16 guard bytes, and a terminator only after them.
    std::vector<char> rec(f->record_size + f->size + 17, 'Z');
    rec.back() = '\0';
    if (f->record_size != 0 && qmtnm_lcl_get(f->id, rec.data(), f->record_size) < 0) {
        fprintf(stderr, "qmtnm-raw-set: the %s get failed\n", argv[1]);
        return 1;
    }
    // A station PIN is used by a WPS set only, as `qmtnm set sta wps=pin` asks for one.
    if (f->id == QMTNM_ID_STA && !strcmp(f->field, "wps_pin")) {
        reinterpret_cast<qmtnm_sta_cfg *>(rec.data())->use_wps = 1;
        reinterpret_cast<qmtnm_sta_cfg *>(rec.data())->push_button = 0;
    }
    if (f->record_size != 0 || text.size() < f->size)
        memset(rec.data() + f->offset, 0, f->record_size != 0 ? f->size : text.size() + 1);
    memcpy(rec.data() + f->offset, text.data(), text.size());
    printf("0x%08X\n", static_cast<unsigned>(qmtnm_lcl_set(f->id, rec.data(), 0)));
    return 0;
}
