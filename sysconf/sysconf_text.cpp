// Text form of the settings store: one "path = value" line per value, where a value is a
// decimal integer or a double-quoted string. Used by the sysconf tool and the shipped defaults.
#include "qmt_conf.h"
#include "sysconf_internal.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace {

using sysconf_internal::slice;
using sysconf_internal::valid_path;

constexpr size_t kMaxText = 4096; // longest string value of the text form
constexpr const char *kInsertSql = "INSERT OR REPLACE INTO conf(path,value) VALUES(?1,?2)";

// One value of the text form (plain storage, filled by parse_value). Strings are unescaped
// into text.
struct value {
    bool is_int;
    long long ival;
    char text[kMaxText + 1];
    size_t len;
};

// Writes s quoted and escaped through put(ch) calls.
template <class Put> void quote(const char *s, Put put) {
    put('"');
    for (; *s; ++s) {
        char esc = *s == '"' ? '"' : *s == '\\' ? '\\' : *s == '\n' ? 'n' : *s == '\t' ? 't' : 0;
        if (esc) {
            put('\\');
            put(esc);
        } else {
            put(*s);
        }
    }
    put('"');
}

// Parses a value text: an integer, or a quoted string with escapes. False if neither.
bool parse_value(std::string_view text, value &v) {
    if (!text.empty() && text.front() == '"') {
        if (text.size() < 2 || text.back() != '"')
            return false;
        std::string_view body = slice(text, 1, text.size() - 2);
        v.is_int = false;
        v.len = 0;
        for (size_t i = 0; i < body.size(); ++i) {
            char ch = body[i];
            if (ch == '"' || v.len == kMaxText)
                return false;
            if (ch == '\\') {
                if (++i == body.size())
                    return false;
                switch (body[i]) {
                case 'n':
                    ch = '\n';
                    break;
                case 't':
                    ch = '\t';
                    break;
                case '"':
                    ch = '"';
                    break;
                case '\\':
                    ch = '\\';
                    break;
                default:
                    return false;
                }
            }
            v.text[v.len++] = ch;
        }
        v.text[v.len] = '\0';
        return true;
    }
    char num[24];
    if (text.empty() || text.size() >= sizeof num)
        return false;
    memcpy(num, text.data(), text.size());
    num[text.size()] = '\0';
    char *end = nullptr;
    errno = 0;
    long long n = strtoll(num, &end, 10);
    if (*end != '\0' || errno != 0 || n < INT_MIN || n > INT_MAX)
        return false;
    v.is_int = true;
    v.ival = n;
    return true;
}

std::string_view trim(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t'))
        s.remove_prefix(1);
    while (!s.empty() &&
           (s.back() == ' ' || s.back() == '\t' || s.back() == '\n' || s.back() == '\r'))
        s.remove_suffix(1);
    return s;
}

// "path = value"; false for a malformed line. path points into line.
bool parse_line(std::string_view line, std::string_view &path, value &v) {
    size_t eq = line.find('=');
    if (eq == std::string_view::npos)
        return false;
    path = trim(slice(line, 0, eq));
    return valid_path(path) && parse_value(trim(slice(line, eq + 1)), v);
}

int insert(sqlite3_stmt *s, std::string_view path, const value &v) {
    sqlite3_reset(s);
    sqlite3_bind_text(s, 1, path.data(), static_cast<int>(path.size()), SQLITE_TRANSIENT);
    if (v.is_int)
        sqlite3_bind_int64(s, 2, v.ival);
    else
        sqlite3_bind_text(s, 2, v.text, static_cast<int>(v.len), SQLITE_TRANSIENT);
    return sqlite3_step(s) == SQLITE_DONE ? 0 : QMT_CONF_ESTORE;
}

// Reads "path = value" lines from in and stores them in one transaction, optionally emptying
// the store first. A malformed line rolls everything back.
struct load_job {
    FILE *in;
    bool replace;
};

int load_lines(sqlite3 *db, sqlite3_stmt *s, load_job &job) {
    if (job.replace && sqlite3_exec(db, "DELETE FROM conf", nullptr, nullptr, nullptr) != SQLITE_OK)
        return QMT_CONF_ESTORE;
    char *line = nullptr;
    size_t cap = 0;
    ssize_t n;
    int loaded = 0, r = 0;
    auto *v = static_cast<value *>(malloc(sizeof(value)));
    if (v == nullptr)
        return QMT_CONF_ESTORE;
    while (r == 0 && (n = getline(&line, &cap, job.in)) >= 0) {
        std::string_view text = trim(std::string_view(line, static_cast<size_t>(n)));
        if (text.empty() || text.front() == '#')
            continue;
        std::string_view path;
        if (!parse_line(text, path, *v))
            r = QMT_CONF_EFORMAT;
        else if ((r = insert(s, path, *v)) == 0)
            ++loaded;
    }
    free(v);
    free(line);
    return r < 0 ? r : loaded;
}

