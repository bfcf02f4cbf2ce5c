/* libqmtnm: a change that undoes itself unless it is confirmed.
 *
 * qmtnm_try_begin() opens a pending change with a time-out. From then on every qmtnm_lcl_set()
 * of any process belongs to it: before the first set of an area is applied, that area's stored
 * record is kept in the settings store (section "network_pending"), durably, once; later sets of
 * the same area keep the first copy. qmtnm_try_confirm() makes the change permanent;
 * qmtnm_try_rollback(), or the deadline, gives every touched area its kept record back (stored,
 * and applied as a set would apply it, under the area's set lock, in the start-up order).
 *
 * Who keeps the time: begin starts a watchdog process (detached from the caller, holding no
 * lock) that rolls back at the deadline. If it dies, nothing is lost: a pending change that is
 * still there when the device starts (qmtnm_try_recover(), which the start-up apply of the
 * stored settings runs first) is rolled back before the stored settings are applied. A confirm
 * and the deadline exclude each other: a confirm at or after the deadline rolls back instead.
 *
 * Areas in a pending change: the bridge and Ethernet type (a type change also keeps PPPoE and
 * DDNS, which it can switch off), and every area of the start-up apply. The MAC address (never
 * stored, back to the hardware's at the next start), scans and WPS PINs are not kept.
 *
 * The watchdog is a fork of the calling process: call begin from a thread that no other thread
 * of the process is holding library or C library locks against (a single-threaded program, or
 * one whose other threads are not in the library at that moment).
 *
 * Results are 0 or a code of module QMTNM_MODULE_TRY. This header compiles as C99 and as C++.
 */
#ifndef QMTNM_TRY_H
#define QMTNM_TRY_H

#include <stdint.h>

#include "qmtnm_api.h"

#ifdef __cplusplus
extern "C" {
#endif

#define QMTNM_MODULE_TRY 0x01u
/* The longest time-out of a pending change: a day. */
#define QMTNM_TRY_MAX_SECONDS 86400u
/* A confirm that came at or after the deadline: the change was rolled back instead. */
#define QMTNM_TRY_R_EXPIRED (-8)
/* Codes (besides the area's own, for a restore that failed):
 *   QMTNM_ERR(QMTNM_MODULE_TRY, QMTNM_R_BUSY)     a change is already pending (begin), or
 *                                                the pending change's lock was not free in time
 *   QMTNM_ERR(QMTNM_MODULE_TRY, QMTNM_R_INVALID)  a time-out of 0 or over a day; a null pointer
 *   QMTNM_ERR(QMTNM_MODULE_TRY, QMTNM_R_FAIL)     no change is pending (confirm, rollback)
 *   QMTNM_ERR(QMTNM_MODULE_TRY, QMTNM_R_STORE)    the settings store could not keep the change
 *   QMTNM_ERR(QMTNM_MODULE_TRY, QMTNM_R_IO)       the watchdog could not be started (nothing
 *                                                is pending then)
 *   QMTNM_ERR(QMTNM_MODULE_TRY, QMTNM_TRY_R_EXPIRED)  confirm too late: rolled back */

enum qmtnm_try_phase {
    QMTNM_TRY_NONE = 0,       /* nothing pending */
    QMTNM_TRY_PENDING = 1,    /* a change waits for its confirm */
    QMTNM_TRY_ROLLED_BACK = 2 /* the last change was rolled back (until the next begin) */
};

typedef struct qmtnm_try_info {
    uint32_t phase;          /* enum qmtnm_try_phase */
    uint32_t seconds_left;   /* pending: seconds to the deadline, 0 when it has passed */
    uint32_t deadline;       /* pending: the deadline, seconds since the epoch */
    uint32_t areas;          /* pending: the touched areas; rolled back: the areas restored;
                                bit (1u << id) per instance id */
    uint32_t rolled_back_at; /* rolled back: when, seconds since the epoch */
} qmtnm_try_info;
QMTNM_STATIC_ASSERT(sizeof(qmtnm_try_info) == 20, "pending-change state is five 32-bit words");

/* Opens a pending change that rolls back after timeout_s seconds (1 to QMTNM_TRY_MAX_SECONDS)
 * unless confirmed. */
QMTNM_API int32_t qmtnm_try_begin(uint32_t timeout_s);
/* Makes the pending change permanent: its kept records are dropped. */
QMTNM_API int32_t qmtnm_try_confirm(void);
/* Rolls the pending change back now. Every touched area is restored, also when one fails; the
 * first failure's code is returned. */
QMTNM_API int32_t qmtnm_try_rollback(void);
/* The start-up's step: a pending change left from before the start is rolled back into the
 * store only (the start-up apply that follows applies it). 0 when nothing was pending. */
QMTNM_API int32_t qmtnm_try_recover(void);
/* What is pending, or was rolled back last. */
QMTNM_API int32_t qmtnm_try_state(qmtnm_try_info *info);

#ifdef __cplusplus
}
#endif

#endif /* QMTNM_TRY_H */
