// The settings store under faults, through the public calls with the activate flag clear (a set
// only stores): a full file system, writers killed with SIGKILL at random points, and several
// processes setting areas at once. Each case prints its figures (trials, writes, corrupt, lost).
#include "support/test_support.h"

#include "qmt_conf.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <random>
#include <string>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

// ---- the areas the cases set ----

struct span {
    size_t offset, size;
};

struct area_desc {
    const char *name;
    uint32_t id;
    lcl_instance *inst;
    int32_t store_code; // the area's settings-store failure
    const char *flush;  // the persist step, whose name prefixes its write-failure messages
    size_t size;
    std::vector<span> stored;       // the stored fields, in the order the flush writes them
    void (*fill)(int n, void *rec); // record number n; n and n + 1 differ
};

#define SPAN(rec, member)                                                                          \
    span {                                                                                         \
        offsetof(rec, member), sizeof(rec::member)                                                 \
    }

const area_desc kQos{"qos",
                     QMTNM_ID_QOS,
                     &qos_lcl,
                     QMTNM_ERR(QMTNM_MOD_QOS, QMTNM_R_STORE),
                     "flush_qos_config",
                     sizeof(qmtnm_qos_cfg),
                     {SPAN(qmtnm_qos_cfg, enable), SPAN(qmtnm_qos_cfg, dscp)},
                     [](int n, void *rec) {
                         auto *q = static_cast<qmtnm_qos_cfg *>(rec);
                         q->enable = 1;
                         q->dscp = n % 64;
                     }};

const area_desc kDdns{"ddns",
                      QMTNM_ID_DDNS,
                      &ddns_lcl,
                      QMTNM_ERR(QMTNM_MOD_DDNS, QMTNM_R_STORE),
                      "flush_ddns_info",
                      sizeof(qmtnm_ddns_cfg),
                      {SPAN(qmtnm_ddns_cfg, enable), SPAN(qmtnm_ddns_cfg, type),
                       SPAN(qmtnm_ddns_cfg, domain), SPAN(qmtnm_ddns_cfg, username),
                       SPAN(qmtnm_ddns_cfg, password)},
                      [](int n, void *rec) {
                          auto *d = static_cast<qmtnm_ddns_cfg *>(rec);
                          d->enable = 1;
                          d->type = 0;
                          snprintf(d->domain, sizeof d->domain, "d%d.example.net", n);
                          snprintf(d->username, sizeof d->username, "u%d", n);
                          snprintf(d->password, sizeof d->password, "p%d", n);
                      }};

const area_desc kPppoe{"pppoe",
                       QMTNM_ID_PPPOE,
                       &pppoe_lcl,
                       QMTNM_ERR(QMTNM_MOD_PPPOE, QMTNM_R_STORE),
                       "flush_pppoe_info",
                       sizeof(qmtnm_pppoe_cfg),
                       {SPAN(qmtnm_pppoe_cfg, enable), SPAN(qmtnm_pppoe_cfg, username),
                        SPAN(qmtnm_pppoe_cfg, password)},
                       [](int n, void *rec) {
                           auto *p = static_cast<qmtnm_pppoe_cfg *>(rec);
                           p->enable = 1;
                           snprintf(p->username, sizeof p->username, "user%d", n);
                           snprintf(p->password, sizeof p->password, "pw%d", n);
                       }};

using record = std::vector<char>;

record make(const area_desc &a, int n) {
    record r(a.size, 0);
    a.fill(n, r.data());
    return r;
}

int32_t set_n(const area_desc &a, int n) {
    record r = make(a, n);
    return qmtnm_lcl_set(a.id, r.data(), 0);
}

int32_t get_rec(const area_desc &a, record &out) {
    out.assign(a.size, 0);
    return qmtnm_lcl_get(a.id, out.data(), a.size);
}

bool field_eq(const span &f, const record &x, const record &y) {
    return memcmp(x.data() + f.offset, y.data() + f.offset, f.size) == 0;
}

