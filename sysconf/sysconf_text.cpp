// Text form of the settings store: one "path = value" line per value, where a value is a
// decimal integer or a double-quoted string. Used by the sysconf tool and the shipped defaults.
#include "qmt_conf.h"
#include "sysconf_internal.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

using sysconf_internal::valid_path;

struct entry {
    std::string path;
    bool is_int = false;
    long long ival = 0;
    std::string sval;
};

void quote(const char *s, std::string &out) {
    out += '"';
    for (; *s; ++s) {
        switch (*s) {
        case '"':
            out += "\\\"";
            break;
        case '\\':
            out += "\\\\";
            break;
        case '\n':
            out += "\\n";
            break;
        case '\t':
            out += "\\t";
            break;
        default:
            out += *s;
        }
    }
    out += '"';
}

// Parses a value text: an integer, or a quoted string with escapes. Returns false if neither.
bool parse_value(std::string_view text, entry &e) {
    if (!text.empty() && text.front() == '"') {
        if (text.size() < 2 || text.back() != '"')
            return false;
        std::string_view body = text.substr(1, text.size() - 2);
        e.is_int = false;
        e.sval.clear();
        for (size_t i = 0; i < body.size(); ++i) {
            char ch = body[i];
            if (ch == '"')
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
            e.sval += ch;
        }
        return true;
    }
    std::string num(text);
    if (num.empty())
        return false;
    char *end = nullptr;
    errno = 0;
    long long v = strtoll(num.c_str(), &end, 10);
    if (*end != '\0' || errno != 0 || v < INT_MIN || v > INT_MAX)
        return false;
    e.is_int = true;
    e.ival = v;
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

// "path = value"; false for a malformed line.
bool parse_line(std::string_view line, entry &e) {
    size_t eq = line.find('=');
    if (eq == std::string_view::npos)
        return false;
    std::string_view path = trim(line.substr(0, eq));
    if (!valid_path(path))
        return false;
    e.path.assign(path);
    return parse_value(trim(line.substr(eq + 1)), e);
}

int bind_entry(sqlite3_stmt *s, const entry &e) {
    sqlite3_reset(s);
    sqlite3_bind_text(s, 1, e.path.c_str(), -1, SQLITE_STATIC);
    if (e.is_int)
        sqlite3_bind_int64(s, 2, e.ival);
    else
        sqlite3_bind_text(s, 2, e.sval.c_str(), -1, SQLITE_STATIC);
    return sqlite3_step(s) == SQLITE_DONE ? 0 : QMT_CONF_ESTORE;
}

// Writes entries in one transaction (optionally emptying the store first).
struct load_job {
    const std::vector<entry> *entries;
    bool replace;
};

int run_load(sqlite3 *db, void *ctx) {
    auto *job = static_cast<load_job *>(ctx);
    if (sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) != SQLITE_OK)
        return QMT_CONF_ESTORE;
    int r = 0;
    if (job->replace &&
        sqlite3_exec(db, "DELETE FROM conf", nullptr, nullptr, nullptr) != SQLITE_OK)
        r = QMT_CONF_ESTORE;
    sqlite3_stmt *s = nullptr;
    if (r == 0 && sqlite3_prepare_v2(db, "INSERT OR REPLACE INTO conf(path,value) VALUES(?1,?2)",
                                     -1, &s, nullptr) != SQLITE_OK)
        r = QMT_CONF_ESTORE;
    for (size_t i = 0; r == 0 && i < job->entries->size(); ++i)
        r = bind_entry(s, (*job->entries)[i]);
    sqlite3_finalize(s);
    if (r == 0 && sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK)
        return static_cast<int>(job->entries->size());
    sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
    return QMT_CONF_ESTORE;
}

struct dump_job {
    FILE *out;
    const char *prefix;
};

void append_value(sqlite3_stmt *s, int col, std::string &line) {
    if (sqlite3_column_type(s, col) == SQLITE_INTEGER)
        line += std::to_string(sqlite3_column_int64(s, col));
    else
        quote(reinterpret_cast<const char *>(sqlite3_column_text(s, col)), line);
}

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
    std::string line;
    while ((rc = sqlite3_step(s)) == SQLITE_ROW) {
        line.assign(reinterpret_cast<const char *>(sqlite3_column_text(s, 0)));
        line += " = ";
        append_value(s, 1, line);
        line += '\n';
        fputs(line.c_str(), job->out);
    }
    sqlite3_finalize(s);
    return rc == SQLITE_DONE ? 0 : QMT_CONF_ESTORE;
}

struct get_job {
    const char *path;
    std::string text;
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
        append_value(s, 0, job->text);
    sqlite3_finalize(s);
    return rc == SQLITE_ROW ? 0 : rc == SQLITE_DONE ? QMT_CONF_ENOENT : QMT_CONF_ESTORE;
}

} // namespace

extern "C" {

int sysconf_dump(FILE *out, const char *prefix) {
    dump_job job{out, prefix};
    return sysconf_internal::with_db(run_dump, &job);
}

int sysconf_load(FILE *in, int replace) {
    std::vector<entry> entries;
    char *line = nullptr;
    size_t cap = 0;
    ssize_t n;
    int result = 0;
    while ((n = getline(&line, &cap, in)) >= 0) {
        std::string_view text = trim(std::string_view(line, static_cast<size_t>(n)));
        if (text.empty() || text.front() == '#')
            continue;
        entry e;
        if (!parse_line(text, e)) {
            result = QMT_CONF_EFORMAT;
            break;
        }
        entries.push_back(std::move(e));
    }
    free(line);
    if (result < 0)
        return result;
    load_job job{&entries, replace != 0};
    return sysconf_internal::with_db(run_load, &job);
}

int sysconf_get_path(const char *path, char *str_out, size_t cap) {
    if (path == nullptr || str_out == nullptr || cap == 0 || !valid_path(path))
        return QMT_CONF_EFORMAT;
    get_job job{path, {}};
    int r = sysconf_internal::with_db(run_get, &job);
    if (r == 0)
        snprintf(str_out, cap, "%s", job.text.c_str());
    return r;
}

int sysconf_set_path(const char *path, const char *value_text) {
    if (path == nullptr || value_text == nullptr)
        return QMT_CONF_EFORMAT;
    std::string line = std::string(path) + " = " + value_text + "\n";
    entry e;
    if (!parse_line(line, e))
        return QMT_CONF_EFORMAT;
    std::vector<entry> one{e};
    load_job job{&one, false};
    int r = sysconf_internal::with_db(run_load, &job);
    return r < 0 ? r : 0;
}

int sysconf_del_path(const char *path) {
    if (path == nullptr || !valid_path(path))
        return QMT_CONF_EFORMAT;
    return sysconf_internal::delete_tree(path);
}

} // extern "C"
