/* The public headers compile as strict C99 (with -Wall -Wextra -Werror -pedantic). */
#include "qmtnm.h"
#include "qmt_conf.h"
#include "qmt_hconf.h"
#include "wpa_ctrl.h"

int qmtnm_c_header_check(void);
int qmtnm_c_header_check(void) {
    qmtnm_qos_cfg qos = {1, 46};
    qmt_hconf_header_rec h = {QMT_HCONF_MAGIC, 0, 12};
    lcl_instance *inst = get_lcl_instance(QMTNM_ID_QOS);
    return qmtnm_lcl_set(QMTNM_ID_QOS, &qos, 0) + (inst != 0) + QMTNM_ERR(QMTNM_MOD_QOS, -2) +
           qmt_hconf_header_dump(&h) + ch_hex('a');
}
