// Every area reads the caller's record within its size. Each record is placed so that it ends
// exactly where a page that cannot be touched begins, every text field filled to its last byte
// (no terminator), and the area's operations run on it through its instance record: check,
// compare, activate, apply, persist, and the get where it writes into the caller's memory. A read
// or write past the record faults. Each record runs in a child process of its own, so a fault
// names the record and the operation. Commands are recorded, not run; the store is the test's
// own database.
#include "support/test_support.h"

#include "qmt_conf.h"
#include "qmtnm.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <arpa/inet.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// A block of size bytes that ends where an inaccessible page begins.
class guarded_block {
  public:
    explicit guarded_block(size_t size) : size_(size) {
        const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        const size_t data_pages = (size + page - 1) / page;
        len_ = (data_pages + 1) * page;
        void *p = mmap(nullptr, len_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (p == MAP_FAILED)
            abort();
        base_ = static_cast<char *>(p);
        if (mprotect(base_ + data_pages * page, page, PROT_NONE) != 0)
            abort();
        data_ = base_ + data_pages * page - size;
    }
    ~guarded_block() { munmap(base_, len_); }
    guarded_block(const guarded_block &) = delete;
    guarded_block &operator=(const guarded_block &) = delete;
    void *data() const { return data_; }
    size_t size() const { return size_; }

  private:
    size_t size_;
    size_t len_ = 0;
    char *base_ = nullptr;
    char *data_ = nullptr;
};

// Fills the whole field with text repeated: no terminator anywhere.
template <size_t N> void fill(char (&field)[N], const char *text) {
    const size_t n = strlen(text);
    for (size_t i = 0; i < N; ++i)
        field[i] = text[i % n];
}

enum op : unsigned {
    kCheck = 1,
    kNochange = 2,
    kActivate = 4,
    kSet = 8,
    kFlush = 16,
    kGet = 32,
    kSetSide = kCheck | kNochange | kActivate | kSet | kFlush,
    kAll = kSetSide | kGet,
};

enum class verdict { pass, refuse };

// One record of one area: how it is filled, which operations run on it, and what its check
// must say. Operations the instance does not have are skipped.
struct bounded_record {
    const char *name;
    lcl_instance *inst;
    size_t size;
    std::function<void(void *)> fill;
    unsigned ops;
    std::optional<verdict> check;
    uintptr_t arg2 = 0;                  // the get's second argument (a size, where it takes one)
    std::optional<int32_t> get_result;   // what the get must return, where it is sure
    std::function<void()> setup = [] {}; // the store or files the operations read