// Whether got holds the first k stored fields of neu and the rest of old, for some k: what a
// flush that stopped (or was stopped) after k keys leaves.
bool old_or_new(const area_desc &a, const record &got, const record &old, const record &neu) {
    for (size_t k = 0; k <= a.stored.size(); ++k) {
        bool fits = true;
        for (size_t i = 0; i < a.stored.size() && fits; ++i)
            fits = field_eq(a.stored[i], got, i < k ? neu : old);
        if (fits)
            return true;
    }
    return false;
}

bool same(const area_desc &a, const record &x, const record &y) {
    for (const span &f : a.stored)
        if (!field_eq(f, x, y))
            return false;
    return true;
}

// ---- the database ----

struct db_check {
    std::string integrity; // the first row of PRAGMA integrity_check, or the error
    int rows = -1;
};

// Checks the database file as it is. Read-only (with a private index when the shared one
// cannot be used) writes nothing: a check on a full file system must not need space.
db_check check_db(const char *path, bool read_only) {
    db_check out;
    sqlite3 *db = nullptr;
    std::string uri = std::string("file:") + path + (read_only ? "?readonly_shm=1" : "");
    int flags = SQLITE_OPEN_URI | (read_only ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE);
    if (sqlite3_open_v2(uri.c_str(), &db, flags, nullptr) != SQLITE_OK) {
        out.integrity = std::string("open: ") + sqlite3_errmsg(db);
        sqlite3_close(db);
        return out;
    }
    sqlite3_busy_timeout(db, 10000);
    auto first = [&](const char *sql) {
        sqlite3_stmt *s = nullptr;
        std::string v;
        if (sqlite3_prepare_v2(db, sql, -1, &s, nullptr) == SQLITE_OK &&
            sqlite3_step(s) == SQLITE_ROW)
            v = reinterpret_cast<const char *>(sqlite3_column_text(s, 0));
        else
            v = std::string("error: ") + sqlite3_errmsg(db);
        sqlite3_finalize(s);
        return v;
    };
    out.integrity = first("PRAGMA integrity_check");
    std::string rows = first("SELECT count(*) FROM conf");
    out.rows = rows.rfind("error", 0) == 0 ? -1 : atoi(rows.c_str());
    sqlite3_close(db);
    return out;
}

// ---- processes ----

// Results a child leaves for the parent.
struct shared_block {
    int acked;        // last record number acknowledged
    int32_t code;     // the failing call's result
    int failed_at;    // the record number whose set failed, or -1
    int got_ok;       // the read-back matched what was expected
    int32_t get_code; // the read-back's result
    int sets, busy, other;
};

shared_block *shared_blocks(size_t n) {
    void *p = mmap(nullptr, n * sizeof(shared_block), PROT_READ | PROT_WRITE,
                   MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED)
        abort();
    memset(p, 0, n * sizeof(shared_block));
    return static_cast<shared_block *>(p);
}

