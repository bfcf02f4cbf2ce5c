// Wi-Fi: the wpa_supplicant client against a scripted peer and the real supplicant; the station,
// scan, WPS PIN and soft-AP areas: records in; result, wpa_cli lines, hostapd.conf, store out.
#include "support/test_support.h"

#include "areas/wifi.h"
#include "qmt_conf.h"
#include "wpa_ctrl.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <regex>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

using nmtest::stored_str;
using strings = std::vector<std::string>;

namespace {

const std::string W = "wpa_cli -p/var/run/wpa_supplicant";
const auto cli = [](const std::string &words) { return W + " " + words + " &>/dev/null"; };
const std::string H64 = "0123456789abcdef0123456789abcdef0123456789ABCDEF0123456789ABCDEF";
const auto text = [](const auto &f) { return std::string(f, strnlen(f, sizeof f)); };
// The factory settings, the activate flag set, nothing run, written or logged yet; and the area's
// record as the tool builds it from them and its words ("ssid=x|auth=2").
template <class T> T record(const char *area, const std::string &words) {
    nmtest::load_defaults();
    nmtest::set_activate_flag(1);
    unlink("/var/nm/hostapd.conf");
    T rec;
    memcpy(&rec, nmtest::record(area, words).data(), sizeof rec);
    return nmtest::clear_commands(), nmtest::logs().clear(), rec; // the station's get ran wpa_cli
}
void expect_stored(const char *section, const strings &keys, const std::vector<int> &want) {
    std::vector<int> got(keys.size(), -100); // left so when a key is missing
    for (size_t i = 0; i < keys.size(); ++i)
        qmt_conf_scanf("network", "%k%k%d", section, keys[i].c_str(), &got[i]);
    EXPECT_EQ(got, want) << section;
}

using step = std::pair<int, std::string>; // a datagram after a delay in milliseconds

// Bound at path: sends each request's sender the script, each datagram after its delay.
// requests() shuts it down and tells what it was asked.
struct peer {
    peer(const std::string &path, std::vector<step> script) : path_(path) {
        sockaddr_un a{AF_UNIX, {}};
        snprintf(a.sun_path, sizeof a.sun_path, "%s", path.c_str());
        unlink(a.sun_path);
        EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr *>(&a), sizeof a), 0) << path;
        thread_ = std::thread([this, script] {
            char in[256];
            sockaddr_un from{};
            auto *to = reinterpret_cast<sockaddr *>(&from);
            socklen_t len = sizeof from;
            for (ssize_t n; (n = recvfrom(fd_, in, sizeof in, 0, to, &len)) > 0;
                 len = sizeof from) {
                requests_.emplace_back(in, n);
                for (const auto &[ms, datagram] : script)
                    usleep(ms * 1000), sendto(fd_, datagram.data(), datagram.size(), 0, to, len);
            }
        });
    }
    ~peer() { requests(), close(fd_), unlink(path_.c_str()); }
    strings requests() {
        shutdown(fd_, SHUT_RD);
        if (thread_.joinable())
            thread_.join();
        return requests_;
    }
    std::string path_;
    strings requests_;
    int fd_ = socket(AF_UNIX, SOCK_DGRAM, 0);
    std::thread thread_;
};

strings events;
void on_event(char *msg, size_t len) {
    EXPECT_EQ(msg[len], '\0') << "event text is terminated";
    events.emplace_back(msg, len);
}

