// Latency of the library's calls on the QoS, WAN, LAN, station and soft AP areas, of the
// settings store beneath them, and of the bare SQL the store executes on a prepared connection
// (the floor), in one process and in several at once.
//
// The store holds QoS {enable 1, dscp 46} and the factory LAN settings throughout, and every set
// passes the stored record, so a set stops at the compare ("config is up-to-date") and never
// reaches a command. system() is defined here, counts the commands the library would run and
// runs none: a benchmark whose calls ran any command fails. The exception is the station's get,
// which asks the running wpa_supplicant for its state with wpa_cli on every call: its benchmark
// lets that one command run (and a second one measures the get with the command not run). The
// live WAN reading needs an eth0 with an address, a default route and /var/nm/resolv.conf, and
// the station a wpa_supplicant on wlan0 (wired driver), which scripts/bench provides.
//
// The library is loaded with dlopen() after the namespace check, because its start-up creates
// semaphores and the activate flag in /dev/shm.
#include "bench_env.h"

#include "qmt_conf.h"
#include "qmtnm.h"

#include <sqlite3.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

std::atomic<long> commands{0};
std::atomic<bool> run_commands{false}; // set only while the station's get is measured

} // namespace

extern "C" int system(const char *cmd) {
    commands.fetch_add(1);
    if (!run_commands.load())
        return -1;
    using system_fn = int (*)(const char *);
    static auto real = reinterpret_cast<system_fn>(dlsym(RTLD_NEXT, "system"));
    return real(cmd);
}

