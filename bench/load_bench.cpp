// Load time of the library: dlopen() with its start-up (the semaphores of every instance, the
// activate flag in shared memory, openlog) and dlclose() with its shut-down. This program is
// not linked with the library, so each dlopen() maps it afresh.
//
// Argument 0: libsysconf (and with it SQLite) is held loaded by the program, so a round maps
// libqmtnm alone. Argument 1: nothing is held, so a round maps and unmaps libqmtnm, libsysconf
// and SQLite, as the first load in a process does.
#include "bench_env.h"

#include <dlfcn.h>

namespace {

bool loaded(const char *path) {
    void *h = dlopen(path, RTLD_NOW | RTLD_NOLOAD);
    if (h != nullptr)
        dlclose(h);
    return h != nullptr;
}

void BM_load_library(benchmark::State &st) {
    bool with_deps = st.range(0) == 1;
    void *held = with_deps ? nullptr : dlopen(QMTNM_SYSCONF_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    if (!with_deps && held == nullptr) {
        st.SkipWithError(dlerror());
        return;
    }
    if (loaded(QMTNM_LIBRARY) || (with_deps && loaded(QMTNM_SYSCONF_LIBRARY))) {
        st.SkipWithError("a library to be measured is already loaded");
        return;
    }
    for (auto _ : st) {
        void *h = dlopen(QMTNM_LIBRARY, RTLD_NOW | RTLD_LOCAL);
        if (h == nullptr) {
            st.SkipWithError(dlerror());
            break;
        }
        dlclose(h);
    }
    // Each round must have loaded and unloaded what it claims to, or the figure is that of a
    // reference count.
    if (loaded(QMTNM_LIBRARY))
        st.SkipWithError("dlclose() left libqmtnm loaded");
    else if (with_deps && loaded(QMTNM_SYSCONF_LIBRARY))
        st.SkipWithError("dlclose() left libsysconf loaded");
    if (held != nullptr)
        dlclose(held);
}
BENCHMARK(BM_load_library)->ArgName("with_deps")->Arg(0)->Arg(1);

} // namespace

int main(int argc, char **argv) {
    bench::prepare();
    return bench::run(argc, argv);
}