// Runs fn in a child process (which opens a store connection of its own); its exit status.
template <class Fn> int in_child(Fn fn) {
    pid_t pid = fork();
    if (pid == 0)
        _exit(fn());
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void figures(const char *what, const std::string &text) {
    printf("[ figures  ] %s: %s\n", what, text.c_str());
    testing::Test::RecordProperty(what, text);
}

// Every case stores without applying and keeps the log quiet (children would block on a full
// log socket); the flag and level are restored afterwards.
class StoreFault : public testing::Test {
  protected:
    void SetUp() override {
        nmtest::set_activate_flag(0);
        nm_log_level = -1;
    }
    void TearDown() override {
        nmtest::set_activate_flag(1);
        nm_log_level = 1;
    }
};

// ---- a full file system ----

// A small tmpfs of its own, mounted in the test's private mount namespace.
class small_fs {
  public:
    small_fs(const char *dir, const char *size) : dir_(dir) {
        mkdir(dir, 0755);
        std::string opts = std::string("size=") + size;
        mounted_ = mount("store-fault", dir, "tmpfs", 0, opts.c_str()) == 0;
        db_ = dir_ + "/sysconf.db";
    }
    ~small_fs() {
        if (filler_ >= 0)
            close(filler_);
        if (mounted_)
            umount2(dir_.c_str(), MNT_DETACH);
    }
    bool mounted() const { return mounted_; }
    const char *db() const { return db_.c_str(); }
    // Writes into a filler file until the file system has no block left.
    void fill() {
        if (filler_ < 0)
            filler_ = open((dir_ + "/filler").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        static const char block[4096] = {};
        for (size_t n = sizeof block; n > 0; n /= 2)
            while (write(filler_, block, n) == static_cast<ssize_t>(n)) {
            }
    }
    void free_space() {
        close(filler_);
        filler_ = -1;
        unlink((dir_ + "/filler").c_str());
    }

  private:
    std::string dir_, db_;
    bool mounted_ = false;
    int filler_ = -1;
};

// In a child: the store at db, loaded with the factory settings.
int load_defaults_at(const char *db) {
    setenv("SYSCONF_DB", db, 1);
    FILE *f = fopen(QMTNM_SOURCE_DIR "/sysconf/defaults.conf", "r");
    int r = f ? sysconf_load(f, 1) : -1;
    if (f)
        fclose(f);
    return r > 0 ? 0 : 1;
}

// How the store's files stand when the file system fills up.
enum class files {
    closed,     // closed cleanly: the write-ahead log folded back and removed with its index
    log_empty,  // left open after the log was folded back and truncated: log empty, index kept
    log_frames, // left open as a library user leaves them: log holding the last writes
};

struct full_case {
    const char *what;
    const area_desc *area;
    files state;
    bool flush_fails; // else every set fits in the space of the log it folds back
};

// In a child: folds the log back and truncates it, then ends without closing.
int truncate_log(const char *db) {
    sqlite3 *h = nullptr;
    int frames = -1;
    // The connection knows the store is in WAL mode once it has read from it.
    return sqlite3_open(db, &h) != SQLITE_OK ||
           sqlite3_exec(h, "SELECT count(*) FROM conf", nullptr, nullptr, nullptr) != SQLITE_OK ||
           sqlite3_wal_checkpoint_v2(h, nullptr, SQLITE_CHECKPOINT_TRUNCATE, &frames, nullptr) !=
               SQLITE_OK ||
           frames != 0;
}

TEST_F(StoreFault, FullFileSystem) {
    const full_case cases[] = {
        {"QoS, store closed cleanly", &kQos, files::closed, true},
        {"DDNS, store closed cleanly", &kDdns, files::closed, true},
        {"QoS, log folded back and truncated", &kQos, files::log_empty, true},
        {"DDNS, log folded back and truncated", &kDdns, files::log_empty, true},
        {"DDNS, log holding the last writes", &kDdns, files::log_frames, false},
    };
    constexpr int kSets = 100;
    int n_case = 0, corrupt = 0, lost = 0, writes = 0, failed = 0;
    for (const full_case &c : cases) {
        const area_desc &a = *c.area;
        SCOPED_TRACE(c.what);
        std::string dir = "/tmp/store-full-" + std::to_string(n_case++);
        small_fs fs(dir.c_str(), "1m");
        ASSERT_TRUE(fs.mounted()) << strerror(errno);
        shared_block *res = shared_blocks(1);
        const char *db = fs.db();

        ASSERT_EQ(in_child([&] { return load_defaults_at(db) || set_n(a, 0) != 0; }), 0);
        const int rows = check_db(db, false).rows; // a read-write check that closes cleanly
        ASSERT_GT(rows, 0);
        res->acked = 0;
        if (c.state != files::closed) {
            ASSERT_EQ(in_child([&] {
                          return setenv("SYSCONF_DB", db, 1) || set_n(a, 1) != 0 ||
                                 (c.state == files::log_empty && truncate_log(db));
                      }),
                      0);
            res->acked = 1;
        }
        fs.fill();
        // Reads the record back: the last acknowledged one, or that one with the failed flush's
        // first keys new.
        auto read_back = [&] {
            record got;
            res->get_code = get_rec(a, got);
            res->got_ok = old_or_new(a, got, make(a, res->acked), make(a, res->acked + 1));
        };

        // Sets until one fails, the filler taking every block the store gives back.
        nm_log_level = 0;
        nmtest::logs().clear();
        ASSERT_EQ(in_child([&] {
                      setenv("SYSCONF_DB", db, 1);
                      res->failed_at = -1;
                      for (int n = res->acked + 1, end = n + kSets; n < end; ++n) {
                          int32_t r = set_n(a, n);
                          if (r != 0) {
                              res->code = r;
                              res->failed_at = n;
                              break;
                          }
                          res->acked = n;
                          fs.fill();
                      }
                      read_back();
                      return 0;
                  }),
                  0);
        nm_log_level = -1;
        if (c.flush_fails) {
            ++failed;
            EXPECT_EQ(static_cast<uint32_t>(res->code), static_cast<uint32_t>(a.store_code))
                << "failed at " << res->failed_at;
            bool flush_failed = false;
            for (const std::string &line : nmtest::logs().texts())
                flush_failed |= line.rfind(nmtest::logged(a.flush, "write "), 0) == 0;
            EXPECT_TRUE(flush_failed) << "no write failure of " << a.flush << " in the log";
        } else {
            EXPECT_EQ(res->failed_at, -1)
                << "failed with 0x" << std::hex << static_cast<uint32_t>(res->code);
            writes += res->acked - 1;
        }
        // The writer still reads what it stored (at most the failed flush's first keys new).
        EXPECT_EQ(res->get_code, 0);
        EXPECT_TRUE(res->got_ok);

        // A process started afterwards, on the still full file system, reads it too.
        fs.fill();
        ASSERT_EQ(in_child([&] {
                      setenv("SYSCONF_DB", db, 1);
                      read_back();
                      return 0;
                  }),
                  0);
        EXPECT_EQ(static_cast<uint32_t>(res->get_code), 0u);
        EXPECT_TRUE(res->got_ok) << "a fresh reader lost the stored record";
        lost += !(res->got_ok && res->get_code == 0);

        db_check ck = check_db(db, true);
        EXPECT_EQ(ck.integrity, "ok");
        EXPECT_EQ(ck.rows, rows);
        corrupt += ck.integrity != "ok" || ck.rows != rows;

        // With space again, the next set is stored.
        fs.free_space();
        int next = res->acked + 2;
        EXPECT_EQ(in_child([&] {
                      setenv("SYSCONF_DB", db, 1);
                      record got;
                      return set_n(a, next) != 0 || get_rec(a, got) != 0 ||
                             !same(a, got, make(a, next));
                  }),
                  0)
            << "the store did not take writes again once space was freed";
        munmap(res, sizeof *res);
    }
    figures("full file system",
            std::to_string(std::size(cases)) + " cases: " + std::to_string(failed) +
                " flushes failed with the area's store code, " + std::to_string(writes) +
                " sets stored in the space of the store's own log, " + std::to_string(corrupt) +
                " corrupt, " + std::to_string(lost) + " lost");
}

TEST_F(StoreFault, SmallFileSystemKeepsTakingWrites) {
    // A store alone on 1 MB, its data a few kilobytes: its write-ahead log must not grow until
    // the file system is full.
    small_fs fs("/tmp/store-small", "1m");
    ASSERT_TRUE(fs.mounted()) << strerror(errno);
    const char *db = fs.db();
    shared_block *res = shared_blocks(1);
    constexpr int kSets = 600;
    ASSERT_EQ(in_child([&] {
                  if (load_defaults_at(db))
                      return 1;
                  res->failed_at = -1;
                  for (int n = 1; n <= kSets; ++n) {
                      int32_t r = set_n(kDdns, n);
                      if (r != 0) {
                          res->code = r;
                          res->failed_at = n;
                          return 0;
                      }
                      res->acked = n;
                  }
                  return 0;
              }),
              0);
    EXPECT_EQ(res->failed_at, -1) << "set " << res->failed_at << " failed with 0x" << std::hex
                                  << static_cast<uint32_t>(res->code);
    EXPECT_EQ(check_db(db, true).integrity, "ok");
    figures("small file system", std::to_string(res->acked) + " DDNS sets (" +
                                     std::to_string(res->acked * 5) + " writes) on 1 MB");
    munmap(res, sizeof *res);
}

// ---- writers killed at random points ----

struct kill_case {
    const char *what;
    const area_desc *area;
    int trials;
    bool after_first_set; // else the kill may land while the child starts and opens the store
    int max_delay_us;
};

TEST_F(StoreFault, WritersKilledAtRandomPointsLeaveOldOrNewValues) {
    const kill_case cases[] = {
        {"DDNS sets", &kDdns, 150, true, 3000},
        {"QoS sets", &kQos, 100, true, 2000},
        {"DDNS sets, from the child's start", &kDdns, 50, false, 3000},
    };
    nmtest::load_defaults();
    const char *db = sysconf_db_path();
    const int rows = check_db(db, false).rows;
    ASSERT_GT(rows, 0);
    unsigned seed = getenv("QMTNM_FAULT_SEED")
                        ? static_cast<unsigned>(atoi(getenv("QMTNM_FAULT_SEED")))
                        : std::random_device{}();
    std::mt19937 rng(seed);
    int trials = 0, writes = 0, corrupt = 0, lost = 0, inside = 0, base = 0;
    for (const kill_case &c : cases) {
        SCOPED_TRACE(c.what);
        const area_desc &a = *c.area;
        std::uniform_int_distribution<int> delay(0, c.max_delay_us);
        for (int t = 0; t < c.trials; ++t) {
            base += 100000;
            ASSERT_EQ(set_n(a, base), 0);
            int ack[2];
            ASSERT_EQ(pipe(ack), 0);
            pid_t pid = fork();
            if (pid == 0) {
                close(ack[0]);
                for (int n = base + 1;; ++n) {
                    if (set_n(a, n) != 0)
                        _exit(3);
                    if (write(ack[1], &n, sizeof n) != sizeof n)
                        _exit(4);
                }
            }
            close(ack[1]);
            int last = base, n = 0;
            if (c.after_first_set && read(ack[0], &n, sizeof n) == sizeof n)
                last = n;
            usleep(static_cast<useconds_t>(delay(rng)));
            kill(pid, SIGKILL);
            int status = 0;
            waitpid(pid, &status, 0);
            ASSERT_TRUE(WIFSIGNALED(status)) << "the writer ended by itself: " << status;
            while (read(ack[0], &n, sizeof n) == sizeof n)
                last = n;
            close(ack[0]);
            ++trials;
            writes += last - base;

            // Killed inside a set, the writer leaves the area's lock taken; nobody else is
            // inside, so the test gives it back.
            int v = -1;
            sem_getvalue(a.inst->set_sem, &v);
            ASSERT_LE(v, 1);
            if (v == 0) {
                ++inside;
                sem_post(a.inst->set_sem);
            }

            record got;
            bool kept =
                get_rec(a, got) == 0 && old_or_new(a, got, make(a, last), make(a, last + 1));
            EXPECT_TRUE(kept) << "trial " << t << ": last acknowledged " << last - base;
            lost += !kept;
            db_check ck = check_db(db, false);
            EXPECT_EQ(ck.integrity, "ok") << "trial " << t;
            EXPECT_EQ(ck.rows, rows) << "trial " << t;
            corrupt += ck.integrity != "ok" || ck.rows != rows;
        }
    }
    figures("writers killed",
            std::to_string(trials) + " trials (" + std::to_string(inside) + " inside a set), " +
                std::to_string(writes) + " sets acknowledged, " + std::to_string(corrupt) +
                " corrupt, " + std::to_string(lost) + " lost (seed " + std::to_string(seed) + ")");
}

// ---- several processes at once ----

struct writer {
    const area_desc *area;
    int count; // processes setting this area
};

TEST_F(StoreFault, ConcurrentSettersLoseNoWrite) {
    // Three areas of their own, and one area that four processes set at once.
    const writer plan[] = {{&kQos, 1}, {&kPppoe, 1}, {&kDdns, 4}};
    constexpr int kSets = 150;
    nmtest::load_defaults();
    const int rows = check_db(sysconf_db_path(), false).rows;
    ASSERT_GT(rows, 0);
    size_t procs = 0;
    for (const writer &w : plan)
        procs += static_cast<size_t>(w.count);
    shared_block *res = shared_blocks(procs);
    int start[2];
    ASSERT_EQ(pipe(start), 0);
    std::vector<pid_t> pids;
    size_t slot = 0;
    for (const writer &w : plan) {
        for (int k = 0; k < w.count; ++k, ++slot) {
            pid_t pid = fork();
            if (pid == 0) {
                close(start[1]);
                char go;
                if (read(start[0], &go, 1) != 0) // all start when the parent closes the pipe
                    _exit(2);
                shared_block &me = res[slot];
                me.acked = -1;
                for (int i = 1; i <= kSets; ++i) {
                    int n = static_cast<int>(slot) * 10000 + i;
                    int32_t r = set_n(*w.area, n);
                    ++me.sets;
                    if (r == 0)
                        me.acked = n;
                    else if (r == QMTNM_ERR(QMTNM_MODULE_CORE, QMTNM_R_BUSY))
                        ++me.busy;
                    else if (++me.other == 1)
                        me.code = r;
                }
                _exit(0);
            }
            pids.push_back(pid);
        }
    }
    close(start[0]);
    close(start[1]);
    for (pid_t pid : pids) {
        int status = 0;
        waitpid(pid, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    }

    int writes = 0, busy = 0, lost = 0;
    slot = 0;
    for (const writer &w : plan) {
        const area_desc &a = *w.area;
        SCOPED_TRACE(a.name);
        record got;
        ASSERT_EQ(get_rec(a, got), 0);
        // The final record is whole, and it is the last acknowledged set of one of the area's
        // writers: a set acknowledged after it would have replaced it.
        bool found = false;
        for (int k = 0; k < w.count; ++k, ++slot) {
            const shared_block &r = res[slot];
            EXPECT_EQ(r.other, 0) << "writer " << slot << " failed with 0x" << std::hex
                                  << static_cast<uint32_t>(r.code);
            writes += r.sets - r.busy - r.other;
            busy += r.busy;
            found |= r.acked > 0 && same(a, got, make(a, r.acked));
        }
        EXPECT_TRUE(found) << "the stored record is no writer's last acknowledged set";
        lost += !found;
    }
    db_check ck = check_db(sysconf_db_path(), false);
    EXPECT_EQ(ck.integrity, "ok");
    EXPECT_EQ(ck.rows, rows);
    figures("concurrent setters", std::to_string(procs) + " processes, " + std::to_string(writes) +
                                      " sets acknowledged, " + std::to_string(busy) + " busy, " +
                                      std::to_string(ck.integrity != "ok" || ck.rows != rows) +
                                      " corrupt, " + std::to_string(lost) + " of " +
                                      std::to_string(std::size(plan)) + " areas lost");
    munmap(res, procs * sizeof(shared_block));
}

} // namespace
