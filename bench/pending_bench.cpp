// What a pending change costs: a set that changes the QoS record with no change pending, the
// same set while one is pending (its area already kept), the first set of an area in a pending
// change (the area's sections kept: one store transaction), and the time from the deadline to
// the old settings back in the store and applied (the watchdog's wake-up, the lock, the store's
// restore; the areas' commands are counted and not run, so their own time is not in it).
//
// system() is defined here and runs nothing. The library is loaded with dlopen() after the
// namespace check, as in qmtnm_bench.
#include "bench_env.h"

#include "qmtnm.h"
#include "qmtnm_try.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

extern "C" int system(const char *) {
    return 0;
}

namespace {

using set_fn = int32_t (*)(uint32_t, void *, uintptr_t);
using begin_fn = int32_t (*)(uint32_t);
using end_fn = int32_t (*)();
using state_fn = int32_t (*)(qmtnm_try_info *);
set_fn lcl_set;
begin_fn try_begin;
end_fn try_confirm;
state_fn try_state;
int32_t *log_level;

template <class F> void resolve(void *h, F &f, const char *name) {
    f = reinterpret_cast<F>(dlsym(h, name));
    if (f == nullptr) {
        fprintf(stderr, "benchmark: libqmtnm lacks %s\n", name);
        exit(2);
    }
}

void load_library() {
    void *h = dlopen(QMTNM_LIBRARY, RTLD_NOW | RTLD_GLOBAL);
    if (h == nullptr) {
        fprintf(stderr, "benchmark: %s\n", dlerror());
        exit(2);
    }
    resolve(h, lcl_set, "qmtnm_lcl_set");
    resolve(h, try_begin, "qmtnm_try_begin");
    resolve(h, try_confirm, "qmtnm_try_confirm");
    resolve(h, try_state, "qmtnm_try_state");
    resolve(h, log_level, "nm_log_level");
    *log_level = 0;
}

// A set that changes the record every time: DSCP 10 and 11 in turn.
bool set_qos(int32_t &dscp) {
    dscp = dscp == 10 ? 11 : 10;
    qmtnm_qos_cfg c = {1, dscp};
    return lcl_set(QMTNM_ID_QOS, &c, 0) == 0;
}

// Argument 1: a change is pending, the QoS area already kept.
void BM_set_changed(benchmark::State &st) {
    int32_t dscp = 10;
    bool pending = st.range(0) == 1;
    if (pending && (try_begin(QMTNM_TRY_MAX_SECONDS) != 0 || !set_qos(dscp)))
        st.SkipWithError("no pending change");
    for (auto _ : st)
        if (!set_qos(dscp)) {
            st.SkipWithError("qmtnm_lcl_set(qos) failed");
            break;
        }
    if (pending)
        try_confirm();
}
BENCHMARK(BM_set_changed)->ArgName("pending")->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

// Opens a pending change from another process, as a management tool would (begin's fork of the
// watchdog is then not this process's: its copy-on-write would weigh on the set measured here).
bool begin_elsewhere() {
    pid_t pid = fork();
    if (pid == 0)
        _exit(try_begin(QMTNM_TRY_MAX_SECONDS) == 0 ? 0 : 1);
    int status = 1;
    return pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) &&
           WEXITSTATUS(status) == 0;
}

// The first set of the area in a pending change: its section kept, then the set.
void BM_first_set_pending(benchmark::State &st) {
    int32_t dscp = 10;
    for (auto _ : st) {
        st.PauseTiming();
        bool ok = begin_elsewhere();
        st.ResumeTiming();
        ok = ok && set_qos(dscp);
        st.PauseTiming();
        ok = ok && try_confirm() == 0;
        st.ResumeTiming();
        if (!ok) {
            st.SkipWithError("pending change failed");
            break;
        }
    }
}
BENCHMARK(BM_first_set_pending)->Unit(benchmark::kMicrosecond);

// From the deadline to the rolled-back state (store restored, QoS applied again), polled every
// millisecond; a one-second time-out.
void BM_deadline_to_restored(benchmark::State &st) {
    int32_t dscp = 10;
    for (auto _ : st) {
        qmtnm_try_info info{};
        if (try_begin(1) != 0 || !set_qos(dscp) || try_state(&info) != 0) {
            st.SkipWithError("pending change failed");
            break;
        }
        const auto deadline = static_cast<time_t>(info.deadline);
        timespec now{};
        for (int i = 0; i < 10000 && info.phase == QMTNM_TRY_PENDING; ++i) {
            usleep(1000);
            try_state(&info);
        }
        clock_gettime(CLOCK_REALTIME, &now);
        if (info.phase != QMTNM_TRY_ROLLED_BACK) {
            st.SkipWithError("not rolled back within 10 s");
            break;
        }
        st.SetIterationTime(static_cast<double>(now.tv_sec - deadline) +
                            static_cast<double>(now.tv_nsec) * 1e-9);
    }
}
BENCHMARK(BM_deadline_to_restored)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char **argv) {
    bench::prepare();
    load_library();
    return bench::run(argc, argv);
}
