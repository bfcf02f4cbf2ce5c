// The settings store: the library's formats, capacities and lists; stored settings as input to
// the start-up apply; and the store under faults (a full file system, writers killed at random
// points, several setters at once), with the database file checked through SQLite itself.
#include "support/test_support.h"

#include "qmt_conf.h"
#include "qmtnm.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cctype>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <random>
#include <semaphore.h>
#include <string>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr const char *D = "network";
using strings = std::vector<std::string>;
using nmtest::logged;
using nmtest::logs;

// ---- the library's access to the store ----

class Store : public testing::Test {
  protected:
    void SetUp() override { nmtest::load_defaults(); }
};

TEST_F(Store, ValuesRoundTripAndReplaceEachOther) {
    int v = -1;
    char buf[64];
    ASSERT_EQ(qmt_conf_printf(D, "%k%k%d", "network_qos", "dscp", -17), 0);
    ASSERT_EQ(qmt_conf_printf(D, "%k%k%k%d", "network_ipfilter", "common", "mode", -17), 0);
    ASSERT_EQ(qmt_conf_printf(D, "%k%k%d", "network_qos", "dscp", 46), 0);
    ASSERT_EQ(qmt_conf_scanf(D, "%k%k%d", "network_qos", "dscp", &v), 0);
    EXPECT_EQ(v, 46);
    ASSERT_EQ(qmt_conf_scanf(D, "%k%k%k%d", "network_ipfilter", "common", "mode", &v), 0);
    EXPECT_EQ(v, -17);
    for (const char *text : {"my ap 'quoted' \"x\"", ""}) { // %K names the key as %k does
        ASSERT_EQ(qmt_conf_printf(D, "%k%k%s", "network_softap", "ssid", text), 0);
        ASSERT_EQ(qmt_conf_scanf(D, "%k%K%l%s", "network_softap", "ssid", 64, buf), 0);
        EXPECT_STREQ(buf, text);
    }
    const struct {
        const char *stored;
        int cap;
        const char *expected;
    } cut[] = {{"255.255.255.255", 16, "255.255.255.255"},
               {"1234567890123456789", 16, "123456789012345"},
               {"br0-long", 6, "br0-l"},
               {"x", 1, ""}};
    for (const auto &r : cut) {
        ASSERT_EQ(qmt_conf_printf(D, "%k%k%s", "network_lan", "port", r.stored), 0);
        memset(buf, '#', sizeof buf);
        ASSERT_EQ(qmt_conf_scanf(D, "%k%k%l%s", "network_lan", "port", r.cap, buf), 0);
        EXPECT_STREQ(buf, r.expected);
        EXPECT_EQ(buf[r.cap], '#') << "wrote past the capacity " << r.cap;
    }
}

TEST_F(Store, IllFormedCallsAreRefusedAndWriteNothing) {
    int v = 0;
    EXPECT_EQ(qmt_conf_scanf(D, "%k%k%d", "network_qos", "nosuchkey", &v), QMT_CONF_ENOENT);
    EXPECT_LT(qmt_conf_scanf(D, "%k%k%d", "network_wan", "port", &v), 0); // a string, not an int
    const struct {
        bool write;
        const char *format;
    } formats[] = {
        {false, ""},         {false, "%k%k"},    {false, "%k%d"},     {false, "%k%k%x"},
        {false, "%k%kd"},    {false, "%k%k%s"},  {false, "%k%k%d%d"}, {false, "%k%k%r"},
        {false, "%k%k%l%d"}, {false, "%k%k%d "}, {false, "%"},        {false, "%k%k%l"},
        {true, "%k%k%z"},    {true, "%k%k%l%s"}, {true, "%k%k"},      {true, "%k%k%d%r"},
        {true, "%i%k%k%d"},  {true, "k%k%d"},
    };
    for (const auto &r : formats) { // arguments harmless for any prefix of the formats
        EXPECT_EQ(r.write ? qmt_conf_printf(D, r.format, "network_qos", "x", 16, 0, 0, 0)
                          : qmt_conf_scanf(D, r.format, "network_qos", "x", 16, &v, &v, &v),
                  QMT_CONF_EFORMAT)
            << r.format;
    }
    for (const char *key : {"", "a/b", "#1"})
        EXPECT_EQ(qmt_conf_printf(D, "%k%k%d", "network_qos", key, 1), QMT_CONF_EFORMAT) << key;
    EXPECT_EQ(qmt_conf_printf(D, "%k%k%s", "network_qos", "x", nullptr), QMT_CONF_EFORMAT);
    EXPECT_EQ(qmt_conf_printf(nullptr, "%k%k%d", "network_qos", "x", 1), QMT_CONF_EFORMAT);
    EXPECT_EQ(qmt_conf_printf(D, "%k%k%i%k%s", "network_ipfilter", "rules", -1, "x", "x"),
              QMT_CONF_EFORMAT);
    EXPECT_EQ(qmt_conf_scanf(D, "%k%k%d", "network_qos", "x", &v), QMT_CONF_ENOENT);
    const char bad[] = "network/network_qos/enable = 1\nnot a line\n"; // a load is all or nothing
    FILE *in = fmemopen(const_cast<char *>(bad), strlen(bad), "r");
    EXPECT_EQ(sysconf_load(in, 1), QMT_CONF_EFORMAT);
    fclose(in);
    EXPECT_EQ(nmtest::stored_str("network_wan", "port"), "eth0");
    ASSERT_EQ(qmt_conf_scanf(D, "%k%k%d", "network_qos", "enable", &v), 0);
    EXPECT_EQ(v, 0);
}

