#include "support/test_support.h"

#include "qmt_conf.h"
#include "tools/areas.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace nmtest {

// ---- syslog ----

syslog_capture::syslog_capture() {
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    strcpy(addr.sun_path, "/dev/log");
    unlink(addr.sun_path);
    if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
        fprintf(stderr, "syslog_capture: cannot bind /dev/log: %s (run under tests/ns-run)\n",
                strerror(errno));
        abort();
    }
}

syslog_capture::~syslog_capture() {
    if (fd_ >= 0)
        close(fd_);
}

void syslog_capture::drain(int wait_ms) {
    char buf[2048];
    pollfd p{fd_, POLLIN, 0};
    while (poll(&p, 1, wait_ms) > 0) {
        ssize_t n = recv(fd_, buf, sizeof buf - 1, 0);
        if (n <= 0)
            break;
        buf[n] = '\0';
        log_line l{-1, buf};
        if (buf[0] == '<')
            l.priority = atoi(buf + 1);
        size_t body = l.text.find("]: ");
        if (body != std::string::npos)
            l.text.erase(0, body + 3);
        l.newline = l.text.find('\n') != std::string::npos;
        while (!l.text.empty() && (l.text.back() == '\n' || l.text.back() == '\0'))
            l.text.pop_back();
        lines_.push_back(l);
        wait_ms = 20;
    }
}

std::vector<log_line> syslog_capture::lines() {
    drain(50);
    return lines_;
}

std::vector<std::string> syslog_capture::texts() {
    std::vector<std::string> out;
    for (const log_line &l : lines())
        out.push_back(l.text);
    return out;
}

bool syslog_capture::contains(const std::string &text) {
    for (const log_line &l : lines())
        if (l.text == text)
            return true;
    return false;
}

void syslog_capture::clear() {
    drain(20);
    lines_.clear();
}

syslog_capture &logs() {
    static syslog_capture capture;
    return capture;
}

namespace {
// /dev/log must exist before the library's first message.
struct capture_environment : testing::Environment {
    void SetUp() override { logs(); }
};
const auto *registered = testing::AddGlobalTestEnvironment(new capture_environment);
} // namespace

std::string logged(const char *func, const std::string &text) {
    char prefix[64];
    snprintf(prefix, sizeof prefix, "%-20s--> ", func);
    return prefix + text;
}

// ---- activate flag ----

namespace {
uint32_t *map_flag() {
    int fd = shm_open("/lcl_activate", O_RDWR, 0);
    if (fd < 0)
        return nullptr;
    void *p = mmap(nullptr, 4, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    return p == MAP_FAILED ? nullptr : static_cast<uint32_t *>(p);
}
} // namespace

uint32_t activate_flag() {
    uint32_t *p = map_flag();
    if (p == nullptr)
        ADD_FAILURE() << "no /lcl_activate";
    uint32_t v = p ? *p : 0xDEADBEEF;
    if (p)
        munmap(p, 4);
    return v;
}

void set_activate_flag(uint32_t value) {
    uint32_t *p = map_flag();
    ASSERT_NE(p, nullptr);
    *p = value;
    munmap(p, 4);
}

// ---- settings store ----

void load_defaults() {
    FILE *f = fopen(QMTNM_SOURCE_DIR "/sysconf/defaults.conf", "r");
    ASSERT_NE(f, nullptr);
    int r = sysconf_load(f, 1);
    fclose(f);
    ASSERT_GT(r, 0);
}

std::string stored_str(const char *section, const char *key) {
    char buf[128] = {};
    if (qmt_conf_scanf("network", "%k%k%l%s", section, key, static_cast<int>(sizeof buf), buf) < 0)
        return "<missing>";
    return buf;
}

std::string stored(const std::string &path) {
    char buf[512] = {};
    return sysconf_get_path(path.c_str(), buf, sizeof buf) < 0 ? "<missing>" : buf;
}

void store(const std::string &path, const std::string &text) {
    EXPECT_GE(sysconf_set_path(path.c_str(), text.c_str()), 0) << path;
}

std::vector<char> record(const char *name, const std::string &words) {
    const cli::area *a = cli::find_area(name);
    if (a == nullptr || a->text_set) {
        EXPECT_NE(a, nullptr) << name;
        std::vector<char> text(words.begin(), words.end());
        text.push_back('\0');
        return text;
    }
    std::vector<char> rec(a->record_size);
    if (qmtnm_lcl_get(a->stored_id, rec.data(), rec.size()) < 0) // unreadable: from nothing
        std::fill(rec.begin(), rec.end(), 0);
    for (size_t at = 0; at < words.size();) {
        size_t end = std::min(words.find('|', at), words.size());
        std::string w = words.substr(at, end - at), key = w.substr(0, w.find('='));
        const char *value = w.c_str() + std::min(key.size() + 1, w.size());
        const cli::field *f = cli::find_field(*a, key.data(), key.size());
        std::string filled = value;
        if (f && value[0] == '*') // "*text": text repeated to the field's end, unterminated
            for (filled.clear(); filled.size() < f->size;)
                filled += value[1 + filled.size() % (strlen(value) - 1)];
        bool known = false;
        EXPECT_TRUE(f ? cli::parse_value(rec.data(), *f, filled.c_str())
                      : a->word && a->word(rec.data(), key.c_str(), value, &known))
            << name << ": " << w;
        at = end + 1;
    }
    return rec;
}

// ---- processes ----

sem_holder::sem_holder(const char *name) {
    int ready[2], release[2];
    if (pipe(ready) != 0 || pipe(release) != 0)
        abort();
    pid_ = fork();
    if (pid_ == 0) {
        close(ready[0]);
        close(release[1]);
        sem_t *s = sem_open(name, O_RDWR);
        if (s == SEM_FAILED || sem_wait(s) != 0)
            _exit(1);
        char c = 1;
        if (write(ready[1], &c, 1) != 1)
            _exit(1);
        while (read(release[0], &c, 1) > 0) {
        }
        sem_post(s);
        _exit(0);
    }
    close(ready[1]);
    close(release[0]);
    release_fd_ = release[1];
    char c = 0;
    if (read(ready[0], &c, 1) != 1)
        ADD_FAILURE() << "child could not take " << name;
    close(ready[0]);
}

sem_holder::~sem_holder() {
    close(release_fd_);
    int status = 0;
    waitpid(pid_, &status, 0);
}

namespace {
std::string read_all(FILE *f) {
    std::string out;
    char buf[512];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0)
        out.append(buf, n);
    return out;
}
} // namespace

std::string file_text(const char *path) {
    FILE *f = fopen(path, "r");
    if (f == nullptr)
        return "<missing>";
    std::string out = read_all(f);
    fclose(f);
    return out;
}

std::string sh(const std::string &cmd) {
    FILE *p = popen(cmd.c_str(), "r");
    if (p == nullptr)
        return {};
    std::string out = read_all(p);
    pclose(p);
    return out;
}

int64_t now_ms() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

} // namespace nmtest
