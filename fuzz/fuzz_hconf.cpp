// Fuzzes a parser of the hardware store's text form: the header's, or with FUZZ_HCONF_ENTRY the
// entry's. The text is a heap block of exactly its length and terminator, so a read past it is
// an AddressSanitizer report, as is a write past the record the parser allocates. A record it
// accepts must be within the store's limits and parse back to the same bytes from the text
// qmt_hconf_save writes for it.
#include "fuzz_common.h"
#include "qmt_hconf.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

namespace {

#ifdef FUZZ_HCONF_ENTRY
using rec = qmt_hconf_entry_rec;
rec *parse(const char *s) {
    return qmt_hconf_entry(s);
}
size_t bytes(const rec *e) {
    return sizeof *e + e->len;
}
// The saved line without its newline; empty for text data holding a NUL (the parser stops there).
std::string text_form(const rec *e) {
    bool bin = e->type == QMT_HCONF_TYPE_BIN;
    if (!bin && e->type != QMT_HCONF_TYPE_TEXT)
        property_failed("accepted an entry of type %u", e->type);
    if (!bin && memchr(e->data, '\0', e->len) != nullptr)
        return "";
    char s[16 + 2 * 65536];
    int n = snprintf(s, sizeof s, "0x%x:%d:%d:", e->id, e->type, e->len);
    for (unsigned i = 0; i < e->len; ++i)
        n += bin ? snprintf(s + n, 3, "%02x", e->data[i])
                 : (s[n] = static_cast<char>(e->data[i]), 1);
    return std::string(s, static_cast<size_t>(n));
}
#else
using rec = qmt_hconf_header_rec;
rec *parse(const char *s) {
    return qmt_hconf_header(s);
}
size_t bytes(const rec *) {
    return sizeof(rec);
}
std::string text_form(const rec *h) {
    if (h->magic != QMT_HCONF_MAGIC || h->num > QMT_HCONF_MAX_ENTRIES ||
        h->len > QMT_HCONF_IMAGE_SIZE)
        property_failed("accepted header 0x%x:%u:%u", h->magic, h->num, h->len);
    char s[64];
    snprintf(s, sizeof s, "0x%x:%u:%u", h->magic, h->num, h->len);
    return s;
}
#endif

using owned = std::unique_ptr<rec, decltype(&free)>;

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    quiet_stdout();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::unique_ptr<char[]> text(new char[size + 1]);
    std::copy(data, data + size, text.get());
    text[size] = '\0';
    owned r(parse(text.get()), free);
    text.reset();
    std::string again = r ? text_form(r.get()) : "";
    if (again.empty())
        return 0;
    owned r2(parse(again.c_str()), free);
    if (r2 == nullptr || bytes(r2.get()) != bytes(r.get()) ||
        memcmp(r.get(), r2.get(), bytes(r.get())) != 0)
        property_failed("text round trip of \"%s\"", again.c_str());
    return 0;
}