TEST_F(Store, ListsCountTheirElements) {
    auto count = [](const char *group) {
        int n = -1;
        EXPECT_EQ(qmt_conf_scanf(D, "%k%k%z", "network_ipfilter", group, &n), 0);
        return n;
    };
    EXPECT_EQ(count("rules"), 0);
    for (int i = 0; i < 3; ++i)
        for (const char *key : {"begin_ip", "end_ip"})
            ASSERT_EQ(qmt_conf_printf(D, "%k%k%i%k%d", "network_ipfilter", "rules", i, key, i), 0);
    EXPECT_EQ(count("rules"), 3);
    // The last element goes with its last key; a missing value is deleted without complaint.
    const std::pair<const char *, int> deletes[] = {{"begin_ip", 3}, {"end_ip", 2}, {"end_ip", 2}};
    for (const auto &[key, left] : deletes) {
        ASSERT_EQ(qmt_conf_printf(D, "%k%k%i%k%r", "network_ipfilter", "rules", 2, key), 0);
        EXPECT_EQ(count("rules"), left) << key;
    }
    EXPECT_EQ(count("common"), 0) << "a group is not a list";
    EXPECT_EQ(nmtest::stored_str("network_ipfilter", "rules/#1/end_ip"), "<missing>");
}

// ---- stored settings as input to the start-up apply ----

int32_t invalid(uint32_t id) {
    return QMTNM_ERR(QMTNM_MODULE(id), QMTNM_R_INVALID);
}

// Stores "section/key = value" lines below network/network_ as a hand-edited store holds them.
int tamper(const std::string &lines) {
    std::string text;
    for (size_t at = 0, nl; at < lines.size(); at = nl + 1) {
        nl = std::min(lines.find('\n', at), lines.size());
        text += "network/network_" + lines.substr(at, nl - at) + "\n";
    }
    FILE *in = fmemopen(text.data(), text.size(), "r");
    int r = sysconf_load(in, 0);
    fclose(in);
    return r;
}

const char *const kFiles[] = {
    "/var/nm/hostapd.conf", "/var/nm/miniupnpd.conf", "/var/conf/hosts",
    "/etc/cron/ddns.conf",  "/etc/ppp/pap-secrets",   "/etc/ppp/options",
    "/var/nm/udhcpd.conf",  "/var/nm/resolv.conf",    "/var/spool/cron/crontabs/root"};

strings files() {
    strings out;
    for (const char *f : kFiles)
        out.push_back(nmtest::file_text(f));
    return out;
}

const std::string S32(32, 's'), S33(33, 's'), U32(32, 'u'),
    H64(64, 'h'), D32 = std::string(24, 'd') + ".example";