namespace {

constexpr int32_t kEnable = 1;
constexpr int32_t kDscp = 46;
constexpr const char *kEnablePath = "network/network_qos/enable";
constexpr const char *kDscpPath = "network/network_qos/dscp";
const int32_t kInvalid = QMTNM_ERR(QMTNM_MOD_QOS, QMTNM_R_INVALID);
// What the reads of the floor fetch: a QoS get's two values, a LAN get's six, a soft AP get's
// eight (open, the factory settings).
constexpr const char *kQosPaths[] = {kEnablePath, kDscpPath};
constexpr const char *kLanPaths[] = {"network/network_lan/port",    "network/network_lan/ipaddr",
                                     "network/network_lan/netmask", "network/network_lan/method",
                                     "network/network_lan/begin",   "network/network_lan/end"};
constexpr const char *kApPaths[] = {
    "network/network_softap/enable",     "network/network_softap/hw_mode",
    "network/network_softap/channel",    "network/network_softap/ssid",
    "network/network_softap/hide_ssid",  "network/network_softap/auth",
    "network/network_softap/wps_enable", "network/network_softap/wps_pin"};
// An IP filter get with 8 rules: enable, mode and index, then both ends of each rule.
constexpr int kIpfRules = 8;
constexpr size_t kIpfReads = 3 + 2 * kIpfRules;
const char *const *ipf_paths() {
    static char paths[kIpfReads][64];
    static const char *ptrs[kIpfReads];
    const char *common[] = {"enable", "mode", "index"};
    for (size_t i = 0; i < kIpfReads; ++i) {
        if (i < 3)
            snprintf(paths[i], sizeof paths[i], "network/network_ipfilter/common/%s", common[i]);
        else
            snprintf(paths[i], sizeof paths[i], "network/network_ipfilter/rules/#%zu/%s",
                     (i - 3) / 2, (i - 3) % 2 ? "end_ip" : "begin_ip");
        ptrs[i] = paths[i];
    }
    return ptrs;
}

// ---- the library, resolved at run time ---------------------------------------------------

using lcl_call = int32_t (*)(uint32_t, void *, uintptr_t);
lcl_call lcl_set = nullptr;
lcl_call lcl_get = nullptr;
int32_t *log_level = nullptr;

void load_library() {
    void *h = dlopen(QMTNM_LIBRARY, RTLD_NOW | RTLD_GLOBAL);
    if (h == nullptr) {
        fprintf(stderr, "benchmark: %s\n", dlerror());
        exit(2);
    }
    lcl_set = reinterpret_cast<lcl_call>(dlsym(h, "qmtnm_lcl_set"));
    lcl_get = reinterpret_cast<lcl_call>(dlsym(h, "qmtnm_lcl_get"));
    log_level = static_cast<int32_t *>(dlsym(h, "nm_log_level"));
    if (lcl_set == nullptr || lcl_get == nullptr || log_level == nullptr) {
        fprintf(stderr, "benchmark: libqmtnm lacks its exported calls\n");
        exit(2);
    }
}

// Stores QoS {1, 46} and checks that the library reads it back.
void seed_store() {
    if (qmt_conf_printf("network", "%k%k%d", "network_qos", "enable", kEnable) < 0 ||
        qmt_conf_printf("network", "%k%k%d", "network_qos", "dscp", kDscp) < 0) {
        fprintf(stderr, "benchmark: cannot write the store %s\n", sysconf_db_path());
        exit(2);
    }
    qmtnm_qos_cfg got = {};
    if (lcl_get(QMTNM_ID_QOS, &got, 0) != 0 || got.enable != kEnable || got.dscp != kDscp) {
        fprintf(stderr, "benchmark: the library does not read back the seeded QoS record\n");
        exit(2);
    }
    qmtnm_wan_cfg wan = {};
    qmtnm_lan_cfg lan = {};
    if (lcl_get(QMTNM_ID_WAN, &wan, sizeof wan) != 0 || wan.ipaddr.s_addr == 0 ||
        wan.gateway.s_addr == 0 || wan.dns1.s_addr == 0) {
        fprintf(stderr, "benchmark: no live WAN reading (eth0, default route, resolver file)\n");
        exit(2);
    }
    if (lcl_get(QMTNM_ID_LAN, &lan, 0) != 0 || lan.method != 1 || lan.begin.s_addr == 0) {
        fprintf(stderr, "benchmark: the library does not read back the factory LAN settings\n");
        exit(2);
    }
}

// Fails the benchmark when its calls made the library run a command.
void check_no_command(benchmark::State &st, long before) {
    if (commands.load() != before)
        st.SkipWithError("the library ran a command: the set was not up to date");
}

// ---- the library's calls -------------------------------------------------------------------

void BM_lcl_get_qos(benchmark::State &st) {
    long before = commands.load();
    for (auto _ : st) {
        qmtnm_qos_cfg c = {};
        int32_t r = lcl_get(QMTNM_ID_QOS, &c, 0);
        if (r != 0 || c.enable != kEnable || c.dscp != kDscp) {
            st.SkipWithError("qmtnm_lcl_get(qos) failed");
            break;
        }
        benchmark::DoNotOptimize(c);
    }
    check_no_command(st, before);
}
BENCHMARK(BM_lcl_get_qos);

// Argument: nm_log_level during the run (1 is the default and logs "config is up-to-date").
void BM_lcl_set_qos_uptodate(benchmark::State &st) {
    int32_t saved = *log_level;
    *log_level = static_cast<int32_t>(st.range(0));
    long before = commands.load();
    for (auto _ : st) {
        qmtnm_qos_cfg c = {kEnable, kDscp};
        if (lcl_set(QMTNM_ID_QOS, &c, 0) != 0) {
            st.SkipWithError("qmtnm_lcl_set(qos) failed");
            break;
        }
    }
    check_no_command(st, before);
    *log_level = saved;
}
BENCHMARK(BM_lcl_set_qos_uptodate)->Arg(1)->Arg(0);

// The live WAN port: two store reads, two interface queries, the route table and the resolver.
void BM_lcl_get_wan(benchmark::State &st) {
    long before = commands.load();
    for (auto _ : st) {
        qmtnm_wan_cfg c;
        if (lcl_get(QMTNM_ID_WAN, &c, sizeof c) != 0 || c.gateway.s_addr == 0) {
            st.SkipWithError("qmtnm_lcl_get(wan) failed");
            break;
        }
        benchmark::DoNotOptimize(c);
    }
    check_no_command(st, before);
}
BENCHMARK(BM_lcl_get_wan);

// The LAN on the bridge: six store reads, for a get and for an up-to-date set alike.
void BM_lcl_get_lan(benchmark::State &st) {
    long before = commands.load();
    for (auto _ : st) {
        qmtnm_lan_cfg c = {};
        if (lcl_get(QMTNM_ID_LAN, &c, 0) != 0 || c.method != 1) {
            st.SkipWithError("qmtnm_lcl_get(lan) failed");
            break;
        }
        benchmark::DoNotOptimize(c);
    }
    check_no_command(st, before);
}
BENCHMARK(BM_lcl_get_lan);

void BM_lcl_set_lan_uptodate(benchmark::State &st) {
    qmtnm_lan_cfg stored = {};
    if (lcl_get(QMTNM_ID_LAN, &stored, 0) != 0) {
        st.SkipWithError("qmtnm_lcl_get(lan) failed");
        return;
    }
    long before = commands.load();
    for (auto _ : st) {
        qmtnm_lan_cfg c = stored;
        if (lcl_set(QMTNM_ID_LAN, &c, 0) != 0) {
            st.SkipWithError("qmtnm_lcl_set(lan) failed");
            break;
        }
    }
    check_no_command(st, before);
}
BENCHMARK(BM_lcl_set_lan_uptodate);

// enable = 2: rejected by the check, before any lock, with one error line in the log.
void BM_lcl_set_qos_check_fail(benchmark::State &st) {
    long before = commands.load();
    for (auto _ : st) {
        qmtnm_qos_cfg c = {2, kDscp};
        if (lcl_set(QMTNM_ID_QOS, &c, 0) != kInvalid) {
            st.SkipWithError("qmtnm_lcl_set(qos {2, 46}) did not fail its check");
            break;
        }
    }
    check_no_command(st, before);
}
BENCHMARK(BM_lcl_set_qos_check_fail);

// The station: six store reads, then "wpa_cli -iwlan0 status" into /var/nm/status_info, which the
// get reads back. Argument 1: the command runs against the supplicant (a process start and a
// control-socket exchange per call); 0: it does not, and the get reads the file the last run
// left (the library's own share).
void BM_lcl_get_sta(benchmark::State &st) {
    const bool live = st.range(0) != 0;
    run_commands.store(live);
    long before = commands.load();
    long calls = 0;
    for (auto _ : st) {
        qmtnm_sta_cfg c;
        int32_t r = lcl_get(QMTNM_ID_STA, &c, 0);
        ++calls;
        if (r != 0 || (live && c.link_state != 1)) {
            st.SkipWithError(live ? "qmtnm_lcl_get(sta) failed or wlan0 not connected (needs "
                                    "wpa_supplicant on wlan0, see scripts/bench)"
                                  : "qmtnm_lcl_get(sta) failed");
            break;
        }
        benchmark::DoNotOptimize(c);
    }
    run_commands.store(false);
    if (commands.load() - before != calls)
        st.SkipWithError("qmtnm_lcl_get(sta) ran other than one command per call");
}
BENCHMARK(BM_lcl_get_sta)->Arg(1)->Arg(0);

// The soft AP with the factory settings (open): eight store reads.
void BM_lcl_get_ap(benchmark::State &st) {
    long before = commands.load();
    for (auto _ : st) {
        nm_softap c;
        if (lcl_get(QMTNM_ID_AP, &c, 0) != 0 || c.enable != 1) {
            st.SkipWithError("qmtnm_lcl_get(ap) failed");
            break;
        }
        benchmark::DoNotOptimize(c);
    }
    check_no_command(st, before);
}
BENCHMARK(BM_lcl_get_ap);

// The stored record again: the compare reads it (eight reads) and finds nothing changed, so
// neither the activate step nor anything after it runs.
void BM_lcl_set_ap_uptodate(benchmark::State &st) {
    nm_softap stored = {};
    if (lcl_get(QMTNM_ID_AP, &stored, 0) != 0) {
        st.SkipWithError("qmtnm_lcl_get(ap) failed");
        return;
    }
    long before = commands.load();
    for (auto _ : st) {
        nm_softap c = stored;
        if (lcl_set(QMTNM_ID_AP, &c, 0) != 0) {
            st.SkipWithError("qmtnm_lcl_set(ap) failed");
            break;
        }
    }
    check_no_command(st, before);
}
BENCHMARK(BM_lcl_set_ap_uptodate);

// The IP filter with 8 rules stored: 19 store reads, three more values and two more reads with
// each rule.
void BM_lcl_get_ipfilter(benchmark::State &st) {
    bool ok = qmt_conf_printf("network", "%k%k%k%d", "network_ipfilter", "common", "index",
                              kIpfRules) >= 0;
    for (int i = 0; i < kIpfRules; ++i)
        for (const char *key : {"begin_ip", "end_ip"})
            ok = qmt_conf_printf("network", "%k%k%i%k%s", "network_ipfilter", "rules", i, key,
                                 "192.168.100.100") >= 0 &&
                 ok;
    if (!ok) {
        st.SkipWithError("cannot store the IP filter's rules");
        return;
    }
    long before = commands.load();
    for (auto _ : st) {
        qmtnm_ipfilter_cfg c;
        if (lcl_get(QMTNM_ID_IPFILTER, &c, 0) != 0 || c.index != kIpfRules) {
            st.SkipWithError("qmtnm_lcl_get(ipfilter) failed");
            break;
        }
        benchmark::DoNotOptimize(c);
    }
    check_no_command(st, before);
}
BENCHMARK(BM_lcl_get_ipfilter);

// Every other area's get with the factory settings, by instance id: a record of 512 bytes holds
// any of them. ethmac reads eth0's hardware address, pppoe also asks for ppp0 (none here).
void BM_lcl_get_each(benchmark::State &st) {
    const auto id = static_cast<uint32_t>(st.range(0));
    long before = commands.load();
    for (auto _ : st) {
        alignas(8) unsigned char rec[512];
        if (lcl_get(id, rec, sizeof rec) != 0) {
            st.SkipWithError("qmtnm_lcl_get failed");
            break;
        }
        benchmark::DoNotOptimize(rec);
    }
    check_no_command(st, before);
}
BENCHMARK(BM_lcl_get_each)
    ->ArgName("id")
    ->Arg(QMTNM_ID_BR)
    ->Arg(QMTNM_ID_ETHTYPE)
    ->Arg(QMTNM_ID_ETHMAC)
    ->Arg(QMTNM_ID_DDNS)
    ->Arg(QMTNM_ID_PPPOE)
    ->Arg(QMTNM_ID_UPNP)
    ->Arg(QMTNM_ID_BONJOUR)
    ->Arg(QMTNM_ID_WANFLASH);

// ---- the store --------------------------------------------------------------------------------

void BM_store_read(benchmark::State &st) {
    for (auto _ : st) {
        int v = -1;
        if (qmt_conf_scanf("network", "%k%k%d", "network_qos", "enable", &v) < 0 || v != kEnable) {
            st.SkipWithError("qmt_conf_scanf failed");
            break;
        }
    }
}
BENCHMARK(BM_store_read);

// Writes the value already stored (one durable transaction each time).
void BM_store_write(benchmark::State &st) {
    for (auto _ : st) {
        if (qmt_conf_printf("network", "%k%k%d", "network_qos", "enable", kEnable) < 0) {
            st.SkipWithError("qmt_conf_printf failed");
            break;
        }
    }
}
BENCHMARK(BM_store_write);

// ---- the floor: the store's SQL on a connection of our own, prepared once --------------------

struct sql_conn {
    sqlite3 *db = nullptr;
    sqlite3_stmt *select = nullptr;
    sqlite3_stmt *insert = nullptr;

