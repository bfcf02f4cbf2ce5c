// The settings store: formats, capacities and lists; stored settings as input to the start-up
// apply; the store under faults (a full file system, killed writers, several setters at once).
#include "support/test_support.h"

#include "qmt_conf.h"

#include <csignal>
#include <cstring>
#include <random>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr const char *D = "network";

// Loads "path = value" lines into the store, all or nothing.
int load(std::string text, int replace = 0) {
    FILE *in = fmemopen(text.data(), text.size(), "r");
    const int r = sysconf_load(in, replace);
    return fclose(in), r;
}

TEST(Store, ValuesRoundTripCutToTheReadersCapacityAndListsCountTheirElements) {
    nmtest::load_defaults();
    const std::tuple<const char *, int, const char *> rows[] = {
        {"a 'b' \"c\"", 64, "a 'b' \"c\""},
        {"", 64, ""},
        {"255.255.255.255", 16, "255.255.255.255"},
        {"0123456789abcdefg", 16, "0123456789abcde"},
        {"br0-long", 6, "br0-l"},
        {"x", 1, ""}};
    for (auto [stored, cap, expected] : rows) { // %K names the key as %k does
        ASSERT_EQ(qmt_conf_printf(D, "%k%k%s", "network_lan", "port", stored), 0);
        std::string buf(72, '#');
        ASSERT_EQ(qmt_conf_scanf(D, "%k%K%l%s", "network_lan", "port", cap, buf.data()), 0);
        EXPECT_STREQ(buf.c_str(), expected);
        EXPECT_EQ(buf[cap], '#') << "wrote past the capacity " << cap;
    }
    // Writes and deletes of rules/#<index>/<key>, and the count of elements after each: the
    // last element goes with its last key; a missing value is deleted without complaint.
    const std::tuple<const char *, int, const char *, int> steps[] = {
        {"%k%k%i%k%d", 0, "begin_ip", 1}, {"%k%k%i%k%d", 1, "begin_ip", 2},
        {"%k%k%i%k%d", 1, "end_ip", 2},   {"%k%k%i%k%r", 1, "begin_ip", 2},
        {"%k%k%i%k%r", 1, "end_ip", 1},   {"%k%k%i%k%r", 1, "end_ip", 1}};
    int n = -1;
    for (auto [format, index, key, count] : steps) {
        ASSERT_EQ(qmt_conf_printf(D, format, "network_ipfilter", "rules", index, key, 7), 0);
        ASSERT_EQ(qmt_conf_scanf(D, "%k%k%z", "network_ipfilter", "rules", &n), 0);
        EXPECT_EQ(n, count) << format << " " << index << " " << key;
    }
    ASSERT_EQ(qmt_conf_scanf(D, "%k%k%z", "network_ipfilter", "common", &n), 0);
    EXPECT_EQ(n, 0) << "a group is not a list";
    EXPECT_EQ(qmt_conf_printf(D, "%k%k%i%k%d", "network_ipfilter", "rules", -1, "x", 1),
              QMT_CONF_EFORMAT);
}

// A batch's writes reach the store together at its end, or not at all; until then another
// process reads the values before it.
TEST(Store, ABatchIsStoredWholeOrNotAtAll) {
    nmtest::load_defaults();
    auto seen_elsewhere = [] { // the DSCP as a process of its own reads it
        pid_t pid = fork();
        int v = -1, status = 0;
        if (pid == 0)
            _exit(qmt_conf_scanf(D, "%k%k%d", "network_qos", "dscp", &v) == 0 ? v : 255);
        waitpid(pid, &status, 0);
        return WEXITSTATUS(status);
    };
    for (int commit : {0, 1}) {
        ASSERT_EQ(sysconf_batch_begin(), 0);
        EXPECT_EQ(sysconf_batch_begin(), QMT_CONF_EFORMAT);
        EXPECT_EQ(qmt_conf_printf(D, "%k%k%d", "network_qos", "dscp", 46), 0);
        EXPECT_EQ(sysconf_del_path("network/network_lan/port"), 0);
        EXPECT_EQ(seen_elsewhere(), 0);
        EXPECT_EQ(sysconf_batch_end(commit), 0);
        EXPECT_EQ(seen_elsewhere(), commit ? 46 : 0);
        EXPECT_EQ(nmtest::stored("network/network_lan/port"), commit ? "<missing>" : "\"br0\"");
    }
    EXPECT_EQ(sysconf_batch_end(1), QMT_CONF_EFORMAT);
}

