/* libsysconf: the appliance's settings store.
 *
 * Values live under a domain ("network"), then a path of components named by directives:
 *   %k / %K  next component by name (const char *)
 *   %i       element number of the list named by the previous component (int)
 *   %l       capacity of the following %s buffer, NUL included (int, reads only)
 *   %s       string: char * buffer on reads, const char * on writes
 *   %d       integer: int * on reads, int on writes
 *   %z       number of elements of the list named by the path (int *, reads only)
 *   %r       delete the value (and anything below it) at the path (writes only)
 * Each call reads or writes one value. Results: 0 on success, a negative QMT_CONF_E* code on
 * failure. Every write is one durable transaction. The database file is $SYSCONF_DB, or the
 * compiled-in default.
 */
#ifndef QMT_CONF_H
#define QMT_CONF_H

#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifndef SYSCONF_API
#define SYSCONF_API __attribute__((visibility("default")))
#endif

#define QMT_CONF_ENOENT (-1)  /* no value at the path */
#define QMT_CONF_EFORMAT (-2) /* ill-formed format or argument */
#define QMT_CONF_ESTORE (-3)  /* the store could not be opened, read or written */
#define QMT_CONF_ETYPE (-4)   /* the stored value is not of the requested type */

SYSCONF_API int qmt_conf_scanf(const char *domain, const char *format, ...);
SYSCONF_API int qmt_conf_printf(const char *domain, const char *format, ...);

/* Text form used by the sysconf tool and the shipped defaults, one value a line:
 *   network/network_qos/enable = 0
 *   network/network_wan/port = "eth0"
 *   network/network_ipfilter/rules/#0/begin_ip = "192.168.1.2"
 * '#' starts a comment line. Strings are double-quoted with \" \\ \n \t escapes. */
SYSCONF_API int sysconf_dump(FILE *out, const char *prefix);
/* Loads every line in one transaction; with replace non-zero the store is emptied first.
 * Returns the number of values loaded, or a negative code (nothing is changed then). */
SYSCONF_API int sysconf_load(FILE *in, int replace);
/* By path ("network/network_qos/enable"); str_out receives the text form of the value. */
SYSCONF_API int sysconf_get_path(const char *path, char *str_out, size_t cap);
SYSCONF_API int sysconf_set_path(const char *path, const char *value_text);
SYSCONF_API int sysconf_del_path(const char *path);
/* Several writes as one durable transaction: after sysconf_batch_begin(), this process's writes
 * (qmt_conf_printf, sysconf_set_path, sysconf_del_path) are stored together by
 * sysconf_batch_end(1), or not at all (sysconf_batch_end(0), or a write or the commit that
 * failed). Other processes' writes wait for the end (reads do not). sysconf_load() cannot be
 * part of a batch. Results: 0; QMT_CONF_EFORMAT for a begin with a batch open or an end without
 * one; QMT_CONF_ESTORE when the batch could not be opened, or was not stored (then the log's
 * room has been made, and running the batch again may succeed). */
SYSCONF_API int sysconf_batch_begin(void);
SYSCONF_API int sysconf_batch_end(int commit);
/* The database file in use. */
SYSCONF_API const char *sysconf_db_path(void);

#ifdef __cplusplus
}
#endif

#endif /* QMT_CONF_H */
