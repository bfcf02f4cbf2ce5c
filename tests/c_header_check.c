/* The public headers compile as strict C99 (with -Wall -Wextra -Werror -pedantic). */
#include "qmtnm.h"
#include "qmt_conf.h"
#include "wpa_ctrl.h"

int qmtnm_c_header_check(void);
int qmtnm_c_header_check(void) {
    qmtnm_qos_cfg qos = {1, 46};
    lcl_instance *inst = get_lcl_instance(QMTNM_ID_QOS);
    return qmtnm_lcl_set(QMTNM_ID_QOS, &qos, 0) + (inst != 0) + QMTNM_ERR(QMTNM_MOD_QOS, -2);
}
