// The station, scan, WPS PIN and soft AP areas through the public calls: the checks as tables
// (every length and range rule, and the names and keys that would leave their line or quoted
// word), the exact wpa_cli command lines and hostapd.conf bytes, the scan table's parsing, the
// PIN check digit, and what each set stores. Commands are recorded, not run; the supplicant's
// answers are files the test writes where wpa_cli would have written them.
#include "support/test_support.h"

#include "areas/wifi.h"
#include "qmt_conf.h"
#include "qmtnm.h"
#include "wpa_ctrl.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <ctime>
#include <fstream>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

using nmtest::file_text;
using nmtest::logged;
using nmtest::logs;
using strings = std::vector<std::string>;

namespace {

const std::string W = "wpa_cli -p/var/run/wpa_supplicant";
// A wpa_cli line whose output is thrown away.
std::string cli(const std::string &words) {
    return W + " " + words + " &>/dev/null";
}
const int32_t kStaInvalid = static_cast<int32_t>(0xFDF0FFF9);
const int32_t kApInvalid = static_cast<int32_t>(0xFDEFFFF9);

template <size_t N> void put(char (&field)[N], const std::string &text) {
    memset(field, 0, N);
    memcpy(field, text.data(), std::min(N, text.size()));
}

int32_t stored_int(const char *section, const char *key) {
    int v = -100;
    EXPECT_GE(qmt_conf_scanf("network", "%k%k%d", section, key, &v), 0) << section << key;
    return v;
}

void write_file(const char *path, const std::string &text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

qmtnm_sta_cfg sta(int32_t auth, const std::string &ssid, const std::string &pass, int32_t index = 1,
                  int32_t encry = 0) {
    qmtnm_sta_cfg c = {};
    c.enable = 1;
    put(c.ssid, ssid);
    c.auth = auth;
    c.encry = encry;
    c.index = index;
    put(c.password, pass);
    return c;
}

qmtnm_sta_cfg wps(int32_t push_button, const std::string &pin) {
    qmtnm_sta_cfg c = {};
    c.enable = 1;
    c.use_wps = 1;
    c.push_button = push_button;
    put(c.wps_pin, pin);
    return c;
}

nm_softap ap(int32_t auth, const std::string &ssid, const std::string &pass, int32_t channel = 6,
             int32_t encry = 0, int32_t index = 1) {
    nm_softap c = {};
    c.enable = 1;
    put(c.ssid, ssid);
    c.channel = channel;
    c.hw_mode = 1;
    c.auth = auth;
    c.encry = encry;
    c.index = index;
    put(c.password, pass);
    return c;
}

using Wifi = nmtest::area_test;

// An area's check on each row: accepted without a word, or refused with the invalid-input code
// and one line under func.
template <class Cfg>
void expect_checks(lcl_instance &inst, const char *func, int32_t refused,
                   const std::vector<std::pair<Cfg, const char *>> &rows) {
    for (const auto &[cfg, refusal] : rows) {
        SCOPED_TRACE(std::string(cfg.ssid, strnlen(cfg.ssid, 32)) + "/" +
                     std::string(cfg.password, strnlen(cfg.password, 64)) + "/" +
                     (refusal ? refusal : "ok"));
        logs().clear();
        Cfg c = cfg;
        EXPECT_EQ(inst.check(&inst, &c, 0), refusal ? refused : 0);
        EXPECT_EQ(logs().texts(), refusal ? strings{logged(func, refusal)} : strings{});
    }
}

std::string repeat(const std::string &s, int n) {
    std::string out;
    while (n-- > 0)
        out += s;
    return out;
}

// ---- station: check ------------------------------------------------------------------------

TEST_F(Wifi, StationCheckRefusesEveryOutOfRangeField) {
    const std::string s32(32, 's'), p64(64, 'p');
    auto off = sta(9, "", "\n");
    off.enable = 0;
    auto bad_encry = sta(2, "net", "12345678", 1, 3);
    auto wps_hostile_ignored = wps(1, "x");
    put(wps_hostile_ignored.ssid, "a\nb");
    auto off_wps = wps(0, "1;reboot");
    off_wps.enable = 0;
    expect_checks<qmtnm_sta_cfg>(
        sta_lcl, "check_sta_info_grammar", kStaInvalid,
        {
            {off, nullptr}, // off: nothing else is looked at
            {wps(1, ""), nullptr},
            {wps(0, "12345678"), nullptr}, // the check digit is not verified
            {wps(0, "1234567"), "sta wps pin len check fail, pin:1234567"},
            {wps(0, "123456789"), "sta wps pin len check fail, pin:123456789"},
            {wps(0, "1234567a"), "sta wps pin value check fail, pin:1234567a"},
            {wps_hostile_ignored, nullptr},
            // A set asking for WPS runs it with the station off too: the PIN is checked then as
            // well.
            {off_wps, "sta wps pin value check fail, pin:1;reboot"},
            {sta(0, "", ""), "essid length should 1~32, but now is 0"},
            {sta(0, s32, ""), nullptr}, // 32 characters fill the field
            {sta(5, "net", ""), "sta auth out of range"},
            {sta(-1, "net", ""), "sta auth out of range"},
            {sta(0, "net", "\n"), nullptr}, // open: the password is not used
            {sta(1, "net", "abcde", 0), "sta wep index value invalid"},
            {sta(1, "net", "abcde", 5), "sta wep index value invalid"},
            {sta(1, "net", "abcde", 4), nullptr},
            {sta(1, "net", "abcdefghijklm"), nullptr},
            {sta(1, "net", "0123456789"), nullptr},
            {sta(1, "net", "0123456789abcdefABCDEF0123"), nullptr},
            {sta(1, "net", "abcdef"), "wep password len invalid, len=6"},
            {bad_encry, "sta auth out of range"},
            {sta(2, "net", "1234567"), "wpa password len invalid, len=7"},
            {sta(3, "net", "12345678", 1, 2), nullptr},
            {sta(4, "net", p64), nullptr},
            // Names and keys that would leave their line or their quoted word.
            {sta(0, "net\nnetwork={", ""), "sta ssid holds a control character, errno = -34537479"},
            {sta(2, "net\t", "12345678"), "sta ssid holds a control character, errno = -34537479"},
            {sta(2, "net", "1234567\n8"),
             "sta password holds a control character, errno = -34537479"},
            {sta(2, "net", "12345678\x7f"),
             "sta password holds a control character, errno = -34537479"},
            {sta(1, "net", "01234;id;x"),
             "sta wep key of 10 or 26 characters must be hexadecimal, errno = -34537479"},
            {sta(1, "net", "0123456789abcdef012345678g"),
             "sta wep key of 10 or 26 characters must be hexadecimal, errno = -34537479"},
            {sta(1, "net", "a;b'c"), nullptr}, // 5 characters: quoted, any text
            {sta(2, "it's \"q\" \\ $(id)`x`", "it's \"q\" b\\"), nullptr},
        });
    // Through the dispatcher: a refusal stores nothing and runs nothing.
    qmtnm_sta_cfg c = sta(2, "net", "1234567");
    EXPECT_EQ(qmtnm_lcl_set(QMTNM_ID_STA, &c, 0), kStaInvalid);
    EXPECT_TRUE(nmtest::commands().empty());
    EXPECT_EQ(stored_int("network_sta", "enable"), 0);
}

// ---- station: set and flush ------------------------------------------------------------------

TEST_F(Wifi, StationSetRunsTheWpaCliLinesAndStoresTheSettingsOrOnlyTheSwitch) {
    const std::string hex = "0123456789abcdef0123456789";
    struct {
        qmtnm_sta_cfg cfg;
        std::string ssid_word;   // the ssid as it stands in its command
        int32_t stored_encry;    // 0: the factory value kept
        std::string stored_pass; // what the store keeps as password
        strings security;        // the lines between the ssid lines and the last two
    } const rows[] = {
        {sta(0, "Cafe", "unused"), "Cafe", 0, "", {cli("set_network 0 key_mgmt NONE")}},
        {sta(1, "Home", hex, 3),
         "Home",
         0,
         hex,
         {cli("set_network 0 key_mgmt NONE"), cli("set_network 0 wep_key2 " + hex),
          cli("set_network 0 wep_tx_keyidx 2")}},
        {sta(1, "Home", "abc'd", 1),
         "Home",
         0,
         "abc'd",
         {cli("set_network 0 key_mgmt NONE"), cli("set_network 0 wep_key0 '\"abc'\\''d\"'"),
          cli("set_network 0 wep_tx_keyidx 0")}},
        {sta(3, "Home Net", "pass phrase", 1, 2),
         "Home Net",
         2,
         "pass phrase",
         {cli("set_network 0 psk '\"pass phrase\"'")}},
        {sta(2, "it's \"q\" $(id)", "a'b\"c\\d`e`"),
         "it'\\''s \"q\" $(id)",
         0,
         "a'b\"c\\d`e`",
         {cli("set_network 0 psk '\"a'\\''b\"c\\d`e`\"'")}},
        // Full fields of quotes, each one four characters in the command, stored whole.
        {sta(2, std::string(32, '\''), std::string(64, '\'')),
         repeat("'\\''", 32),
         0,
         std::string(64, '\''),
         {cli("set_network 0 psk '\"" + repeat("'\\''", 64) + "\"'")}},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.ssid_word);
        nmtest::load_defaults();
        nmtest::clear_commands();
        qmtnm_sta_cfg c = r.cfg;
        ASSERT_EQ(qmtnm_lcl_set(QMTNM_ID_STA, &c, 0), 0);
        strings want = {cli("remove_network 0"), cli("ap_scan 1"), cli("add_network"),
                        cli("set_network 0 ssid '\"" + r.ssid_word + "\"'"),
                        cli("set_network 0 scan_ssid 1")};
        want.insert(want.end(), r.security.begin(), r.security.end());
        want.insert(want.end(), {cli("select_network 0"), cli("save_config")});
        EXPECT_EQ(nmtest::commands(), want);
        EXPECT_EQ(stored_int("network_sta", "enable"), 1);
        EXPECT_EQ(nmtest::stored_str("network_sta", "ssid"),
                  std::string(c.ssid, strnlen(c.ssid, 32)));
        EXPECT_EQ(stored_int("network_sta", "auth"), c.auth);
        EXPECT_EQ(stored_int("network_sta", "encry"), r.stored_encry);
        EXPECT_EQ(stored_int("network_sta", "index"), c.auth == 1 ? c.index : 0);
        EXPECT_EQ(nmtest::stored_str("network_sta", "password"), r.stored_pass);
    }
    // Off: network 0 removed, nothing more run, the switch alone stored.
    nmtest::clear_commands();
    qmtnm_sta_cfg off = {};
    ASSERT_EQ(qmtnm_lcl_set(QMTNM_ID_STA, &off, 0), 0);
    EXPECT_EQ(nmtest::commands(), strings{cli("remove_network 0")});
    EXPECT_EQ(stored_int("network_sta", "enable"), 0);
    EXPECT_EQ(nmtest::stored_str("network_sta", "ssid"), std::string(32, '\''));
}

TEST_F(Wifi, StationWpsWithoutTheLedCancelsAtOnce) {
    ASSERT_NE(access("/sys/class/leds/wifi_led/trigger", F_OK), 0) << "this test needs no LED";
    qmtnm_sta_cfg c = wps(1, "");
    EXPECT_EQ(qmtnm_lcl_set(QMTNM_ID_STA, &c, 0), static_cast<int32_t>(0xFDF0FFFF));
    EXPECT_EQ(nmtest::commands(), (strings{cli("remove_network 0"), cli("wps_pbc any"),
                                           W + " wps_cancel", W + " reconfigure"}));
    EXPECT_EQ(logs().texts(),
              (strings{logged("ctrl_wifi_led", "led trigger file not exist"),
                       logged("start_led_link", "ctrl wifi led fail, errno = -34537473"),
                       logged("sta_start_wps", "wifi wps connect fail"),
                       logged("set_sta", "sta wps cfg fail, ret = -34537473")}));
    EXPECT_EQ(stored_int("network_sta", "enable"), 0) << "a failed set stores nothing";
}

// WPS that succeeds: wlan0 is a real interface whose link is up (this namespace's own sysfs),
// the LED class directory a scratch directory over the real one.
TEST_F(Wifi, StationWpsKeepsTheNetworkTheSupplicantLearned) {
    // sysfs of this network namespace; /sys/class a scratch directory holding its net class and
    // the LED.
    ASSERT_EQ(nmtest::sh("mount -t sysfs sysfs /sys && mkdir -p /run/class && "
                         "mount --bind /sys/class /run/class && mount -t tmpfs class /sys/class && "
                         "mkdir -p /sys/class/net /sys/class/leds/wifi_led && "
                         "mount --bind /run/class/net /sys/class/net && "
                         "touch /sys/class/leds/wifi_led/trigger && "
                         "ip link add wlan0 type veth peer name wlan0p && ip link set wlan0p up && "
                         "ip link set wlan0 up && sleep 0.2 && cat /sys/class/net/wlan0/operstate"),
              "up\n");
    write_file("/var/nm/wpa_supplicant.conf", "ctrl_interface=/var/run/wpa_supplicant\n"
                                              "update_config=1\n\n"
                                              "network={\n"
                                              "\tssid=\"Learned Net\"\n"
                                              "\tpsk=\"it's \"wps\" \\key\"\n"
                                              "\tproto=RSN\n"
                                              "}\n");
    qmtnm_sta_cfg c = wps(0, "12345670");
    EXPECT_EQ(qmtnm_lcl_set(QMTNM_ID_STA, &c, 0), 0);
    const std::string led = "/sys/class/leds/wifi_led";
    EXPECT_EQ(nmtest::commands(),
              (strings{cli("remove_network 0"), cli("wps_pin any 12345670"),
                       "echo timer >" + led + "/trigger", "echo 500 >" + led + "/delay_on",
                       "echo 500 >" + led + "/delay_off", cli("select_network 0"),
                       cli("remove_network 1"), "echo none >" + led + "/trigger",
                       "echo 1 >" + led + "/brightness"}));
    EXPECT_EQ(nmtest::stored_str("network_sta", "ssid"), "Learned Net");
    EXPECT_EQ(stored_int("network_sta", "auth"), 2);
    EXPECT_EQ(nmtest::stored_str("network_sta", "password"), "it's \"wps\" \\key");
    EXPECT_EQ(nmtest::stored_str("network_sta", "wps_pin"), "12345670");
    EXPECT_EQ(stored_int("network_sta", "enable"), 1);
    nmtest::sh("ip link del wlan0; umount /sys/class/net /sys/class /run/class /sys");
}

// ---- station: get ----------------------------------------------------------------------------

TEST_F(Wifi, StationGetReadsTheStoreAndTheSupplicantsState) {
    qmtnm_sta_cfg on = sta(1, "Home", "abcde", 2);
    ASSERT_EQ(qmtnm_lcl_set(QMTNM_ID_STA, &on, 0), 0);
    struct {
        std::string status;
        int32_t link;
    } const rows[] = {
        {"bssid=02:00:00:00:01:00\nwpa_state=COMPLETED\nip_address=10.0.0.2\n", 1},
        {"wpa_state=INACTIVE\n", 0},
        {"wpa_state=DISCONNECTED\n", 0},
        {"wpa_state=4WAY_HANDSHAKE\n", 2},
        {"wpa_state=SCANNING\n", 3},
        {"address=02:00:00:00:00:01\n", 0},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.status);
        write_file("/var/nm/status_info", r.status);
        nmtest::clear_commands();
        qmtnm_sta_cfg got;
        memset(&got, 0x55, sizeof got);
        ASSERT_EQ(qmtnm_lcl_get(QMTNM_ID_STA, &got, 0), 0);
        EXPECT_EQ(nmtest::commands(), strings{W + " -iwlan0 status &>/var/nm/status_info"});
        EXPECT_EQ(got.link_state, r.link);
        qmtnm_sta_cfg want = on;
        want.encry = 0; // not read for WEP
        want.link_state = r.link;
        put(want.wps_pin, "12345670");
        EXPECT_EQ(memcmp(&got, &want, sizeof got), 0);
    }
    unlink("/var/nm/status_info");
    qmtnm_sta_cfg got = {};
    EXPECT_EQ(qmtnm_lcl_get(QMTNM_ID_STA, &got, 0), static_cast<int32_t>(0xFDF0FFFD));
    EXPECT_TRUE(
        logs().contains(logged("get_sta", "open /var/nm/status_info fail, errno = -34537475")));
}