// A request waits 2 s after the command or the last event; events go to the callback, losing a last
// byte to the terminator; a reply is delivered whole. Attach and detach want exactly "OK\n".
TEST(WpaCtrl, RequestsTellEventsFromTheReply) {
    struct {
        std::string command;
        std::vector<step> script;
        int result;
        std::string reply;
        strings events = {};
        size_t ms = 0, cap = 0; // how long it waits, the reply buffer's size
    } const rows[] = {
        // clang-format off
        {"PING", {}, -2, "", {}, 2000, 64},
        {"PING", {{0, "PONG\n"}}, 0, "PONG\n", {}, 0, 64},
        {"PING", {{1300, "<3>A"}, {1300, "<2>B"}, {1300, "OK"}}, 0, "OK", {"<3>A", "<2>B"}, 3900, 64},
        {"PING", {{0, "<3>ABCDEFGH"}, {0, "0123456789X"}}, 0, "0123456789X", {"<3>ABCDEFG"}, 0, 11},
        {"PING", {{0, ""}}, 0, "", {}, 0, 16},
        {"ATTACH", {{0, "OK\n"}}, 0, ""},
        {"ATTACH", {{0, "<3>OK\n"}, {0, "OK\n"}}, 0, ""}, // an event first is skipped
        {"ATTACH", {{0, "OK"}}, -1, ""},
        {"DETACH", {{0, "ok\n"}}, -1, ""},
        {"DETACH", {{0, "OK\nOK\nOK\nOK\n"}}, -1, ""}, // cut at 10 bytes
        {"DETACH", {}, -2, "", {}, 2000}, // clang-format on
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.command + (r.script.empty() ? "" : " " + r.script.back().second));
        events.clear();
        peer server("/tmp/wpa-test-peer", r.script);
        wpa_ctrl *c = wpa_ctrl_open("/tmp/wpa-test-peer");
        std::vector<char> reply(r.cap + 1, 'z');
        size_t len = r.cap;
        int64_t t0 = nmtest::now_ms();
        EXPECT_EQ(r.command == "PING"
                      ? wpa_ctrl_request(c, "PING", 4, reply.data(), &len, on_event)
                      : (r.command == "ATTACH" ? wpa_ctrl_attach : wpa_ctrl_detach)(c),
                  r.result);
        EXPECT_NEAR(nmtest::now_ms() - t0, r.ms + 250, 350);
        EXPECT_EQ(server.requests(), strings{r.command});
        EXPECT_EQ(events, r.events);
        EXPECT_EQ(std::string(reply.data(), r.result ? 0 : len), r.reply);
        EXPECT_EQ(len, r.result ? r.cap : r.reply.size()) << "left alone on failure";
        EXPECT_EQ(reply[r.cap], 'z') << "nothing written past the buffer";
        wpa_ctrl_close(c);
    }
}

using Wifi = nmtest::area_test;

