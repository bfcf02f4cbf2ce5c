// Owners of the C resources the library uses: descriptors, streams and heap blocks from
// malloc/calloc, released on every path out of a function.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <unistd.h>

namespace nm {

class unique_fd {
  public:
    explicit unique_fd(int fd) : fd_(fd) {}
    ~unique_fd() {
        if (fd_ >= 0)
            close(fd_);
    }
    unique_fd(const unique_fd &) = delete;
    unique_fd &operator=(const unique_fd &) = delete;

    int get() const { return fd_; }
    bool ok() const { return fd_ >= 0; }

  private:
    int fd_;
};

struct file_close {
    void operator()(FILE *f) const { fclose(f); }
};
using unique_file = std::unique_ptr<FILE, file_close>;

struct free_delete {
    void operator()(void *p) const { free(p); }
};
template <class T> using unique_heap = std::unique_ptr<T, free_delete>;

// getline()'s buffer, released however the reading ends: a line is read whole, however long.
struct line_buffer {
    line_buffer() = default;
    line_buffer(const line_buffer &) = delete;
    line_buffer &operator=(const line_buffer &) = delete;
    ~line_buffer() { free(text); }
    ssize_t read(FILE *f) { return getline(&text, &cap, f); }
    char *text = nullptr;
    size_t cap = 0;
};

} // namespace nm
