// Load time of the library: dlopen() with its start-up (the semaphores of every instance, the
// activate flag in shared memory, openlog) and dlclose() with its shut-down. This program is
// not linked with the library, so each dlopen() maps it afresh, with libsysconf and SQLite.
#include "bench_env.h"

#include <dlfcn.h>

namespace {

bool loaded() {
    void *h = dlopen(QMTNM_LIBRARY, RTLD_NOW | RTLD_NOLOAD);
    if (h != nullptr)
        dlclose(h);
    return h != nullptr;
}

void BM_load_library(benchmark::State &st) {
    if (loaded()) {
        st.SkipWithError("libqmtnm is already loaded");
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
    // Each round must have loaded and unloaded it, or the figure is that of a reference count.
    if (loaded())
        st.SkipWithError("dlclose() left libqmtnm loaded");
}
BENCHMARK(BM_load_library);

} // namespace

int main(int argc, char **argv) {
    bench::prepare();
    return bench::run(argc, argv);
}