// A record refused with the check's line, or network 0 removed and the lines joining the new one
// run (WPS: cancelled without the LED), the key only of the security in use stored. q64: 64 quotes
// as they stand in a single-quoted shell word.
TEST_F(Wifi, StationRecordsGiveTheirCommandsAndStoredKeys) {
    ASSERT_NE(access("/sys/class/leds/wifi_led/trigger", F_OK), 0) << "this test needs no LED";
    const std::string q64 = std::regex_replace(std::string(64, '\''), std::regex("'"), "'\\''");
    const std::string hex = "0123456789abcdef0123456789", ctl = ", errno = -34537479",
                      wep_hex = "sta wep key of 10 or 26 characters must be hexadecimal" + ctl;
    const std::string rm = cli("remove_network 0"), cancel = W + " wps_cancel";
    auto join = [rm](const std::string &word, strings security) { // word: the ssid as it stands
        security.insert(security.begin(), {"ssid '\"" + word + "\"'", "scan_ssid 1"});
        strings run = {rm, cli("ap_scan 1"), cli("add_network")};
        for (const std::string &s : security)
            run.push_back(cli("set_network 0 " + s));
        return run.insert(run.end(), {cli("select_network 0"), cli("save_config")}), run;
    };
    struct {
        std::string words;
        strings run;              // none: refused
        std::string refusal = ""; // the check's line
    } const rows[] = {
        // clang-format off
        {"enable=1", {}, "essid length should 1~32, but now is 0"},
        {"enable=1|ssid=net|auth=5", {}, "sta auth out of range"},
        {"enable=1|ssid=net|auth=2|password=12345678|encry=3", {}, "sta auth out of range"},
        {"enable=1|ssid=net|auth=1|password=abcde|index=5", {}, "sta wep index value invalid"},
        {"enable=1|ssid=net|auth=1|password=abcdef|index=1", {}, "wep password len invalid, len=6"},
        {"enable=1|ssid=net|auth=2|password=1234567", {}, "wpa password len invalid, len=7"},
        {"enable=1|wps=pin|pin=1234567", {}, "sta wps pin len check fail, pin:1234567"},
        {"enable=1|wps=pin|pin=1234567a", {}, "sta wps pin value check fail, pin:1234567a"},
        {"wps=pin|pin=1;reboot", {}, "sta wps pin value check fail, pin:1;reboot"}, // WPS runs when off
        {"enable=1|ssid=net\nnetwork={", {}, "sta ssid holds a control character" + ctl},
        {"enable=1|ssid=n|auth=2|password=1234567\n8", {}, "sta password holds a control character" + ctl},
        {"enable=1|ssid=n|auth=2|password=12345678\x7f", {}, "sta password holds a control character" + ctl},
        {"enable=1|ssid=n|auth=1|index=1|password=01234;id;x", {}, wep_hex},
        {"enable=1|ssid=n|auth=1|index=1|password=" + hex.substr(0, 25) + "g", {}, wep_hex},
        {"auth=9|ssid=x|password=\n", {rm}}, // off: nothing else is looked at or stored
        {"enable=1|wps=pbc", {rm, cli("wps_pbc any"), cancel, W + " reconfigure"}},
        {"enable=1|wps=pin|pin=12345678", {rm, cli("wps_pin any 12345678"), cancel, W + " reconfigure"}}, // no check digit
        {"enable=1|ssid=Cafe|password=unused\n", join("Cafe", {"key_mgmt NONE"})},
        {"enable=1|ssid=Home|auth=1|index=3|password=" + hex, join("Home", {"key_mgmt NONE", "wep_key2 " + hex, "wep_tx_keyidx 2"})},
        {"enable=1|ssid=H|auth=1|index=4|password=0a1b2c3d4e", join("H", {"key_mgmt NONE", "wep_key3 0a1b2c3d4e", "wep_tx_keyidx 3"})},
        {"enable=1|ssid=H|auth=1|index=1|password=a'b\"c$(x)`y`;", join("H", {"key_mgmt NONE", "wep_key0 '\"a'\\''b\"c$(x)`y`;\"'", "wep_tx_keyidx 0"})},
        {"enable=1|ssid=Home Net|auth=3|encry=2|password=pass phrase", join("Home Net", {"psk '\"pass phrase\"'"})},
        {"enable=1|ssid=n|auth=4|encry=1|password=*p", {}, "wpa password len invalid, len=64"}, // 64: only as hex digits
        {"enable=1|ssid=n|auth=2|password=" + H64, join("n", {"psk " + H64})}, // the key itself
        {"enable=1|ssid=it's \"q\" $(id)|auth=2|password=a'b\"c\\d`e`", join("it'\\''s \"q\" $(id)", {"psk '\"a'\\''b\"c\\d`e`\"'"})},
        {"enable=1|ssid=*'|auth=2|password=" + std::string(63, '\''), join(q64.substr(0, 4 * 32), {"psk '\"" + q64.substr(4) + "\"'"})}, // clang-format on
    };
    const qmtnm_sta_cfg factory = record<qmtnm_sta_cfg>("sta", "");
    for (const auto &r : rows) {
        SCOPED_TRACE(r.words);
        auto c = record<qmtnm_sta_cfg>("sta", r.words);
        EXPECT_EQ(qmtnm_lcl_set(QMTNM_ID_STA, &c, 0), r.run.empty() ? int32_t(0xFDF0FFF9)
                                                      : c.use_wps   ? int32_t(0xFDF0FFFF)
                                                                    : 0);
        EXPECT_EQ(nmtest::commands(), r.run);
        EXPECT_TRUE(r.refusal.empty() ||
                    nmtest::logs().contains(nmtest::logged("check_sta_info_grammar", r.refusal)));
        const auto &s = r.run.size() > 1 && !c.use_wps ? c : factory; // joined, or nothing stored
        expect_stored("network_sta", {"enable", "auth", "encry", "index"},
                      {s.enable, s.auth, s.auth >= 2 ? s.encry : 0, s.auth == 1 ? s.index : 0});
        EXPECT_EQ(stored_str("network_sta", "ssid"), text(s.ssid));
        EXPECT_EQ(stored_str("network_sta", "password"), s.auth ? text(s.password) : "");
    }
}

