// Fuzzes the header parser: never a read past the text, and every header it accepts is within
// the store's limits and survives a round trip through its text form.
#include "fuzz_hconf_common.h"
#include "qmt_hconf.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    hconf_fuzz::silence_stdout();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    char *text = hconf_fuzz::exact_text(data, size);
    qmt_hconf_header_rec *h = qmt_hconf_header(text);
    free(text);
    if (h == nullptr)
        return 0;
    if (h->magic != QMT_HCONF_MAGIC || h->num > QMT_HCONF_MAX_ENTRIES ||
        h->len > QMT_HCONF_IMAGE_SIZE)
        hconf_fuzz::property_failed("accepted header out of range");
    char again[64];
    snprintf(again, sizeof again, "0x%x:%u:%u", h->magic, h->num, h->len);
    qmt_hconf_header_rec *h2 = qmt_hconf_header(again);
    if (h2 == nullptr || memcmp(h, h2, sizeof *h) != 0)
        hconf_fuzz::property_failed("header text round trip");
    free(h2);
    free(h);
    return 0;
}
