// Internals of the dispatcher that tests and benchmarks reach through the library's own code.
#pragma once

#include "qmtnm.h"

#include <cstddef>
#include <cstdint>
#include <ctime>

namespace nm {

// Fills deadline with now + timeout_ms (wall clock, for sem_timedwait); 0 or 0xFD00FFFB.
int32_t getabstime(struct timespec *deadline, uint32_t timeout_ms);

// One area of the start-up apply: its instance, the instance whose get reads its stored settings,
// and the record's size.
struct stored_apply {
    uint32_t id;
    lcl_instance *inst;
    lcl_instance *reader;
    size_t size;
};
// The areas of the start-up apply, in their order.
const stored_apply *boot_order(size_t *count);
// Reads the area's stored record and applies it through the instance's apply, which checks it
// first; a refused record is not applied and the refusal is logged. The caller holds the area's
// set lock.
int32_t apply_stored_locked(const stored_apply &a);

// A set's steps under the area's set lock (compare, activate, apply, persist), the record
// already checked.
int32_t set_with_lock(lcl_instance *inst, void *arg1, uintptr_t arg2);
// A checked set of an area, as part of the pending change when one is open (core/pending.cpp).
int32_t pending_set(uint32_t id, lcl_instance *inst, void *arg1, uintptr_t arg2);
// Applies a restored record as a set applies it (its activate step, then its apply unless the
// activate flag is clear), under the area's set lock; the record is already in the store.
int32_t restore_record(lcl_instance *inst, void *record);

} // namespace nm