// ---- scan ------------------------------------------------------------------------------------

const std::string kScanHeader = "bssid / frequency / signal level / flags / ssid\n";

TEST_F(Wifi, ScanResultsParseIntoEntriesAndReturnTheCountMinusTwo) {
    const std::string s32(32, 'n');
    write_file("/var/nm/scan_info",
               "Selected interface 'wlan0'\n" + kScanHeader +
                   "02:00:00:00:01:00\t2412\t-40\t[WPA2-PSK-CCMP][ESS]\tHome Net\n"
                   "02:00:00:00:02:00\t2472\t-71\t[ESS]\t\n"
                   "02:00:00:00:03:00\t2484\t-90\t[WEP][ESS]\ttab\tin name\n"
                   "02:00:00:00:04:00\t5180\t-55\t[WPA-PSK-TKIP][WPS][ESS]\t" +
                   s32 + "\n");
    struct want_entry {
        const char *ssid, *bssid;
        int32_t channel, signal;
        const char *flags;
    };
    const want_entry want[] = {
        {"Home Net", "02:00:00:00:01:00", 1, -40, "[WPA2-PSK-CCMP][ESS]"},
        {"", "02:00:00:00:02:00", 13, -71, "[ESS]"},
        {"tab\tin name", "02:00:00:00:03:00", 15, -90, "[WEP][ESS]"},
        // The full name's terminator takes bssid's first byte.
        {nullptr, "", 554, -55, "[WPA-PSK-TKIP][WPS][ESS]"},
    };
    qmtnm_scan_entry e[5];
    memset(e, 0x55, sizeof e);
    ASSERT_EQ(qmtnm_lcl_get(QMTNM_ID_SCANRESULT, e, sizeof e), 4 - 2);
    for (size_t i = 0; i < 4; ++i) {
        SCOPED_TRACE(i);
        const want_entry &w = want[i];
        if (w.ssid)
            EXPECT_STREQ(e[i].ssid, w.ssid);
        else
            EXPECT_EQ(std::string(e[i].ssid, 32), s32);
        EXPECT_STREQ(e[i].bssid, w.bssid);
        EXPECT_EQ(e[i].channel, w.channel);
        EXPECT_EQ(e[i].signal, w.signal);
        EXPECT_STREQ(e[i].flags, w.flags);
    }
    EXPECT_EQ(static_cast<unsigned char>(e[4].ssid[0]), 0x55) << "no fifth network";

    // The room is whole entries: 123 bytes hold none, two entries' worth hold two.
    struct {
        size_t bytes;
        int32_t result;
    } const rooms[] = {{0, -2}, {123, -2}, {124, -1}, {2 * 124 + 123, 0}, {10 * 124, 2}};
    for (const auto &r : rooms) {
        SCOPED_TRACE(r.bytes);
        std::vector<qmtnm_scan_entry> buf(10);
        memset(buf.data(), 0x55, buf.size() * sizeof buf[0]);
        EXPECT_EQ(qmtnm_lcl_get(QMTNM_ID_SCANRESULT, buf.data(), r.bytes), r.result);
        size_t filled = static_cast<size_t>(r.result + 2);
        EXPECT_EQ(static_cast<unsigned char>(buf[filled].bssid[0]), 0x55);
    }

    write_file("/var/nm/scan_info", kScanHeader);
    EXPECT_EQ(qmtnm_lcl_get(QMTNM_ID_SCANRESULT, e, sizeof e), -2);
    unlink("/var/nm/scan_info");
    EXPECT_EQ(qmtnm_lcl_get(QMTNM_ID_SCANRESULT, e, sizeof e), static_cast<int32_t>(0xFDF1FFFD));
    EXPECT_TRUE(logs().contains(logged("get_scan_result", "open scan_info fail")));
}