// The stored record and the link the supplicant's state tells.
TEST_F(Wifi, StationGetReadsTheStoreAndTheSupplicantsState) {
    auto on = record<qmtnm_sta_cfg>("sta", "enable=1|ssid=Home|auth=1|password=abcde|index=2");
    ASSERT_EQ(qmtnm_lcl_set(QMTNM_ID_STA, &on, 0), 0);
    // clang-format off
    const std::pair<const char *, int32_t> rows[] = {{"bssid=02:00:00:00:01:00\nwpa_state=COMPLETED\n", 1},
        {"wpa_state=INACTIVE\n", 0}, {"wpa_state=DISCONNECTED\n", 0}, {"wpa_state=4WAY_HANDSHAKE\n", 2},
        {"wpa_state=SCANNING\n", 3}, {"address=02:00:00:00:00:01\n", 0}}; // clang-format on
    for (const auto &[status, link] : rows) {
        std::ofstream("/var/nm/status_info") << status;
        nmtest::clear_commands();
        qmtnm_sta_cfg got, want = on;
        memset(&got, 0x55, sizeof got);
        ASSERT_EQ(qmtnm_lcl_get(QMTNM_ID_STA, &got, 0), 0);
        EXPECT_EQ(nmtest::commands(), strings{W + " -iwlan0 status &>/var/nm/status_info"});
        want.link_state = link;
        memcpy(want.wps_pin, "12345670", sizeof want.wps_pin);
        EXPECT_EQ(memcmp(&got, &want, sizeof got), 0) << status;
    }
}

// WPS keeps the learned name and key whole: 32 characters, a 63-character passphrase, 64 digits.
TEST_F(Wifi, WpsKeepsTheLearnedNetworkWhole) {
    nmtest::sh("mount -t tmpfs c /sys/class && cd /sys/class && mkdir -p net/wlan0 leds/wifi_led &&"
               " >leds/wifi_led/trigger && echo up >net/wlan0/operstate"); // the LED; wlan0 up
    for (const std::string &key : {"\"" + std::string(63, '~') + "\"", H64}) {
        std::ofstream("/var/nm/wpa_supplicant.conf")
            << "\tssid=\"" + std::string(32, 's') + "\"\n\tpsk=" + key;
        auto wps = record<qmtnm_sta_cfg>("sta", "enable=1|wps=pbc");
        ASSERT_EQ(qmtnm_lcl_set(QMTNM_ID_STA, &wps, 0), 0);
        EXPECT_EQ(stored_str("network_sta", "ssid") + stored_str("network_sta", "password"),
                  std::string(32, 's') + (key == H64 ? key : key.substr(1, 63)));
    }
    nmtest::sh("umount /sys/class");
}

// A PIN's 8 digits, weighted 3, 1, 3, 1..., sum to a multiple of 10. The instances make one and
// store it.
TEST_F(Wifi, PinsCarryTheirCheckDigitAndAreStored) {
    for (auto [body, pin] : {std::pair{1, 17}, {10, 109}, {1234567, 12345670}, {9999999, 99999995}})
        EXPECT_EQ(nm::wifi::wps_pin(body), pin) << body;
    strings made; // 40 PINs within a second, none equal to another
    for (int i = 0; i < 20; ++i)
        for (const auto &[id, section] : {std::pair{QMTNM_ID_STAPIN, "network_sta"},
                                          std::pair{QMTNM_ID_APPIN, "network_softap"}}) {
            char pin[QMTNM_WPS_PIN_SIZE] = {};
            ASSERT_EQ(qmtnm_lcl_get(id, pin, 0), 0);
            EXPECT_EQ(strspn(pin, "0123456789"), 8u) << pin;
            EXPECT_EQ(nm::wifi::wps_pin(atoi(pin) / 10), atoi(pin)) << pin;
            EXPECT_EQ(stored_str(section, "wps_pin"), pin);
            made.push_back(pin);
        }
    std::sort(made.begin(), made.end());
    EXPECT_EQ(std::unique(made.begin(), made.end()), made.end());
}

