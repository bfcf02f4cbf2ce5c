#include "bench_env.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace bench {

namespace {
// Whether the mount visible at `where` (the last one mounted there) came from `source`.
bool mounted_from(const char *where, const char *source) {
    FILE *f = fopen("/proc/self/mountinfo", "r");
    if (f == nullptr)
        return false;
    bool found = false;
    char line[1024];
    while (fgets(line, sizeof line, f)) {
        // id parent major:minor root mount-point options... - fstype source super-options
        char point[256], fstype[64], src[256];
        const char *dash = strstr(line, " - ");
        if (dash == nullptr || sscanf(line, "%*s %*s %*s %*s %255s", point) != 1 ||
            sscanf(dash + 3, "%63s %255s", fstype, src) != 2)
            continue;
        if (strcmp(point, where) == 0)
            found = strcmp(src, source) == 0;
    }
    fclose(f);
    return found;
}
} // namespace

void require_private_namespace() {
    // tests/ns-run mounts a fresh tmpfs named "nsrun" on /dev/shm.
    if (!mounted_from("/dev/shm", "nsrun")) {
        fprintf(stderr, "benchmark: run me under tests/ns-run (the library writes /dev/shm)\n");
        exit(2);
    }
}

void start_syslog_sink() {
    int ready[2];
    if (pipe(ready) != 0) {
        perror("pipe");
        exit(2);
    }
    pid_t parent = getpid();
    pid_t pid = fork();
    if (pid < 0) {
        perror("fork");
        exit(2);
    }
    if (pid == 0) {
        close(ready[0]);
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent)
            _exit(0);
        int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
        sockaddr_un addr = {};
        addr.sun_family = AF_UNIX;
        strcpy(addr.sun_path, "/dev/log");
        unlink(addr.sun_path);
        if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
            perror("syslog sink: bind /dev/log");
            _exit(1);
        }
        char c = 1;
        if (write(ready[1], &c, 1) != 1)
            _exit(1);
        close(ready[1]);
        char buf[2048];
        for (;;) {
            if (recv(fd, buf, sizeof buf, 0) < 0 && errno != EINTR)
                _exit(0);
        }
    }
    close(ready[1]);
    char c = 0;
    if (read(ready[0], &c, 1) != 1) {
        fprintf(stderr, "benchmark: the syslog sink did not start\n");
        exit(2);
    }
    close(ready[0]);
}

int64_t now_ns() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

void prepare() {
    require_private_namespace();
    start_syslog_sink();
}

int run(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

} // namespace bench
