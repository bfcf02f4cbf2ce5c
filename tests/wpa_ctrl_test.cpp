// The wpa_supplicant control-socket client, against a scripted datagram server (silence, events
// before the reply, replies that fill the buffer, attach answers, paths) and against the real
// wpa_supplicant (wired driver on a veth pair in this test's network namespace). With the real
// supplicant, the station area's wpa_cli lines go through the real wpa_cli too: a passphrase
// and name with quotes, backslashes and blanks reach the supplicant's saved file as typed.
#include "support/test_support.h"

#include "qmt_conf.h"
#include "qmtnm.h"
#include "wpa_ctrl.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

using nmtest::file_text;
using strings = std::vector<std::string>;

namespace {

// ---- a scripted server ---------------------------------------------------------------------

struct step {
    int delay_ms;
    std::string datagram;
};

// Binds path; for every request received, sends the script's datagrams (each after its delay)
// to the sender.
class script_server {
  public:
    script_server(const std::string &path, std::vector<step> script)
        : path_(path), script_(std::move(script)) {
        fd_ = socket(AF_UNIX, SOCK_DGRAM, 0);
        sockaddr_un a{};
        a.sun_family = AF_UNIX;
        snprintf(a.sun_path, sizeof a.sun_path, "%s", path.c_str());
        unlink(a.sun_path);
        EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
        thread_ = std::thread([this] { serve(); });
    }
    ~script_server() {
        thread_.join();
        close(fd_);
        unlink(path_.c_str());
    }
    std::string request() {
        thread_.join();
        thread_ = std::thread([] {});
        return request_;
    }