TEST(Store, IllFormedCallsAreRefusedAndWriteNothing) {
    nmtest::load_defaults();
    int v = 0; // arguments harmless for any prefix of the formats
    for (const char *f : {"", "%k%k", "%k%d", "%k%k%x", "%k%kd", "%k%k%s", "%k%k%d%d", "%k%k%r",
                          "%k%k%l%d", "%k%k%d ", "%", "%k%k%l"})
        EXPECT_EQ(qmt_conf_scanf(D, f, "network_qos", "x", 16, &v, &v, &v), QMT_CONF_EFORMAT) << f;
    for (const char *f : {"%k%k%z", "%k%k%l%s", "%k%k", "%k%k%d%r", "%i%k%k%d", "k%k%d"})
        EXPECT_EQ(qmt_conf_printf(D, f, "network_qos", "x", 16, 0, 0, 0), QMT_CONF_EFORMAT) << f;
    for (const char *key : {"", "a/b", "#1"})
        EXPECT_EQ(qmt_conf_printf(D, "%k%k%d", "network_qos", key, 1), QMT_CONF_EFORMAT) << key;
    EXPECT_EQ(qmt_conf_printf(D, "%k%k%s", "network_qos", "x", nullptr), QMT_CONF_EFORMAT);
    EXPECT_EQ(qmt_conf_printf(nullptr, "%k%k%d", "network_qos", "x", 1), QMT_CONF_EFORMAT);
    EXPECT_EQ(qmt_conf_scanf(D, "%k%k%d", "network_qos", "x", &v), QMT_CONF_ENOENT);
    EXPECT_LT(qmt_conf_scanf(D, "%k%k%d", "network_wan", "port", &v), 0); // a string, not an int
    EXPECT_EQ(load("network/network_wan/port = \"eth1\"\nnot a line\n", 1), QMT_CONF_EFORMAT);
    EXPECT_EQ(nmtest::stored_str("network_wan", "port"), "eth0");
}

// ---- stored settings as input to the start-up apply ----

const auto invalid = [](uint32_t id) { return QMTNM_ERR(QMTNM_MODULE(id), QMTNM_R_INVALID); };

// Stores "section: key = value|key = value..." below network/network_<section>/, as hand-edited.
int tamper(const std::string &row) {
    const std::string section = "network/network_" + row.substr(0, row.find(':')) + "/";
    std::string text = section + row.substr(row.find(':') + 2) + "\n";
    for (size_t at; (at = text.find('|')) != std::string::npos;)
        text.replace(at, 1, "\n" + section);
    return load(text);
}

// The files an apply writes, and the files a refused record must leave as they were.
const char *kFiles = "cat /var/nm/*.conf /var/conf/hosts /etc/cron/ddns.conf /etc/ppp/* "
                     "/var/spool/cron/crontabs/root 2>/dev/null";

const std::string S32(32, 's'), S33(33, 's'), U32(32, 'u'),
    H64(64, 'h'), D32 = std::string(24, 'd') + ".example";