int run_load(sqlite3 *db, void *ctx) {
    auto *job = static_cast<load_job *>(ctx);
    if (sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) != SQLITE_OK)
        return QMT_CONF_ESTORE;
    sqlite3_stmt *s = nullptr;
    int r = QMT_CONF_ESTORE;
    if (sqlite3_prepare_v2(db, kInsertSql, -1, &s, nullptr) == SQLITE_OK)
        r = load_lines(db, s, *job);
    sqlite3_finalize(s);
    if (r >= 0 && sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK)
        return r;
    sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
    return r < 0 ? r : QMT_CONF_ESTORE;
}

// One value stored on its own (an autocommit transaction).
struct set_job {
    const char *path;
    const value *v;
};

int run_set(sqlite3 *db, void *ctx) {
    auto *job = static_cast<set_job *>(ctx);
    sqlite3_stmt *s = nullptr;
    int r = QMT_CONF_ESTORE;
    if (sqlite3_prepare_v2(db, kInsertSql, -1, &s, nullptr) == SQLITE_OK)
        r = insert(s, job->path, *job->v);
    sqlite3_finalize(s);
    return r;
}

// Prints column col of the current row in the text form.
void print_value(FILE *out, sqlite3_stmt *s, int col) {
    if (sqlite3_column_type(s, col) == SQLITE_INTEGER)
        fprintf(out, "%lld", static_cast<long long>(sqlite3_column_int64(s, col)));
    else
        quote(reinterpret_cast<const char *>(sqlite3_column_text(s, col)),
              [out](char ch) { fputc(ch, out); });
}

struct dump_job {
    FILE *out;
    const char *prefix;
};

int run_dump(sqlite3 *db, void *ctx) {
    auto *job = static_cast<dump_job *>(ctx);
    sqlite3_stmt *s = nullptr;
    if (sqlite3_prepare_v2(db,
                           "SELECT path, value FROM conf WHERE substr(path,1,length(?1))=?1 "
                           "ORDER BY path",
                           -1, &s, nullptr) != SQLITE_OK)
        return QMT_CONF_ESTORE;
    sqlite3_bind_text(s, 1, job->prefix ? job->prefix : "", -1, SQLITE_STATIC);
    int rc;
    while ((rc = sqlite3_step(s)) == SQLITE_ROW) {
        fprintf(job->out, "%s = ", reinterpret_cast<const char *>(sqlite3_column_text(s, 0)));
        print_value(job->out, s, 1);
        fputc('\n', job->out);
    }
    sqlite3_finalize(s);
    return rc == SQLITE_DONE ? 0 : QMT_CONF_ESTORE;
}

struct get_job {
    const char *path;
    FILE *out; // receives the value's text form
};

int run_get(sqlite3 *db, void *ctx) {
    auto *job = static_cast<get_job *>(ctx);
    sqlite3_stmt *s = nullptr;
    if (sqlite3_prepare_v2(db, "SELECT value FROM conf WHERE path=?1", -1, &s, nullptr) !=
        SQLITE_OK)
        return QMT_CONF_ESTORE;
    sqlite3_bind_text(s, 1, job->path, -1, SQLITE_STATIC);
    int rc = sqlite3_step(s);
    if (rc == SQLITE_ROW)
        print_value(job->out, s, 0);
    sqlite3_finalize(s);
    return rc == SQLITE_ROW ? 0 : rc == SQLITE_DONE ? QMT_CONF_ENOENT : QMT_CONF_ESTORE;
}

} // namespace

extern "C" {

int sysconf_dump(FILE *out, const char *prefix) {
    dump_job job{out, prefix};
    return sysconf_internal::with_db(sysconf_internal::access::read, run_dump, &job);
}

int sysconf_load(FILE *in, int replace) {
    load_job job{in, replace != 0};
    return sysconf_internal::with_db(sysconf_internal::access::write_once, run_load, &job);
}

int sysconf_get_path(const char *path, char *str_out, size_t cap) {
    if (path == nullptr || str_out == nullptr || cap == 0 || !valid_path(path))
        return QMT_CONF_EFORMAT;
    // The text form goes to the caller's buffer, cut at its capacity and terminated.
    char *text = nullptr;
    size_t len = 0;
    FILE *out = open_memstream(&text, &len);
    if (out == nullptr)
        return QMT_CONF_ESTORE;
    get_job job{path, out};
    int r = sysconf_internal::with_db(sysconf_internal::access::read, run_get, &job);
    fclose(out);
    snprintf(str_out, cap, "%s", r == 0 && text ? text : "");
    free(text);
    return r;
}

int sysconf_set_path(const char *path, const char *value_text) {
    if (path == nullptr || value_text == nullptr || !valid_path(path) ||
        strchr(value_text, '\n') != nullptr)
        return QMT_CONF_EFORMAT;
    auto *v = static_cast<value *>(malloc(sizeof(value)));
    if (v == nullptr)
        return QMT_CONF_ESTORE;
    set_job job{path, v};
    int r = parse_value(trim(value_text), *v)
                ? sysconf_internal::with_db(sysconf_internal::access::write, run_set, &job)
                : QMT_CONF_EFORMAT;
    free(v);
    return r;
}

int sysconf_del_path(const char *path) {
    if (path == nullptr || !valid_path(path))
        return QMT_CONF_EFORMAT;
    return sysconf_internal::delete_tree(path);
}

} // extern "C"
