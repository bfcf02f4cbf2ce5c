// hconf: command-line access to the hardware-configuration store through libqmtnm.
//
//   hconf save [FILE]   every entry in text form, one a line, to FILE or standard output
//   hconf update FILE   writes every entry of FILE into the store (no sync)
//   hconf header        prints the store's header
//   hconf read ID       prints the entry with that id
//   hconf write TEXT    writes one entry given in text form ("0x1000002:0:4:c0a8010a")
//   hconf delete ID     deletes the entry with that id
//   hconf sync          commits the store to its backing medium
//   hconf clear         empties the store
// The library prints its own messages; the exit status is 0 when the call returned 0, 1 when
// it failed (or, for save, when FILE cannot be written) and 2 for a usage error.
#include "qmt_hconf.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

struct free_delete {
    void operator()(void *p) const { free(p); }
};

// Usage on stderr (status 2), or for --help on stdout (status 0).
int usage(FILE *out = stderr) {
    fputs("usage: hconf save [FILE] | update FILE | header | read ID | write TEXT |\n"
          "             delete ID | sync | clear\n",
          out);
    return out == stdout ? 0 : 2;
}

bool parse_id(const char *text, unsigned long *id) {
    char *end = nullptr;
    errno = 0;
    unsigned long v = strtoul(text, &end, 0);
    if (end == text || *end != '\0' || errno != 0 || v > 0xFFFFFFFFul) {
        fprintf(stderr, "hconf: bad id: %s\n", text);
        return false;
    }
    *id = v;
    return true;
}

int status(int result) {
    return result == 0 ? 0 : 1;
}

// The library reports an output file it cannot open by its message alone (result 0); the
// tool checks the file first so that its exit status tells.
int save(const char *path) {
    if (path != nullptr) {
        FILE *f = fopen(path, "a");
        if (f == nullptr) {
            fprintf(stderr, "hconf: cannot write %s: %s\n", path, strerror(errno));
            return 1;
        }
        fclose(f);
    }
    return status(qmt_hconf_save(path));
}

int read_entry(unsigned long id) {
    // Room for the largest data an entry can hold.
    constexpr uint16_t kRoom = 0xFFFF;
    std::unique_ptr<qmt_hconf_entry_rec, free_delete> entry(
        static_cast<qmt_hconf_entry_rec *>(calloc(1, sizeof(qmt_hconf_entry_rec) + kRoom)));
    if (!entry) {
        fprintf(stderr, "hconf: out of memory\n");
        return 1;
    }
    entry->id = static_cast<uint32_t>(id);
    entry->len = kRoom;
    return status(qmt_hconf_read_entry(entry.get()));
}

int write_entry(const char *text) {
    std::unique_ptr<qmt_hconf_entry_rec, free_delete> entry(qmt_hconf_entry(text));
    if (!entry)
        return 1;
    return status(qmt_hconf_write_entry(entry.get()));
}

} // namespace

int main(int argc, char **argv) {
    if (argc < 2)
        return usage();
    const char *cmd = argv[1];
    if (strcmp(cmd, "-h") == 0 || strcmp(cmd, "--help") == 0)
        return usage(stdout);
    const char *arg = argc > 2 ? argv[2] : nullptr;
    int nargs = argc - 2;
    unsigned long id = 0;

    if (strcmp(cmd, "save") == 0 && nargs <= 1)
        return save(arg);
    if (strcmp(cmd, "update") == 0 && nargs == 1)
        return status(qmt_hconf_update(arg));
    if (strcmp(cmd, "header") == 0 && nargs == 0) {
        qmt_hconf_header_rec header = {};
        return status(qmt_hconf_read_header(&header));
    }
    if (strcmp(cmd, "read") == 0 && nargs == 1)
        return parse_id(arg, &id) ? read_entry(id) : 2;
    if (strcmp(cmd, "write") == 0 && nargs == 1)
        return write_entry(arg);
    if (strcmp(cmd, "delete") == 0 && nargs == 1)
        return parse_id(arg, &id) ? status(qmt_hconf_del_entry(id)) : 2;
    if (strcmp(cmd, "sync") == 0 && nargs == 0)
        return status(qmt_hconf_sync());
    if (strcmp(cmd, "clear") == 0 && nargs == 0)
        return status(qmt_hconf_clear());
    return usage();
}
