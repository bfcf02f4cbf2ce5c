/* The hardware store's public header compiles as strict C99 on its own. */
#include "qmt_hconf.h"
#include <stddef.h>

int qmt_hconf_c99_check(void);
int qmt_hconf_c99_check(void) {
    qmt_hconf_header_rec h = {QMT_HCONF_MAGIC, 0, 12};
    return qmt_hconf_header_dump(&h) + (int)offsetof(qmt_hconf_entry_rec, data) + ch_hex('a');
}
