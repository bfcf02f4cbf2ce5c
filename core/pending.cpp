// The pending change: sets that undo themselves unless confirmed. Its state lives in the store's
// section "network_pending", under "change" while a change is pending: "id" and "deadline";
// "areas/<instance>" for each touched area; and, for each store section a touched area writes,
// "sections/<section>" and a copy of the section as it was before the change, every value at its
// own path below "keep/" ("network/network_pending/change/keep/network_qos/dscp"). After a
// rollback "last/at" and "last/restored" say when and what. A pending change exists exactly
// while "change/deadline" does. Every step that reads and changes that state holds the pending
// change's lock, an flock() on a file in /var/run (released by the kernel when its holder dies),
// taken before any area's set lock.
#include "qmtnm.h"
#include "qmtnm_try.h"

#include "common/area.h"
#include "common/nm_log.h"
#include "common/raii.h"
#include "core/lcl_core.h"
#include "qmt_conf.h"

#include <cerrno>
#include <cstdlib>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

namespace nm {

namespace {

constexpr const char *kSection = "network_pending";
constexpr const char *kLockPath = "/var/run/qmtnm-pending.lock";
constexpr uint32_t kLockWaitMs = 2000;      // a caller's wait for the lock
constexpr uint32_t kRollbackWaitMs = 60000; // the deadline's wait: a long set may hold it
constexpr time_t kWatchdogLook = 5;         // seconds between the watchdog's looks

constexpr int32_t code(int32_t reason) {
    return err(QMTNM_MODULE_TRY, reason);
}

constexpr uint32_t bit(uint32_t id) {
    return 1u << id;
}

// The static WAN address and netmask are mirrored in the hardware store.
void wan_restored(const void *record) {
    const auto *wan = static_cast<const qmtnm_wan_cfg *>(record);
    save_hw_conf(0, wan->ipaddr);
    save_hw_conf(1, wan->netmask);
}

// An area a pending change keeps: the instance a restore applies, the one whose get reads its
// stored record, the record's size, the store sections its set writes, and what else holds a
// copy of its settings.
struct kept_area {
    uint32_t id;
    lcl_instance *inst;
    lcl_instance *reader;
    size_t size;
    const char *sections[3];
    void (*restored)(const void *record) = nullptr;
};

// Bridge and Ethernet type first (no apply of their own; the areas after them read them), then
// the start-up apply's areas in its order. An Ethernet type change may switch PPPoE and DDNS off.
const kept_area kKept[] = {
    {QMTNM_ID_BR, &br_lcl, &br_lcl, sizeof(qmtnm_br_cfg), {"network_softap"}},
    {QMTNM_ID_ETHTYPE,
     &ethtype_lcl,
     &ethtype_lcl,
     sizeof(qmtnm_ethtype_cfg),
     {"network_eth", "network_pppoe", "network_ddns"}},
    {QMTNM_ID_QOS, &qos_lcl, &qos_lcl, sizeof(qmtnm_qos_cfg), {"network_qos"}},
    {QMTNM_ID_WAN, &wan_lcl, &wanflash_lcl, sizeof(qmtnm_wan_cfg), {"network_wan"}, wan_restored},
    {QMTNM_ID_LAN, &lan_lcl, &lan_lcl, sizeof(qmtnm_lan_cfg), {"network_lan"}},
    {QMTNM_ID_IPFILTER,
     &ipfilter_lcl,
     &ipfilter_lcl,
     sizeof(qmtnm_ipfilter_cfg),
     {"network_ipfilter"}},
    {QMTNM_ID_PPPOE, &pppoe_lcl, &pppoe_lcl, sizeof(qmtnm_pppoe_cfg), {"network_pppoe"}},
    {QMTNM_ID_DDNS, &ddns_lcl, &ddns_lcl, sizeof(qmtnm_ddns_cfg), {"network_ddns"}},
    {QMTNM_ID_UPNP, &upnp_lcl, &upnp_lcl, sizeof(qmtnm_upnp_cfg), {"network_upnp"}},
    {QMTNM_ID_BONJOUR, &bonjour_lcl, &bonjour_lcl, sizeof(qmtnm_bonjour_cfg), {"network_bonjour"}},
    {QMTNM_ID_AP, &ap_lcl, &ap_lcl, sizeof(nm_softap), {"network_softap"}},
    {QMTNM_ID_STA, &sta_lcl, &sta_lcl, sizeof(qmtnm_sta_cfg), {"network_sta"}},
};

size_t largest_record() {
    size_t n = 0;
    for (const kept_area &k : kKept)
        n = k.size > n ? k.size : n;
    return n;
}

const kept_area *kept(uint32_t id) {
    for (const kept_area &k : kKept)
        if (k.id == id)
            return &k;
    return nullptr;
}

// ---- the lock ----
class pending_lock {
  public:
    explicit pending_lock(uint32_t wait_ms)
        : fd_(open(kLockPath, O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {
        for (uint32_t waited = 0; fd_.ok(); waited += 10) {
            if (flock(fd_.get(), LOCK_EX | LOCK_NB) == 0) {
                held_ = true;
                return;
            }
            if (errno != EWOULDBLOCK || waited >= wait_ms)
                return;
            usleep(10000);
        }
    }
    bool held() const { return held_; }

  private:
    unique_fd fd_; // closing it releases the lock
    bool held_ = false;
};

int32_t busy(const char *func) {
    int32_t c = code(QMTNM_R_BUSY);
    log(LOG_GATE_ERR, func, "%s:resource busy, errno=%d\n", func, c);
    return c;
}

// ---- the state in the store ----
int get_int(const char *part, const char *key, int32_t *v) {
    return qmt_conf_scanf("network", "%k%k%k%d", kSection, part, key, v);
}
int put_int(const char *part, const char *key, int32_t v) {
    return qmt_conf_printf("network", "%k%k%k%d", kSection, part, key, v);
}
int get_flag(const char *list, const char *name) {
    int32_t v = 0;
    return qmt_conf_scanf("network", "%k%k%k%k%d", kSection, "change", list, name, &v);
}

bool pending_id(int32_t *id) {
    int32_t deadline = 0;
    return get_int("change", "deadline", &deadline) >= 0 && get_int("change", "id", id) >= 0;
}

uint32_t touched_areas() {
    uint32_t mask = 0;
    for (const kept_area &k : kKept)
        if (get_flag("areas", k.inst->name) >= 0)
            mask |= bit(k.id);
    return mask;
}

// A text built in memory (open_memstream), freed with its owner.
struct text {
    char *data = nullptr;
    size_t len = 0;
    FILE *f = open_memstream(&data, &len);
    ~text() {
        if (f)
            fclose(f);
        free(data);
    }
    // Ends the writing; the text, or null when memory ran out.
    const char *done() {
        if (f && fclose(f) != 0)
            len = 0;
        f = nullptr;
        return data;
    }
};

// Writes to out the store's text form of every value below prefix, "path = value" a line, with
// from at the start of each path replaced by to.
bool dump(FILE *out, const char *prefix, const char *from, const char *to) {
    text lines;
    if (lines.f == nullptr || sysconf_dump(lines.f, prefix) != 0 || lines.done() == nullptr)
        return false;
    size_t skip = strlen(from);
    for (char *line = lines.data; line && *line;) {
        char *end = strchr(line, '\n');
        end = end ? end + 1 : line + strlen(line);
        if (strncmp(line, from, skip) == 0)
            fprintf(out, "%s%.*s", to, static_cast<int>(end - line - skip), line + skip);
        line = end;
    }
    return true;
}

int load(text &lines) {
    if (lines.done() == nullptr)
        return -1;
    FILE *f = fmemopen(lines.data, lines.len, "r");
    if (f == nullptr)
        return -1;
    int r = sysconf_load(f, 0);
    fclose(f);
    return r;
}

constexpr const char *kLive = "network/";
constexpr const char *kKeep = "network/network_pending/change/keep/";

// Keeps what the area's set may change (each of its sections not kept yet) and marks the area
// touched: one transaction.
int32_t keep(const kept_area &k, const char *func) {
    text lines;
    bool ok = lines.f != nullptr;
    for (const char *section : k.sections) {
        if (!ok || section == nullptr || get_flag("sections", section) >= 0)
            continue;
        char prefix[64];
        snprintf(prefix, sizeof prefix, "%s%s/", kLive, section);
        ok = dump(lines.f, prefix, kLive, kKeep);
        fprintf(lines.f, "network/network_pending/change/sections/%s = 1\n", section);
    }
    if (ok)
        fprintf(lines.f, "network/network_pending/change/areas/%s = 1\n", k.inst->name);
    if (!ok || load(lines) < 0) {
        log(LOG_GATE_ERR, func, "keeping %s settings for the pending change fail, errno = %d\n",
            k.inst->name, code(QMTNM_R_STORE));
        return code(QMTNM_R_STORE);
    }
    return 0;
}

// Puts a kept section back as it was: values the change added go, the kept ones return.
int32_t restore_section(const char *section) {
    char live[64], kept_prefix[128];
    snprintf(live, sizeof live, "%s%s/", kLive, section);
    snprintf(kept_prefix, sizeof kept_prefix, "%s%s/", kKeep, section);
    text kept, now;
    if (!kept.f || !now.f || !dump(kept.f, kept_prefix, kKeep, kLive) ||
        !dump(now.f, live, "", "") || !kept.done() || !now.done())
        return code(QMTNM_R_STORE);
    for (char *line = now.data; *line;) {
        char *end = strchr(line, '\n');
        char *eq = strstr(line, " = ");
        if (end == nullptr || eq == nullptr || eq > end)
            break;
        *eq = '\0';
        // Each kept line starts a line of kept's text: "\n" + path + " = " finds it.
        char pattern[256];
        snprintf(pattern, sizeof pattern, "\n%s = ", line);
        bool first = strncmp(kept.data, pattern + 1, strlen(pattern + 1)) == 0;
        if (!first && strstr(kept.data, pattern) == nullptr && sysconf_del_path(line) < 0)
            return code(QMTNM_R_STORE);
        line = end + 1;
    }
    return kept.len == 0 || load(kept) >= 0 ? 0 : code(QMTNM_R_STORE);
}

// Ends the pending change; after a rollback, notes when and what first, so that the state goes
// from pending to rolled back at once.
int32_t end_pending(uint32_t restored, bool rolled_back) {
    if (rolled_back) {
        put_int("last", "at", static_cast<int32_t>(time(nullptr)));
        put_int("last", "restored", static_cast<int32_t>(restored));
    }
    return sysconf_del_path("network/network_pending/change") < 0 ? code(QMTNM_R_STORE) : 0;
}

// Whether an area before k in the table lists section too (the soft AP's section is also the
// bridge's; PPPoE's and DDNS's are also the Ethernet type's): each section is restored once.
bool listed_before(const kept_area &k, const char *section) {
    for (const kept_area *o = kKept; o != &k; ++o)
        for (const char *s : o->sections)
            if (s && strcmp(s, section) == 0)
                return true;
    return false;
}

// Every kept section back into the store, then every touched area applied from it, in order
// (live; at start-up the start-up apply does that), then the pending change ends. The caller
// holds the lock.
int32_t roll_back(const char *func, bool live, const char *why) {
    int32_t first = 0;
    for (const kept_area &k : kKept)
        for (const char *section : k.sections)
            if (section && !listed_before(k, section) && get_flag("sections", section) >= 0)
                if (int32_t r = restore_section(section); r < 0 && first == 0)
                    first = r;
    uint32_t restored = 0;
    char names[256] = "";
    for (const kept_area &k : kKept) {
        if (get_flag("areas", k.inst->name) < 0)
            continue;
        unique_heap<void> rec(calloc(1, largest_record()));
        int32_t r = rec ? k.reader->get(k.reader, rec.get(), k.size) : code(QMTNM_R_NOMEM);
        if (r >= 0 && k.restored)
            k.restored(rec.get());
        if (r >= 0 && live)
            r = restore_record(k.inst, rec.get());
        if (r < 0) {
            log(LOG_GATE_ERR, func, "applying restored %s settings fail, errno = %d\n",
                k.inst->name, r);
            first = first ? first : r;
        }
        restored |= bit(k.id);
        size_t n = strlen(names);
        snprintf(names + n, sizeof names - n, " %s", k.inst->name);
    }
    int32_t r = end_pending(restored, true);
    log(LOG_GATE_ERR, func, "pending change rolled back (%s), restored:%s\n", why,
        restored ? names : " none");
    return first ? first : r;
}

// ---- the watchdog ----
// The caller's descriptors other than its standard ones stay open: the store's connection
// state, which the process keeps per file, refers to them.
[[noreturn]] void watchdog(int32_t id, time_t deadline) {
    int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (int fd = 0; fd < 3; ++fd)
        dup2(null, fd);
    if (null > 2)
        close(null);
    if (chdir("/") != 0) {
        // nothing depends on the directory
    }
    // Looks every few seconds whether its change is still pending, and ends when it is not.
    int32_t now_id = id;
    for (time_t now = time(nullptr); now < deadline && now_id == id; now = time(nullptr)) {
        timespec at{now + kWatchdogLook < deadline ? now + kWatchdogLook : deadline, 0};
        while (clock_nanosleep(CLOCK_REALTIME, TIMER_ABSTIME, &at, nullptr) == EINTR) {
        }
        if (!pending_id(&now_id))
            _exit(0);
    }
    for (;;) {
        pending_lock lock(kRollbackWaitMs);
        if (lock.held()) {
            if (pending_id(&now_id) && now_id == id)
                roll_back("qmtnm_try_watchdog", true, "not confirmed by its deadline");
            _exit(0);
        }
    }
}

// Double fork: the watchdog belongs to no session of the caller's and is no child of it.
int32_t start_watchdog(int32_t id, time_t deadline) {
    pid_t child = fork();
    if (child < 0)
        return code(QMTNM_R_IO);
    if (child == 0) {
        setsid();
        if (fork() == 0)
            watchdog(id, deadline);
        _exit(0);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return 0;
}

// Opens the pending change in the store under its lock: a new id first, then the deadline,
// which alone makes the change pending.
int32_t open_pending(const char *func, int32_t *id, time_t deadline) {
    pending_lock lock(kLockWaitMs);
    if (!lock.held() || pending_id(id))
        return busy(func);
    if (getrandom(id, sizeof *id, 0) != sizeof *id)
        *id = static_cast<int32_t>(getpid() ^ time(nullptr));
    *id &= 0x7fffffff;
    if (sysconf_del_path("network/network_pending/last") < 0 || end_pending(0, false) < 0 ||
        put_int("change", "id", *id) < 0 ||
        put_int("change", "deadline", static_cast<int32_t>(deadline)) < 0) {
        log(LOG_GATE_ERR, func, "pending change not stored, errno = %d\n", code(QMTNM_R_STORE));
        end_pending(0, false);
        return code(QMTNM_R_STORE);
    }
    return 0;
}

} // namespace

int32_t pending_set(uint32_t id, lcl_instance *inst, void *arg1, uintptr_t arg2) {
    const kept_area *k = kept(id);
    int32_t pid = 0;
    if (k == nullptr || !pending_id(&pid))
        return set_with_lock(inst, arg1, arg2);
    pending_lock lock(kLockWaitMs);
    if (!lock.held())
        return busy("qmtnm_lcl_set");
    if (!pending_id(&pid)) // ended while this set waited
        return set_with_lock(inst, arg1, arg2);
    if (get_flag("areas", k->inst->name) < 0)
        if (int32_t r = keep(*k, "qmtnm_lcl_set"); r < 0)
            return r;
    return set_with_lock(inst, arg1, arg2);
}

} // namespace nm

using nm::code;

extern "C" {

int32_t qmtnm_try_begin(uint32_t timeout_s) {
    if (timeout_s == 0 || timeout_s > QMTNM_TRY_MAX_SECONDS) {
        nm::log(nm::LOG_GATE_ERR, __func__, "time-out %u s out of 1..%u, errno = %d\n", timeout_s,
                QMTNM_TRY_MAX_SECONDS, code(QMTNM_R_INVALID));
        return code(QMTNM_R_INVALID);
    }
    int32_t id = 0;
    time_t deadline = time(nullptr) + 1 + timeout_s; // whole seconds, never early
    if (int32_t r = nm::open_pending(__func__, &id, deadline); r < 0)
        return r;
    // Started after the lock is released, so that it does not hold it.
    if (int32_t r = nm::start_watchdog(id, deadline); r < 0) {
        nm::log(nm::LOG_GATE_ERR, __func__, "watchdog not started, errno = %d\n", r);
        nm::pending_lock lock(nm::kLockWaitMs);
        nm::end_pending(0, false);
        return r;
    }
    nm::log(nm::LOG_GATE_INFO, __func__, "pending change for %u s\n", timeout_s);
    return 0;
}

int32_t qmtnm_try_confirm(void) {
    nm::pending_lock lock(nm::kLockWaitMs);
    int32_t id = 0, deadline = 0;
    if (!lock.held())
        return nm::busy(__func__);
    if (!nm::pending_id(&id) || nm::get_int("change", "deadline", &deadline) < 0)
        return code(QMTNM_R_FAIL);
    if (time(nullptr) >= deadline) {
        nm::roll_back(__func__, true, "confirmed after its deadline");
        return code(QMTNM_TRY_R_EXPIRED);
    }
    if (int32_t r = nm::end_pending(0, false); r < 0)
        return r;
    nm::log(nm::LOG_GATE_INFO, __func__, "pending change confirmed\n");
    return 0;
}

int32_t qmtnm_try_rollback(void) {
    nm::pending_lock lock(nm::kLockWaitMs);
    int32_t id = 0;
    if (!lock.held())
        return nm::busy(__func__);
    if (!nm::pending_id(&id))
        return code(QMTNM_R_FAIL);
    return nm::roll_back(__func__, true, "asked for");
}

int32_t qmtnm_try_recover(void) {
    int32_t id = 0;
    if (!nm::pending_id(&id))
        return 0;
    nm::pending_lock lock(nm::kRollbackWaitMs);
    if (!lock.held())
        return nm::busy(__func__);
    if (!nm::pending_id(&id))
        return 0;
    return nm::roll_back(__func__, false, "found unconfirmed at start-up");
}

int32_t qmtnm_try_state(qmtnm_try_info *info) {
    if (info == nullptr)
        return code(QMTNM_R_INVALID);
    *info = {};
    int32_t id = 0, value = 0;
    if (nm::pending_id(&id) && nm::get_int("change", "deadline", &value) >= 0) {
        time_t now = time(nullptr);
        info->phase = QMTNM_TRY_PENDING;
        info->deadline = static_cast<uint32_t>(value);
        info->seconds_left = value > now ? static_cast<uint32_t>(value - now) : 0;
        info->areas = nm::touched_areas();
    } else if (nm::get_int("last", "at", &value) >= 0) {
        info->phase = QMTNM_TRY_ROLLED_BACK;
        info->rolled_back_at = static_cast<uint32_t>(value);
        if (nm::get_int("last", "restored", &value) >= 0)
            info->areas = static_cast<uint32_t>(value);
    }
    return 0;
}

} // extern "C"