    // Same file, same pragmas and same statements as the store.
    bool open(const char *path) {
        if (sqlite3_open_v2(path, &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr) !=
            SQLITE_OK)
            return false;
        sqlite3_busy_timeout(db, 10000);
        return sqlite3_exec(db, "PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL;", nullptr,
                            nullptr, nullptr) == SQLITE_OK &&
               sqlite3_prepare_v3(db, "SELECT value FROM conf WHERE path=?1", -1,
                                  SQLITE_PREPARE_PERSISTENT, &select, nullptr) == SQLITE_OK &&
               sqlite3_prepare_v3(db, "INSERT OR REPLACE INTO conf(path,value) VALUES(?1,?2)", -1,
                                  SQLITE_PREPARE_PERSISTENT, &insert, nullptr) == SQLITE_OK;
    }
    ~sql_conn() {
        sqlite3_finalize(select);
        sqlite3_finalize(insert);
        sqlite3_close_v2(db);
    }
    // One integer read; -1 on failure.
    int read(const char *path) {
        sqlite3_bind_text(select, 1, path, -1, SQLITE_STATIC);
        int v = sqlite3_step(select) == SQLITE_ROW ? sqlite3_column_int(select, 0) : -1;
        sqlite3_reset(select);
        return v;
    }
    // One value of any type, its text copied out as the store copies a string; false if missing.
    bool read_text(const char *path, char (&out)[64]) {
        sqlite3_bind_text(select, 1, path, -1, SQLITE_STATIC);
        bool ok = sqlite3_step(select) == SQLITE_ROW;
        if (ok) {
            const unsigned char *t = sqlite3_column_text(select, 0);
            snprintf(out, sizeof out, "%s", t ? reinterpret_cast<const char *>(t) : "");
        }
        sqlite3_reset(select);
        return ok;
    }
    bool write(const char *path, int v) {
        sqlite3_bind_text(insert, 1, path, -1, SQLITE_STATIC);
        sqlite3_bind_int(insert, 2, v);
        bool ok = sqlite3_step(insert) == SQLITE_DONE;
        sqlite3_reset(insert);
        return ok;
    }
};

// Argument: statements per iteration; 1 as in one store read, 2 (enable and dscp) as in a get
// or an up-to-date set of QoS, 6 as in a get or an up-to-date set of the LAN.
void BM_sql_select(benchmark::State &st) {
    sql_conn c;
    if (!c.open(sysconf_db_path())) {
        st.SkipWithError("cannot open the store's database");
        return;
    }
    const auto n = static_cast<size_t>(st.range(0));
    const char *const *paths = n == kIpfReads ? ipf_paths()
                               : n == 8       ? kApPaths
                               : n == 6       ? kLanPaths
                                              : kQosPaths;
    char value[64];
    for (auto _ : st) {
        bool ok = true;
        for (size_t i = 0; i < n; ++i)
            ok = c.read_text(paths[i], value) && ok;
        if (!ok) {
            st.SkipWithError("SELECT failed");
            break;
        }
        benchmark::DoNotOptimize(value);
    }
}
BENCHMARK(BM_sql_select)->Arg(1)->Arg(2)->Arg(6)->Arg(8)->Arg(kIpfReads);

void BM_sql_insert(benchmark::State &st) {
    sql_conn c;
    if (!c.open(sysconf_db_path())) {
        st.SkipWithError("cannot open the store's database");
        return;
    }
    for (auto _ : st) {
        if (!c.write(kEnablePath, kEnable)) {
            st.SkipWithError("INSERT failed");
            break;
        }
    }
}
BENCHMARK(BM_sql_insert);

// ---- several processes at once -------------------------------------------------------------

// What each process does in a round: `pairs` times two calls on its instance.
//   0 qos: every process on qos_lcl (id 11): one get and one set, both semaphores of one area,
//     two store reads per call, the set up to date.
//   1 one get-only area: every process sets wanflash_lcl (id 12) twice. An instance with only a
//     get has no operation for a set, which takes and releases the set semaphore and returns:
//     lock traffic on one semaphore, no store access.
//   2 own get-only areas: process i sets its own instance of ids 12, 13, 14, 17 twice (no
//     operation runs): the lock traffic with nothing shared.
//   3 floor: no library; each process runs the two SELECTs of a QoS call, twice per pair, on a
//     prepared connection of its own.
enum workload { qos = 0, one_lock = 1, own_lock = 2, sql_floor = 3 };
constexpr uint32_t kGetOnlyIds[] = {QMTNM_ID_WANFLASH, QMTNM_ID_DOSCAN, QMTNM_ID_SCANRESULT,
                                    QMTNM_ID_STAPIN};
constexpr int kMaxProcs = 4;

// Rounds of some tens of milliseconds, so that waking the processes is lost in the noise.
int pairs_for(workload w) {
    return w == qos || w == sql_floor ? 1000 : 20000;
}

struct shared_round {
    int64_t start_ns[kMaxProcs];
    int64_t end_ns[kMaxProcs];
    int32_t failures[kMaxProcs];
    int32_t commands[kMaxProcs];
};

// One process's share of a round.
class worker {
  public:
    worker(workload w, int proc) : w_(w) {
        switch (w) {
        case qos:
            id_ = QMTNM_ID_QOS;
            break;
        case one_lock:
            id_ = kGetOnlyIds[0];
            break;
        case own_lock:
            id_ = kGetOnlyIds[proc];
            break;
        case sql_floor:
            if (!sql_.open(sysconf_db_path()))
                ++failures_;
            break;
        }
    }
    void run(int pairs) {
        for (int i = 0; i < pairs; ++i) {
            if (w_ == sql_floor) {
                for (int k = 0; k < 2; ++k) {
                    if (sql_.read(kEnablePath) != kEnable || sql_.read(kDscpPath) != kDscp)
                        ++failures_;
                }
                continue;
            }
            qmtnm_qos_cfg c = {};
            if (w_ != qos) {
                // The set of a get-only instance touches no record.
                if (lcl_set(id_, nullptr, 0) != 0 || lcl_set(id_, nullptr, 0) != 0)
                    ++failures_;
                continue;
            }
            if (lcl_get(id_, &c, 0) != 0 || c.enable != kEnable || c.dscp != kDscp)
                ++failures_;
            c = {kEnable, kDscp};
            if (lcl_set(id_, &c, 0) != 0)
                ++failures_;
        }
    }
    int failures() const { return failures_; }