// A scan attaches, waits for the results event (not another one) and counts the lines behind the
// header; they fill as many whole entries as the room holds, the count returned minus two.
TEST_F(Wifi, ScanCountsAndParsesTheResults) {
    // clang-format off
    const std::pair<std::string, std::string> lines[] = { // and their entries
        {"02:00:00:00:01:00\t2412\t-40\t[WPA2-PSK-CCMP]\tHome", "Home|02:00:00:00:01:00|1|-40|[WPA2-PSK-CCMP]"},
        {"02:00:00:00:02:00\t2472\t-71\t[ESS]\t", "|02:00:00:00:02:00|13|-71|[ESS]"},
        {"02:00:00:00:03:00\t2484\t-90\t[WEP]\ttab\tin name", "tab\tin name|02:00:00:00:03:00|15|-90|[WEP]"},
        {"02:00:00:00:04:00\t5180\t-55\t[WPS]\t" + std::string(32, 'n'), std::string(32, 'n') + "||554|-55|[WPS]"}, // the terminator takes bssid's first byte
    };
    std::string file = "Selected interface 'wlan0'\nbssid / frequency / signal level / flags / ssid\n";
    for (const auto &line : lines)
        file += line.first + "\n";
    std::ofstream("/var/nm/scan_info") << file;
    nmtest::sh("mkdir -p /var/run/wpa_supplicant");
    peer wpas("/var/run/wpa_supplicant/wlan0", {{0, "OK\n"}, {0, "<3>CTRL-EVENT-SCAN-STARTED "},
        {0, "<3>CTRL-EVENT-SCAN-RESULTS"}, {0, "<2>CTRL-EVENT-SCAN-RESULTS "}});
    // clang-format on
    uint32_t count = 99;
    ASSERT_EQ(qmtnm_lcl_get(QMTNM_ID_DOSCAN, &count, 0), 0);
    EXPECT_EQ(wpas.requests(), (strings{"ATTACH", "DETACH"}));
    EXPECT_EQ(count, 4u);
    EXPECT_EQ(nmtest::commands(),
              (strings{W + " scan >/dev/null", W + " scan_results >/var/nm/scan_info"}));
    std::vector<qmtnm_scan_entry> e(10);
    memset(e.data(), 0x55, e.size() * sizeof e[0]);
    EXPECT_EQ(qmtnm_lcl_get(QMTNM_ID_SCANRESULT, e.data(), 3 * sizeof e[0] - 1), 2 - 2);
    EXPECT_EQ(static_cast<unsigned char>(e[2].bssid[0]), 0x55) << "a byte short: not filled";
    ASSERT_EQ(qmtnm_lcl_get(QMTNM_ID_SCANRESULT, e.data(), e.size() * sizeof e[0]), 4 - 2);
    for (size_t i = 0; i < 4; ++i)
        EXPECT_EQ(text(e[i].ssid) + "|" + e[i].bssid + "|" + std::to_string(e[i].channel) + "|" +
                      std::to_string(e[i].signal) + "|" + e[i].flags,
                  lines[i].second);
}

