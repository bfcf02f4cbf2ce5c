// Every area reads and writes the caller's record within its size. Each record ends exactly
// where a page that cannot be touched begins, its text fields filled to their last byte (no
// terminator), and the area's operations run on it through its instance record: check, compare,
// activate, apply, persist, get. A read or write past the record faults. Each record runs in a
// child process of its own, so a fault names the record and the operation. Commands are
// recorded, not run.
#include "support/test_support.h"

#include "qmtnm.h"
#include "tools/areas.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <poll.h>
#include <string>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

struct bounded {
    const char *area;  // as the tool names it
    std::string words; // as the tool takes them; "*text" fills a text field
    bool valid;        // what the check says; a valid record is applied and stored without error
    size_t size = 0;   // the record's size when not the area's whole record
    uint32_t get_id = QMTNM_ID_COUNT; // a reporting instance whose get alone runs
};

const bounded kRecords[] = {
    {"qos", "enable=1|dscp=46", true},
    {"wan", "method=0|ipaddr=10.99.0.7|gateway=10.99.0.1|dns2=9.9.9.9", true},
    {"wanflash", "", true, sizeof(qmtnm_wan_cfg), QMTNM_ID_WANFLASH},
    {"lan", "method=1|ipaddr=192.168.7.1|begin=192.168.7.50|end=192.168.7.60", true},
    {"br", "mode=1", true},
    {"ethtype", "type=1", true},
    // The MAC text is a C string: the longest the check takes is applied; one character more,
    // unterminated, is refused without a read past it.
    {"ethmac", "02:11:22:33:44:55", true, QMTNM_MAC_TEXT_MAX},
    {"ethmac", std::string(QMTNM_MAC_TEXT_MAX + 1, 'a'), false, QMTNM_MAC_TEXT_MAX + 1},
    {"ethmac", "", true, sizeof(qmtnm_mac_addr), QMTNM_ID_ETHMAC},
    {"pppoe", "enable=1|username=*user\"\\|password=*pass'\"$|connected=1", true},
    {"ddns", "enable=1|domain=cam0123456.example0123456789.net|username=*me@:/ |password=*p&w%d",
     true},
    {"sta", "enable=1|ssid=*Net'\"|auth=2|password=*0123456789abcdef|wps_pin=*1|link_state=7",
     true},
    // Nine digits fill the PIN field: refused, and applying and storing still read no further.
    {"sta", "enable=1|use_wps=1|wps_pin=*123456789|ssid=*x|password=*y", false},
    {"ap",
     "enable=1|ssid=*Cam'\"|channel=262|hw_mode=2|hide_ssid=1|auth=3|encry=2|"
     "password=*0123456789abcdef|wps_enable=1|wps_pin=*1234567",
     true},
    {"ap",
     "enable=1|ssid=*w|channel=1|auth=1|index=4|password=0123456789abcdef0123456789|"
     "wps_pin=*9",
     true},
    // A name filling its field is refused with UPnP on, and written to the daemon's file off.
    {"upnp", "enable=1|friendlyName=*Cam \"1\" ", false},
    {"upnp", "enable=0|friendlyName=*Cam's ", true},
    {"bonjour", "enable=1|hostname=*cam's-", true},
    {"ipfilter", "enable=1|mode=white|index=0", true}, // the rules are filled below
    // Two entries' room and a bit, each field of the table longer than the entry's.
    {"scan", "", true, 2 * sizeof(qmtnm_scan_entry) + 120, QMTNM_ID_SCANRESULT},
    {"pin", "", true, QMTNM_WPS_PIN_SIZE, QMTNM_ID_STAPIN},
    {"pin", "", true, QMTNM_WPS_PIN_SIZE, QMTNM_ID_APPIN},
};

