// Instance table, set/get dispatch under the per-area semaphores, the activate flag, and the
// library's start-up and shut-down.
#include "qmtnm.h"
#include "qmtnm_try.h"

#include "common/area.h"
#include "common/nm_log.h"
#include "core/lcl_core.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <initializer_list>
#include <sys/mman.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

namespace {

lcl_instance *const lcl_network[QMTNM_ID_COUNT] = {
    &br_lcl,   &ethtype_lcl, &ethmac_lcl,   &wan_lcl,     &lan_lcl,
    &ddns_lcl, &pppoe_lcl,   &upnp_lcl,     &bonjour_lcl, &ipfilter_lcl,
    nullptr,   &qos_lcl,     &wanflash_lcl, &doscan_lcl,  &scanresult_lcl,
    &sta_lcl,  &ap_lcl,      &stapin_lcl,   &appin_lcl,
};

constexpr uint32_t kDefaultTimeoutMs = 2000;
constexpr const char *kActivateShm = "/lcl_activate";
constexpr mode_t kSemMode = 0644;

// The activate flag: nonzero while changes may still be applied at once.
uint32_t *activate = nullptr;

uint32_t timeout_or_default(uint32_t ms) {
    return ms ? ms : kDefaultTimeoutMs;
}

// Takes sem within timeout_ms. Returns 0, or the clock or busy code after logging under func.
int32_t take(sem_t *sem, uint32_t timeout_ms, const char *func) {
    struct timespec deadline;
    int32_t r = nm::getabstime(&deadline, timeout_or_default(timeout_ms));
    if (r != 0)
        return r;
    if (sem == nullptr || sem_timedwait(sem, &deadline) != 0) {
        int32_t code = nm::err(QMTNM_MODULE_CORE, QMTNM_R_BUSY);
        nm::log(nm::LOG_GATE_ERR, func, "%s:resource busy, errno=%d\n", func, code);
        return code;
    }
    return 0;
}

int32_t no_instance(const char *func) {
    int32_t code = nm::err(QMTNM_MODULE_CORE, QMTNM_R_NOMEM);
    nm::log(nm::LOG_GATE_ERR, func, "%s:no instance matched, errno=%d\n", func, code);
    return code;
}

// The persist step as one store transaction: the whole record is stored, or none of it (a
// power cut in the middle leaves the record before). A transaction the file system had no room
// for runs once more after the store made room.
int32_t persist(lcl_instance *inst, void *arg1, uintptr_t arg2) {
    if (inst->flush == nullptr)
        return 0;
    for (int attempt = 0; attempt < 2; ++attempt) {
        nm::store_batch batch;
        int32_t r = inst->flush(inst, arg1, arg2); // without a batch, each value on its own
        if (r < 0 || !batch.open() || batch.commit() == 0)
            return r;
    }
    uint32_t id = 0;
    while (id < QMTNM_ID_COUNT && lcl_network[id] != inst)
        ++id;
    int32_t code = nm::err(QMTNM_MODULE(id), QMTNM_R_STORE);
    nm::log(nm::LOG_GATE_ERR, "qmtnm_lcl_set", "%s settings not stored, errno = %d\n", inst->name,
            code);
    return code;
}

// The apply steps of a record (pre_set, then set), stopping at the first failure.
int32_t apply(lcl_instance *inst, void *arg1, uintptr_t arg2) {
    int32_t r = 0;
    for (lcl_op_fn op : {inst->pre_set, inst->set})
        if (op != nullptr && (r = op(inst, arg1, arg2)) < 0)
            break;
    return r;
}

// Runs the apply chain (activate flag set) or the persist step alone (flag clear).
int32_t apply_or_persist(lcl_instance *inst, void *arg1, uintptr_t arg2) {
    if (*activate == 0) {
        nm::log(nm::LOG_GATE_INFO, "qmtnm_lcl_set", "need reboot to activate action");
        return persist(inst, arg1, arg2);
    }
    int32_t r = apply(inst, arg1, arg2);
    if (r < 0)
        return r;
    return inst->flush ? persist(inst, arg1, arg2) : r;
}

// Everything of a set that runs under the set semaphore.
int32_t set_locked(lcl_instance *inst, void *arg1, uintptr_t arg2) {
    if (inst->nochange) {
        int32_t changed = 0;
        int32_t r = inst->nochange(inst, arg1, arg2, &changed);
        if (r < 0)
            return r;
        if (changed == 0) {
            nm::log(nm::LOG_GATE_INFO, "qmtnm_lcl_set", "config is up-to-date");
            return 0;
        }
    }
    if (inst->activate_now) {
        int32_t r = inst->activate_now(inst, arg1, arg2, activate);
        if (r < 0)
            return r;
    }
    return apply_or_persist(inst, arg1, arg2);
}

int32_t apply_stored(const nm::stored_apply &a) {
    int32_t r = take(a.inst->set_sem, a.inst->set_timeout_ms, "qmtnm_lcl_apply_stored");
    if (r != 0)
        return r;
    r = nm::apply_stored_locked(a);
    sem_post(a.inst->set_sem);
    return r;
}

void format_sem_name(char (&buf)[248], const char *fmt, const char *name) {
    snprintf(buf, sizeof buf, fmt, name);
}

[[noreturn]] void sem_failure(uint32_t failed_id, const char *what) {
    perror(what);
    char name[248];
    for (uint32_t id = 0; id <= failed_id; ++id) {
        if (lcl_network[id] == nullptr)
            continue;
        format_sem_name(name, "/%s.set", lcl_network[id]->name);
        sem_unlink(name);
        format_sem_name(name, "/%s.get", lcl_network[id]->name);
        sem_unlink(name);
    }
    exit(1);
}

void open_semaphores() {
    char name[248];
    char msg[300];
    for (uint32_t id = 0; id < QMTNM_ID_COUNT; ++id) {
        lcl_instance *inst = lcl_network[id];
        if (inst == nullptr)
            continue;
        format_sem_name(name, "/%s.set", inst->name);
        inst->set_sem = sem_open(name, O_RDWR | O_CREAT, kSemMode, 1);
        if (inst->set_sem == SEM_FAILED) {
            snprintf(msg, sizeof msg, "set: sem_open %s failed", inst->name);
            sem_failure(id, msg);
        }
        format_sem_name(name, "/%s.get", inst->name);
        inst->get_sem = sem_open(name, O_RDWR | O_CREAT, kSemMode, 1);
        if (inst->get_sem == SEM_FAILED) {
            snprintf(msg, sizeof msg, "get: sem_open %s failed", inst->name);
            sem_failure(id, msg);
        }
    }
}

void map_activate_flag() {
    bool created = true;
    int fd = shm_open(kActivateShm, O_RDWR | O_CREAT | O_EXCL, 0644);
    if (fd < 0) {
        if (errno != EEXIST) {
            perror("shm_open failed!");
            exit(1);
        }
        created = false;
        fd = shm_open(kActivateShm, O_RDWR, 0644);
        if (fd < 0) {
            perror("shm exist, but open failed!");
            exit(1);
        }
    }
    if (ftruncate(fd, sizeof(uint32_t)) != 0) {
        perror("ftruncate failed!");
        shm_unlink(kActivateShm);
        exit(1);
    }
    void *p = mmap(nullptr, sizeof(uint32_t), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (p == MAP_FAILED) {
        perror("mmap failed!");
        shm_unlink(kActivateShm);
        exit(1);
    }
    close(fd); // the mapping stays
    activate = static_cast<uint32_t *>(p);
    if (created)
        *activate = 1;
}

} // namespace

namespace nm {

int32_t getabstime(struct timespec *deadline, uint32_t timeout_ms) {
    struct timeval now;
    if (gettimeofday(&now, nullptr) != 0) {
        int32_t code = err(QMTNM_MODULE_CORE, QMTNM_R_TIME);
        log(LOG_GATE_ERR, "getabstime", "gettimeofday fail, errno = %d\n", code);
        return code;
    }
    // Signed 32-bit arithmetic; exactly 1000000 is kept as it is, so the nanosecond field
    // becomes 1000000000 and the wait fails as busy.
    int32_t total = static_cast<int32_t>(timeout_ms * 1000u + static_cast<uint32_t>(now.tv_usec));
    time_t sec = now.tv_sec;
    if (total > 1000000) {
        sec += total / 1000000;
        total %= 1000000;
    }
    deadline->tv_sec = sec;
    deadline->tv_nsec = static_cast<long>(total) * 1000;
    return 0;
}

int32_t set_with_lock(lcl_instance *inst, void *arg1, uintptr_t arg2) {
    int32_t r = take(inst->set_sem, inst->set_timeout_ms, "qmtnm_lcl_set");
    if (r != 0)
        return r;
    r = set_locked(inst, arg1, arg2);
    sem_post(inst->set_sem);
    return r;
}

int32_t restore_record(lcl_instance *inst, void *record) {
    int32_t r = take(inst->set_sem, inst->set_timeout_ms, "qmtnm_try_rollback");
    if (r != 0)
        return r;
    if (inst->activate_now)
        r = inst->activate_now(inst, record, 0, activate);
    if (r >= 0 && *activate == 0)
        nm::log(nm::LOG_GATE_INFO, "qmtnm_try_rollback", "need reboot to activate action");
    else if (r >= 0)
        r = apply(inst, record, 0);
    sem_post(inst->set_sem);
    return r;
}

} // namespace nm

extern "C" {

lcl_instance *get_lcl_instance(uint32_t id) {
    return id < QMTNM_ID_COUNT ? lcl_network[id] : nullptr;
}

int32_t qmtnm_lcl_set(uint32_t id, void *arg1, uintptr_t arg2) {
    lcl_instance *inst = get_lcl_instance(id);
    if (inst == nullptr)
        return no_instance(__func__);
    if (inst->check) {
        int32_t r = inst->check(inst, arg1, arg2);
        if (r < 0)
            return r;
    }
    return nm::pending_set(id, inst, arg1, arg2);
}

int32_t qmtnm_lcl_get(uint32_t id, void *arg1, uintptr_t arg2) {
    lcl_instance *inst = get_lcl_instance(id);
    if (inst == nullptr)
        return no_instance(__func__);
    int32_t r = take(inst->get_sem, inst->get_timeout_ms, __func__);
    if (r != 0)
        return r;
    r = inst->get ? inst->get(inst, arg1, arg2) : 0;
    sem_post(inst->get_sem);
    return r;
}

int32_t qmtnm_lcl_apply_stored(uint32_t id) {
    size_t count = 0;
    const nm::stored_apply *order = nm::boot_order(&count);
    if (id == QMTNM_APPLY_ALL) {
        int32_t first = qmtnm_try_recover();
        for (size_t i = 0; i < count; ++i)
            if (int32_t r = apply_stored(order[i]); r < 0 && first == 0)
                first = r;
        return first;
    }
    if (get_lcl_instance(id) == nullptr)
        return no_instance(__func__);
    for (size_t i = 0; i < count; ++i)
        if (order[i].id == id)
            return apply_stored(order[i]);
    return 0; // nothing of this area is applied from the store
}

uint32_t qmtnm_lcl_boot_order(uint32_t *ids, uint32_t cap) {
    size_t count = 0;
    const nm::stored_apply *order = nm::boot_order(&count);
    for (size_t i = 0; i < count && ids != nullptr && i < cap; ++i)
        ids[i] = order[i].id;
    return static_cast<uint32_t>(count);
}

__attribute__((constructor)) void libqmtnm_lcl_init(void) {
    open_semaphores();
    map_activate_flag();
    openlog("libqmtnm", LOG_CONS | LOG_PID, LOG_LOCAL2);
}

// Unloading gives back what loading took: the semaphores' and the flag's mappings.
__attribute__((destructor)) void libqmtnm_lcl_exit(void) {
    for (lcl_instance *inst : lcl_network) {
        for (sem_t **sem : {inst ? &inst->set_sem : nullptr, inst ? &inst->get_sem : nullptr})
            if (sem && *sem && *sem != SEM_FAILED) {
                sem_close(*sem);
                *sem = nullptr;
            }
    }
    if (activate != nullptr)
        munmap(activate, sizeof(uint32_t));
    activate = nullptr;
    closelog();
}

} // extern "C"
