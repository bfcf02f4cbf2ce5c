// libsysconf: the settings store, one SQLite database of path -> value rows.
//
// A path is the domain and the components named by the format, joined by '/'; a list element
// is the component "#<index>" below the list's name. Every write is one autocommit
// transaction in WAL mode with synchronous=FULL, so a value is on disk when the call returns
// and a crash never leaves it half-written. Each process opens its own connection on first
// use; a child after fork() opens a fresh one instead of sharing its parent's.
//
// The store may share a small file system with other files and fill it up. Its write-ahead log
// grows to kLogMaxPages pages, then is folded back into the database and written again from its
// start (a write that overwrites the log in place syncs its data only, not the file's size). On
// a file system with little room the log is folded back and truncated sooner: once past
// kLogMinPages pages, whenever it holds more than a quarter of the space it and the free space
// make up. A write that fails (a full file system) is tried once more after the log has been
// folded back and truncated, which frees its space. A connection needs room for its shared
// index when it is the first to open the store; when that room is missing, a read is served by a
// read-only connection that keeps its index in memory, so what is stored stays readable on a full
// file system.
#include "qmt_conf.h"
#include "sysconf_internal.h"

#include <sqlite3.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <new>
#include <pthread.h>
#include <string_view>
#include <sys/statvfs.h>

#ifndef SYSCONF_DEFAULT_DB
#define SYSCONF_DEFAULT_DB "/var/conf/sysconf.db"
#endif