// Runs the operations on a copy of rec that ends at a page that cannot be touched, writing each
// operation's name to report before it starts. Returns a complaint, or an empty string.
std::string run_operations(const bounded &b, std::vector<char> rec, int report) {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE)),
                 size = b.size ? b.size : rec.size();
    const size_t len = ((size + page - 1) / page + 1) * page;
    char *base = static_cast<char *>(
        mmap(nullptr, len, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    if (base == MAP_FAILED || mprotect(base + len - page, page, PROT_NONE) != 0)
        return "no guarded page";
    char *data = base + len - page - size;
    memcpy(data, rec.data(), std::min(size, rec.size()));
    if (b.area == std::string("ipfilter")) {
        auto *ipf = reinterpret_cast<qmtnm_ipfilter_cfg *>(data);
        ipf->index = QMTNM_IPF_RULES; // each address's 15 characters and two more, unterminated
        for (qmtnm_ipf_rule &r : ipf->rules) {
            memcpy(r.begin_ip, "192.168.100.101xx", sizeof r.begin_ip);
            memcpy(r.end_ip, "192.168.100.102yy", sizeof r.end_ip);
            memset(r.reserved, 'r', sizeof r.reserved);
        }
    }
    auto starting = [report](const char *what) {
        std::string line = std::string(what) + "\n";
        return write(report, line.data(), line.size()) > 0;
    };
    lcl_instance *inst = get_lcl_instance(b.get_id);
    if (inst) {
        starting("get");
        int32_t g = inst->get(inst, data, b.get_id == QMTNM_ID_SCANRESULT ? size : 0);
        return g == 0 ? "" : "get returned " + std::to_string(g);
    }
    inst = get_lcl_instance(cli::find_area(b.area)->id);
    if (inst->check && starting("check") && (inst->check(inst, data, 0) == 0) != b.valid)
        return "the check disagrees";
    int32_t changed = 0;
    uint32_t flag = 1;
    if (inst->nochange && starting("nochange"))
        inst->nochange(inst, data, 0, &changed);
    if (inst->activate_now && starting("activate_now"))
        inst->activate_now(inst, data, 0, &flag);
    if (inst->set && starting("set") && inst->set(inst, data, 0) != 0 && b.valid)
        return "set failed";
    if (inst->flush && starting("flush") && inst->flush(inst, data, 0) != 0 && b.valid)
        return "flush failed";
    if (inst->get && starting("get"))
        inst->get(inst, data, size);
    return "";
}

using Bounds = nmtest::area_test;

TEST_F(Bounds, NoOperationReadsOrWritesPastTheCallersRecord) {
    nmtest::sh("mkdir -p /etc/cron /var/spool/cron/crontabs");
    const std::string row = std::string(40, 'b') + "\t2412\t-40\t" + std::string(100, 'f') + "\t" +
                            std::string(50, 's') + "\n";
    std::ofstream("/var/nm/scan_info") << "bssid / frequency / signal level / flags / ssid\n"
                                       << row << row << row;
    for (const bounded &b : kRecords) {
        SCOPED_TRACE(std::string(b.area) + " " + b.words);
        nmtest::load_defaults();
        nmtest::store("network/network_wan/port", "\"lo\""); // an interface the namespace has
        std::vector<char> rec =
            b.get_id < QMTNM_ID_COUNT ? std::vector<char>(b.size) : nmtest::record(b.area, b.words);
        int pipe_fd[2];
        ASSERT_EQ(pipe(pipe_fd), 0);
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            close(pipe_fd[0]);
            const rlimit no_core = {0, 0}; // a fault is reported, not dumped
            setrlimit(RLIMIT_CORE, &no_core);
            std::string complaint = run_operations(b, rec, pipe_fd[1]);
            if (!complaint.empty() &&
                write(pipe_fd[1], ("!" + complaint).data(), complaint.size() + 1))
                _exit(3);
            _exit(0);
        }
        close(pipe_fd[1]);
        // The child's log lines are taken off /dev/log meanwhile, or its syslog() would block.
        std::string out;
        pollfd p{pipe_fd[0], POLLIN, 0};
        for (char buf[256];;) {
            nmtest::logs().clear();
            if (poll(&p, 1, 20) <= 0)
                continue;
            ssize_t n = read(pipe_fd[0], buf, sizeof buf);
            if (n <= 0)
                break;
            out.append(buf, static_cast<size_t>(n));
        }
        close(pipe_fd[0]);
        int status = 0;
        waitpid(pid, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
            << (WIFSIGNALED(status) ? "signal " + std::to_string(WTERMSIG(status)) : "")
            << " after: " << out;
    }
}

} // namespace