  private:
    workload w_;
    uint32_t id_ = 0;
    sql_conn sql_;
    int failures_ = 0;
};

// Arguments: workload, number of processes. The time of a round runs from the moment all
// processes are released until the last one is done; each has then made 2 * pairs calls.
// Counters: call_ns, the time of one call as a process sees it (its own start to end, over its
// calls, averaged over the processes); calls_per_s, the calls of all processes per second of
// the rounds' time.
void BM_contention(benchmark::State &st) {
    auto w = static_cast<workload>(st.range(0));
    int procs = static_cast<int>(st.range(1));
    const int pairs = pairs_for(w);
    void *mem = mmap(nullptr, sizeof(shared_round), PROT_READ | PROT_WRITE,
                     MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (mem == MAP_FAILED) {
        st.SkipWithError("mmap failed");
        return;
    }
    auto *round = static_cast<shared_round *>(mem);
    double total_s = 0;
    double proc_s = 0; // sum over rounds and processes of each process's own time
    long rounds = 0;
    for (auto _ : st) {
        memset(round, 0, sizeof *round);
        int ready[2], go[2];
        if (pipe(ready) != 0 || pipe(go) != 0) {
            st.SkipWithError("pipe failed");
            break;
        }
        std::vector<pid_t> kids;
        for (int p = 0; p < procs; ++p) {
            pid_t pid = fork();
            if (pid == 0) {
                close(ready[0]);
                close(go[1]);
                long before = commands.load();
                worker wk(w, p);
                // Warm up: the store opens this process's own connection on first use.
                wk.run(2);
                char c = 1;
                if (write(ready[1], &c, 1) != 1)
                    _exit(1);
                while (read(go[0], &c, 1) > 0) {
                }
                round->start_ns[p] = bench::now_ns();
                wk.run(pairs);
                round->end_ns[p] = bench::now_ns();
                round->failures[p] = wk.failures();
                round->commands[p] = static_cast<int32_t>(commands.load() - before);
                _exit(0);
            }
            kids.push_back(pid);
        }
        close(ready[1]);
        close(go[0]);
        char c;
        int started = 0;
        while (started < procs && read(ready[0], &c, 1) == 1)
            ++started;
        int64_t t0 = bench::now_ns();
        close(go[1]); // releases every process at once
        bool ok = started == procs;
        for (pid_t pid : kids) {
            int status = 0;
            waitpid(pid, &status, 0);
            ok = ok && WIFEXITED(status) && WEXITSTATUS(status) == 0;
        }
        close(ready[0]);
        int64_t t1 = t0;
        for (int p = 0; p < procs; ++p) {
            ok = ok && round->failures[p] == 0 && round->commands[p] == 0;
            if (round->end_ns[p] > t1)
                t1 = round->end_ns[p];
            proc_s += static_cast<double>(round->end_ns[p] - round->start_ns[p]) * 1e-9;
        }
        if (!ok) {
            st.SkipWithError("a process failed a call or ran a command");
            break;
        }
        double s = static_cast<double>(t1 - t0) * 1e-9;
        st.SetIterationTime(s);
        total_s += s;
        ++rounds;
    }
    munmap(mem, sizeof(shared_round));
    if (rounds > 0) {
        double calls_per_proc = 2.0 * pairs * static_cast<double>(rounds);
        st.counters["call_ns"] = proc_s * 1e9 / (calls_per_proc * procs);
        st.counters["calls_per_s"] = calls_per_proc * procs / total_s;
    }
}
BENCHMARK(BM_contention)
    ->ArgNames({"load", "procs"})
    ->ArgsProduct({{qos, sql_floor, one_lock, own_lock}, {1, 2, 4}})
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

} // namespace

int main(int argc, char **argv) {
    bench::prepare();
    load_library();
    seed_store();
    return bench::run(argc, argv);
}
