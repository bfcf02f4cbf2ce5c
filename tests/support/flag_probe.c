/* Loads libqmtnm in a process of its own and prints the activate flag it then finds. Written in
 * C99 against the public header, so it also proves the header compiles as C. */
#define _POSIX_C_SOURCE 200809L
#include "qmtnm.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/mman.h>
#include <unistd.h>

int main(void) {
    /* Referencing the library keeps it linked: its start-up runs before main. */
    if (get_lcl_instance(QMTNM_ID_QOS) != &qos_lcl)
        return 2;
    int fd = shm_open("/lcl_activate", O_RDONLY, 0);
    if (fd < 0)
        return 1;
    const uint32_t *flag = mmap(NULL, 4, PROT_READ, MAP_SHARED, fd, 0);
    close(fd);
    if (flag == MAP_FAILED)
        return 1;
    printf("%u\n", (unsigned)*flag);
    return 0;
}