// An area, the text a command or a file shows once its stored lines are applied (none: refused
// by the read or the check, with the area's invalid code), the lines as tamper() takes them.
const std::tuple<uint32_t, std::string, std::string> kStoredRows[] = {
    {QMTNM_ID_IPFILTER, "",
     "ipfilter: common/enable = 1|common/index = 1|rules/#0/end_ip = \"1.1.1.9\"|rules/#0/"
     "begin_ip = \"1;>/tmp/p\""},
    {QMTNM_ID_DDNS, "",
     "ddns: enable = 1|domain = \"x;>/tmp/q\"|username = \"u\"|password = \"p\""},
    {QMTNM_ID_STA, "", "sta: enable = 1|ssid = \"n\"|auth = 1|index = 1|password = \"$(reboot)x\""},
    {QMTNM_ID_STA, "", "sta: enable = 1|ssid = \"" + S33 + "\""},
    {QMTNM_ID_AP, "", "softap: auth = 3|password = \"12345678\\nwpa=0\""},
    {QMTNM_ID_UPNP, "", "upnp: friendlyName = \"cam\\nsecure_mode=no\""},
    {QMTNM_ID_BONJOUR, "", "bonjour: hostname = \"cam\\n10.6.6.6\\tevil\""},
    {QMTNM_ID_PPPOE, "", "pppoe: enable = 1|username = \"u\\nplugin /tmp/e\"|password = \"p\""},
    {QMTNM_ID_QOS, "", "qos: enable = 1|dscp = 99"},
    {QMTNM_ID_LAN, "", "lan: method = 7"},
    {QMTNM_ID_STA, "set_network 0 ssid '\"" + S32, "sta: enable = 1|ssid = \"" + S32 + "\""},
    {QMTNM_ID_DDNS, "hostname=" + D32 + "&",
     "ddns: enable = 1|domain = \"" + D32 + "\"|username = \"" + U32 + "\"|password = \"p\""},
    {QMTNM_ID_PPPOE, "name \"" + U32 + "\"\n",
     "pppoe: enable = 1|username = \"" + U32 + "\"|password = \"p\""},
    {QMTNM_ID_BONJOUR, "hostname '" + H64 + "'", "bonjour: hostname = \"" + H64 + "\""}};

class Stored : public nmtest::area_test {};

TEST_F(Stored, StartUpRefusesHostileOrTooLongStoredTextAndAppliesTheRest) {
    // Marking first, the wired ports, the filter before the services, the radios last.
    const std::vector<uint32_t> boot = {
        QMTNM_ID_QOS,  QMTNM_ID_WAN,  QMTNM_ID_LAN,     QMTNM_ID_IPFILTER, QMTNM_ID_PPPOE,
        QMTNM_ID_DDNS, QMTNM_ID_UPNP, QMTNM_ID_BONJOUR, QMTNM_ID_AP,       QMTNM_ID_STA};
    std::vector<uint32_t> order(QMTNM_ID_COUNT);
    order.resize(qmtnm_lcl_boot_order(order.data(), QMTNM_ID_COUNT));
    EXPECT_EQ(order, boot);
    // The station's read asks the supplicant's state; DDNS and PPPoE write into directories.
    nmtest::sh("echo wpa_state=INACTIVE >/var/nm/status_info;"
               "mkdir -p /etc/cron /var/spool/cron/crontabs /etc/ppp");
    for (const auto &[id, want, lines] : kStoredRows) {
        SCOPED_TRACE(lines);
        nmtest::load_defaults();
        ASSERT_GT(tamper(lines), 0);
        const int32_t code = want.empty() ? invalid(id) : 0;
        nmtest::clear_commands();
        nmtest::logs().clear();
        const std::string before = nmtest::sh(kFiles);
        EXPECT_EQ(qmtnm_lcl_apply_stored(id), code);
        std::string shown = nmtest::sh(kFiles), line = get_lcl_instance(id)->name;
        for (const std::string &cmd : nmtest::commands()) {
            shown += cmd + "\n"; // a refused area only reads its state
            EXPECT_TRUE(code == 0 || cmd.find(" status &>") != cmd.npos) << cmd;
        }
        EXPECT_TRUE(code ? nmtest::sh(kFiles) == before : shown.find(want) != shown.npos) << shown;
        line = "stored " + line + " settings refused, not applied, errno = " + std::to_string(code);
        EXPECT_EQ(nmtest::logs().contains(nmtest::logged("qmtnm_lcl_apply_stored", line)),
                  code != 0);
        // At start-up every other area still runs; the first refusal is the result.
        nmtest::clear_commands();
        EXPECT_EQ(qmtnm_lcl_apply_stored(QMTNM_APPLY_ALL), code);
        EXPECT_FALSE(nmtest::commands().empty());
        for (const std::string &cmd : nmtest::commands())
            EXPECT_EQ(cmd.find("/tmp/"), std::string::npos) << cmd;
    }
}

