// Shared between the store's directive interface and its text form.
#pragma once

#include <sqlite3.h>
#include <string_view>

namespace sysconf_internal {

// s.substr(pos, n) that clamps instead of throwing: the store links no C++ runtime.
inline std::string_view slice(std::string_view s, size_t pos, size_t n = std::string_view::npos) {
    if (pos > s.size())
        pos = s.size();
    if (n > s.size() - pos)
        n = s.size() - pos;
    return std::string_view(s.data() + pos, n);
}

// What a call does with the store: read; write (and may run again after a failure, as a single
// replaced or deleted value may); or write once (a load consumes its input).
enum class access { read, write, write_once };

// Runs fn on the process's connection under its lock; QMT_CONF_ESTORE if the store won't open.
int with_db(access how, int (*fn)(sqlite3 *, void *), void *ctx);
// A value path: domain/section/key at least, components non-empty, "#<digits>" elements.
bool valid_path(std::string_view path);
// Deletes the value at path and everything below it, in one transaction.
int delete_tree(const char *path);

} // namespace sysconf_internal