const std::string refused; // by the read or the check, with the area's invalid code
const struct stored_row {
    uint32_t id;
    std::string lines;
    std::string shown; // else a command or a file shows the applied text
} kStoredRows[] = {
    {QMTNM_ID_IPFILTER,
     "ipfilter/common/enable = 1\nipfilter/common/index = 1\n"
     "ipfilter/rules/#0/begin_ip = \"1;touch /tmp/p;\"\n"
     "ipfilter/rules/#0/end_ip = \"1.1.1.9\"",
     refused},
    {QMTNM_ID_DDNS,
     "ddns/enable = 1\nddns/domain = \"x;touch /tmp/q;\"\nddns/username = \"u\"\n"
     "ddns/password = \"p\"",
     refused},
    {QMTNM_ID_STA,
     "sta/enable = 1\nsta/ssid = \"net\"\nsta/auth = 1\nsta/index = 1\n"
     "sta/password = \"$(reboot)x\"",
     refused},
    {QMTNM_ID_STA, "sta/enable = 1\nsta/ssid = \"" + S33 + "\"", refused},
    {QMTNM_ID_AP, "softap/auth = 3\nsoftap/password = \"12345678\\nwpa=0\"", refused},
    {QMTNM_ID_UPNP, "upnp/friendlyName = \"cam\\nsecure_mode=no\"", refused},
    {QMTNM_ID_BONJOUR, "bonjour/hostname = \"cam\\n10.6.6.6\\tevil\"", refused},
    {QMTNM_ID_PPPOE, "pppoe/enable = 1\npppoe/username = \"u\\nplugin /tmp/evil.so\"", refused},
    {QMTNM_ID_QOS, "qos/enable = 1\nqos/dscp = 99", refused},
    {QMTNM_ID_LAN, "lan/method = 7", refused},
    {QMTNM_ID_STA, "sta/enable = 1\nsta/ssid = \"" + S32 + "\"", "set_network 0 ssid '\"" + S32},
    {QMTNM_ID_DDNS,
     "ddns/enable = 1\nddns/domain = \"" + D32 + "\"\nddns/username = \"" + U32 +
         "\"\nddns/password = \"" + U32 + "\"",
     "hostname=" + D32 + "&"},
    {QMTNM_ID_PPPOE, "pppoe/enable = 1\npppoe/username = \"" + U32 + "\"\npppoe/password = \"p\"",
     "name \"" + U32 + "\"\n"},
    {QMTNM_ID_BONJOUR, "bonjour/hostname = \"" + H64 + "\"", "hostname '" + H64 + "'"},
};

// The station's read asks the supplicant for its state; the DDNS and PPPoE applies write into
// directories of their own.
class Stored : public nmtest::area_test {
    void SetUp() override {
        area_test::SetUp();
        nmtest::sh("echo wpa_state=INACTIVE >/var/nm/status_info;"
                   "mkdir -p /etc/cron /var/spool/cron/crontabs /etc/ppp");
    }
};

TEST_F(Stored, StartUpRefusesHostileOrTooLongStoredTextAndAppliesTheRest) {
    // Marking first, the wired ports, the filter before the services, the radios last.
    const std::vector<uint32_t> want = {
        QMTNM_ID_QOS,  QMTNM_ID_WAN,  QMTNM_ID_LAN,     QMTNM_ID_IPFILTER, QMTNM_ID_PPPOE,
        QMTNM_ID_DDNS, QMTNM_ID_UPNP, QMTNM_ID_BONJOUR, QMTNM_ID_AP,       QMTNM_ID_STA};
    std::vector<uint32_t> order(QMTNM_ID_COUNT);
    order.resize(qmtnm_lcl_boot_order(order.data(), QMTNM_ID_COUNT));
    EXPECT_EQ(order, want);
    for (const stored_row &r : kStoredRows) {
        const std::string name = get_lcl_instance(r.id)->name;
        SCOPED_TRACE(name + ": " + r.lines);
        nmtest::load_defaults();
        ASSERT_GT(tamper(r.lines), 0);
        const int32_t code = r.shown == refused ? invalid(r.id) : 0;
        nmtest::clear_commands();
        logs().clear();
        const strings before = files();
        EXPECT_EQ(qmtnm_lcl_apply_stored(r.id), code);
        const strings cmds = nmtest::commands(), after = files();
        if (code != 0) {
            for (const std::string &cmd : cmds)
                EXPECT_NE(cmd.find(" status &>"), std::string::npos) << "more than a reading";
            EXPECT_EQ(after, before);
            EXPECT_TRUE(logs().contains(
                logged("qmtnm_lcl_apply_stored", "stored " + name + " settings refused, not " +
                                                     "applied, errno = " + std::to_string(code))));
        } else {
            bool shown = false;
            for (const strings *texts : {&cmds, &after})
                for (const std::string &text : *texts)
                    shown |= text.find(r.shown) != std::string::npos;
            EXPECT_TRUE(shown) << r.shown;
        }
        // At start-up every other area still runs; the first refusal is the result.
        nmtest::clear_commands();
        EXPECT_EQ(qmtnm_lcl_apply_stored(QMTNM_APPLY_ALL), code);
        EXPECT_FALSE(nmtest::commands().empty());
        for (const std::string &cmd : nmtest::commands())
            EXPECT_EQ(cmd.find("/tmp/"), std::string::npos) << cmd;
    }
}

