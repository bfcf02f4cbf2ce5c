// Recorder of system(): the test executable defines system(), so the library's calls land here
// first (the executable's definition wins symbol lookup). Each command is recorded and then,
// unless a test turned that off, run by the C library's own system().
#include "support/test_support.h"

#include <dlfcn.h>
#include <mutex>

namespace {
std::mutex mu;
std::vector<std::string> recorded;
bool run = true;
} // namespace

extern "C" int system(const char *cmd) {
    bool run_it;
    {
        std::lock_guard<std::mutex> g(mu);
        if (cmd)
            recorded.emplace_back(cmd);
        run_it = run;
    }
    if (!run_it)
        return 0;
    using system_fn = int (*)(const char *);
    static auto real = reinterpret_cast<system_fn>(dlsym(RTLD_NEXT, "system"));
    return real(cmd);
}

namespace nmtest {

std::vector<std::string> commands() {
    std::lock_guard<std::mutex> g(mu);
    return recorded;
}

void clear_commands() {
    std::lock_guard<std::mutex> g(mu);
    recorded.clear();
}

void run_commands(bool r) {
    std::lock_guard<std::mutex> g(mu);
    run = r;
}

} // namespace nmtest