  private:
    // One request per server: enough for every case here.
    void serve() {
        timeval tv = {5, 0};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        char buf[256];
        sockaddr_un from{};
        socklen_t len = sizeof from;
        ssize_t n = recvfrom(fd_, buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(&from), &len);
        if (n < 0)
            return;
        request_.assign(buf, static_cast<size_t>(n));
        for (const step &s : script_) {
            std::this_thread::sleep_for(std::chrono::milliseconds(s.delay_ms));
            sendto(fd_, s.datagram.data(), s.datagram.size(), 0,
                   reinterpret_cast<sockaddr *>(&from), len);
        }
    }
    std::string path_;
    std::vector<step> script_;
    std::string request_;
    int fd_ = -1;
    std::thread thread_;
};

const char *const kServer = "/tmp/wpa-test-server";

std::vector<std::string> events;
void on_event(char *msg, size_t len) {
    EXPECT_EQ(msg[len], '\0') << "event text is terminated";
    events.emplace_back(msg, len);
}

std::string local_path(wpa_ctrl *ctrl) {
    sockaddr_un a{};
    socklen_t len = sizeof a;
    getsockname(wpa_ctrl_get_fd(ctrl), reinterpret_cast<sockaddr *>(&a), &len);
    return a.sun_path;
}

bool exists(const std::string &path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

// The open counter starts at 0 in every process: a fresh child's first two opens.
TEST(WpaCtrl, FirstTwoOpensOfAProcessBindCountersZeroAndOne) {
    script_server server(kServer, {});
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    pid_t pid = fork();
    if (pid == 0) {
        wpa_ctrl *a = wpa_ctrl_open(kServer), *b = wpa_ctrl_open(kServer);
        std::string paths = (a ? local_path(a) : "null") + " " + (b ? local_path(b) : "null");
        // A datagram ends the server's wait.
        _exit(write(p[1], paths.data(), paths.size()) < 0 || !a ||
              send(wpa_ctrl_get_fd(a), "x", 1, 0) != 1);
    }
    close(p[1]);
    char buf[256] = {};
    ssize_t n = read(p[0], buf, sizeof buf - 1);
    close(p[0]);
    int status = -1;
    waitpid(pid, &status, 0);
    EXPECT_GT(n, 0);
    EXPECT_EQ(status, 0);
    const std::string base = "/tmp/wpa_ctrl_" + std::to_string(pid);
    EXPECT_EQ(std::string(buf), base + "-0 " + base + "-1");
}

TEST(WpaCtrl, OpenRefusesPathsThatDoNotFitAndCleansUpAfterAFailedConnect) {
    // 107 characters fit (and fail to connect: nothing listens); the local file is removed.
    std::string path107 = "/tmp/" + std::string(102, 'p');
    std::string path108 = path107 + "q";
    ASSERT_EQ(path107.size(), 107u);
    script_server server(kServer, {{0, "OK\n"}});
    // Where the counter stands: this open's own number.
    wpa_ctrl *first = wpa_ctrl_open(kServer);
    ASSERT_NE(first, nullptr);
    const std::string dir = "/tmp/wpa_ctrl_" + std::to_string(getpid()) + "-";
    const std::string first_path = local_path(first);
    ASSERT_EQ(first_path.rfind(dir, 0), 0u) << first_path;
    const unsigned n = std::stoul(first_path.substr(dir.size()));
    wpa_ctrl_close(first);
    EXPECT_EQ(wpa_ctrl_open(path107.c_str()), nullptr);
    EXPECT_FALSE(exists(dir + std::to_string(n + 1))) << "connect failed: local file removed";
    // Too long: refused, and the bound local file stays behind.
    EXPECT_EQ(wpa_ctrl_open(path108.c_str()), nullptr);
    EXPECT_TRUE(exists(dir + std::to_string(n + 2)));
    // The counter moved on with every open, failed ones included.
    wpa_ctrl *c = wpa_ctrl_open(kServer);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(local_path(c), dir + std::to_string(n + 3));
    EXPECT_EQ(wpa_ctrl_attach(c), 0);
    wpa_ctrl_close(c);
    EXPECT_FALSE(exists(dir + std::to_string(n + 3))) << "close removes the local file";
}

TEST(WpaCtrl, RequestWaitsTwoSecondsAfterTheCommandOrTheLastEvent) {
    struct {
        std::vector<step> script;
        size_t reply_cap;
        int result;
        std::string reply;
        strings events;
        int min_ms, max_ms;
    } const rows[] = {
        {{}, 64, -2, "", {}, 1900, 2600}, // silence
        {{{0, "PONG\n"}}, 64, 0, "PONG\n", {}, 0, 500},
        // Each event restarts the wait.
        {{{1300, "<3>A"}, {1300, "<2>B"}, {1300, "OK"}}, 64, 0, "OK", {"<3>A", "<2>B"}, 3700, 4600},
        {{{0, "<3>E1"}, {1500, "<3>E2"}}, 64, -2, "", {"<3>E1", "<3>E2"}, 3300, 4200},
        // An event that fills the buffer loses its last byte to the terminator; a reply that
        // fills it is delivered whole, unterminated.
        {{{0, "<3>ABCDEFGH"}, {0, "0123456789X"}}, 11, 0, "0123456789X", {"<3>ABCDEFG"}, 0, 500},
        {{{0, ""}}, 16, 0, "", {}, 0, 500}, // an empty reply
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.script.empty() ? "silence" : r.script.back().datagram);
        events.clear();
        script_server server(kServer, r.script);
        wpa_ctrl *c = wpa_ctrl_open(kServer);
        ASSERT_NE(c, nullptr);
        std::vector<char> reply(r.reply_cap + 1, 'z');
        size_t len = r.reply_cap;
        int64_t t0 = nmtest::now_ms();
        int got = wpa_ctrl_request(c, "PING", 4, reply.data(), &len, on_event);
        int64_t ms = nmtest::now_ms() - t0;
        EXPECT_EQ(got, r.result);
        EXPECT_EQ(server.request(), "PING");
        EXPECT_GE(ms, r.min_ms);
        EXPECT_LE(ms, r.max_ms);
        EXPECT_EQ(events, r.events);
        if (r.result == 0) {
            EXPECT_EQ(len, r.reply.size());
            EXPECT_EQ(std::string(reply.data(), len), r.reply);
            EXPECT_EQ(reply[r.reply_cap], 'z') << "nothing written past the buffer";
        } else {
            EXPECT_EQ(len, r.reply_cap) << "the length is left alone on failure";
        }
        wpa_ctrl_close(c);
    }
}

TEST(WpaCtrl, AttachAndDetachWantExactlyOkNewline) {
    struct {
        std::vector<step> script;
        int result;
    } const rows[] = {
        {{{0, "OK\n"}}, 0},
        {{{0, "FAIL\n"}}, -1},
        {{{0, "OK"}}, -1},
        {{{0, "ok\n"}}, -1},
        {{{0, "<3>OK\n"}, {0, "OK\n"}}, 0}, // an event first is skipped
        {{{0, "OK\nOK\nOK\nOK\n"}}, -1},    // cut at 10 bytes: not 3
        {{}, -2},                           // silence passes through
    };
    for (bool attach : {true, false}) {
        for (const auto &r : rows) {
            SCOPED_TRACE(std::string(attach ? "attach " : "detach ") +
                         (r.script.empty() ? "silence" : r.script.back().datagram));
            script_server server(kServer, r.script);
            wpa_ctrl *c = wpa_ctrl_open(kServer);
            ASSERT_NE(c, nullptr);
            EXPECT_EQ(attach ? wpa_ctrl_attach(c) : wpa_ctrl_detach(c), r.result);
            EXPECT_EQ(server.request(), attach ? "ATTACH" : "DETACH");
            wpa_ctrl_close(c);
        }
    }
}

TEST(WpaCtrl, PendingAndRecvTakeEventsWithoutWaitingOrFiltering) {
    script_server server(kServer, {{0, "OK\n"}, {300, "<3>CTRL-EVENT-X"}, {0, "plain"}});
    wpa_ctrl *c = wpa_ctrl_open(kServer);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(wpa_ctrl_pending(c), 0);
    ASSERT_EQ(wpa_ctrl_attach(c), 0);
    int64_t t0 = nmtest::now_ms();
    EXPECT_EQ(wpa_ctrl_pending(c), 0) << "does not block";
    EXPECT_LT(nmtest::now_ms() - t0, 100);
    EXPECT_EQ(wpa_ctrl_pending_timeout(c, 2), 1);
    EXPECT_LT(nmtest::now_ms() - t0, 1000);
    char buf[8];
    size_t len = sizeof buf;
    ASSERT_EQ(wpa_ctrl_recv(c, buf, &len), 0);
    EXPECT_EQ(std::string(buf, len), "<3>CTRL-") << "cut at the length given";
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(wpa_ctrl_pending(c), 1);
    len = sizeof buf;
    ASSERT_EQ(wpa_ctrl_recv(c, buf, &len), 0);
    EXPECT_EQ(std::string(buf, len), "plain");
    t0 = nmtest::now_ms();
    EXPECT_EQ(wpa_ctrl_pending_timeout(c, 1), 0);
    EXPECT_GE(nmtest::now_ms() - t0, 950);
    wpa_ctrl_close(c);
}

// ---- the real wpa_supplicant -----------------------------------------------------------------

// wpa_supplicant with the wired driver on wlan0 (one end of a veth pair), its control directory
// and configuration file where the device keeps them.
class Supplicant : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(nmtest::sh("command -v wpa_supplicant >/dev/null && command -v wpa_cli "
                             ">/dev/null && echo ok"),
                  "ok\n")
            << "wpa_supplicant and wpa_cli are needed (scripts/install-deps)";
        nmtest::load_defaults();
        nmtest::run_commands(true);
        std::string out = nmtest::sh(
            "ip link add wlan0 type veth peer name wlan0p && ip link set wlan0p up && "
            "ip link set wlan0 up && mkdir -p /var/nm /var/run/wpa_supplicant && "
            "printf 'ctrl_interface=/var/run/wpa_supplicant\\nupdate_config=1\\n' "
            ">/var/nm/wpa_supplicant.conf && wpa_supplicant -B -D wired -i wlan0 "
            "-c /var/nm/wpa_supplicant.conf -P /tmp/wpas.pid >/tmp/wpas.log 2>&1 && "
            "for i in $(seq 50); do [ -S /var/run/wpa_supplicant/wlan0 ] && break; sleep 0.1; "
            "done; [ -S /var/run/wpa_supplicant/wlan0 ] && echo up");
        ASSERT_EQ(out, "up\n") << file_text("/tmp/wpas.log");
    }
    void TearDown() override {
        nmtest::sh("kill $(cat /tmp/wpas.pid) 2>/dev/null; sleep 0.2; ip link del wlan0 "
                   "2>/dev/null; rm -f /var/run/wpa_supplicant/wlan0");
    }

    // One request with a fresh reply buffer.
    static std::string ask(wpa_ctrl *c, const std::string &cmd) {
        char reply[2048];
        size_t len = sizeof reply - 1;
        int r = wpa_ctrl_request(c, cmd.data(), cmd.size(), reply, &len, on_event);
        return r == 0 ? std::string(reply, len) : "<failed " + std::to_string(r) + ">";
    }
};