// A record on the factory settings (on, channel 6, 802.11b) refused with the check's line, or
// applied (hostapd.conf, hostapd rereads it) and stored; turned off, only the switch is stored and
// waits for a reboot.
TEST_F(Wifi, SoftApRecordsGiveTheirHostapdConfAndStoredKeys) {
    const std::string ctl = ", errno = -34603015", z32(32, 'z'), p63(63, 'p'),
                      head = "interface=wlan1\nctrl_interface=/var/run/hostapd\nbeacon_int=100\n"
                             "dtim_period=2\nmax_num_sta=8\nbridge=br0\n";
    struct {
        std::string words;
        std::string conf;         // hostapd.conf after its fixed head
        std::string refusal = ""; // the check's line
    } const rows[] = {
        // clang-format off
        {"ssid=", "", "ap ssid len out of range"},
        {"channel=14", "", "ap channel out of range"},
        {"channel=0x10006", "", "ap channel out of range"},
        {"hw_mode=3", "", "ap protocol out of range"},
        {"hide_ssid=2", "", "ap hide out of range"},
        {"auth=5", "", "ap auth out of range"},
        {"auth=1|password=abcde|index=5", "", "ap wep index value invalid"},
        {"auth=1|password=abcdef|index=1", "", "ap wep password len invalid, len=6"},
        {"auth=2|password=12345678|encry=3", "", "ap cipher out of range"},
        {"auth=2|password=1234567", "", "ap password len invalid, len=7"},
        {"auth=2|password=*p", "", "ap password len invalid, len=64"}, // 64: only as hex digits
        {"ssid=a\nwpa=0|auth=2|password=12345678", "", "ap ssid holds a control character" + ctl},
        {"auth=2|password=12345678\nwpa_psk=x", "", "ap password holds a control character" + ctl},
        {"auth=1|index=1|password=0a1b2c3d4z", "", "ap wep key of 10 or 26 characters must be hexadecimal" + ctl},
        {"enable=0|auth=9|ssid=|channel=0", ""}, // off: nothing else is looked at
        {"ssid=Cafe|password=unused|channel=13|hw_mode=1", "ssid=Cafe\nchannel=13\nhw_mode=g\n"},
        {"ssid=Open AP|channel=0x0101|hide_ssid=1", "ssid=Open AP\nchannel=1\nignore_broadcast_ssid=2\nhw_mode=b\n"},
        {"ssid=W|auth=1|password=ab'\"c|channel=3|index=2", "ssid=W\nchannel=3\nhw_mode=b\nauth_algs=1\nwep_default_key=1\nwep_key1=\"ab'\"c\"\n"},
        {"ssid=W|auth=1|password=0a1b2c3d4e|channel=3|index=4", "ssid=W\nchannel=3\nhw_mode=b\nauth_algs=1\nwep_default_key=3\nwep_key3=0a1b2c3d4e\n"},
        {"ssid=Cam|auth=3|password=pass phrase \"x\"|channel=11|encry=2|hw_mode=2|wps_enable=1", "ssid=Cam\nchannel=11\nhw_mode=g\n"
         "ieee80211n=1\nwps_state=2auth_algs=1\nwpa=2\nwpa_passphrase=pass phrase \"x\"\nwpa_key_mgmt=WPA-PSK\nwpa_pairwise=TKIP CCMP\n"},
        {"ssid=#x = \"y\" \\|auth=2|password=a b'c\"d\\|hw_mode=1", "ssid=#x = \"y\" \\\nchannel=6\nhw_mode=g\nauth_algs=1\nwpa=1\n"
         "wpa_passphrase=a b'c\"d\\\nwpa_key_mgmt=WPA-PSK\nwpa_pairwise=CCMP\n"},
        {"ssid=*z|auth=4|password=" + p63 + "|encry=1", "ssid=" + z32 + "\nchannel=6\nhw_mode=b\nauth_algs=1\nwpa=3\n"
         "wpa_passphrase=" + p63 + "\nwpa_key_mgmt=WPA-PSK\nwpa_pairwise=TKIP\n"},
        {"ssid=K|auth=2|password=" + H64, "ssid=K\nchannel=6\nhw_mode=b\nauth_algs=1\nwpa=1\nwpa_psk=" + H64 +
         "\nwpa_key_mgmt=WPA-PSK\nwpa_pairwise=CCMP\n"},
        {"ssid=WPS|password=wps only|wps_enable=1", "ssid=WPS\nchannel=6\nhw_mode=b\nwps_state=2"}, // clang-format on
    };
    const nm_softap factory = record<nm_softap>("ap", "");
    for (const auto &r : rows) {
        SCOPED_TRACE(r.words);
        auto c = record<nm_softap>("ap", r.words);
        const bool refused = !r.refusal.empty(), applied = !refused && c.enable;
        ASSERT_EQ(qmtnm_lcl_set(QMTNM_ID_AP, &c, 0), refused ? int32_t(0xFDEFFFF9) : 0);
        const auto &s = applied ? c : factory; // what is stored besides the switch
        EXPECT_EQ(nmtest::file_text("/var/nm/hostapd.conf"), applied ? head + r.conf : "<missing>");
        EXPECT_EQ(nmtest::commands(),
                  applied ? strings{"killall -1 hostapd > /dev/null 2>&1"} : strings{});
        EXPECT_EQ(nmtest::activate_flag(), applied || refused ? 1u : 0u);
        EXPECT_TRUE(applied ||
                    nmtest::logs().contains(
                        refused ? nmtest::logged("check_softap_info_grammar", r.refusal)
                                : nmtest::logged("ap_activate_now", "function request reboot")));
        for (const auto &l : nmtest::logs().lines()) // the soft AP's line has no line end
            EXPECT_FALSE(l.newline && l.text.find("function request reboot") != l.text.npos);
        expect_stored("network_softap",
                      {"enable", "channel", "hw_mode", "auth", "wps_enable", "encry", "index"},
                      {refused ? 1 : c.enable, s.channel, s.hw_mode, s.auth, s.wps_enable,
                       s.auth >= 2 ? s.encry : 0, s.auth == 1 ? s.index : 0});
        EXPECT_EQ(stored_str("network_softap", "ssid"), text(s.ssid));
        EXPECT_EQ(stored_str("network_softap", "password"),
                  s.auth || s.wps_enable ? text(s.password) : "");
    }
}

