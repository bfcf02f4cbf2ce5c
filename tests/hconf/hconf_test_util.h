// Helpers of the hardware-store and common-helper tests: standard output capture, child
// processes with captured output, files and the stand-in driver's image.
#pragma once

#include "qmt_hconf.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
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

inline std::vector<uint8_t> data_of(const qmt_hconf_entry_rec *e) {
    return std::vector<uint8_t>(e->data, e->data + e->len);
}

// Exit status and output (standard output and standard error together) of a command.
struct run_result {
    int status = -1; // exit status, or 128 + signal
    std::string out;
};

// argv0 may hold an emulator in front of the program ("qemu-mipsel -L /sysroot prog").
inline run_result run(const std::string &argv0, const std::vector<std::string> &args) {
    std::vector<std::string> words;
    size_t pos = 0;
    while (pos < argv0.size()) {
        size_t end = argv0.find(' ', pos);
        if (end == std::string::npos)
            end = argv0.size();
        if (end > pos)
            words.push_back(argv0.substr(pos, end - pos));
        pos = end + 1;
    }
    for (const std::string &a : args)
        words.push_back(a);
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

inline bool read_file(const std::string &path, std::string *out) {
    FILE *f = fopen(path.c_str(), "rb");
    if (f == nullptr)
        return false;
    out->clear();
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0)
        out->append(buf, n);
    fclose(f);
    return true;
}

inline void write_file(const std::string &path, const std::string &text) {
    FILE *f = fopen(path.c_str(), "wb");
    ASSERT_NE(f, nullptr) << path;
    ASSERT_EQ(fwrite(text.data(), 1, text.size(), f), text.size());
    ASSERT_EQ(fclose(f), 0);
}

inline bool exists(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

// A fresh directory for one test.
inline std::string fresh_dir(const char *tag) {
    std::string templ = std::string("/tmp/") + tag + ".XXXXXX";
    std::vector<char> buf(templ.begin(), templ.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) == nullptr)
        ADD_FAILURE() << "mkdtemp " << templ;
    return buf.data();
}

// An entry of a store image, as the image holds it.
struct image_entry {
    uint32_t id;
    uint16_t type;
    std::vector<uint8_t> data;
    bool operator==(const image_entry &o) const {
        return id == o.id && type == o.type && data == o.data;
    }
};

// Decodes a 65536-byte image: header fields and the entries the header counts.
inline bool decode_image(const std::string &img, uint32_t *num, std::vector<image_entry> *out) {
    if (img.size() < 12)
        return false;
    auto u32 = [&](size_t off) {
        uint32_t v;
        memcpy(&v, img.data() + off, 4);
        return v;
    };
    auto u16 = [&](size_t off) {
        uint16_t v;
        memcpy(&v, img.data() + off, 2);
        return v;
    };
    if (u32(0) != QMT_HCONF_MAGIC)
        return false;
    *num = u32(4);
    out->clear();
    size_t off = 12;
    for (uint32_t i = 0; i < *num; ++i) {
        if (off + 8 > img.size())
            return false;
        uint16_t len = u16(off + 6);
        if (off + 8 + len > img.size())
            return false;
        const auto *d = reinterpret_cast<const uint8_t *>(img.data() + off + 8);
        out->push_back({u32(off), u16(off + 4), std::vector<uint8_t>(d, d + len)});
        off += 8 + len;
    }
    return true;
}

} // namespace hconftest
