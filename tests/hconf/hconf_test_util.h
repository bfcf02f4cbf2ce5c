// Helpers of the hardware-store and common-helper tests: standard output capture, child
// processes with captured output, and files.
#pragma once

#include "qmt_hconf.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace hconftest {

// What fn printed to standard output (the library's printf messages and dumps).
template <class Fn> std::string stdout_of(Fn fn) {
    fflush(stdout);
    testing::internal::CaptureStdout();
    fn();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

struct free_delete {
    void operator()(void *p) const { free(p); }
};
using entry_ptr = std::unique_ptr<qmt_hconf_entry_rec, free_delete>;
using header_ptr = std::unique_ptr<qmt_hconf_header_rec, free_delete>;

// Exit status and output (standard output and standard error together) of a command.
struct run_result {
    int status = -1; // exit status, or 128 + signal
    std::string out;
};

// argv0 may hold an emulator in front of the program ("qemu-mipsel -L /sysroot prog"). The
// program is started without a shell, so that nothing but the program sees LD_PRELOAD.
inline run_result run(const std::string &argv0, const std::vector<std::string> &args) {
    std::istringstream split(argv0);
    std::vector<std::string> words{std::istream_iterator<std::string>(split), {}};
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char *> argv;
    for (std::string &w : words)
        argv.push_back(w.data());
    argv.push_back(nullptr);

    run_result r;
    int p[2];
    if (pipe(p) != 0)
        return r;
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(p[1], 1);
        dup2(p[1], 2);
        close(p[0]);
        close(p[1]);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    close(p[1]);
    char buf[4096];
    ssize_t n;
    while ((n = read(p[0], buf, sizeof buf)) > 0)
        r.out.append(buf, static_cast<size_t>(n));
    close(p[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return r;
}

// The whole file, or "<missing>" when it cannot be opened.
inline std::string read_file(const std::string &path) {
    std::ifstream f(path, std::ios::binary);
    return f ? std::string(std::istreambuf_iterator<char>(f), {}) : "<missing>";
}

inline void write_file(const std::string &path, const std::string &text) {
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    f << text;
    ASSERT_TRUE(f.good()) << path;
}

inline bool exists(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

// A fresh directory for one test.
inline std::string fresh_dir(const char *tag) {
    std::string templ = std::string("/tmp/") + tag + ".XXXXXX";
    if (mkdtemp(templ.data()) == nullptr)
        ADD_FAILURE() << "mkdtemp " << templ;
    return templ;
}

} // namespace hconftest
