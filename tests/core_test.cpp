// Instance table, error codes, dispatch order, locking across processes, the activate flag and
// the log lines of the dispatcher, through the public calls.
#include "support/test_support.h"

#include "qmtnm.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fcntl.h>
#include <semaphore.h>
#include <string>
#include <sys/mman.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

using nmtest::logged;
using nmtest::logs;

// ---- clock stand-in: the test executable's gettimeofday() wins over the C library's ----
namespace {
bool fake_clock = false;
bool clock_fails = false;
struct timeval fake_now = {};
} // namespace

extern "C" int gettimeofday(struct timeval *tv, void *) {
    if (clock_fails)
        return -1;
    if (fake_clock) {
        *tv = fake_now;
        return 0;
    }
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    tv->tv_sec = ts.tv_sec;
    tv->tv_usec = ts.tv_nsec / 1000;
    return 0;
}

namespace {

int sem_value(sem_t *s) {
    int v = -1;
    sem_getvalue(s, &v);
    return v;
}

TEST(ErrorCodes, BuiltFromModuleAndReason) {
    struct {
        uint32_t module;
        int32_t reason;
        uint32_t code;
    } const cases[] = {
        {QMTNM_MOD_QOS, QMTNM_R_STORE, 0xFDF4FFFE},
        {QMTNM_MOD_QOS, QMTNM_R_NOMEM, 0xFDF4FFFC},
        {QMTNM_MOD_QOS, QMTNM_R_INVALID, 0xFDF4FFF9},
        {QMTNM_MODULE_CORE, QMTNM_R_IO, 0xFD00FFFD},
        {QMTNM_MOD_STA, QMTNM_R_FAIL, 0xFDF0FFFF},
        {QMTNM_MOD_WAN, QMTNM_R_STORE, 0xFDFCFFFE},
        {QMTNM_MOD_DDNS, QMTNM_R_INVALID, 0xFDFAFFF9},
        {QMTNM_MODULE_CORE, QMTNM_R_BUSY, 0xFD00FFFA},
    };
    for (const auto &c : cases) {
        int32_t code = QMTNM_ERR(c.module, c.reason);
        EXPECT_EQ(static_cast<uint32_t>(code), c.code);
        EXPECT_LT(code, 0);
        EXPECT_EQ(QMTNM_ERR_MODULE(code), c.module);
        EXPECT_EQ(QMTNM_ERR_REASON(code), c.reason);
    }
    // Every area's module byte is 0xFF minus its id.
    EXPECT_EQ(QMTNM_MODULE(QMTNM_ID_QOS), QMTNM_MOD_QOS);
    EXPECT_EQ(QMTNM_MODULE(QMTNM_ID_APPIN), QMTNM_MOD_APPIN);
    EXPECT_EQ(QMTNM_MODULE(QMTNM_ID_BR), QMTNM_MOD_BR);
}

TEST(InstanceTable, EverySlotWithNameAndTimeouts) {
    struct {
        const char *name;
        lcl_instance *record;
        uint32_t set_ms, get_ms;
    } const table[QMTNM_ID_COUNT] = {
        {"br_lcl", &br_lcl, 0, 0},
        {"ethtype_lcl", &ethtype_lcl, 0, 0},
        {"ethmac_lcl", &ethmac_lcl, 0, 0},
        {"wan_lcl", &wan_lcl, 0, 0},
        {"lan_lcl", &lan_lcl, 0, 0},
        {"ddns_lcl", &ddns_lcl, 0, 0},
        {"pppoe_lcl", &pppoe_lcl, 0, 0},
        {"upnp_lcl", &upnp_lcl, 0, 0},
        {"bonjour_lcl", &bonjour_lcl, 0, 0},
        {"ipfilter_lcl", &ipfilter_lcl, 0, 0},
        {nullptr, nullptr, 0, 0},
        {"qos_lcl", &qos_lcl, 0, 0},
        {"wanflash_lcl", &wanflash_lcl, 0, 0},
        {"doscan_lcl", &doscan_lcl, 0, 5000},
        {"scanresult_lcl", &scanresult_lcl, 0, 0},
        {"sta_lcl", &sta_lcl, 200000, 0},
        {"ap_lcl", &ap_lcl, 0, 0},
        {"stapin_lcl", &stapin_lcl, 0, 0},
        {"appin_lcl", &appin_lcl, 0, 0},
    };
    for (uint32_t id = 0; id < QMTNM_ID_COUNT; ++id) {
        SCOPED_TRACE(id);
        lcl_instance *inst = get_lcl_instance(id);
        EXPECT_EQ(inst, table[id].record);
        if (inst == nullptr)
            continue;
        EXPECT_STREQ(inst->name, table[id].name);
        EXPECT_EQ(inst->set_timeout_ms, table[id].set_ms);
        EXPECT_EQ(inst->get_timeout_ms, table[id].get_ms);
        EXPECT_EQ(inst->pre_set, nullptr);
        EXPECT_EQ(inst->reserved, 0u);
        // Start-up opened both semaphores, each free.
        ASSERT_NE(inst->set_sem, nullptr);
        ASSERT_NE(inst->get_sem, nullptr);
        EXPECT_EQ(sem_value(inst->set_sem), 1);
        EXPECT_EQ(sem_value(inst->get_sem), 1);
        EXPECT_EQ(access((std::string("/dev/shm/sem.") + inst->name + ".set").c_str(), F_OK), 0);
    }
    EXPECT_EQ(get_lcl_instance(19), nullptr);
    EXPECT_EQ(get_lcl_instance(0xFFFFFFFFu), nullptr);
}

TEST(Dispatch, NoInstanceForIdTenOrBeyondTheTable) {
    const int32_t none = static_cast<int32_t>(0xFD00FFFC);
    for (uint32_t id : {10u, 19u, 1000u, 0xFFFFFFFFu}) {
        logs().clear();
        int dummy = 0;
        EXPECT_EQ(qmtnm_lcl_set(id, &dummy, 0), none);
        EXPECT_EQ(qmtnm_lcl_get(id, &dummy, 0), none);
        EXPECT_EQ(logs().texts(),
                  (std::vector<std::string>{
                      logged("qmtnm_lcl_set", "qmtnm_lcl_set:no instance matched, errno=-50266116"),
                      logged("qmtnm_lcl_get", "qmtnm_lcl_get:no instance matched, errno=-50266116"),
                  }));
    }
}

TEST(Dispatch, LogLinesGoToSyslogAsLocal2Err) {
    logs().clear();
    int dummy = 0;
    qmtnm_lcl_get(10, &dummy, 0);
    auto lines = logs().lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].priority, (18 << 3) | 3); // LOG_LOCAL2 | LOG_ERR
}

