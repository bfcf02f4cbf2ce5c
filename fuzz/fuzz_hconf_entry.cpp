// Fuzzes the entry parser: never a read past the text nor a write past the 8 + len block, and
// every entry it accepts survives a round trip through the text form the save writes.
#include "fuzz_hconf_common.h"
#include "qmt_hconf.h"

#include <string>

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    hconf_fuzz::silence_stdout();
    return 0;
}

namespace {

// The text form of an entry, as qmt_hconf_save writes a line (without its newline).
std::string text_form(const qmt_hconf_entry_rec *e) {
    char head[48];
    snprintf(head, sizeof head, "0x%x:%d:%d:", e->id, static_cast<int>(e->type),
             static_cast<int>(e->len));
    std::string s = head;
    for (unsigned i = 0; i < e->len; ++i) {
        if (e->type == QMT_HCONF_TYPE_BIN) {
            s += "0123456789abcdef"[e->data[i] >> 4];
            s += "0123456789abcdef"[e->data[i] & 15];
        } else {
            s += static_cast<char>(e->data[i]);
        }
    }
    return s;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    char *text = hconf_fuzz::exact_text(data, size);
    qmt_hconf_entry_rec *e = qmt_hconf_entry(text);
    if (e == nullptr) {
        free(text);
        return 0;
    }
    if (e->type != QMT_HCONF_TYPE_BIN && e->type != QMT_HCONF_TYPE_TEXT)
        hconf_fuzz::property_failed("accepted an entry of an invalid type");
    free(text);
    // Text data holding a NUL cannot be written as text: the parser stops there.
    bool representable = e->type == QMT_HCONF_TYPE_BIN || memchr(e->data, '\0', e->len) == nullptr;
    if (representable) {
        std::string line = text_form(e);
        qmt_hconf_entry_rec *e2 = qmt_hconf_entry(line.c_str());
        if (e2 == nullptr || memcmp(e, e2, sizeof *e + e->len) != 0)
            hconf_fuzz::property_failed("entry text round trip");
        free(e2);
    }
    free(e);
    return 0;
}
