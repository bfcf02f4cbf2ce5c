// qmtnm-raw-set AREA FIELD HEX: one set of a text field with its bytes exactly as given, through
// qmtnm_lcl_set, starting from the stored record as the qmtnm tool does; prints the result as
// 0x%08X. Unlike the tool's words it can fill a field to its last byte with no terminator, and
// put any text into an IP filter address. The bytes past the record (or the MAC text) are 'Z',
// so a library reading beyond a full field would carry them on. Run by test_hostile.py.
#include "qmtnm.h"
#include "tools/areas.h"

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

// Where the field lies, from the tool's own table of the areas. The IP filter's addresses are its
// first rule's; ethmac is set from a text of its own, not a record.
struct text_field {
    uint32_t id;
    size_t record_size, offset, size;
};

bool find(const char *area, const char *name, text_field *t) {
    const cli::area *a = cli::find_area(area);
    const cli::field *f = a ? cli::find_field(*a, name, strlen(name)) : nullptr;
    const bool end = !strcmp(name, "end_ip");
    if (a && a->id == QMTNM_ID_IPFILTER && (end || !strcmp(name, "begin_ip")))
        *t = {a->id, a->record_size,
              offsetof(qmtnm_ipfilter_cfg, rules) + (end ? offsetof(qmtnm_ipf_rule, end_ip) : 0),
              sizeof(qmtnm_ipf_rule::begin_ip)};
    else if (a && a->text_set && f)
        *t = {a->id, 0, 0, QMTNM_MAC_TEXT_MAX + 1};
    else if (f && (f->type == cli::ftype::str || f->type == cli::ftype::secret))
        *t = {a->id, a->record_size, f->offset, f->size};
    else
        return false;
    return true;
}

} // namespace

int main(int argc, char **argv) {
    std::string text;
    for (const char *h = argc == 4 ? argv[3] : ""; h[0] != '\0' && h[1] != '\0'; h += 2) {
        unsigned byte = 0;
        if (sscanf(h, "%2x", &byte) == 1)
            text.push_back(static_cast<char>(byte));
    }
    text_field field{}, *f = &field;
    if (argc != 4 || !find(argv[1], argv[2], f) || text.size() > f->size ||
        text.size() * 2 != strlen(argv[3])) {
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
    if (f->id == QMTNM_ID_STA && !strcmp(argv[2], "wps_pin")) {
        reinterpret_cast<qmtnm_sta_cfg *>(rec.data())->use_wps = 1;
        reinterpret_cast<qmtnm_sta_cfg *>(rec.data())->push_button = 0;
    }
    if (f->record_size != 0 || text.size() < f->size)
        memset(rec.data() + f->offset, 0, f->record_size != 0 ? f->size : text.size() + 1);
    memcpy(rec.data() + f->offset, text.data(), text.size());
    printf("0x%08X\n", static_cast<unsigned>(qmtnm_lcl_set(f->id, rec.data(), 0)));
    return 0;
}
