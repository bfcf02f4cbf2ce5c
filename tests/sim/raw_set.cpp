// qmtnm-raw-set: one set of a text field with its bytes exactly as given, through
// qmtnm_lcl_set, starting from the stored record as the qmtnm tool does. Unlike the tool's
// field=value words it can fill a field to its last byte with no terminator, and put any text
// into an IP filter address. Run on the emulated device by test_hostile.py.
//
//   qmtnm-raw-set AREA FIELD HEX    prints the set's result as 0x%08X
//
// Bytes past the record (or past the MAC text) are filled with 'Z', so a library that reads
// beyond a full field would carry them on.
#include "qmtnm.h"

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

struct text_field {
    const char *area;
    const char *field;
    uint32_t id;
    size_t record_size;
    size_t offset;
    size_t size;
};

#define TEXT_FIELD(area, id, rec, member)                                                          \
    text_field {                                                                                   \
        area, #member, id, sizeof(rec), offsetof(rec, member), sizeof(rec::member)                 \
    }

constexpr size_t kRule0 = offsetof(qmtnm_ipfilter_cfg, rules);

const text_field kFields[] = {
    TEXT_FIELD("sta", QMTNM_ID_STA, qmtnm_sta_cfg, ssid),
    TEXT_FIELD("sta", QMTNM_ID_STA, qmtnm_sta_cfg, password),
    TEXT_FIELD("sta", QMTNM_ID_STA, qmtnm_sta_cfg, wps_pin),
    TEXT_FIELD("ap", QMTNM_ID_AP, nm_softap, ssid),
    TEXT_FIELD("ap", QMTNM_ID_AP, nm_softap, password),
    TEXT_FIELD("ap", QMTNM_ID_AP, nm_softap, wps_pin),
    TEXT_FIELD("ddns", QMTNM_ID_DDNS, qmtnm_ddns_cfg, domain),
    TEXT_FIELD("ddns", QMTNM_ID_DDNS, qmtnm_ddns_cfg, username),
    TEXT_FIELD("ddns", QMTNM_ID_DDNS, qmtnm_ddns_cfg, password),
    TEXT_FIELD("pppoe", QMTNM_ID_PPPOE, qmtnm_pppoe_cfg, username),
    TEXT_FIELD("pppoe", QMTNM_ID_PPPOE, qmtnm_pppoe_cfg, password),
    TEXT_FIELD("upnp", QMTNM_ID_UPNP, qmtnm_upnp_cfg, friendlyName),
    TEXT_FIELD("bonjour", QMTNM_ID_BONJOUR, qmtnm_bonjour_cfg, hostname),
    // The first rule's addresses.
    {"ipfilter", "begin_ip", QMTNM_ID_IPFILTER, sizeof(qmtnm_ipfilter_cfg),
     kRule0 + offsetof(qmtnm_ipf_rule, begin_ip), sizeof(qmtnm_ipf_rule::begin_ip)},
    {"ipfilter", "end_ip", QMTNM_ID_IPFILTER, sizeof(qmtnm_ipfilter_cfg),
     kRule0 + offsetof(qmtnm_ipf_rule, end_ip), sizeof(qmtnm_ipf_rule::end_ip)},
    // The MAC address is set from a text of its own: at most QMTNM_MAC_TEXT_MAX characters.
    {"ethmac", "macaddr", QMTNM_ID_ETHMAC, 0, 0, QMTNM_MAC_TEXT_MAX + 1},
};

constexpr size_t kGuard = 16;

bool from_hex(const char *hex, std::string &out) {
    size_t n = strlen(hex);
    if (n % 2 != 0)
        return false;
    for (size_t i = 0; i < n; i += 2) {
        char byte[3] = {hex[i], hex[i + 1], '\0'};
        char *end = nullptr;
        long v = strtol(byte, &end, 16);
        if (*end != '\0')
            return false;
        out.push_back(static_cast<char>(v));
    }
    return true;
}

} // namespace

int main(int argc, char **argv) {
    std::string text;
    if (argc != 4 || !from_hex(argv[3], text)) {
        fputs("usage: qmtnm-raw-set AREA FIELD HEX\n", stderr);
        return 2;
    }
    const text_field *f = nullptr;
    for (const text_field &t : kFields)
        if (!strcmp(t.area, argv[1]) && !strcmp(t.field, argv[2]))
            f = &t;
    if (f == nullptr || text.size() > f->size) {
        fprintf(stderr, "qmtnm-raw-set: no field %s %s of %zu bytes or more\n", argv[1], argv[2],
                text.size());
        return 2;
    }
    int32_t r;
    if (f->record_size == 0) {
        // The text, then the guard bytes, and a terminator only after them.
        char buf[QMTNM_MAC_TEXT_MAX + 1 + kGuard + 1] = {};
        memset(buf, 'Z', sizeof buf - 1);
        memcpy(buf, text.data(), text.size());
        if (text.size() < f->size)
            buf[text.size()] = '\0';
        r = qmtnm_lcl_set(f->id, buf, 0);
    } else {
        auto *rec = static_cast<char *>(calloc(1, f->record_size + kGuard));
        if (rec == nullptr)
            return 1;
        r = qmtnm_lcl_get(f->id, rec, f->record_size);
        if (r < 0) {
            fprintf(stderr, "qmtnm-raw-set: get %s: 0x%08X\n", argv[1], static_cast<unsigned>(r));
            free(rec);
            return 1;
        }
        memset(rec + f->record_size, 'Z', kGuard);
        memset(rec + f->offset, 0, f->size);
        memcpy(rec + f->offset, text.data(), text.size());
        // A station PIN is used by a WPS set only, as `qmtnm set sta wps=pin` asks for one.
        if (f->id == QMTNM_ID_STA && !strcmp(f->field, "wps_pin")) {
            auto *sta = reinterpret_cast<qmtnm_sta_cfg *>(rec);
            sta->use_wps = 1;
            sta->push_button = 0;
        }
        r = qmtnm_lcl_set(f->id, rec, 0);
        free(rec);
    }
    printf("0x%08X\n", static_cast<unsigned>(r));
    return 0;
}
