// Fuzzes a parser of the hardware store's text form: the header's, or with FUZZ_HCONF_ENTRY the
// entry's. The text is a heap block of exactly its length and terminator, so a read past it is an
// AddressSanitizer report, as is a write past the record the parser allocates. A record it
// accepts is within the store's limits, and the line the save writes for it parses back to it
// (but for text data holding a NUL, where the parser stops).
#include "fuzz_common.h"
#include "qmt_hconf.h"

namespace {

// The record's line as qmt_hconf_save writes it (no newline); empty for none.
#ifdef FUZZ_HCONF_ENTRY
constexpr auto parse = qmt_hconf_entry;
std::string line(qmt_hconf_entry_rec *e) {
    std::unique_ptr<qmt_hconf_entry_rec, decltype(&free)> owned(e, free);
    const bool bin = e && e->type == QMT_HCONF_TYPE_BIN;
    if (e && !bin && e->type != QMT_HCONF_TYPE_TEXT)
        property_failed("accepted an entry of type %u", e->type);
    if (!e || (!bin && memchr(e->data, '\0', e->len)))
        return "";
    std::string s(48 + 2 * e->len, '\0');
    int n = snprintf(s.data(), 48, "0x%x:%d:%d:", e->id, e->type, e->len);
    for (unsigned i = 0; i < e->len; ++i)
        n += bin ? snprintf(&s[n], 3, "%02x", e->data[i])
                 : (s[n] = static_cast<char>(e->data[i]), 1);
    return s.substr(0, static_cast<size_t>(n));
}
#else
constexpr auto parse = qmt_hconf_header;
std::string line(qmt_hconf_header_rec *h) {
    std::unique_ptr<qmt_hconf_header_rec, decltype(&free)> owned(h, free);
    char s[48] = "";
    if (h && snprintf(s, sizeof s, "0x%x:%u:%u", h->magic, h->num, h->len) &&
        (h->magic != QMT_HCONF_MAGIC || h->num > QMT_HCONF_MAX_ENTRIES ||
         h->len > QMT_HCONF_IMAGE_SIZE))
        property_failed("accepted a header %s", s);
    return s;
}
#endif

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    quiet_stdout(); // the parsers print every record they build
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::unique_ptr<char[]> text(new char[size + 1]());
    std::copy(data, data + size, text.get());
    const std::string once = line(parse(text.get()));
    if (!once.empty() && line(parse(once.c_str())) != once)
        property_failed("text round trip of \"%s\"", once.c_str());
    return 0;
}