// ---- a scripted instance: wanflash_lcl's slot lends its record to recording operations ----

struct script {
    std::vector<std::string> calls;
    int32_t check = 0, nochange = 0, activate = 0, pre_set = 0, set = 0, flush = 0, get = 0;
    int32_t changed = 1;
    bool clear_flag = false;
    bool lock_held_in_ops = true;
};
script *current = nullptr;

int32_t rec(const char *name, lcl_instance *inst, int32_t result) {
    current->calls.push_back(name);
    // Every set-side operation after check runs under the set semaphore.
    if (strcmp(name, "check") != 0 && strcmp(name, "get") != 0 && sem_value(inst->set_sem) != 0)
        current->lock_held_in_ops = false;
    return result;
}
struct seen_args {
    lcl_instance *inst;
    void *arg1;
    uintptr_t arg2;
};
std::vector<seen_args> seen;

int32_t op_check(lcl_instance *i, void *arg1, uintptr_t arg2) {
    seen.push_back({i, arg1, arg2});
    return rec("check", i, current->check);
}
int32_t op_nochange(lcl_instance *i, void *, uintptr_t, int32_t *changed) {
    *changed = current->changed;
    return rec("nochange", i, current->nochange);
}
int32_t op_activate(lcl_instance *i, void *, uintptr_t, uint32_t *flag) {
    if (current->clear_flag)
        *flag = 0;
    return rec("activate_now", i, current->activate);
}
int32_t op_pre_set(lcl_instance *i, void *, uintptr_t) {
    return rec("pre_set", i, current->pre_set);
}
int32_t op_set(lcl_instance *i, void *arg1, uintptr_t arg2) {
    seen.push_back({i, arg1, arg2});
    return rec("set", i, current->set);
}
int32_t op_flush(lcl_instance *i, void *, uintptr_t) {
    return rec("flush", i, current->flush);
}
int32_t op_get(lcl_instance *i, void *arg1, uintptr_t arg2) {
    seen.push_back({i, arg1, arg2});
    return rec("get", i, current->get);
}

class ScriptedInstance : public testing::Test {
  protected:
    void SetUp() override {
        saved_ = wanflash_lcl;
        wanflash_lcl.check = op_check;
        wanflash_lcl.nochange = op_nochange;
        wanflash_lcl.activate_now = op_activate;
        wanflash_lcl.pre_set = op_pre_set;
        wanflash_lcl.set = op_set;
        wanflash_lcl.flush = op_flush;
        wanflash_lcl.get = op_get;
        current = &script_;
        nmtest::set_activate_flag(1);
        logs().clear();
    }
    void TearDown() override {
        wanflash_lcl = saved_;
        nmtest::set_activate_flag(1);
        nm_log_level = 1;
    }
    lcl_instance saved_{};
    script script_;
};