// The client's pending, recv and events before a reply; the station's text saved as typed.
TEST_F(Wifi, RealSupplicantTakesTheClientAndTheStationsCommands) {
    nmtest::run_commands(true);
    const char *start = "ip link add wlan0 type veth peer name wlan0p && ip link set wlan0 up && "
                        "printf 'ctrl_interface=/var/run/wpa_supplicant\\nupdate_config=1\\n' "
                        ">/var/nm/wpa_supplicant.conf && wpa_supplicant -B -D wired -i wlan0 "
                        "-c /var/nm/wpa_supplicant.conf -P /tmp/wpas.pid >/tmp/wpas.log 2>&1 && "
                        "[ -S /var/run/wpa_supplicant/wlan0 ] && echo up";
    ASSERT_EQ(nmtest::sh(start), "up\n") << nmtest::file_text("/tmp/wpas.log");
    wpa_ctrl *c = wpa_ctrl_open("/var/run/wpa_supplicant/wlan0");
    char reply[2048];
    size_t len = sizeof reply;
    ASSERT_EQ(wpa_ctrl_request(c, "ADD_NETWORK", 11, reply, &len, on_event), 0);
    EXPECT_EQ(std::string(reply, len) + std::to_string(wpa_ctrl_pending(c)), "0\n0") << "no event";
    ASSERT_EQ(wpa_ctrl_attach(c), 0);
    auto home = record<qmtnm_sta_cfg>(
        "sta", "enable=1|auth=2|ssid=it's \"q\" \\ $(id)|password=it's a \"quoted\" \\pass");
    ASSERT_EQ(qmtnm_lcl_set(QMTNM_ID_STA, &home, 0), 0);
    EXPECT_PRED_FORMAT2(testing::IsSubstring,
                        "\tssid=\"it's \"q\" \\ $(id)\"\n\tscan_ssid=1\n\tpsk=\"it's a \"quoted\" "
                        "\\pass\"\n",
                        nmtest::file_text("/var/nm/wpa_supplicant.conf"));
    ASSERT_EQ(wpa_ctrl_pending_timeout(c, 2), 1) << "wpa_cli removed network 0";
    ASSERT_EQ(wpa_ctrl_recv(c, reply, &(len = 8)), 0);
    EXPECT_EQ(std::string(reply, len), "<3>CTRL-") << "cut at the length given";
    events.clear(); // the next events are waiting before the reply: the callback takes them
    ASSERT_EQ(wpa_ctrl_request(c, "PING", 4, reply, &(len = sizeof reply), on_event), 0);
    EXPECT_EQ(std::string(reply, len) + events.at(0), "PONG\n<3>CTRL-EVENT-NETWORK-ADDED 0");
    EXPECT_EQ(wpa_ctrl_detach(c), 0);
    wpa_ctrl_close(c);
    nmtest::sh("kill $(cat /tmp/wpas.pid); ip link del wlan0");
}

} // namespace