// ---- the areas the fault cases set ----

struct span {
    size_t offset, size;
};
#define SPAN(rec, member)                                                                          \
    span {                                                                                         \
        offsetof(rec, member), sizeof(rec::member)                                                 \
    }

struct area_desc {
    uint32_t id;
    const char *flush; // the persist step, which names a failed write in the log
    size_t size;
    std::vector<span> stored;       // the stored fields, in the order the flush writes them
    void (*fill)(int n, void *rec); // record number n; n and n + 1 differ
};

const area_desc kQos{QMTNM_ID_QOS,
                     "flush_qos_config",
                     sizeof(qmtnm_qos_cfg),
                     {SPAN(qmtnm_qos_cfg, enable), SPAN(qmtnm_qos_cfg, dscp)},
                     [](int n, void *rec) {
                         *static_cast<qmtnm_qos_cfg *>(rec) = {1, n % 64};
                     }};
const area_desc kDdns{QMTNM_ID_DDNS,
                      "flush_ddns_info",
                      sizeof(qmtnm_ddns_cfg),
                      {SPAN(qmtnm_ddns_cfg, enable), SPAN(qmtnm_ddns_cfg, type),
                       SPAN(qmtnm_ddns_cfg, domain), SPAN(qmtnm_ddns_cfg, username),
                       SPAN(qmtnm_ddns_cfg, password)},
                      [](int n, void *rec) {
                          auto *d = static_cast<qmtnm_ddns_cfg *>(rec);
                          d->enable = 1;
                          snprintf(d->domain, sizeof d->domain, "d%d.example.net", n);
                          snprintf(d->username, sizeof d->username, "u%d", n);
                          snprintf(d->password, sizeof d->password, "p%d", n);
                      }};
