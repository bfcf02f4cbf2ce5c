/* A program of a management process, built against the installed library. It only looks the
 * QoS instance up, so it runs anywhere without touching the machine's settings. */
#include <qmtnm.h>
#include <stdio.h>

int main(void) {
    lcl_instance *inst = get_lcl_instance(QMTNM_ID_QOS);
    if (inst == NULL)
        return 1;
    printf("%s %d\n", inst->name, (int)QMTNM_ID_QOS);
    return 0;
}