TEST_F(Supplicant, PingStatusAttachEventsDetach) {
    wpa_ctrl *c = wpa_ctrl_open("/var/run/wpa_supplicant/wlan0");
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(ask(c, "PING"), "PONG\n");
    EXPECT_NE(ask(c, "STATUS").find("wpa_state="), std::string::npos);
    ASSERT_EQ(wpa_ctrl_attach(c), 0);
    // Attached, the event of a new network arrives before the command's reply.
    events.clear();
    EXPECT_EQ(ask(c, "ADD_NETWORK"), "0\n");
    EXPECT_EQ(events, strings{"<3>CTRL-EVENT-NETWORK-ADDED 0"});
    // Enabling an open network connects the wired port: events come in through recv.
    EXPECT_EQ(ask(c, "SET_NETWORK 0 key_mgmt NONE"), "OK\n");
    EXPECT_EQ(ask(c, "ENABLE_NETWORK 0"), "OK\n");
    bool connected = false;
    while (!connected && wpa_ctrl_pending_timeout(c, 3) == 1) {
        char buf[256];
        size_t len = sizeof buf - 1;
        ASSERT_EQ(wpa_ctrl_recv(c, buf, &len), 0);
        connected = std::string(buf, len).rfind("<3>CTRL-EVENT-CONNECTED", 0) == 0;
    }
    EXPECT_TRUE(connected);
    EXPECT_EQ(wpa_ctrl_detach(c), 0);
    // Detached: no event for the next network.
    events.clear();
    EXPECT_EQ(ask(c, "ADD_NETWORK"), "1\n");
    EXPECT_TRUE(events.empty());
    EXPECT_EQ(wpa_ctrl_pending_timeout(c, 1), 0);
    std::string local = local_path(c);
    wpa_ctrl_close(c);
    EXPECT_FALSE(exists(local));
}