    bounded_record(const char *n, lcl_instance *i, size_t sz, std::function<void(void *)> f,
                   unsigned o = kAll, std::optional<verdict> c = std::nullopt)
        : name(n), inst(i), size(sz), fill(std::move(f)), ops(o), check(c) {}
    bounded_record &get(uintptr_t a2, std::optional<int32_t> result) {
        arg2 = a2;
        get_result = result;
        return *this;
    }
    bounded_record &before(std::function<void()> s) {
        setup = std::move(s);
        return *this;
    }
};

template <class Rec> std::function<void(void *)> as(void (*f)(Rec &)) {
    return [f](void *p) { f(*static_cast<Rec *>(p)); };
}

// The WAN port and the MAC address read an interface that this network namespace has.
void wan_port_loopback() {
    ASSERT_GE(qmt_conf_printf("network", "%k%k%s", "network_wan", "port", "lo"), 0);
}

// The update script's and root's crontab's directories, made by the DDNS apply's own commands,
// which are only recorded here.
void cron_dirs() {
    nmtest::sh("mkdir -p /etc/cron /var/spool/cron/crontabs");
}

// Three networks whose every field is longer than its entry's field.
void long_scan_table() {
    const std::string row = std::string(40, 'b') + "\t2412\t-40\t" + std::string(100, 'f') + "\t" +
                            std::string(50, 's') + "\n";
    std::ofstream("/var/nm/scan_info", std::ios::trunc)
        << "bssid / frequency / signal level / flags / ssid\n"
        << row << row << row;
}

const bounded_record kRecords[] = {
    bounded_record("qos", &qos_lcl, sizeof(qmtnm_qos_cfg), as<qmtnm_qos_cfg>([](qmtnm_qos_cfg &c) {
                       c.enable = 1;
                       c.dscp = 46;
                   }),
                   kAll, verdict::pass),
    bounded_record("wan static", &wan_lcl, sizeof(qmtnm_wan_cfg),
                   as<qmtnm_wan_cfg>([](qmtnm_wan_cfg &c) {
                       c.method = 0;
                       inet_aton("10.99.0.7", &c.ipaddr);
                       inet_aton("255.255.255.0", &c.netmask);
                       inet_aton("10.99.0.1", &c.gateway);
                       inet_aton("10.99.0.1", &c.dns1);
                       inet_aton("9.9.9.9", &c.dns2);
                   }),
                   kAll, verdict::pass)
        .get(sizeof(qmtnm_wan_cfg), std::nullopt)
        .before(wan_port_loopback),
    bounded_record(
        "wanflash", &wanflash_lcl, sizeof(qmtnm_wan_cfg), [](void *) {}, kGet)
        .get(0, 0),
    bounded_record("lan with pool", &lan_lcl, sizeof(qmtnm_lan_cfg),
                   as<qmtnm_lan_cfg>([](qmtnm_lan_cfg &c) {
                       c.method = 1;
                       inet_aton("192.168.7.1", &c.ipaddr);
                       inet_aton("255.255.255.0", &c.netmask);
                       inet_aton("192.168.7.50", &c.begin);
                       inet_aton("192.168.7.60", &c.end);
                   }),
                   kAll, verdict::pass),
    bounded_record("bridge", &br_lcl, sizeof(qmtnm_br_cfg),
                   as<qmtnm_br_cfg>([](qmtnm_br_cfg &c) { c.mode = 1; })),
    bounded_record("ethernet type", &ethtype_lcl, sizeof(qmtnm_ethtype_cfg),
                   as<qmtnm_ethtype_cfg>([](qmtnm_ethtype_cfg &c) { c.type = 1; })),
    // The MAC text is a C string: the longest the check takes, with its terminator, is applied;
    // one character more, unterminated, is refused without a read past it.
    bounded_record(
        "mac text", &ethmac_lcl, QMTNM_MAC_TEXT_MAX,
        [](void *p) { memcpy(p, "02:11:22:33:44:55", QMTNM_MAC_TEXT_MAX); }, kCheck | kSet,
        verdict::pass),
    bounded_record(
        "mac text unterminated", &ethmac_lcl, QMTNM_MAC_TEXT_MAX + 1,
        [](void *p) { memset(p, 'a', QMTNM_MAC_TEXT_MAX + 1); }, kCheck, verdict::refuse),
    bounded_record(
        "mac get", &ethmac_lcl, sizeof(qmtnm_mac_addr), [](void *) {}, kGet)
        .get(0, 0)
        .before(wan_port_loopback),
    bounded_record("pppoe full names", &pppoe_lcl, sizeof(qmtnm_pppoe_cfg),
                   as<qmtnm_pppoe_cfg>([](qmtnm_pppoe_cfg &c) {
                       c.enable = 1;
                       fill(c.username, "user\"\\");
                       fill(c.password, "pass'\"$");
                       c.connected = 1;
                   }),
                   kAll, verdict::pass),
    bounded_record("ddns full texts", &ddns_lcl, sizeof(qmtnm_ddns_cfg),
                   as<qmtnm_ddns_cfg>([](qmtnm_ddns_cfg &c) {
                       c.enable = 1;
                       memcpy(c.domain, "cam0123456.example0123456789.net", sizeof c.domain);
                       fill(c.username, "me@:/ ");
                       fill(c.password, "p&w%d");
                   }),
                   kAll, verdict::pass)
        .before(cron_dirs),
    bounded_record("station WPA full texts", &sta_lcl, sizeof(qmtnm_sta_cfg),
                   as<qmtnm_sta_cfg>([](qmtnm_sta_cfg &c) {
                       c.enable = 1;
                       fill(c.ssid, "Net'\"");
                       c.auth = 2;
                       fill(c.password, "pass phrase'");
                       fill(c.wps_pin, "1");
                       c.link_state = 7;
                   }),
                   kAll, verdict::pass),
    // Nine digits fill the PIN field; the check refuses them, and the apply and persist steps
    // still read no further than the field.
    bounded_record("station WPS PIN full", &sta_lcl, sizeof(qmtnm_sta_cfg),
                   as<qmtnm_sta_cfg>([](qmtnm_sta_cfg &c) {
                       c.enable = 1;
                       c.use_wps = 1;
                       fill(c.wps_pin, "123456789");
                       fill(c.ssid, "x");
                       fill(c.password, "y");
                   }),
                   kAll, verdict::refuse),
    bounded_record("soft AP full texts", &ap_lcl, sizeof(nm_softap),
                   as<nm_softap>([](nm_softap &c) {
                       c.enable = 1;
                       fill(c.ssid, "Cam'\"");
                       c.channel = 0x0106;
                       c.hw_mode = 2;
                       c.hide_ssid = 1;
                       c.auth = 3;
                       c.encry = 2;
                       fill(c.password, "pass phrase\"");
                       c.wps_enable = 1;
                       fill(c.wps_pin, "1234567");
                   }),
                   kAll, verdict::pass),
    bounded_record("soft AP WEP", &ap_lcl, sizeof(nm_softap), as<nm_softap>([](nm_softap &c) {
                       c.enable = 1;
                       fill(c.ssid, "w");
                       c.channel = 1;
                       c.auth = 1;
                       c.index = 4;
                       memcpy(c.password, "0123456789abcdef0123456789", 26);
                       fill(c.wps_pin, "9");
                   }),
                   kAll, verdict::pass),
    // A name that fills its field is refused with UPnP on, and written to the daemon's file
    // with it off.
    bounded_record("upnp full name, on", &upnp_lcl, sizeof(qmtnm_upnp_cfg),
                   as<qmtnm_upnp_cfg>([](qmtnm_upnp_cfg &c) {
                       c.enable = 1;
                       fill(c.friendlyName, "Cam \"1\" ");
                   }),
                   kAll, verdict::refuse),
    bounded_record("upnp full name, off", &upnp_lcl, sizeof(qmtnm_upnp_cfg),
                   as<qmtnm_upnp_cfg>([](qmtnm_upnp_cfg &c) { fill(c.friendlyName, "Cam's "); }),
                   kAll, verdict::pass),
    bounded_record("bonjour full host name", &bonjour_lcl, sizeof(qmtnm_bonjour_cfg),
                   as<qmtnm_bonjour_cfg>([](qmtnm_bonjour_cfg &c) {
                       c.enable = 1;
                       fill(c.hostname, "cam's-");
                   }),
                   kAll, verdict::pass),
    // Eight rules, each address's 15 characters that are used followed by two more, and the
    // slots' unused bytes set: nothing in the record is terminated.
    bounded_record("ip filter full rules", &ipfilter_lcl, sizeof(qmtnm_ipfilter_cfg),
                   as<qmtnm_ipfilter_cfg>([](qmtnm_ipfilter_cfg &c) {
                       c.enable = 1;
                       c.mode = 1;
                       c.index = QMTNM_IPF_RULES;
                       for (qmtnm_ipf_rule &r : c.rules) {
                           memcpy(r.begin_ip, "192.168.100.101xx", sizeof r.begin_ip);
                           memcpy(r.end_ip, "192.168.100.102yy", sizeof r.end_ip);
                           fill(r.reserved, "r");
                       }
                   }),
                   kAll, verdict::pass),
    // Two entries' room (a size that is not a whole number of entries beyond them), each field
    // of the table longer than the entry's.
    bounded_record(
        "scan results", &scanresult_lcl, 2 * sizeof(qmtnm_scan_entry) + 120, [](void *) {}, kGet)
        .get(2 * sizeof(qmtnm_scan_entry) + 120, 0)
        .before(long_scan_table),
    bounded_record(
        "station PIN", &stapin_lcl, QMTNM_WPS_PIN_SIZE, [](void *) {}, kGet)
        .get(0, 0),
    bounded_record(
        "soft AP PIN", &appin_lcl, QMTNM_WPS_PIN_SIZE, [](void *) {}, kGet)
        .get(0, 0),
};

// Runs the record's operations in this process, writing each operation's name to report before
// it starts. Returns a complaint, or an empty string.
std::string run_operations(const bounded_record &r, int report) {
    guarded_block block(r.size);
    r.fill(block.data());
    lcl_instance *inst = r.inst;
    void *rec = block.data();
    auto starting = [report](const char *what) {
        std::string line = std::string(what) + "\n";
        if (write(report, line.data(), line.size()) < 0)
            _exit(5);
    };
    if ((r.ops & kCheck) && inst->check) {
        starting("check");
        int32_t c = inst->check(inst, rec, 0);
        if (r.check && (c == 0) != (*r.check == verdict::pass))
            return "check returned " + std::to_string(c);
    }
    if ((r.ops & kNochange) && inst->nochange) {
        starting("nochange");
        int32_t changed = 0;
        inst->nochange(inst, rec, 0, &changed);
    }
    if ((r.ops & kActivate) && inst->activate_now) {
        starting("activate_now");
        uint32_t activate = 1;
        inst->activate_now(inst, rec, 0, &activate);
    }
    // A record that passes its check is applied and stored to the end, every field read.
    const bool valid = r.check == verdict::pass;
    if ((r.ops & kSet) && inst->set) {
        starting("set");
        if (int32_t s = inst->set(inst, rec, 0); valid && s != 0)
            return "set returned " + std::to_string(s);
    }
    if ((r.ops & kFlush) && inst->flush) {
        starting("flush");
        if (int32_t f = inst->flush(inst, rec, 0); valid && f != 0)
            return "flush returned " + std::to_string(f);
    }
    if ((r.ops & kGet) && inst->get) {
        starting("get");
        int32_t g = inst->get(inst, rec, r.arg2);
        if (r.get_result && g != *r.get_result)
            return "get returned " + std::to_string(g);
    }
    return {};
}

using Bounds = nmtest::area_test;

TEST_F(Bounds, NoOperationReadsOrWritesPastTheCallersRecord) {
    for (const bounded_record &r : kRecords) {
        SCOPED_TRACE(r.name);
        nmtest::load_defaults();
        r.setup();
        int pipe_fd[2];
        ASSERT_EQ(pipe(pipe_fd), 0);
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            close(pipe_fd[0]);
            const rlimit no_core = {0, 0}; // a fault is reported, not dumped
            setrlimit(RLIMIT_CORE, &no_core);
            std::string complaint = run_operations(r, pipe_fd[1]);
            if (!complaint.empty()) {
                complaint = "!" + complaint + "\n";
                if (write(pipe_fd[1], complaint.data(), complaint.size()) < 0)
                    _exit(5);
                _exit(3);
            }
            _exit(0);
        }
        close(pipe_fd[1]);
        // The child's log lines are taken off /dev/log meanwhile, or its syslog() would block.
        std::string out;
        pollfd p{pipe_fd[0], POLLIN, 0};
        for (;;) {
            nmtest::logs().clear();
            if (poll(&p, 1, 20) <= 0)
                continue;
            char buf[256];
            ssize_t n = read(pipe_fd[0], buf, sizeof buf);
            if (n <= 0)
                break;
            out.append(buf, static_cast<size_t>(n));
        }
        close(pipe_fd[0]);
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        // The operation that was running last.
        std::string last = out;
        if (!last.empty() && last.back() == '\n')
            last.pop_back();
        last = last.substr(last.rfind('\n') == std::string::npos ? 0 : last.rfind('\n') + 1);
        if (WIFSIGNALED(status))
            ADD_FAILURE() << r.name << ": signal " << WTERMSIG(status) << " in " << last
                          << " (a read or write past the record)";
        else if (WEXITSTATUS(status) == 3)
            ADD_FAILURE() << r.name << ": " << last.substr(1);
        else if (WEXITSTATUS(status) != 0)
            ADD_FAILURE() << r.name << ": exit status " << WEXITSTATUS(status) << " in " << last
                          << " (a sanitizer's report is above)";
    }
}

} // namespace
