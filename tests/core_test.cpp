// Dispatch order, locking across processes, the activate flag and
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
using strings = std::vector<std::string>;

// ---- clock stand-in: the test executable's gettimeofday() wins over the C library's ----
namespace {
bool fake_clock = false;
struct timeval fake_now = {};
} // namespace

extern "C" int gettimeofday(struct timeval *tv, void *) {
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

// Error lines go to syslog as LOCAL2 | ERR, from log level 0 up; level -1 silences them.
TEST(Dispatch, NoInstanceForIdTenOrBeyondTheTable) {
    const int32_t none = static_cast<int32_t>(0xFD00FFFC);
    for (uint32_t id : {10u, 19u, 0xFFFFFFFFu}) {
        int dummy = 0;
        logs().clear();
        nm_log_level = -1;
        EXPECT_EQ(qmtnm_lcl_set(id, &dummy, 0), none);
        nm_log_level = 0;
        EXPECT_EQ(qmtnm_lcl_get(id, &dummy, 0), none);
        nm_log_level = 1;
        auto lines = logs().lines();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].text,
                  logged("qmtnm_lcl_get", "qmtnm_lcl_get:no instance matched, errno=-50266116"));
        EXPECT_EQ(lines[0].priority, (18 << 3) | 3);
    }
}

// ---- a scripted instance: wanflash_lcl's slot lends its record to recording operations ----

struct script {
    std::string calls; // the operations run, in order
    std::string fails; // the operation that returns result; the others return 0
    int32_t result = 0;
    int32_t changed = 1;     // what nochange reports
    bool clear_flag = false; // activate_now clears the activate flag
    bool lock_held_in_ops = true;
    bool args_unchanged = true;
};
script *current = nullptr;
void *want_arg1 = nullptr;
uintptr_t want_arg2 = 0;

int32_t rec(const char *name, lcl_instance *inst, void *arg1, uintptr_t arg2) {
    current->calls += (current->calls.empty() ? "" : " ") + std::string(name);
    // Every set-side operation after check runs under the set semaphore.
    if (strcmp(name, "check") != 0 && strcmp(name, "get") != 0 && sem_value(inst->set_sem) != 0)
        current->lock_held_in_ops = false;
    if (inst != &wanflash_lcl || arg1 != want_arg1 || arg2 != want_arg2)
        current->args_unchanged = false;
    return current->fails == name ? current->result : 0;
}