// A scripted supplicant on wlan0's control socket: answers every request with reply and, once
// attached, sends the events. requests() ends it and tells what it was asked.
class fake_supplicant {
  public:
    fake_supplicant(const std::string &reply, const strings &events) {
        nmtest::sh("mkdir -p /var/run/wpa_supplicant");
        fd_ = socket(AF_UNIX, SOCK_DGRAM, 0);
        sockaddr_un a{AF_UNIX, "/var/run/wpa_supplicant/wlan0"};
        unlink(a.sun_path);
        EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
        timeval tv = {0, 100000};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        thread_ = std::thread([this, reply, events] {
            for (char buf[256]; !stop_;) {
                sockaddr_un from{};
                socklen_t len = sizeof from;
                ssize_t n =
                    recvfrom(fd_, buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(&from), &len);
                if (n < 0)
                    continue;
                requests_.emplace_back(buf, n);
                strings out = {reply};
                if (requests_.back() == "ATTACH")
                    out.insert(out.end(), events.begin(), events.end());
                for (const std::string &d : out)
                    sendto(fd_, d.data(), d.size(), 0, reinterpret_cast<sockaddr *>(&from), len);
            }
        });
    }
    ~fake_supplicant() {
        requests();
        close(fd_);
        unlink("/var/run/wpa_supplicant/wlan0");
    }
    strings requests() {
        stop_ = true;
        if (thread_.joinable())
            thread_.join();
        return requests_;
    }