const area_desc kPppoe{QMTNM_ID_PPPOE,
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

record make(const area_desc &a, int n, bool on = true) {
    record r(a.size, 0);
    a.fill(n, r.data());
    *reinterpret_cast<int32_t *>(r.data() + a.stored[0].offset) = on;
    return r;
}

int32_t set_n(const area_desc &a, int n, bool on = true) {
    return qmtnm_lcl_set(a.id, make(a, n, on).data(), 0);
}

// Whether the stored record holds the first k stored fields of record neu and the rest of old,
// for some k: what a flush stopped after k keys leaves.
bool old_or_new(const area_desc &a, int old, int neu) {
    record got(a.size, 0), o = make(a, old), n = make(a, neu);
    if (qmtnm_lcl_get(a.id, got.data(), a.size) != 0)
        return false;
    for (size_t k = 0; k <= a.stored.size(); ++k) {
        bool fits = true;
        for (size_t i = 0; i < a.stored.size() && fits; ++i)
            fits = !memcmp(got.data() + a.stored[i].offset,
                           (i < k ? n : o).data() + a.stored[i].offset, a.stored[i].size);
        if (fits)
            return true;
    }
    return false;
}

TEST_F(Stored, ASetStoresWhatItsCheckAcceptsAndASwitchedOffAreaOnlyItsSwitch) {
    nmtest::set_activate_flag(0); // a set only stores
    qmtnm_qos_cfg qos = {1, 99};
    EXPECT_EQ(qmtnm_lcl_set(QMTNM_ID_QOS, &qos, 0), invalid(QMTNM_ID_QOS));
    EXPECT_EQ(qmtnm_lcl_apply_stored(QMTNM_ID_QOS), 0) << "the factory settings stay stored";
    ASSERT_EQ(set_n(kDdns, 1), 0);
    ASSERT_EQ(set_n(kDdns, 2, false), 0);
    EXPECT_EQ(nmtest::stored_str("network_ddns", "domain"), "d1.example.net");
    nmtest::set_activate_flag(1); // a set replaces a stored record that the read refuses
    ASSERT_GT(tamper("sta/ssid = \"" + S33 + "\""), 0);
    qmtnm_sta_cfg sta = {};
    sta.enable = 1;
    memcpy(sta.ssid, S32.data(), S32.size());
    memcpy(sta.wps_pin, "12345670", 8);
    EXPECT_EQ(qmtnm_lcl_set(QMTNM_ID_STA, &sta, 0), 0);
    EXPECT_EQ(nmtest::stored_str("network_sta", "ssid"), S32);
}

// ---- the store under faults ----

// Checks the database file as it is; read-only, with a private index when the shared one
// cannot be used, it needs no space. The first row of PRAGMA integrity_check, and the rows.
std::pair<std::string, int> check_db(const char *path, bool read_only = false) {
    sqlite3 *db = nullptr;
    std::string uri = std::string("file:") + path + (read_only ? "?readonly_shm=1" : "");
    sqlite3_open_v2(uri.c_str(), &db,
                    SQLITE_OPEN_URI | (read_only ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE),
                    nullptr);
    sqlite3_busy_timeout(db, 10000);
    std::string out[2];
    const char *sql[2] = {"PRAGMA integrity_check", "SELECT count(*) FROM conf"};
    for (int i = 0; i < 2; ++i) {
        sqlite3_stmt *s = nullptr;
        bool row = sqlite3_prepare_v2(db, sql[i], -1, &s, nullptr) == SQLITE_OK &&
                   sqlite3_step(s) == SQLITE_ROW;
        out[i] = row ? reinterpret_cast<const char *>(sqlite3_column_text(s, 0))
                     : std::string("error: ") + sqlite3_errmsg(db);
        sqlite3_finalize(s);
    }
    sqlite3_close(db);
    return {out[0], isdigit(out[1][0]) ? atoi(out[1].c_str()) : -1};
}

// What a child process leaves for the parent.
struct shared_block {
    int acked, failed_at, busy, other, read_ok, keys_ok;
    int32_t code;
};

shared_block *shared_blocks(size_t n) {
    void *p = mmap(nullptr, n * sizeof(shared_block), PROT_READ | PROT_WRITE,
                   MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return static_cast<shared_block *>(memset(p, 0, n * sizeof(shared_block)));
}

// Runs fn in a child process, which opens a store connection of its own; its exit status.
template <class Fn> int in_child(Fn fn) {
    pid_t pid = fork();
    if (pid == 0)
        _exit(fn());
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Every case stores without applying and keeps the log quiet (children would block on a full
// log socket).
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

// Writes into dir/filler until the file system has no block left.
void fill(const std::string &dir) {
    static const char block[4096] = {};
    int fd = open((dir + "/filler").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    for (size_t n = sizeof block; n > 0; n /= 2)
        while (write(fd, block, n) == static_cast<ssize_t>(n)) {
        }
    close(fd);
}

enum class log_state { closed, log_empty, log_frames }; // how the store stands when the space ends

TEST_F(StoreFault, AFullFileSystemKeepsWhatIsStoredAndFailsOnlyWritesThatDoNotFit) {
    const struct {
        const area_desc *area;
        log_state state;
        bool fill, fails; // fails: a set fails with the area's store code, else all sets fit
        int sets;
    } cases[] = {
        {&kQos, log_state::closed, true, true, 100},
        {&kDdns, log_state::closed, true, true, 100},
        {&kQos, log_state::log_empty, true, true, 100}, // folded back and truncated, left open
        {&kDdns, log_state::log_empty, true, true, 100},
        {&kDdns, log_state::log_frames, true, false, 100}, // the log's own space holds the sets
        {&kDdns, log_state::closed, false, false, 600},    // 1 MB alone: the log stays small
    };
    int n_case = 0;
    for (const auto &c : cases) {
        const area_desc &a = *c.area;
        const std::string dir = "/tmp/store-full-" + std::to_string(n_case++);
        const std::string db = dir + "/sysconf.db";
        SCOPED_TRACE(db);
        mkdir(dir.c_str(), 0755);
        ASSERT_EQ(mount("store-fault", dir.c_str(), "tmpfs", 0, "size=1m"), 0) << strerror(errno);
        auto child = [&](auto fn) { // a process on the small file system's store
            return in_child([&] { return setenv("SYSCONF_DB", db.c_str(), 1) || fn(); });
        };
        shared_block *res = shared_blocks(1);
        ASSERT_EQ(child([&] {
                      FILE *f = fopen(QMTNM_SOURCE_DIR "/sysconf/defaults.conf", "r");
                      return sysconf_load(f, 1) <= 0 || set_n(a, 0) != 0;
                  }),
                  0);
        const int rows = check_db(db.c_str()).second; // read-write: it closes the store cleanly
        ASSERT_GT(rows, 0);
        if (c.state != log_state::closed) {
            ASSERT_EQ(child([&] {
                          sqlite3 *h = nullptr; // folds the log back, ends without closing
                          int frames = -1;
                          return set_n(a, 1) != 0 ||
                                 (c.state == log_state::log_empty &&
                                  (sqlite3_open(db.c_str(), &h) != SQLITE_OK ||
                                   sqlite3_exec(h, "SELECT count(*) FROM conf", nullptr, nullptr,
                                                nullptr) != SQLITE_OK ||
                                   sqlite3_wal_checkpoint_v2(h, nullptr, SQLITE_CHECKPOINT_TRUNCATE,
                                                             &frames, nullptr) != SQLITE_OK ||
                                   frames != 0));
                      }),
                      0);
            res->acked = 1;
        }
        nm_log_level = 0;
        logs().clear();
        res->failed_at = -1;
        for (int reader = 0; reader < 2; ++reader) { // the writer, then a process started later
            if (c.fill)
                fill(dir);
            ASSERT_EQ(child([&] {
                          for (int n = res->acked + 1; !reader && n <= c.sets; ++n) {
                              if ((res->code = set_n(a, n)) != 0) {
                                  res->failed_at = n;
                                  break;
                              }
                              res->acked = n;
                              if (c.fill)
                                  fill(dir);
                          }
                          res->read_ok = old_or_new(a, res->acked, res->acked + 1);
                          return 0;
                      }),
                      0);
            EXPECT_TRUE(res->read_ok) << "reader " << reader << " lost the stored record";
        }
        nm_log_level = -1;
        if (c.fails) {
            EXPECT_EQ(res->code, QMTNM_ERR(QMTNM_MODULE(a.id), QMTNM_R_STORE))
                << "failed at " << res->failed_at;
            bool logged_failure = false;
            for (const std::string &line : logs().texts())
                logged_failure |= line.rfind(logged(a.flush, "write "), 0) == 0;
            EXPECT_TRUE(logged_failure) << "no write failure of " << a.flush << " in the log";
        } else {
            EXPECT_EQ(res->failed_at, -1) << "failed with 0x" << std::hex << res->code;
        }
        EXPECT_EQ(check_db(db.c_str(), true), std::make_pair(std::string("ok"), rows));
        unlink((dir + "/filler").c_str()); // with space again, the next set is stored
        const int next = res->acked + 2;
        EXPECT_EQ(child([&] { return set_n(a, next) != 0 || !old_or_new(a, next, next); }), 0)
            << "no write taken once space was freed";
        munmap(res, sizeof *res);
        umount2(dir.c_str(), MNT_DETACH);
    }
}

TEST_F(StoreFault, WritersKilledAtRandomPointsLeaveOldOrNewValues) {
    const struct {
        const area_desc *area;
        int trials;
        bool after_first_set; // else the kill may land while the child opens the store
        int max_delay_us;
    } cases[] = {{&kDdns, 150, true, 3000}, {&kQos, 100, true, 2000}, {&kDdns, 50, false, 3000}};
    nmtest::load_defaults();
    const int rows = check_db(sysconf_db_path()).second;
    const char *env = getenv("QMTNM_FAULT_SEED");
    const unsigned seed = env ? static_cast<unsigned>(atoi(env)) : std::random_device{}();
    std::mt19937 rng(seed);
    int base = 0;
    for (const auto &c : cases) {
        const area_desc &a = *c.area;
        std::uniform_int_distribution<int> delay(0, c.max_delay_us);
        for (int t = 0; t < c.trials; ++t) {
            SCOPED_TRACE("area " + std::to_string(a.id) + " trial " + std::to_string(t) + " seed " +
                         std::to_string(seed));
            ASSERT_EQ(set_n(a, base += 100000), 0);
            int ack[2], last = base, n = 0;
            ASSERT_EQ(pipe(ack), 0);
            pid_t pid = fork();
            for (n = base + 1; pid == 0; ++n)
                if (set_n(a, n) != 0 || write(ack[1], &n, sizeof n) != sizeof n)
                    _exit(3);
            close(ack[1]);
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
            // Killed inside a set, the writer leaves the area's lock taken; nobody else is in.
            int v = -1;
            sem_getvalue(get_lcl_instance(a.id)->set_sem, &v);
            ASSERT_LE(v, 1);
            if (v == 0)
                sem_post(get_lcl_instance(a.id)->set_sem);
            EXPECT_TRUE(old_or_new(a, last, last + 1)) << "last acknowledged " << last - base;
            EXPECT_EQ(check_db(sysconf_db_path()), std::make_pair(std::string("ok"), rows));
        }
    }
}

TEST_F(StoreFault, ConcurrentSettersAndThreadsLoseNoWrite) {
    // Processes forked after the parent used the store, each with a thread writing keys of
    // its own: QoS and PPPoE set by one process each, DDNS by four at once.
    const std::pair<const area_desc *, int> plan[] = {{&kQos, 1}, {&kPppoe, 1}, {&kDdns, 4}};
    constexpr int kSets = 150;
    nmtest::load_defaults();
    const int rows = check_db(sysconf_db_path()).second;
    shared_block *res = shared_blocks(6);
    int start[2], slot = 0;
    ASSERT_EQ(pipe(start), 0);
    std::vector<pid_t> pids;
    for (const auto &[area, count] : plan) {
        for (int k = 0; k < count; ++k, ++slot) {
            if (pid_t pid = fork(); pid != 0) {
                pids.push_back(pid);
                continue;
            }
            close(start[1]);
            char go;
            if (read(start[0], &go, 1) != 0) // all start when the parent closes the pipe
                _exit(2);
            shared_block &me = res[slot];
            const std::string tag = "w" + std::to_string(slot) + "_";
            std::thread keys([&] {
                for (int i = 0; i < kSets; ++i)
                    me.keys_ok += qmt_conf_printf(D, "%k%k%d", "network_stress",
                                                  (tag + std::to_string(i)).c_str(), i) == 0;
            });
            for (int i = 1; i <= kSets; ++i) {
                int32_t r = set_n(*area, slot * 10000 + i);
                if (r == 0)
                    me.acked = slot * 10000 + i;
                else if (r == QMTNM_ERR(QMTNM_MODULE_CORE, QMTNM_R_BUSY))
                    ++me.busy;
                else if (++me.other == 1)
                    me.code = r;
            }
            keys.join();
            _exit(0);
        }
    }
    close(start[0]);
    close(start[1]);
    for (pid_t pid : pids)
        EXPECT_EQ(waitpid(pid, nullptr, 0), pid);
    slot = 0;
    for (const auto &[area, count] : plan) {
        // The stored record is the last acknowledged set of one of the area's writers.
        bool found = false;
        for (int k = 0; k < count; ++k, ++slot) {
            EXPECT_EQ(res[slot].other, 0) << "failed with 0x" << std::hex << res[slot].code;
            EXPECT_EQ(res[slot].keys_ok, kSets);
            found |= res[slot].acked > 0 && old_or_new(*area, res[slot].acked, res[slot].acked);
            for (int i = 0; i < kSets; ++i) {
                int v = -1;
                const std::string key = "w" + std::to_string(slot) + "_" + std::to_string(i);
                ASSERT_EQ(qmt_conf_scanf(D, "%k%k%d", "network_stress", key.c_str(), &v), 0);
                ASSERT_EQ(v, i) << key;
            }
        }
        EXPECT_TRUE(found) << "area " << area->id << ": no writer's last acknowledged set";
    }
    EXPECT_EQ(check_db(sysconf_db_path()), std::make_pair(std::string("ok"), rows + 6 * kSets));
    munmap(res, 6 * sizeof(shared_block));
}

} // namespace
