// Instances whose areas are not built yet: each has its name and lock time-outs and no
// operations, so the dispatcher already answers for it (a set takes and releases the lock and
// returns 0; a get returns 0 without touching the record).
#include "qmtnm.h"

#define NM_PENDING_INSTANCE(var, set_ms, get_ms)                                                   \
    lcl_instance var = {#var,    nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,             \
                        nullptr, nullptr, nullptr, set_ms,  get_ms,  0}

NM_PENDING_INSTANCE(upnp_lcl, 0, 0);
NM_PENDING_INSTANCE(bonjour_lcl, 0, 0);
NM_PENDING_INSTANCE(ipfilter_lcl, 0, 0);