  private:
    strings requests_;
    int fd_ = -1;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

TEST_F(Wifi, ScanWaitsForTheResultsEventAndCountsTheLinesBehindTheHeader) {
    // Every line behind the header counts, the blank one too.
    write_file("/var/nm/scan_info", "Selected interface 'wlan0'\n" + kScanHeader +
                                        "02:00:00:00:01:00\t2412\t-40\t[ESS]\tA\n\n"
                                        "02:00:00:00:02:00\t2437\t-50\t[ESS]\tB\n");
    fake_supplicant wpas("OK\n", {"<3>CTRL-EVENT-SCAN-STARTED ", "<3>CTRL-EVENT-SCAN-RESULTS",
                                  "<3>CTRL-EVENT-SCAN-RESULTS x", "<2>CTRL-EVENT-SCAN-RESULTS "});
    uint32_t count = 99;
    ASSERT_EQ(qmtnm_lcl_get(QMTNM_ID_DOSCAN, &count, 0), 0);
    EXPECT_EQ(count, 3u);
    EXPECT_EQ(nmtest::commands(),
              (strings{W + " scan >/dev/null", W + " scan_results >/var/nm/scan_info"}));
    EXPECT_EQ(wpas.requests(), (strings{"ATTACH", "DETACH"}));
    EXPECT_TRUE(logs().texts().empty());
    qmtnm_scan_entry e[3];
    EXPECT_EQ(qmtnm_lcl_get(QMTNM_ID_SCANRESULT, e, sizeof e), 1) << "3 entries minus 2";
}

TEST_F(Wifi, ScanFailsWithoutASupplicantThatAcceptsTheMonitor) {
    uint32_t count = 99;
    unlink("/var/run/wpa_supplicant/wlan0");
    EXPECT_EQ(qmtnm_lcl_get(QMTNM_ID_DOSCAN, &count, 0), static_cast<int32_t>(0xFDF2FFFD));
    EXPECT_EQ(logs().texts(), (strings{logged("wpa_ctrl_iface_init",
                                              "UN socket connection failed, errno = -34406403"),
                                       logged("do_scan", "scan_init failed, errno = -34406403")}));
    logs().clear();
    {
        fake_supplicant wpas("FAIL\n", {});
        EXPECT_EQ(qmtnm_lcl_get(QMTNM_ID_DOSCAN, &count, 0), static_cast<int32_t>(0xFDF2FFFA));
        EXPECT_EQ(wpas.requests(), strings{"ATTACH"}) << "not attached: no DETACH";
    }
    EXPECT_EQ(logs().texts(),
              (strings{logged("wpa_ctrl_iface_init",
                              "Failed to attach to wpa_supplicant, errno = -34406406"),
                       logged("do_scan", "scan_init failed, errno = -34406406")}));
    EXPECT_EQ(count, 99u);
    EXPECT_TRUE(nmtest::commands().empty());
}

// ---- WPS PINs ---------------------------------------------------------------------------------

TEST(WpsPin, CheckDigitWeighsTheDigitsThreeOneFromTheLowest) {
    struct {
        int body, pin;
    } const rows[] = {
        {1, 17},             // sum 3
        {1234567, 12345670}, // the PIN every WPS example uses
        {9999999, 99999995}, // sum 7*9 + ... = 3*9*4 + 9*3 = 135
        {10, 109},           // 0*3 + 1*1 = 1
        {2000000, 20000004}, // the top digit counts 3: sum 6
        {4021123, 40211237}, // sum 3*3+2+3*1+1+3*2+0+3*4 = 33
    };
    for (const auto &r : rows)
        EXPECT_EQ(nm::wifi::wps_pin(r.body), r.pin) << r.body;
}

bool valid_pin(const char *pin) {
    if (strlen(pin) != 8 || strspn(pin, "0123456789") != 8)
        return false;
    int sum = 0;
    for (int i = 0; i < 8; ++i)
        sum += (pin[i] - '0') * (i % 2 == 0 ? 3 : 1);
    return sum % 10 == 0;
}

TEST_F(Wifi, PinInstancesMakeStoreAndRepeatAValidPinWithinASecond) {
    struct {
        uint32_t id;
        const char *section;
    } const rows[] = {{QMTNM_ID_STAPIN, "network_sta"}, {QMTNM_ID_APPIN, "network_softap"}};
    for (const auto &r : rows) {
        SCOPED_TRACE(r.section);
        char a[QMTNM_WPS_PIN_SIZE], b[QMTNM_WPS_PIN_SIZE];
        for (;;) {
            time_t t0 = time(nullptr);
            ASSERT_EQ(qmtnm_lcl_get(r.id, a, 0), 0);
            ASSERT_EQ(qmtnm_lcl_get(r.id, b, 0), 0);
            if (time(nullptr) == t0)
                break; // both within one second
        }
        EXPECT_TRUE(valid_pin(a)) << a;
        EXPECT_STREQ(a, b);
        EXPECT_EQ(nmtest::stored_str(r.section, "wps_pin"), a);
    }
    nmtest::store_sql(
        "CREATE TRIGGER refuse BEFORE INSERT ON conf WHEN "
        "NEW.path='network/network_softap/wps_pin' BEGIN SELECT RAISE(ABORT,'x'); END");
    char pin[QMTNM_WPS_PIN_SIZE];
    EXPECT_EQ(qmtnm_lcl_get(QMTNM_ID_APPIN, pin, 0), static_cast<int32_t>(0xFDEDFFFE));
    nmtest::store_sql("DROP TRIGGER refuse");
    EXPECT_TRUE(
        logs().contains(logged("creat_ap_pin", "write softap wps pin fail, errno=-34734082")));
}

// ---- soft AP: check ---------------------------------------------------------------------------

TEST_F(Wifi, SoftApCheckRefusesEveryOutOfRangeField) {
    auto off = ap(9, "", "", 0);
    off.enable = 0;
    auto hw = ap(0, "a", "");
    hw.hw_mode = 3;
    auto hide = ap(0, "a", "");
    hide.hide_ssid = 2;
    auto hidden = ap(0, "a", "");
    hidden.hide_ssid = 1;
    expect_checks<nm_softap>(
        ap_lcl, "check_softap_info_grammar", kApInvalid,
        {
            {off, nullptr},
            {ap(0, "", ""), "ap ssid len out of range"},
            {ap(0, std::string(32, 's'), ""), nullptr},
            {ap(0, "a", "", 0), "ap channel out of range"},
            {ap(0, "a", "", 14), "ap channel out of range"},
            {ap(0, "a", "", 0x0106), nullptr}, // the marker bits are ignored
            {ap(0, "a", "", 0x10006), "ap channel out of range"},
            {ap(0, "a", "", 13), nullptr},
            {hw, "ap protocol out of range"},
            {hide, "ap hide out of range"},
            {hidden, nullptr},
            {ap(5, "a", ""), "ap auth out of range"},
            {ap(-1, "a", ""), "ap auth out of range"},
            {ap(1, "a", "abcde", 6, 0, 0), "ap wep index value invalid"},
            {ap(1, "a", "abcde", 6, 0, 5), "ap wep index value invalid"},
            {ap(1, "a", "abcde"), nullptr},
            {ap(1, "a", "abcdefghijklm"), nullptr},
            {ap(1, "a", "0a1b2c3d4e"), nullptr},
            {ap(1, "a", "0123456789abcdef0123456789"), nullptr},
            {ap(1, "a", "abcdef"), "ap wep password len invalid, len=6"},
            {ap(2, "a", "12345678", 6, 3), "ap cipher out of range"},
            {ap(2, "a", "1234567"), "ap password len invalid, len=7"},
            {ap(4, "a", std::string(64, 'p'), 6, 2), nullptr},
            {ap(2, "a\nwpa=0", "12345678"), "ap ssid holds a control character, errno = -34603015"},
            {ap(2, "a", "12345678\nwpa_psk=x"),
             "ap password holds a control character, errno = -34603015"},
            {ap(1, "a", "0a1b2c3d4\n"), "ap password holds a control character, errno = -34603015"},
            {ap(1, "a", "0a1b2c3d4z"),
             "ap wep key of 10 or 26 characters must be hexadecimal, errno = -34603015"},
            {ap(2, "#x = \"y\" \\", "a b'c\"d\\"), nullptr},
        });
}

// ---- soft AP: apply ----------------------------------------------------------------------------

const std::string kApHead = "interface=wlan1\nctrl_interface=/var/run/hostapd\nbeacon_int=100\n"
                            "dtim_period=2\nmax_num_sta=8\n";

TEST_F(Wifi, SoftApApplyWritesHostapdConfAndMakesHostapdRereadIt) {
    auto b_hidden = ap(0, "Open AP", "", 0x0101);
    b_hidden.hw_mode = 0;
    b_hidden.hide_ssid = 1;
    auto n_wps = ap(3, "Cam", "pass phrase \"x\"", 11, 2);
    n_wps.hw_mode = 2;
    n_wps.wps_enable = 1;
    auto bad_mode = ap(2, "x", "12345678", 6, 7);
    bad_mode.hw_mode = 9;
    struct {
        const char *what;
        nm_softap cfg;
        const char *lan_port;
        std::string body; // after the five fixed lines
    } const rows[] = {
        {"open, bridged", ap(0, "Cafe", ""), "br0",
         "bridge=br0\nssid=Cafe\nchannel=6\nhw_mode=g\n"},
        {"b, hidden, marker", b_hidden, "eth1",
         "ssid=Open AP\nchannel=1\nignore_broadcast_ssid=2\n"
         "hw_mode=b\n"},
        {"wep ascii", ap(1, "W", "ab'\"c", 3, 0, 2), "br0",
         "bridge=br0\nssid=W\nchannel=3\nhw_mode=g\nauth_algs=1\nwep_default_key=1\n"
         "wep_key1=\"ab'\"c\"\n"},
        {"wep hex", ap(1, "W", "0123456789", 3, 0, 4), "br0",
         "bridge=br0\nssid=W\nchannel=3\nhw_mode=g\nauth_algs=1\nwep_default_key=3\n"
         "wep_key3=0123456789\n"},
        {"wpa2 with n and wps", n_wps, "br0",
         "bridge=br0\nssid=Cam\nchannel=11\nhw_mode=g\nieee80211n=1\nwps_state=2auth_algs=1\n"
         "wpa=2\nwpa_passphrase=pass phrase \"x\"\nwpa_key_mgmt=WPA-PSK\n"
         "wpa_pairwise=TKIP CCMP\n"},
        {"ccmp", ap(2, "C", "12345678", 6, 0), "br0",
         "bridge=br0\nssid=C\nchannel=6\nhw_mode=g\nauth_algs=1\nwpa=1\n"
         "wpa_passphrase=12345678\nwpa_key_mgmt=WPA-PSK\nwpa_pairwise=CCMP\n"},
        {"tkip, full name", ap(4, std::string(32, 'z'), "12345678", 6, 1), "br0",
         "bridge=br0\nssid=" + std::string(32, 'z') +
             "\nchannel=6\nhw_mode=g\nauth_algs=1\nwpa=3\n"
             "wpa_passphrase=12345678\nwpa_key_mgmt=WPA-PSK\nwpa_pairwise=TKIP\n"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        ASSERT_GE(qmt_conf_printf("network", "%k%k%s", "network_lan", "port", r.lan_port), 0);
        nmtest::clear_commands();
        nm_softap c = r.cfg;
        ASSERT_EQ(ap_lcl.set(&ap_lcl, &c, 0), 0);
        EXPECT_EQ(file_text("/var/nm/hostapd.conf"), kApHead + r.body);
        EXPECT_EQ(nmtest::commands(), strings{"killall -1 hostapd > /dev/null 2>&1"});
    }
    // The instance's apply checks the record first, whoever calls it: a mode and cipher outside
    // the tables are refused before anything is written or run.
    nmtest::clear_commands();
    unlink("/var/nm/hostapd.conf");
    EXPECT_EQ(ap_lcl.set(&ap_lcl, &bad_mode, 0), static_cast<int32_t>(0xFDEFFFF9));
    EXPECT_TRUE(nmtest::commands().empty());
    EXPECT_EQ(access("/var/nm/hostapd.conf", F_OK), -1);
    nm_softap off = {};
    logs().clear();
    ASSERT_EQ(ap_lcl.set(&ap_lcl, &off, 0), 0);
    EXPECT_EQ(nmtest::commands(), strings{"killall hostapd > /dev/null 2>&1"});

    nmtest::store_sql("DELETE FROM conf WHERE path='network/network_lan/port'");
    nm_softap c = ap(0, "a", "");
    EXPECT_EQ(ap_lcl.set(&ap_lcl, &c, 0), static_cast<int32_t>(0xFDEFFFFE));
    EXPECT_EQ(
        logs().texts(),
        (strings{logged("update_hostapd_file", "get network_wan prot fail, errno = -34603010"),
                 logged("set_ap", "update hostapd file fail, errno = -34603010")}));
}

// ---- soft AP: compare, activate, flush, get ---------------------------------------------------

TEST_F(Wifi, SoftApSwitchWaitsForARebootAndOtherChangesApplyAtOnce) {
    nm_softap stored = {};
    ASSERT_EQ(qmtnm_lcl_get(QMTNM_ID_AP, &stored, 0), 0);
    EXPECT_STREQ(stored.ssid, "qmtnm-ap");
    EXPECT_STREQ(stored.wps_pin, "12345670");
    ASSERT_EQ(stored.enable, 1);

    // The same record: up to date.
    nm_softap same = stored;
    ASSERT_EQ(qmtnm_lcl_set(QMTNM_ID_AP, &same, 0), 0);
    EXPECT_EQ(logs().texts(), strings{logged("qmtnm_lcl_set", "config is up-to-date")});

    // A new name with the switch as it was: applied and stored at once.
    logs().clear();
    nm_softap renamed = stored;
    put(renamed.ssid, "Cam AP");
    ASSERT_EQ(qmtnm_lcl_set(QMTNM_ID_AP, &renamed, 0), 0);
    EXPECT_EQ(nmtest::activate_flag(), 1u);
    EXPECT_EQ(nmtest::commands(), strings{"killall -1 hostapd > /dev/null 2>&1"});
    EXPECT_EQ(nmtest::stored_str("network_softap", "ssid"), "Cam AP");

    // Off: stored only (the switch alone), and every later set waits for the reboot.
    nmtest::clear_commands();
    logs().clear();
    nm_softap off = renamed;
    off.enable = 0;
    put(off.ssid, "ignored");
    ASSERT_EQ(qmtnm_lcl_set(QMTNM_ID_AP, &off, 0), 0);
    EXPECT_EQ(nmtest::activate_flag(), 0u);
    EXPECT_TRUE(nmtest::commands().empty());
    EXPECT_EQ(stored_int("network_softap", "enable"), 0);
    EXPECT_EQ(nmtest::stored_str("network_softap", "ssid"), "Cam AP");
    EXPECT_EQ(logs().texts(), (strings{logged("ap_activate_now", "function request reboot"),
                                       logged("qmtnm_lcl_set", "need reboot to activate action")}));
}

TEST_F(Wifi, SoftApFlushKeepsAMarkedStoredChannelAndTheSecurityInUse) {
    struct {
        const char *what;
        nm_softap cfg;
        int32_t stored_channel_before, channel_after;
        int32_t index_after, encry_after;
        std::string password_after;
    } const rows[] = {
        {"wpa", ap(3, "A", "12345678", 0x0109, 2), 6, 0x0109, 0, 2, "12345678"},
        {"marked channel kept", ap(3, "A", "12345678", 4, 1), 0xFF00, 0xFF00, 0, 1, "12345678"},
        {"wep", ap(1, "A", "abcde", 4, 0, 3), 0xFEFF, 4, 3, 0, "abcde"},
        {"open keeps the password", ap(0, "A", "unused", 2), 6, 2, 0, 0, "old secret"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        nmtest::load_defaults();
        ASSERT_GE(qmt_conf_printf("network", "%k%k%d", "network_softap", "channel",
                                  r.stored_channel_before),
                  0);
        ASSERT_GE(qmt_conf_printf("network", "%k%k%s", "network_softap", "password", "old secret"),
                  0);
        nm_softap c = r.cfg;
        ASSERT_EQ(ap_lcl.flush(&ap_lcl, &c, 0), 0);
        EXPECT_EQ(nmtest::stored_str("network_softap", "ssid"), "A");
        EXPECT_EQ(stored_int("network_softap", "hw_mode"), 1);
        EXPECT_EQ(stored_int("network_softap", "channel"), r.channel_after);
        EXPECT_EQ(stored_int("network_softap", "auth"), c.auth);
        EXPECT_EQ(stored_int("network_softap", "index"), r.index_after);
        EXPECT_EQ(stored_int("network_softap", "encry"), r.encry_after);
        EXPECT_EQ(nmtest::stored_str("network_softap", "password"), r.password_after);
        nm_softap got = {};
        ASSERT_EQ(qmtnm_lcl_get(QMTNM_ID_AP, &got, 0), 0);
        EXPECT_EQ(got.channel, r.channel_after);
        EXPECT_STREQ(got.password, c.auth > 0 ? r.password_after.c_str() : "")
            << "the password is read only with security on";
    }
    // WPS on stores the password even for an open AP.
    nm_softap w = ap(0, "A", "wps only");
    w.wps_enable = 1;
    ASSERT_EQ(ap_lcl.flush(&ap_lcl, &w, 0), 0);
    EXPECT_EQ(nmtest::stored_str("network_softap", "password"), "wps only");
    EXPECT_EQ(stored_int("network_softap", "wps_enable"), 1);
}

} // namespace

namespace {

// ---- the command-line tool ---------------------------------------------------------------------

TEST_F(Wifi, ToolSetsTheSoftApMasksPasswordsAndPrintsANewPin) {
    nmtest::run_commands(true); // the tool is a process of its own; its commands run for real
    const std::string tool = "QMTNM_DEVICE=sim " + std::string(QMTNM_TOOL) + " ";
    EXPECT_EQ(nmtest::sh(tool +
                         "set ap ssid='Cam AP' auth=2 password=\"it's x y\" encry=0 >/dev/null"
                         " && " +
                         tool + "get ap --json"),
              "{\"area\":\"ap\",\"instance\":\"ap_lcl\",\"enable\":1,\"ssid\":\"Cam AP\","
              "\"channel\":6,\"hw_mode\":0,\"hide_ssid\":0,\"auth\":2,\"encry\":0,\"index\":0,"
              "\"password\":\"********\",\"wps_enable\":0,\"wps_pin\":\"12345670\"}\n");
    EXPECT_NE(nmtest::sh(tool + "get ap --secrets").find("password       = it's x y\n"),
              std::string::npos);
    // WPS words of the station: a bad one is refused before anything runs.
    EXPECT_EQ(nmtest::sh(tool + "set sta wps=button 2>&1 >/dev/null; echo $?"),
              "qmtnm: wps: 'button' is not a valid value\n2\n");
    EXPECT_EQ(nmtest::sh(tool + "set sta wps=pin pin=1234 2>&1 >/dev/null; echo $?"),
              "sta: invalid input (0xFDF0FFF9)\n1\n");
    std::string pin = nmtest::sh(tool + "pin ap");
    ASSERT_EQ(pin.size(), 9u) << pin;
    pin.pop_back();
    EXPECT_TRUE(valid_pin(pin.c_str())) << pin;
    EXPECT_EQ(nmtest::stored_str("network_softap", "wps_pin"), pin);
    std::string json = nmtest::sh(tool + "pin sta --json");
    EXPECT_EQ(json, "{\"area\":\"sta\",\"pin\":\"" + nmtest::stored_str("network_sta", "wps_pin") +
                        "\"}\n");
}

} // namespace