TEST_F(ScriptedInstance, SetRunsOperationsInOrder) {
    const int32_t fail = QMTNM_ERR(QMTNM_MOD_WANFLASH, -2);
    using calls = std::vector<std::string>;
    struct row {
        const char *what;
        void (*setup)(script &);
        uint32_t flag;
        int32_t result;
        calls expected;
        std::vector<std::string> log;
    } const rows[] = {
        {"changed, flag set",
         [](script &) {},
         1,
         0,
         calls{"check", "nochange", "activate_now", "pre_set", "set", "flush"},
         {}},
        {"result is the last operation's",
         [](script &s) { s.flush = 7; },
         1,
         7,
         calls{"check", "nochange", "activate_now", "pre_set", "set", "flush"},
         {}},
        {"up to date",
         [](script &s) { s.changed = 0; },
         1,
         0,
         calls{"check", "nochange"},
         {logged("qmtnm_lcl_set", "config is up-to-date")}},
        {"flag clear: persist only",
         [](script &) {},
         0,
         0,
         calls{"check", "nochange", "activate_now", "flush"},
         {logged("qmtnm_lcl_set", "need reboot to activate action")}},
        {"flush's result when the flag is clear",
         [](script &s) { s.flush = fail; },
         0,
         fail,
         calls{"check", "nochange", "activate_now", "flush"},
         {logged("qmtnm_lcl_set", "need reboot to activate action")}},
        {"activate_now clears the flag",
         [](script &s) { s.clear_flag = true; },
         1,
         0,
         calls{"check", "nochange", "activate_now", "flush"},
         {logged("qmtnm_lcl_set", "need reboot to activate action")}},
        {"check fails", [](script &s) { s.check = fail; }, 1, fail, calls{"check"}, {}},
        {"nochange fails",
         [](script &s) { s.nochange = fail; },
         1,
         fail,
         calls{"check", "nochange"},
         {}},
        {"activate_now fails",
         [](script &s) { s.activate = fail; },
         1,
         fail,
         calls{"check", "nochange", "activate_now"},
         {}},
        {"pre_set fails",
         [](script &s) { s.pre_set = fail; },
         1,
         fail,
         calls{"check", "nochange", "activate_now", "pre_set"},
         {}},
        {"set fails: nothing stored",
         [](script &s) { s.set = fail; },
         1,
         fail,
         calls{"check", "nochange", "activate_now", "pre_set", "set"},
         {}},
        {"flush fails",
         [](script &s) { s.flush = fail; },
         1,
         fail,
         calls{"check", "nochange", "activate_now", "pre_set", "set", "flush"},
         {}},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        script_ = script{};
        r.setup(script_);
        nmtest::set_activate_flag(r.flag);
        logs().clear();
        int record = 0;
        EXPECT_EQ(qmtnm_lcl_set(QMTNM_ID_WANFLASH, &record, 0), r.result);
        EXPECT_EQ(script_.calls, r.expected);
        EXPECT_TRUE(script_.lock_held_in_ops);
        EXPECT_EQ(sem_value(wanflash_lcl.set_sem), 1) << "set semaphore not posted";
        EXPECT_EQ(logs().texts(), r.log);
        if (script_.clear_flag) { // activate_now's change reaches the shared flag
            EXPECT_EQ(nmtest::activate_flag(), 0u);
        }
    }
}

TEST_F(ScriptedInstance, AbsentOperationsAreSkipped) {
    // Only get: a set takes and releases the lock and returns 0.
    wanflash_lcl = saved_;
    wanflash_lcl.get = op_get;
    int record = 0;
    EXPECT_EQ(qmtnm_lcl_set(QMTNM_ID_WANFLASH, &record, 0), 0);
    EXPECT_TRUE(script_.calls.empty());
    EXPECT_EQ(sem_value(wanflash_lcl.set_sem), 1);
    // No check, nochange or activate_now: straight from the lock to set and flush.
    wanflash_lcl.set = op_set;
    wanflash_lcl.flush = op_flush;
    script_.set = 3;
    script_.flush = 0;
    EXPECT_EQ(qmtnm_lcl_set(QMTNM_ID_WANFLASH, &record, 0), 0);
    EXPECT_EQ(script_.calls, (std::vector<std::string>{"set", "flush"}));
    // A get without a get operation returns 0.
    wanflash_lcl.get = nullptr;
    EXPECT_EQ(qmtnm_lcl_get(QMTNM_ID_WANFLASH, &record, 0), 0);
    EXPECT_EQ(sem_value(wanflash_lcl.get_sem), 1);
}