namespace {

constexpr int kBusyTimeoutMs = 10000;
constexpr size_t kMaxPath = 512;
constexpr int kLogMinPages = 32;   // of 4 KiB, SQLite's page size
constexpr int kLogMaxPages = 1000; // SQLite's own default (about 4 MiB)
constexpr int kLookPages = 4;
constexpr long long kFrameBytes = 4096 + 24; // a page in the log, with its frame header

// Folds the log back into the database and truncates it, giving its space back. Waits for
// nobody: a store busy with readers is left as it is. True when that was done.
bool fold_back_and_truncate(sqlite3 *db) {
    sqlite3_busy_timeout(db, 0);
    int rc = sqlite3_wal_checkpoint_v2(db, nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr);
    sqlite3_busy_timeout(db, kBusyTimeoutMs);
    return rc == SQLITE_OK;
}

// SQLite's log hook, after each commit with the log's length in pages: folds the log back when
// it is due, looking at the free space every kLookPages pages (looked_at: the log's length at the
// last look). The commit is durable already; a fold-back that cannot be done now (readers on an
// older state) is tried again at the next look.
int after_commit(void *looked_at, sqlite3 *db, const char *, int pages) {
    int &last = *static_cast<int *>(looked_at);
    if (pages < kLogMinPages || (pages >= last && pages < last + kLookPages))
        return SQLITE_OK;
    last = pages;
    const long long log = pages * kFrameBytes;
    const char *file = sqlite3_db_filename(db, "main");
    struct statvfs fs;
    const bool roomy =
        file != nullptr && statvfs(file, &fs) == 0 &&
        4 * log <= log + static_cast<long long>(fs.f_bavail) * static_cast<long long>(fs.f_frsize);
    if (!roomy)
        fold_back_and_truncate(db);
    else if (pages >= kLogMaxPages)
        sqlite3_wal_checkpoint_v2(db, nullptr, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
    return SQLITE_OK;
}

// ---- connection --------------------------------------------------------------------------

class connection {
  public:
    enum stmt_id { GET, PUT_INT, PUT_STR, DEL, DEL_TREE, RANGE, COUNT_ };

    bool open(const char *path) {
        if (sqlite3_open_v2(path, &db_,
                            SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                            nullptr) != SQLITE_OK) {
            close();
            return false;
        }
        sqlite3_busy_timeout(db_, kBusyTimeoutMs);
        char setup[320];
        snprintf(setup, sizeof setup,
                 "PRAGMA journal_mode=WAL;"
                 "PRAGMA synchronous=FULL;"
                 "PRAGMA journal_size_limit=%lld;"
                 "CREATE TABLE IF NOT EXISTS conf(path TEXT PRIMARY KEY NOT NULL, value) "
                 "WITHOUT ROWID;",
                 kLogMaxPages * kFrameBytes);
        if (sqlite3_exec(db_, setup, nullptr, nullptr, nullptr) != SQLITE_OK) {
            close();
            return false;
        }
        sqlite3_wal_hook(db_, after_commit, &log_looked_at_); // in place of SQLite's autocheckpoint
        return prepare();
    }

    // Reads only, with the shared index opened read-only, or kept in this connection's memory
    // when no other connection has it set up: needs no space on the file system.
    bool open_read_only(const char *path) {
        // "file:" URI: the path percent-encoded, every byte at most tripled.
        static const char kPrefix[] = "file:", kQuery[] = "?readonly_shm=1";
        size_t n = strlen(path);
        char *uri = static_cast<char *>(malloc(sizeof kPrefix + 3 * n + sizeof kQuery));
        if (uri == nullptr)
            return false;
        char *o = uri + snprintf(uri, sizeof kPrefix, "%s", kPrefix);
        for (const char *p = path; *p; ++p) {
            unsigned char ch = static_cast<unsigned char>(*p);
            if ((ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z') || (ch >= '0' && ch <= '9') ||
                strchr("/._-~", ch) != nullptr)
                *o++ = static_cast<char>(ch);
            else
                o += snprintf(o, 4, "%%%02X", ch);
        }
        memcpy(o, kQuery, sizeof kQuery);
        int rc = sqlite3_open_v2(
            uri, &db_, SQLITE_OPEN_READONLY | SQLITE_OPEN_URI | SQLITE_OPEN_NOMUTEX, nullptr);
        free(uri);
        if (rc != SQLITE_OK) {
            close();
            return false;
        }
        sqlite3_busy_timeout(db_, kBusyTimeoutMs);
        return prepare();
    }

    // After a failed write: folds the log back and truncates it. True when that was done, so
    // that the write is worth one more try.
    bool make_room() { return fold_back_and_truncate(db_); }

    sqlite3 *db() const { return db_; }

    // A prepared statement, reset and with its bindings cleared.
    sqlite3_stmt *use(stmt_id id) {
        sqlite3_stmt *s = stmts_[id];
        sqlite3_reset(s);
        sqlite3_clear_bindings(s);
        return s;
    }

    void close() {
        for (auto &s : stmts_) {
            sqlite3_finalize(s);
            s = nullptr;
        }
        if (db_)
            sqlite3_close_v2(db_);
        db_ = nullptr;
    }

  private:
    bool prepare() {
        static const char *const sql[COUNT_] = {
            "SELECT value FROM conf WHERE path=?1",
            "INSERT OR REPLACE INTO conf(path,value) VALUES(?1,?2)",
            "INSERT OR REPLACE INTO conf(path,value) VALUES(?1,?2)",
            "DELETE FROM conf WHERE path=?1",
            "DELETE FROM conf WHERE path>?1 AND path<?2",
            "SELECT path FROM conf WHERE path>?1 AND path<?2",
        };
        for (int i = 0; i < COUNT_; ++i) {
            if (sqlite3_prepare_v3(db_, sql[i], -1, SQLITE_PREPARE_PERSISTENT, &stmts_[i],
                                   nullptr) != SQLITE_OK) {
                close();
                return false;
            }
        }
        return true;
    }

    sqlite3 *db_ = nullptr;
    sqlite3_stmt *stmts_[COUNT_] = {};
    int log_looked_at_ = 0;
};

// The process's connection. After fork() the child must not touch its parent's connection
// (SQLite's locks belong to the parent's process) nor its mutex (another thread may have held
// it at the fork), so the child starts from a fresh state and abandons the inherited one.
struct process_store {
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    connection conn;
    bool batch = false;        // a transaction of several writes is open (sysconf_batch_begin)
    bool batch_failed = false; // one of its writes failed: it can only be rolled back
};

process_store *state = nullptr;
pthread_once_t state_once = PTHREAD_ONCE_INIT;

process_store *new_state() {
    void *mem = malloc(sizeof(process_store));
    return mem ? new (mem) process_store : nullptr;
}

void reset_in_child() {
    state = new_state();
}

void init_state() {
    state = new_state();
    pthread_atfork(nullptr, nullptr, reset_in_child);
}

const char *configured_path() {
    const char *env = getenv("SYSCONF_DB");
    return env && *env ? env : SYSCONF_DEFAULT_DB;
}

// The process's store with its lock taken, or null (no memory for it).
process_store *lock_store() {
    pthread_once(&state_once, init_state);
    process_store *st = state;
    if (st != nullptr)
        pthread_mutex_lock(&st->lock);
    return st;
}

// Runs fn(connection&) under the process's lock; QMT_CONF_ESTORE when the store won't open.
// A read runs on a read-only connection of its own when the process's connection cannot be
// opened; a failed write that may run again runs once more after the log made room.
template <class Fn> int with_store(sysconf_internal::access how, Fn fn) {
    using sysconf_internal::access;
    process_store *st = lock_store();
    if (st == nullptr)
        return QMT_CONF_ESTORE;
    int r = QMT_CONF_ESTORE;
    if (st->batch) { // a failed write spoils the batch; the room is made at its end
        r = how != access::read && st->batch_failed ? QMT_CONF_ESTORE : fn(st->conn);
        st->batch_failed |= how != access::read && r == QMT_CONF_ESTORE;
    } else if (st->conn.db() != nullptr || st->conn.open(configured_path())) {
        r = fn(st->conn);
        if (r == QMT_CONF_ESTORE && how == access::write && st->conn.make_room())
            r = fn(st->conn);
    } else if (how == access::read) {
        connection ro;
        if (ro.open_read_only(configured_path()))
            r = fn(ro);
        ro.close();
    }
    pthread_mutex_unlock(&st->lock);
    return r;
}

int step_done(sqlite3_stmt *s) {
    int rc = sqlite3_step(s);
    sqlite3_reset(s);
    return rc == SQLITE_DONE ? 0 : QMT_CONF_ESTORE;
}

// ---- paths -------------------------------------------------------------------------------

// Builds "domain/comp/comp/#i/..." with checks: components are non-empty, hold no '/', and do
// not start with '#' (reserved for list elements).
class path_builder {
  public:
    bool add(std::string_view comp) {
        if (comp.empty() || comp.find('/') != std::string_view::npos || comp[0] == '#')
            return false;
        return append(comp);
    }
    bool add_index(int index) {
        if (index < 0 || parts_ < 2)
            return false;
        char buf[16];
        snprintf(buf, sizeof buf, "#%d", index);
        return append(buf);
    }
    std::string_view str() const { return {path_, len_}; }
    int parts() const { return parts_; }

  private:
    bool append(std::string_view comp) {
        if (len_ + comp.size() + 1 > kMaxPath)
            return false;
        if (len_ != 0)
            path_[len_++] = '/';
        memcpy(path_ + len_, comp.data(), comp.size());
        len_ += comp.size();
        path_[len_] = '\0';
        ++parts_;
        return true;
    }
    char path_[kMaxPath + 1] = {};
    size_t len_ = 0;
    int parts_ = 0;
};

// The rows strictly below a path: path in (prefix + "/", prefix + "0"), '0' being '/' + 1.
struct subtree {
    explicit subtree(std::string_view prefix) : n(prefix.size() + 1) {
        memcpy(lo, prefix.data(), prefix.size());
        memcpy(hi, prefix.data(), prefix.size());
        lo[prefix.size()] = '/';
        hi[prefix.size()] = '0';
    }
    void bind(sqlite3_stmt *s) const {
        sqlite3_bind_text(s, 1, lo, static_cast<int>(n), SQLITE_STATIC);
        sqlite3_bind_text(s, 2, hi, static_cast<int>(n), SQLITE_STATIC);
    }
    char lo[kMaxPath + 1];
    char hi[kMaxPath + 1];
    size_t n;
};

void bind_path(sqlite3_stmt *s, std::string_view path) {
    sqlite3_bind_text(s, 1, path.data(), static_cast<int>(path.size()), SQLITE_STATIC);
}

// ---- values ------------------------------------------------------------------------------

int read_int(connection &c, std::string_view path, int *out) {
    sqlite3_stmt *s = c.use(connection::GET);
    bind_path(s, path);
    int rc = sqlite3_step(s);
    int result = QMT_CONF_ENOENT;
    if (rc == SQLITE_ROW) {
        if (sqlite3_column_type(s, 0) == SQLITE_INTEGER) {
            sqlite3_int64 v = sqlite3_column_int64(s, 0);
            result = (v < INT_MIN || v > INT_MAX) ? QMT_CONF_ETYPE : 0;
            if (result == 0)
                *out = static_cast<int>(v);
        } else {
            result = QMT_CONF_ETYPE;
        }
    } else if (rc != SQLITE_DONE) {
        result = QMT_CONF_ESTORE;
    }
    sqlite3_reset(s);
    return result;
}

// Copies at most cap - 1 bytes and always terminates (cap >= 1).
int read_str(connection &c, std::string_view path, char *buf, int cap) {
    sqlite3_stmt *s = c.use(connection::GET);
    bind_path(s, path);
    int rc = sqlite3_step(s);
    int result = QMT_CONF_ENOENT;
    if (rc == SQLITE_ROW) {
        const auto *text = reinterpret_cast<const char *>(sqlite3_column_text(s, 0));
        size_t n = text ? static_cast<size_t>(sqlite3_column_bytes(s, 0)) : 0;
        if (n > static_cast<size_t>(cap - 1))
            n = static_cast<size_t>(cap - 1);
        if (n)
            memcpy(buf, text, n);
        buf[n] = '\0';
        result = 0;
    } else if (rc != SQLITE_DONE) {
        result = QMT_CONF_ESTORE;
    }
    sqlite3_reset(s);
    return result;
}

int write_int(connection &c, std::string_view path, int v) {
    sqlite3_stmt *s = c.use(connection::PUT_INT);
    bind_path(s, path);
    sqlite3_bind_int(s, 2, v);
    return step_done(s);
}

int write_str(connection &c, std::string_view path, const char *v) {
    sqlite3_stmt *s = c.use(connection::PUT_STR);
    bind_path(s, path);
    sqlite3_bind_text(s, 2, v, -1, SQLITE_STATIC);
    return step_done(s);
}

// Deletes the value at path and everything below it, in one transaction (the batch's, when one
// is open).
int delete_path(connection &c, std::string_view path) {
    const bool own = sqlite3_get_autocommit(c.db()) != 0;
    if (own && sqlite3_exec(c.db(), "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) != SQLITE_OK)
        return QMT_CONF_ESTORE;
    sqlite3_stmt *s = c.use(connection::DEL);
    bind_path(s, path);
    int r = step_done(s);
    if (r == 0) {
        s = c.use(connection::DEL_TREE);
        const subtree below(path); // bound without a copy: lives until the step is done
        below.bind(s);
        r = step_done(s);
    }
    if (!own)
        return r;
    const char *end = r == 0 ? "COMMIT" : "ROLLBACK";
    if (sqlite3_exec(c.db(), end, nullptr, nullptr, nullptr) != SQLITE_OK) {
        sqlite3_exec(c.db(), "ROLLBACK", nullptr, nullptr, nullptr);
        return QMT_CONF_ESTORE;
    }
    return r;
}

// Number of elements of the list at path: one more than the highest element index in use.
int count_list(connection &c, std::string_view path, int *out) {
    sqlite3_stmt *s = c.use(connection::RANGE);
    const subtree below(path);
    below.bind(s);
    long highest = -1;
    int rc;
    while ((rc = sqlite3_step(s)) == SQLITE_ROW) {
        const auto *p = reinterpret_cast<const char *>(sqlite3_column_text(s, 0));
        const char *elem = p + below.n;
        if (*elem != '#')
            continue;
        char *end = nullptr;
        long idx = strtol(elem + 1, &end, 10);
        if (end != elem + 1 && (*end == '/' || *end == '\0') && idx > highest && idx < INT_MAX)
            highest = idx;
    }
    sqlite3_reset(s);
    if (rc != SQLITE_DONE)
        return QMT_CONF_ESTORE;
    *out = static_cast<int>(highest + 1);
    return 0;
}

// ---- format directives -------------------------------------------------------------------

enum class op { none, get_int, get_str, count, put_int, put_str, del };

struct request {
    path_builder path;
    op action = op::none;
    int capacity = -1;
    void *out = nullptr;
    const char *text = nullptr;
    int value = 0;
};

// Parses format, consuming arguments from ap. The last directive must be the value's (%s, %d,
// %z or %r); %l must stand right before a read's %s. Returns 0 or QMT_CONF_EFORMAT.
int parse(bool write, const char *domain, const char *format, va_list ap, request &rq) {
    if (domain == nullptr || format == nullptr || !rq.path.add(domain))
        return QMT_CONF_EFORMAT;
    bool pending_cap = false;
    for (const char *f = format; *f; f += 2) {
        if (f[0] != '%' || f[1] == '\0' || rq.action != op::none)
            return QMT_CONF_EFORMAT;
        if (pending_cap && f[1] != 's')
            return QMT_CONF_EFORMAT;
        switch (f[1]) {
        case 'k':
        case 'K': {
            const char *comp = va_arg(ap, const char *);
            if (comp == nullptr || !rq.path.add(comp))
                return QMT_CONF_EFORMAT;
            break;
        }
        case 'i':
            if (!rq.path.add_index(va_arg(ap, int)))
                return QMT_CONF_EFORMAT;
            break;
        case 'l':
            if (write)
                return QMT_CONF_EFORMAT;
            rq.capacity = va_arg(ap, int);
            if (rq.capacity < 1)
                return QMT_CONF_EFORMAT;
            pending_cap = true;
            break;
        case 's':
            if (write) {
                rq.text = va_arg(ap, const char *);
                if (rq.text == nullptr)
                    return QMT_CONF_EFORMAT;
                rq.action = op::put_str;
            } else {
                if (!pending_cap)
                    return QMT_CONF_EFORMAT;
                rq.out = va_arg(ap, char *);
                rq.action = op::get_str;
            }
            pending_cap = false;
            break;
        case 'd':
            if (write) {
                rq.value = va_arg(ap, int);
                rq.action = op::put_int;
            } else {
                rq.out = va_arg(ap, int *);
                rq.action = op::get_int;
            }
            break;
        case 'z':
            if (write)
                return QMT_CONF_EFORMAT;
            rq.out = va_arg(ap, int *);
            rq.action = op::count;
            break;
        case 'r':
            if (!write)
                return QMT_CONF_EFORMAT;
            rq.action = op::del;
            break;
        default:
            return QMT_CONF_EFORMAT;
        }
    }
    // A value sits at least at domain/section/key; a list count at domain/section/list.
    if (rq.action == op::none || rq.path.parts() < 3)
        return QMT_CONF_EFORMAT;
    if (rq.out == nullptr &&
        (rq.action == op::get_int || rq.action == op::get_str || rq.action == op::count))
        return QMT_CONF_EFORMAT;
    return 0;
}

int execute(request &rq) {
    bool reads = rq.action == op::get_int || rq.action == op::get_str || rq.action == op::count;
    auto how = reads ? sysconf_internal::access::read : sysconf_internal::access::write;
    return with_store(how, [&](connection &c) {
        std::string_view p = rq.path.str();
        switch (rq.action) {
        case op::get_int:
            return read_int(c, p, static_cast<int *>(rq.out));
        case op::get_str:
            return read_str(c, p, static_cast<char *>(rq.out), rq.capacity);
        case op::count:
            return count_list(c, p, static_cast<int *>(rq.out));
        case op::put_int:
            return write_int(c, p, rq.value);
        case op::put_str:
            return write_str(c, p, rq.text);
        case op::del:
            return delete_path(c, p);
        case op::none:
            break;
        }
        return QMT_CONF_EFORMAT;
    });
}

int conf_call(bool write, const char *domain, const char *format, va_list ap) {
    request rq;
    int r = parse(write, domain, format, ap, rq);
    return r < 0 ? r : execute(rq);
}

} // namespace

extern "C" {

int qmt_conf_scanf(const char *domain, const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    int r = conf_call(false, domain, format, ap);
    va_end(ap);
    return r;
}

int qmt_conf_printf(const char *domain, const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    int r = conf_call(true, domain, format, ap);
    va_end(ap);
    return r;
}

int sysconf_batch_begin(void) {
    process_store *st = lock_store();
    if (st == nullptr)
        return QMT_CONF_ESTORE;
    int r = QMT_CONF_EFORMAT;
    if (!st->batch) {
        r = QMT_CONF_ESTORE;
        if ((st->conn.db() != nullptr || st->conn.open(configured_path())) &&
            sqlite3_exec(st->conn.db(), "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) ==
                SQLITE_OK) {
            st->batch = true;
            st->batch_failed = false;
            r = 0;
        }
    }
    pthread_mutex_unlock(&st->lock);
    return r;
}

int sysconf_batch_end(int commit) {
    process_store *st = lock_store();
    if (st == nullptr)
        return QMT_CONF_ESTORE;
    int r = QMT_CONF_EFORMAT;
    if (st->batch) {
        sqlite3 *db = st->conn.db();
        bool stored = commit && !st->batch_failed &&
                      sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK;
        if (!sqlite3_get_autocommit(db))
            sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
        r = stored || !commit ? 0 : QMT_CONF_ESTORE;
        st->batch = false;
        if (r != 0) // a full file system: the log's space back for the caller's next try
            st->conn.make_room();
    }
    pthread_mutex_unlock(&st->lock);
    return r;
}

const char *sysconf_db_path(void) {
    return configured_path();
}

} // extern "C"

// The text form (dump, load, path access) lives in sysconf_text.cpp and uses these.
namespace sysconf_internal {

int with_db(access how, int (*fn)(sqlite3 *, void *), void *ctx) {
    return with_store(how, [&](connection &c) { return fn(c.db(), ctx); });
}

int delete_tree(const char *path) {
    return with_store(access::write, [&](connection &c) { return delete_path(c, path); });
}

bool valid_path(std::string_view path) {
    // At least domain/section/key; every component non-empty; '#' only as "#<digits>".
    int parts = 0;
    size_t start = 0;
    while (start <= path.size()) {
        size_t end = path.find('/', start);
        if (end == std::string_view::npos)
            end = path.size();
        std::string_view comp = slice(path, start, end - start);
        if (comp.empty())
            return false;
        if (comp[0] == '#') {
            if (comp.size() < 2 || parts < 2)
                return false;
            for (char ch : slice(comp, 1))
                if (ch < '0' || ch > '9')
                    return false;
        }
        ++parts;
        start = end + 1;
    }
    return parts >= 3 && path.size() <= kMaxPath;
}

} // namespace sysconf_internal