// The areas the fault cases set: the persist step, which names a failed write in the log; where
// the stored fields begin, in the order they are written, and end; record number n, switched on,
// as bytes (n and n + 1 differ): QoS in its DSCP value, DDNS in the domain, user and password.
using record = std::vector<char>;
const struct area_desc {
    uint32_t id;
    const char *flush;
    std::vector<size_t> at;
    int32_t set(int n) const { return qmtnm_lcl_set(id, make(n).data(), 0); }
    record make(int n) const {
        qmtnm_qos_cfg qos{1, n % 64};
        qmtnm_ddns_cfg ddns{1, 0, {}, {}, {}};
        for (char *text : {ddns.domain, ddns.username, ddns.password})
            snprintf(text, 32, "d%d.example.net", n);
        const char *p = id == QMTNM_ID_QOS ? (char *)&qos : (char *)&ddns;
        return record(p, p + at.back());
    }
} kQos{QMTNM_ID_QOS, "flush_qos_config", {0, 4, 8}},
    kDdns{QMTNM_ID_DDNS, "flush_ddns_info", {0, 4, 8, 40, 72, 104}};

// Whether the stored record holds the first k fields of record neu and the rest of old, for
// some k: what a flush stopped after k keys leaves.
bool old_or_new(const area_desc &a, int old, int neu) {
    record got(a.at.back(), 0), o = a.make(old), n = a.make(neu);
    bool read = qmtnm_lcl_get(a.id, got.data(), got.size()) == 0;
    for (size_t split : a.at)
        if (read && !memcmp(got.data(), n.data(), split) &&
            !memcmp(got.data() + split, o.data() + split, got.size() - split))
            return true;
    return false;
}

TEST_F(Stored, ASetStoresWhatItsCheckAcceptsAndASwitchedOffAreaOnlyItsSwitch) {
    nmtest::set_activate_flag(0); // a set only stores
    record hostile = kDdns.make(1), off = kDdns.make(2);
    strcpy(hostile.data() + offsetof(qmtnm_ddns_cfg, domain), "x;touch /tmp/q");
    EXPECT_EQ(qmtnm_lcl_set(QMTNM_ID_DDNS, hostile.data(), 0), invalid(QMTNM_ID_DDNS));
    EXPECT_EQ(qmtnm_lcl_apply_stored(QMTNM_ID_DDNS), 0) << "the factory settings stay stored";
    memset(off.data(), 0, 4);
    ASSERT_EQ(kDdns.set(1), 0);
    ASSERT_EQ(qmtnm_lcl_set(QMTNM_ID_DDNS, off.data(), 0), 0);
    EXPECT_EQ(nmtest::stored_str("network_ddns", "domain"), "d1.example.net");
    nmtest::set_activate_flag(1); // a set replaces a stored record that the read refuses
    ASSERT_GT(tamper("sta: ssid = \"" + S33 + "\""), 0);
    qmtnm_sta_cfg sta = {};
    sta.enable = 1;
    strcpy(sta.ssid, "net");
    EXPECT_EQ(qmtnm_lcl_set(QMTNM_ID_STA, &sta, 0), 0);
    EXPECT_EQ(nmtest::stored_str("network_sta", "ssid"), "net");
}

// ---- the store under faults ----

// PRAGMA integrity_check and the rows; read-only (private index if need be) it needs no space.
std::string check_db(const std::string &path = sysconf_db_path(), bool read_only = false) {
    return nmtest::sh("sqlite3 " + (read_only ? "'file:" + path + "?readonly_shm=1'" : path) +
                      " 'PRAGMA integrity_check; SELECT count(*) FROM conf' 2>&1");
}