// The station's set through the real wpa_cli: the supplicant saves the name and passphrase
// exactly as typed, and a get reports the link the wired driver completes.
TEST_F(Supplicant, StationSetSavesHostileTextAsTypedAndGetReportsTheLink) {
    struct {
        std::string ssid, pass;
        int32_t auth;
        std::string saved; // the network's lines in the saved file
    } const rows[] = {
        {"Home", "it's a \"quoted\" \\pass", 2,
         "\tssid=\"Home\"\n\tscan_ssid=1\n\tpsk=\"it's a \"quoted\" \\pass\"\n"},
        {"W", "a'b\"c", 1, "\tssid=\"W\"\n\tscan_ssid=1\n\tkey_mgmt=NONE\n\twep_key0=\"a'b\"c\"\n"},
        {"it's \"q\" \\ $(id)", "", 0,
         "\tssid=\"it's \"q\" \\ $(id)\"\n\tscan_ssid=1\n\tkey_mgmt=NONE\n"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.ssid + "/" + r.pass);
        qmtnm_sta_cfg c = {};
        c.enable = 1;
        snprintf(c.ssid, sizeof c.ssid, "%s", r.ssid.c_str());
        c.auth = r.auth;
        c.index = 1;
        snprintf(c.password, sizeof c.password, "%s", r.pass.c_str());
        ASSERT_EQ(qmtnm_lcl_set(QMTNM_ID_STA, &c, 0), 0);
        std::string conf = file_text("/var/nm/wpa_supplicant.conf");
        size_t at = conf.find("network={\n");
        ASSERT_NE(at, std::string::npos) << conf;
        EXPECT_EQ(conf.find("network={", at + 1), std::string::npos) << "one network: " << conf;
        std::string net = conf.substr(at + 10);
        // The supplicant's own lines (wep_tx_keyidx and the like) aside, ours as given.
        std::string ours;
        for (size_t pos = 0; pos < net.size();) {
            size_t nl = net.find('\n', pos);
            std::string line = net.substr(pos, nl - pos + 1);
            pos = nl + 1;
            for (const char *key :
                 {"\tssid=", "\tpsk=", "\tkey_mgmt=", "\twep_key0=", "\tscan_ssid="})
                if (line.rfind(key, 0) == 0)
                    ours += line;
        }
        EXPECT_EQ(ours, r.saved) << conf;
    }
    // A get runs the real wpa_cli for the state; the open network 0 completes on the wired port
    // once the supplicant stops looking for it by scanning.
    qmtnm_sta_cfg got = {};
    ASSERT_EQ(qmtnm_lcl_get(QMTNM_ID_STA, &got, 0), 0);
    EXPECT_STREQ(got.ssid, "it's \"q\" \\ $(id)");
    EXPECT_NE(file_text("/var/nm/status_info").find("wpa_state="), std::string::npos);
    wpa_ctrl *c = wpa_ctrl_open("/var/run/wpa_supplicant/wlan0");
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(ask(c, "AP_SCAN 0"), "OK\n");
    EXPECT_EQ(ask(c, "SELECT_NETWORK 0"), "OK\n");
    for (int i = 0; i < 30 && got.link_state != 1; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        ASSERT_EQ(qmtnm_lcl_get(QMTNM_ID_STA, &got, 0), 0);
    }
    EXPECT_EQ(got.link_state, 1) << file_text("/var/nm/status_info");
    // Off: network 0 removed from the running supplicant.
    qmtnm_sta_cfg off = {};
    ASSERT_EQ(qmtnm_lcl_set(QMTNM_ID_STA, &off, 0), 0);
    EXPECT_EQ(ask(c, "LIST_NETWORKS"), "network id / ssid / bssid / flags\n");
    wpa_ctrl_close(c);
}

} // namespace