class ScriptedInstance : public testing::Test {
  protected:
    using I = lcl_instance;
    void SetUp() override {
        saved_ = wanflash_lcl;
        wanflash_lcl.check = [](I *i, void *a, uintptr_t b) { return rec("check", i, a, b); };
        wanflash_lcl.nochange = [](I *i, void *a, uintptr_t b, int32_t *changed) {
            *changed = current->changed;
            return rec("nochange", i, a, b);
        };
        wanflash_lcl.activate_now = [](I *i, void *a, uintptr_t b, uint32_t *flag) {
            if (current->clear_flag)
                *flag = 0;
            return rec("activate_now", i, a, b);
        };
        wanflash_lcl.pre_set = [](I *i, void *a, uintptr_t b) { return rec("pre_set", i, a, b); };
        wanflash_lcl.set = [](I *i, void *a, uintptr_t b) { return rec("set", i, a, b); };
        wanflash_lcl.flush = [](I *i, void *a, uintptr_t b) { return rec("flush", i, a, b); };
        wanflash_lcl.get = [](I *i, void *a, uintptr_t b) { return rec("get", i, a, b); };
        current = &script_;
        want_arg1 = &record_;
        want_arg2 = 0;
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
    int record_ = 0;
};

TEST_F(ScriptedInstance, SetRunsOperationsInOrder) {
    const int32_t fail = QMTNM_ERR(QMTNM_MOD_WANFLASH, -2);
    const std::string all = "check nochange activate_now pre_set set flush";
    const std::string persist = "check nochange activate_now flush";
    const std::string up_to_date = logged("qmtnm_lcl_set", "config is up-to-date");
    const std::string reboot_log = logged("qmtnm_lcl_set", "need reboot to activate action");
    // The second argument is a full machine word: a pointer passes through unharmed.
    double other = 0;
    want_arg2 = reinterpret_cast<uintptr_t>(&other);
    struct {
        const char *fails; // the operation returning value
        int32_t value;
        uint32_t flag;
        int32_t changed;
        bool clear_flag;
        int32_t level;
        int32_t result;
        std::string calls, log;
    } const rows[] = {
        {"", 0, 1, 1, false, 1, 0, all, ""},
        {"flush", 7, 1, 1, false, 1, 7, all, ""}, // the result is the last operation's
        {"", 0, 1, 0, false, 1, 0, "check nochange", up_to_date},
        {"", 0, 1, 0, false, 2, 0, "check nochange", up_to_date},
        {"", 0, 1, 0, false, 0, 0, "check nochange", ""}, // information from level 1 up
        {"", 0, 0, 1, false, 1, 0, persist, reboot_log},  // flag clear: persist only
        {"", 0, 0, 1, false, 0, 0, persist, ""},
        {"flush", fail, 0, 1, false, 1, fail, persist, reboot_log},
        {"", 0, 1, 1, true, 1, 0, persist, reboot_log}, // activate_now clears the flag
        {"check", fail, 1, 1, false, 1, fail, "check", ""},
        {"nochange", fail, 1, 1, false, 1, fail, "check nochange", ""},
        {"activate_now", fail, 1, 1, false, 1, fail, "check nochange activate_now", ""},
        {"pre_set", fail, 1, 1, false, 1, fail, "check nochange activate_now pre_set", ""},
        {"set", fail, 1, 1, false, 1, fail, "check nochange activate_now pre_set set", ""},
        {"flush", fail, 1, 1, false, 1, fail, all, ""},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.calls + " / " + r.fails + " / level " + std::to_string(r.level));
        script_ = script{"", r.fails, r.value, r.changed, r.clear_flag};
        nmtest::set_activate_flag(r.flag);
        nm_log_level = r.level;
        logs().clear();
        EXPECT_EQ(qmtnm_lcl_set(QMTNM_ID_WANFLASH, &record_, want_arg2), r.result);
        EXPECT_EQ(script_.calls, r.calls);
        EXPECT_TRUE(script_.lock_held_in_ops);
        EXPECT_TRUE(script_.args_unchanged);
        EXPECT_EQ(sem_value(wanflash_lcl.set_sem), 1) << "set semaphore not posted";
        EXPECT_EQ(logs().texts(), r.log.empty() ? strings{} : strings{r.log});
        if (r.clear_flag) { // activate_now's change reaches the shared flag
            EXPECT_EQ(nmtest::activate_flag(), 0u);
        }
    }
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
    const int32_t busy = static_cast<int32_t>(0xFD00FFFA);
    for (const auto &r : rows) {
        // Each call waits with its own time-out: the other one stays at the default.
        for (bool on_get : {false, true}) {
            SCOPED_TRACE(std::to_string(r.timeout_ms) + (on_get ? " get" : " set"));
            wanflash_lcl.set_timeout_ms = on_get ? 0 : r.timeout_ms;
            wanflash_lcl.get_timeout_ms = on_get ? r.timeout_ms : 0;
            struct timespec ts;
            clock_gettime(CLOCK_REALTIME, &ts);
            fake_now = {ts.tv_sec, r.usec};
            fake_clock = true;
            int32_t set = qmtnm_lcl_set(QMTNM_ID_WANFLASH, &record_, 0);
            int32_t get = qmtnm_lcl_get(QMTNM_ID_WANFLASH, &record_, 0);
            fake_clock = false;
            EXPECT_EQ(set, r.busy && !on_get ? busy : 0);
            EXPECT_EQ(get, r.busy && on_get ? busy : 0);
            EXPECT_EQ(sem_value(wanflash_lcl.set_sem), 1);
            EXPECT_EQ(sem_value(wanflash_lcl.get_sem), 1);
        }
    }
}

// ---- locking across processes ----

TEST(Locking, BusyAfterTheTimeoutWhileAnotherProcessHoldsTheLock) {
    const int32_t busy = static_cast<int32_t>(0xFD00FFFA);
    nmtest::load_defaults();
    {
        nmtest::sem_holder holder("/qos_lcl.set");
        // The check runs before the lock: its refusal is not "busy".
        qmtnm_qos_cfg bad = {2, 0};
        EXPECT_EQ(qmtnm_lcl_set(QMTNM_ID_QOS, &bad, 0), static_cast<int32_t>(0xFDF4FFF9));
        logs().clear();
        qmtnm_qos_cfg cfg = {0, 0};
        int64_t start = nmtest::now_ms();
        EXPECT_EQ(qmtnm_lcl_set(QMTNM_ID_QOS, &cfg, 0), busy);
        EXPECT_GE(nmtest::now_ms() - start, 1900) << "gave up before the 2000 ms time-out";
        EXPECT_EQ(logs().texts(),
                  strings{logged("qmtnm_lcl_set", "qmtnm_lcl_set:resource busy, errno=-50266118")});
        // The failed wait posted nothing: the lock is still the child's.
        EXPECT_EQ(sem_value(qos_lcl.set_sem), 0);
        // A get takes the other lock.
        qmtnm_qos_cfg got = {-1, -1};
        EXPECT_EQ(qmtnm_lcl_get(QMTNM_ID_QOS, &got, 0), 0);
        EXPECT_EQ(got.enable, 0);
    }
    EXPECT_EQ(sem_value(qos_lcl.set_sem), 1);
    nmtest::sem_holder holder("/qos_lcl.get");
    logs().clear();
    qmtnm_qos_cfg got = {};
    EXPECT_EQ(qmtnm_lcl_get(QMTNM_ID_QOS, &got, 0), busy);
    EXPECT_EQ(logs().texts(),
              strings{logged("qmtnm_lcl_get", "qmtnm_lcl_get:resource busy, errno=-50266118")});
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