TEST_F(ScriptedInstance, ArgumentsReachTheOperationsUnchanged) {
    // The second argument is a full machine word: a pointer passes through unharmed.
    int record = 0;
    double other = 0;
    const auto word = reinterpret_cast<uintptr_t>(&other);
    seen.clear();
    ASSERT_EQ(qmtnm_lcl_set(QMTNM_ID_WANFLASH, &record, word), 0);
    ASSERT_EQ(qmtnm_lcl_get(QMTNM_ID_WANFLASH, &record, ~word), 0);
    ASSERT_EQ(seen.size(), 3u);
    for (size_t k = 0; k < seen.size(); ++k) {
        EXPECT_EQ(seen[k].inst, &wanflash_lcl);
        EXPECT_EQ(seen[k].arg1, &record);
        EXPECT_EQ(seen[k].arg2, k < 2 ? word : ~word);
    }
}

TEST_F(ScriptedInstance, GetReturnsItsOperationsResultAndPassesArguments) {
    script_.get = QMTNM_ERR(QMTNM_MOD_WANFLASH, -2);
    int record = 0;
    EXPECT_EQ(qmtnm_lcl_get(QMTNM_ID_WANFLASH, &record, 0), script_.get);
    EXPECT_EQ(script_.calls, (std::vector<std::string>{"get"}));
    EXPECT_EQ(sem_value(wanflash_lcl.get_sem), 1);
}

TEST_F(ScriptedInstance, InformationLinesFollowTheLogLevel) {
    struct {
        int32_t level;
        uint32_t flag;
        int32_t changed;
        std::vector<std::string> expected;
    } const rows[] = {
        {1, 1, 0, {logged("qmtnm_lcl_set", "config is up-to-date")}},
        {2, 1, 0, {logged("qmtnm_lcl_set", "config is up-to-date")}},
        {0, 1, 0, {}},
        {1, 0, 1, {logged("qmtnm_lcl_set", "need reboot to activate action")}},
        {0, 0, 1, {}},
        {-1, 0, 1, {}},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.level);
        script_ = script{};
        script_.changed = r.changed;
        nm_log_level = r.level;
        nmtest::set_activate_flag(r.flag);
        logs().clear();
        int record = 0;
        EXPECT_EQ(qmtnm_lcl_set(QMTNM_ID_WANFLASH, &record, 0), 0);
        EXPECT_EQ(logs().texts(), r.expected);
    }
    // Errors are logged at 0 and silenced below it.
    for (int32_t level : {0, -1}) {
        nm_log_level = level;
        logs().clear();
        int record = 0;
        qmtnm_lcl_get(10, &record, 0);
        EXPECT_EQ(logs().texts().size(), level >= 0 ? 1u : 0u);
    }
}

TEST_F(ScriptedInstance, ClockFailureIsReported) {
    clock_fails = true;
    int record = 0;
    int32_t set = qmtnm_lcl_set(QMTNM_ID_WANFLASH, &record, 0);
    int32_t get = qmtnm_lcl_get(QMTNM_ID_WANFLASH, &record, 0);
    clock_fails = false;
    EXPECT_EQ(set, static_cast<int32_t>(0xFD00FFFB));
    EXPECT_EQ(get, static_cast<int32_t>(0xFD00FFFB));
    EXPECT_EQ(script_.calls, (std::vector<std::string>{"check"}));
    EXPECT_EQ(logs().texts(),
              (std::vector<std::string>(
                  2, logged("getabstime", "gettimeofday fail, errno = -50266117"))));
    EXPECT_EQ(sem_value(wanflash_lcl.set_sem), 1);
}