// What child processes leave for the parent, in zeroed memory shared with it. The cases store
// without applying, with the log quiet (children would block on a full log socket).
struct shared_block {
    volatile int acked, read_ok, code, log;
};
shared_block *shared_blocks(size_t n) {
    nmtest::set_activate_flag(0);
    nm_log_level = -1;
    void *p = mmap(nullptr, n * sizeof(shared_block), PROT_READ | PROT_WRITE,
                   MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return static_cast<shared_block *>(p);
}

TEST(StoreFault, AFullFileSystemKeepsWhatIsStoredAndFailsOnlyWritesThatDoNotFit) {
    // The area; the store left open with its last writes in its log (where the sets then fit);
    // the 1 MB file system filled after every set (else the store's log grows to its limit); sets.
    const std::tuple<const area_desc *, bool, bool, int> cases[] = {
        {&kQos, 0, 1, 100}, {&kDdns, 0, 1, 100}, {&kDdns, 1, 1, 100}, {&kDdns, 0, 0, 600}};
    const std::string dir = "/tmp/store-full", db = dir + "/sysconf.db",
                      fill = "cat /dev/zero 2>/dev/null >>" + dir + "/filler";
    shared_block *res = shared_blocks(1);
    for (const auto &[area, log_frames, full, count] : cases) {
        SCOPED_TRACE(testing::Message() << area->flush << ", log " << log_frames << ", " << count);
        mkdir(dir.c_str(), 0755);
        res->log = 0;
        ASSERT_EQ(mount("store-fault", dir.c_str(), "tmpfs", 0, "size=1m"), 0) << strerror(errno);
        // In a child on this store: sets records from..to until one fails, then reads back.
        auto sets = [&, &a = *area](int from, int to, bool filling) {
            res->read_ok = false;
            if (pid_t pid = fork(); pid != 0)
                return void(waitpid(pid, nullptr, 0));
            setenv("SYSCONF_DB", db.c_str(), 1);
            if (from == 0)
                nmtest::load_defaults();
            for (int n = from; n <= to && (res->code = a.set(n)) == 0; ++n) {
                struct stat log = {}; // the longest log after a set
                stat((db + "-wal").c_str(), &log);
                res->log = std::max(int{res->log}, static_cast<int>(log.st_size));
                if ((res->acked = n) && filling)
                    nmtest::sh(fill);
            }
            res->read_ok = old_or_new(a, res->acked, res->acked + 1);
            _exit(0);
        };
        sets(0, 0, false);
        const std::string rows = check_db(db); // a read-write check closes the store
        ASSERT_EQ(rows.rfind("ok\n", 0), 0u) << rows;
        if (log_frames)
            sets(1, 1, false);
        nm_log_level = 0;
        nmtest::logs().clear();
        for (int from : {res->acked + 1, count + 1}) { // the writer, then a process started later
            if (full)
                nmtest::sh(fill);
            sets(from, count, full);
            EXPECT_TRUE(res->read_ok) << "from " << from << ": the stored record lost";
        }
        // The log took at most a quarter of the file system, and the pages between two looks.
        EXPECT_LE(res->log, (1 << 20) / 4 + 5 * 4120);
        const bool fails = full && !log_frames;
        EXPECT_EQ(res->code, fails ? QMTNM_ERR(QMTNM_MODULE(area->id), QMTNM_R_STORE) : 0)
            << "set " << res->acked + 1;
        bool logged = false; // a write failure of the persist step
        for (const std::string &line : nmtest::logs().texts())
            logged |= line.rfind(nmtest::logged(area->flush, "write "), 0) == 0;
        EXPECT_EQ(logged, fails);
        EXPECT_EQ(check_db(db, true), rows);
        unlink((dir + "/filler").c_str()); // with space again, the next set is stored
        sets(res->acked + 2, res->acked + 2, false);
        EXPECT_TRUE(res->code == 0 && res->read_ok);
        umount2(dir.c_str(), MNT_DETACH);
    }
}

TEST(StoreFault, WritersKilledAtRandomPointsLeaveOldOrNewValues) {
    nmtest::load_defaults();
    const std::string rows = check_db();
    const char *env = getenv("QMTNM_FAULT_SEED"); // the seed of a failed run, to repeat it
    const unsigned seed = env ? std::stoul(env) : std::random_device{}();
    std::mt19937 rng(seed);
    shared_block *ack = shared_blocks(1);
    // DDNS and QoS in turn; every third writer may be killed while it opens the store.
    for (int t = 0, base = 0; t < 300; ++t) {
        const area_desc &a = t % 2 ? kQos : kDdns;
        SCOPED_TRACE(testing::Message() << "trial " << t << ", seed " << seed);
        ASSERT_EQ(a.set(base += 100000), 0);
        int status = 0;
        ack->acked = base;
        const pid_t pid = fork(); // acknowledges each set in acked
        for (int n = base + 1; pid == 0; ack->acked = n++)
            if (a.set(n) != 0)
                _exit(3);
        while (t % 3 && ack->acked == base && waitpid(pid, &status, WNOHANG) == 0)
            usleep(100);
        usleep(std::uniform_int_distribution<useconds_t>(0, 3000)(rng));
        kill(pid, SIGKILL);
        ASSERT_TRUE(waitpid(pid, &status, 0) == pid && WIFSIGNALED(status)) << status;
        const int last = ack->acked;
        // Killed inside a set, the writer leaves the area's lock taken; nobody else is in.
        if (int v = -1; sem_getvalue(get_lcl_instance(a.id)->set_sem, &v) == 0 && v == 0)
            sem_post(get_lcl_instance(a.id)->set_sem);
        EXPECT_TRUE(old_or_new(a, last, last + 1)) << "last acknowledged " << last - base;
        EXPECT_EQ(check_db(), rows);
    }
}

TEST(StoreFault, ConcurrentSettersAndThreadsLoseNoWrite) {
    // Processes forked after the parent used the store, each with a thread writing keys of its
    // own: QoS set by one process, DDNS by four at once.
    constexpr int kProcs = 5, kSets = 150;
    nmtest::load_defaults();
    const std::string rows = check_db();
    shared_block *res = shared_blocks(kProcs + 1); // the last one: all writers go
    for (int slot = 0; slot < kProcs; ++slot) {
        if (fork() != 0)
            continue;
        while (!res[kProcs].code)
            usleep(100);
        std::thread keys([slot] {
            for (int i = 0; i < kSets; ++i)
                qmt_conf_printf(D, "%k%k%d", "network_stress",
                                ("w" + std::to_string(slot * kSets + i)).c_str(), i);
        });
        for (int n = slot * 10000 + 1; n <= slot * 10000 + kSets; ++n) {
            int32_t r = (slot ? kDdns : kQos).set(n);
            res[slot].acked = r == 0 ? n : res[slot].acked;
            if (r != 0 && r != QMTNM_ERR(QMTNM_MODULE_CORE, QMTNM_R_BUSY))
                res[slot].code = r;
        }
        keys.join();
        _exit(0);
    }
    res[kProcs].code = 1;
    while (wait(nullptr) > 0) {
    }
    // Each area holds the last acknowledged set of one of its writers; no key is missing.
    bool qos = old_or_new(kQos, res[0].acked, res[0].acked), ddns = false;
    for (int slot = 0; slot < kProcs; ++slot) {
        EXPECT_EQ(res[slot].code, 0) << "writer " << slot;
        ddns |= slot > 0 && res[slot].acked && old_or_new(kDdns, res[slot].acked, res[slot].acked);
    }
    EXPECT_TRUE(qos && ddns) << "a stored record is no writer's last acknowledged set";
    EXPECT_EQ(check_db(), "ok\n" + std::to_string(stoi(rows.substr(3)) + kProcs * kSets) + "\n");
}

} // namespace
