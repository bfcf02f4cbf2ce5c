// Shared between the store's directive interface and its text form.
#pragma once

#include <sqlite3.h>
#include <string_view>

namespace sysconf_internal {

// Runs fn on the process's connection under its lock; QMT_CONF_ESTORE if the store won't open.
int with_db(int (*fn)(sqlite3 *, void *), void *ctx);
// A value path: domain/section/key at least, components non-empty, "#<digits>" elements.
bool valid_path(std::string_view path);
// Deletes the value at path and everything below it, in one transaction.
int delete_tree(const char *path);

} // namespace sysconf_internal