TEST_F(ScriptedInstance, DeadlineOfExactlyOneSecondIsRefusedAsBusy) {
    // 1000 ms at microseconds 0 totals exactly 1000000: kept without carry, so the nanosecond
    // field is out of range and the wait fails even though the semaphore is free.
    struct {
        uint32_t timeout_ms;
        long usec;
        bool busy;
    } const rows[] = {
        {1000, 0, true},     {1000, 1, false}, {999, 999999, false}, // 1998999 carries
        {500, 500000, true},                                         // 1000000 again
        {0, 0, false},                                               // 2000 ms by default
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.timeout_ms);
        script_ = script{};
        wanflash_lcl.set_timeout_ms = r.timeout_ms;
        wanflash_lcl.get_timeout_ms = r.timeout_ms;
        struct timespec ts;
        clock_gettime(CLOCK_REALTIME, &ts);
        fake_now = {ts.tv_sec, r.usec};
        fake_clock = true;
        int record = 0;
        int32_t set = qmtnm_lcl_set(QMTNM_ID_WANFLASH, &record, 0);
        int32_t get = qmtnm_lcl_get(QMTNM_ID_WANFLASH, &record, 0);
        fake_clock = false;
        const int32_t busy = static_cast<int32_t>(0xFD00FFFA);
        EXPECT_EQ(set, r.busy ? busy : 0);
        EXPECT_EQ(get, r.busy ? busy : 0);
        EXPECT_EQ(sem_value(wanflash_lcl.set_sem), 1);
        EXPECT_EQ(sem_value(wanflash_lcl.get_sem), 1);
    }
}

// ---- locking across processes ----

TEST(Locking, CheckFailureReturnsAtOnceWhileAnotherProcessHoldsTheLock) {
    nmtest::sem_holder holder("/qos_lcl.set");
    qmtnm_qos_cfg bad = {2, 0};
    int64_t start = nmtest::now_ms();
    EXPECT_EQ(qmtnm_lcl_set(QMTNM_ID_QOS, &bad, 0), static_cast<int32_t>(0xFDF4FFF9));
    EXPECT_LT(nmtest::now_ms() - start, 1000) << "the check waited for the lock";
}

TEST(Locking, BusyAfterTheTimeoutWhileAChildHoldsTheLock) {
    nmtest::load_defaults();
    logs().clear();
    {
        nmtest::sem_holder holder("/qos_lcl.set");
        qmtnm_qos_cfg cfg = {0, 0};
        int64_t start = nmtest::now_ms();
        EXPECT_EQ(qmtnm_lcl_set(QMTNM_ID_QOS, &cfg, 0), static_cast<int32_t>(0xFD00FFFA));
        EXPECT_GE(nmtest::now_ms() - start, 1900) << "gave up before the 2000 ms time-out";
        EXPECT_EQ(logs().texts(),
                  (std::vector<std::string>{
                      logged("qmtnm_lcl_set", "qmtnm_lcl_set:resource busy, errno=-50266118")}));
        // The failed wait posted nothing: the lock is still the child's.
        EXPECT_EQ(sem_value(qos_lcl.set_sem), 0);
        // A get does not wait for the held set lock.
        start = nmtest::now_ms();
        qmtnm_qos_cfg got = {-1, -1};
        EXPECT_EQ(qmtnm_lcl_get(QMTNM_ID_QOS, &got, 0), 0);
        EXPECT_LT(nmtest::now_ms() - start, 1000);
        EXPECT_EQ(got.enable, 0);
    }
    EXPECT_EQ(sem_value(qos_lcl.set_sem), 1);
}

TEST(Locking, GetIsBusyWhileAnotherProcessHoldsTheGetLock) {
    nmtest::sem_holder holder("/qos_lcl.get");
    logs().clear();
    qmtnm_qos_cfg got = {};
    EXPECT_EQ(qmtnm_lcl_get(QMTNM_ID_QOS, &got, 0), static_cast<int32_t>(0xFD00FFFA));
    EXPECT_EQ(logs().texts(),
              (std::vector<std::string>{
                  logged("qmtnm_lcl_get", "qmtnm_lcl_get:resource busy, errno=-50266118")}));
}

// ---- activate flag across processes ----

// Loads the library in a new process (the tool links it) and returns the flag it finds.
uint32_t flag_seen_by_new_process() {
    std::string out = nmtest::sh(QMTNM_PROBE " 2>&1");
    return static_cast<uint32_t>(strtoul(out.c_str(), nullptr, 10));
}

TEST(ActivateFlag, CreatedAsOneAndKeptAcrossProcesses) {
    EXPECT_EQ(nmtest::activate_flag(), 1u);
    struct stat st;
    ASSERT_EQ(stat("/dev/shm/lcl_activate", &st), 0);
    EXPECT_EQ(st.st_size, 4);
    // Another process's load keeps the existing value.
    nmtest::set_activate_flag(0);
    EXPECT_EQ(flag_seen_by_new_process(), 0u);
    EXPECT_EQ(nmtest::activate_flag(), 0u);
    // After a reboot (the object is gone) the first load creates it as 1.
    ASSERT_EQ(shm_unlink("/lcl_activate"), 0);
    EXPECT_EQ(flag_seen_by_new_process(), 1u);
    EXPECT_EQ(nmtest::activate_flag(), 1u);
}

} // namespace
