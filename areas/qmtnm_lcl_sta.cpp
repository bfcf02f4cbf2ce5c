// The Wi-Fi station wlan0: its settings (network name, security, WPS PIN), joining a network
// through the running wpa_supplicant with wpa_cli (by the settings, or by WPS push button or
// PIN), the live link state, and the Wi-Fi LED while WPS runs. The station always uses network 0
// of the supplicant, which the library never starts or stops.
#include "areas/wifi.h"
#include "common/area.h"
#include "common/nm_log.h"
#include "common/raii.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iterator>
#include <string_view>
#include <unistd.h>

namespace {

using sta_cfg = qmtnm_sta_cfg;
using nm::wifi::kWpaCli;

constexpr uint32_t kModule = QMTNM_MOD_STA;
constexpr int32_t kFail = nm::err(kModule, QMTNM_R_FAIL);
constexpr int32_t kStoreFail = nm::err(kModule, QMTNM_R_STORE);
constexpr int32_t kOpenFail = nm::err(kModule, QMTNM_R_IO);
constexpr int32_t kNoMem = nm::err(kModule, QMTNM_R_NOMEM);
constexpr int32_t kTimeout = nm::err(kModule, QMTNM_R_BUSY);
constexpr int32_t kInvalid = nm::err(kModule, QMTNM_R_INVALID);

constexpr size_t kCmdCap = 192;
constexpr size_t kWpsCmdCap = 128;
constexpr size_t kLedCmdCap = 64;
// A command with a name or key in it: room for every character escaped ('\''), so that an
// escaped text is never cut; ordinary text fits the 192 bytes of the other commands.
constexpr size_t kTextCmdCap = kCmdCap + 3 * sizeof(sta_cfg::password);

constexpr const char *kNmDir = "/var/nm";
constexpr const char *kLedDir = "/sys/class/leds/wifi_led";
constexpr const char *kOperstate = "/sys/class/net/wlan0/operstate";
constexpr int kWpsWaitS = 120;
constexpr useconds_t kWpsPollPauseUs = 250 * 1000; // keeps the two-minute wait off the CPU

enum field_index : uint8_t { kEnable, kSsid, kAuth, kEncry, kIndex, kPassword, kWpsPin };
constexpr nm::store_field kFields[] = {
    NM_FIELD(sta_cfg, enable, i32, "enable", 0, "read network_sta enable fail, errno = %d",
             "read network_sta enable fail, errno = %d\n"),
    NM_TEXT(sta_cfg, ssid, str, "ssid", no_control, 1, "read network_sta ssid fail, errno = %d",
            "write network_sta ssid fail, errno = %d\n"),
    NM_FIELD(sta_cfg, auth, i32, "auth", 0, "read network_sta auth fail, errno = %d",
             "write network_sta auth fail, errno = %d\n"),
    NM_FIELD(sta_cfg, encry, i32, "encry", 0, "read network_sta encry fail, errno = %d",
             "write network_sta encry fail, errno = %d\n"),
    NM_FIELD(sta_cfg, index, i32, "index", 0, "read network_sta index fail, errno = %d",
             "write network_sta index fail, errno = %d\n"),
    NM_TEXT(sta_cfg, password, str, "password", no_control, 0,
            "read network_sta password fail, errno = %d",
            "write network_sta password fail, errno = %d\n"),
    NM_TEXT(sta_cfg, wps_pin, str, "wps_pin", digits, 0,
            "read network_sta wps_pin fail, errno = %d", "write sta wps conf fail, errno = %d\n"),
};
constexpr nm::store_map kStore = {"network_sta", kModule, kFields, std::size(kFields)};

int32_t store_one(const char *func, field_index i, const sta_cfg *cfg) {
    return nm::store_write(func, kStore.slice(i, 1), cfg);
}

// ---- check ----

int32_t invalid(const char *func, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
int32_t invalid(const char *func, const char *fmt, ...) {
    char text[160];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    nm::log(nm::LOG_GATE_ERR, func, "%s", text);
    return kInvalid;
}

int32_t check_sta_info_grammar(lcl_instance *, void *arg1, uintptr_t) {
    const char *func = __func__;
    const auto *cfg = static_cast<const sta_cfg *>(arg1);
    // Off, nothing else is looked at; but a PIN goes to the shell as a bare word whenever a set
    // asks for WPS, so it is checked first, also with the station off.
    if (cfg->use_wps != 0) {
        if (cfg->push_button != 0)
            return 0;
        nm::field_text<sizeof cfg->wps_pin> pin(cfg->wps_pin);
        if (strlen(pin.text) != 8)
            return invalid(func, "sta wps pin len check fail, pin:%s", pin.text);
        if (strspn(pin.text, "0123456789") != 8)
            return invalid(func, "sta wps pin value check fail, pin:%s", pin.text);
        return 0; // the check digit is left to the access point
    }
    if (cfg->enable == 0)
        return 0;
    nm::field_text<sizeof cfg->ssid> ssid(cfg->ssid);
    if (nm::field_fault(kFields[kSsid], cfg) == nm::text_fault::length)
        return invalid(func, "essid length should 1~32, but now is %d",
                       static_cast<int>(strlen(ssid.text)));
    if (static_cast<uint32_t>(cfg->auth) >= 5)
        return invalid(func, "sta auth out of range");
    nm::field_text<sizeof cfg->password> pass(cfg->password);
    size_t len = strlen(pass.text);
    if (cfg->auth == 1) {
        if (cfg->index < 1 || cfg->index > 4)
            return invalid(func, "sta wep index value invalid");
        if (!nm::wifi::wep_len_ok(len))
            return invalid(func, "wep password len invalid, len=%d", static_cast<int>(len));
    } else if (cfg->auth >= 2) {
        if (static_cast<uint32_t>(cfg->encry) >= 3)
            return invalid(func, "sta auth out of range"); // the same words as for auth
        if (!nm::wifi::wpa_key_ok(pass.text))
            return invalid(func, "wpa password len invalid, len=%d", static_cast<int>(len));
    }
    if (const char *why = nm::wifi::text_refusal(ssid.text, cfg->auth, pass.text))
        return invalid(func, "sta %s, errno = %d", why, kInvalid);
    return 0;
}

// ---- LED ----

int32_t ctrl_wifi_led(int on_ms, int off_ms) {
    char trigger[64];
    snprintf(trigger, sizeof trigger, "%s/trigger", kLedDir);
    if (access(trigger, F_OK) != 0) {
        NM_ERR("led trigger file not exist\n");
        return kFail;
    }
    if (on_ms == 0) {
        nm::run_cmd(kLedCmdCap, "echo none >%s/trigger", kLedDir);
        nm::run_cmd(kLedCmdCap, "echo 0 >%s/brightness", kLedDir);
    } else if (off_ms != 0) {
        nm::run_cmd(kLedCmdCap, "echo timer >%s/trigger", kLedDir);
        nm::run_cmd(kLedCmdCap, "echo %d >%s/delay_on", on_ms, kLedDir);
        nm::run_cmd(kLedCmdCap, "echo %d >%s/delay_off", off_ms, kLedDir);
    } else {
        nm::run_cmd(kLedCmdCap, "echo none >%s/trigger", kLedDir);
        nm::run_cmd(kLedCmdCap, "echo 1 >%s/brightness", kLedDir);
    }
    return 0;
}

// ---- set: by the settings ----

// The text escaped for the inside of '...' in a command; every character at most four.
template <size_t N> struct quoted {
    char text[4 * N + 1];
    explicit quoted(const char (&field)[N]) {
        nm::shell_squote(nm::field_text<N>(field).text, text, sizeof text);
    }
};

int32_t sta_join(const sta_cfg *cfg) {
    nm::run_cmd(kCmdCap, "%s ap_scan 1 &>/dev/null", kWpaCli);
    nm::run_cmd(kCmdCap, "%s add_network &>/dev/null", kWpaCli);
    nm::run_cmd(kTextCmdCap, "%s set_network 0 ssid '\"%s\"' &>/dev/null", kWpaCli,
                quoted(cfg->ssid).text);
    nm::run_cmd(kCmdCap, "%s set_network 0 scan_ssid 1 &>/dev/null", kWpaCli);
    nm::field_text<sizeof cfg->password> pass(cfg->password);
    switch (cfg->auth) {
    case 0:
        nm::run_cmd(kCmdCap, "%s set_network 0 key_mgmt NONE &>/dev/null", kWpaCli);
        break;
    case 1: {
        int key = cfg->index - 1;
        nm::run_cmd(kCmdCap, "%s set_network 0 key_mgmt NONE &>/dev/null", kWpaCli);
        if (nm::wifi::wep_hex_len(strlen(pass.text)))
            nm::run_cmd(kCmdCap, "%s set_network 0 wep_key%d %s &>/dev/null", kWpaCli, key,
                        pass.text);
        else
            nm::run_cmd(kTextCmdCap, "%s set_network 0 wep_key%d '\"%s\"' &>/dev/null", kWpaCli,
                        key, quoted(cfg->password).text);
        nm::run_cmd(kCmdCap, "%s set_network 0 wep_tx_keyidx %d &>/dev/null", kWpaCli, key);
        break;
    }
    case 2:
    case 3:
    case 4:
        if (nm::wifi::wpa_raw_key(pass.text)) // the key itself, unquoted
            nm::run_cmd(kCmdCap, "%s set_network 0 psk %s &>/dev/null", kWpaCli, pass.text);
        else
            nm::run_cmd(kTextCmdCap, "%s set_network 0 psk '\"%s\"' &>/dev/null", kWpaCli,
                        quoted(cfg->password).text);
        break;
    default:
        nm::log(nm::LOG_GATE_ERR, "set_sta", "Invalid auth mode\n"); // under the apply's name
        return kInvalid;
    }
    nm::run_cmd(kCmdCap, "%s select_network 0 &>/dev/null", kWpaCli);
    nm::run_cmd(kCmdCap, "%s save_config &>/dev/null", kWpaCli);
    return 0;
}

// ---- set: by WPS ----

int32_t start_led_link() {
    int32_t r = ctrl_wifi_led(500, 500);
    if (r < 0)
        NM_ERR("ctrl wifi led fail, errno = %d", r);
    return r;
}

// Whether wlan0's link is up.
bool check_wlan_status() {
    nm::unique_file f(fopen(kOperstate, "r"));
    if (!f) {
        NM_ERR("open %s faild, errno = %d", kOperstate, kOpenFail);
        return false;
    }
    char line[64] = {};
    return fgets(line, sizeof line, f.get()) != nullptr && strncmp(line, "up", 2) == 0;
}

// The value of a "\t<key>=...\n" line of the supplicant's file into a zeroed field, cut at its
// size: the text between the quotes of a quoted value ("\"name\""), or an unquoted value as it
// stands (a pre-shared key's 64 hexadecimal digits).
template <size_t N> void take_value(const char *line, size_t key_len, char (&field)[N]) {
    std::string_view v(line);
    v.remove_prefix(std::min(v.size(), key_len + 2));
    if (!v.empty() && v.back() == '\n')
        v.remove_suffix(1);
    // Between the quotes; not with substr, which may throw: the library has no C++ runtime.
    if (v.size() >= 2 && v.front() == '"' && v.back() == '"') {
        v.remove_prefix(1);
        v.remove_suffix(1);
    }
    memset(field, 0, N);
    memcpy(field, v.data(), std::min(v.size(), N));
}

// Keeps the network that WPS learned: its name and passphrase from the supplicant's file.
int32_t save_sta_cfg() {
    nm::unique_heap<sta_cfg> cfg(static_cast<sta_cfg *>(calloc(1, sizeof(sta_cfg))));
    if (!cfg) {
        NM_ERR("malloc memory fail");
        return kNoMem;
    }
    char path[64];
    snprintf(path, sizeof path, "%s/%s", kNmDir, "wpa_supplicant.conf");
    nm::unique_file f(fopen(path, "r"));
    if (!f) {
        NM_ERR("open %s fail, ret = %d", path, kStoreFail);
        return kStoreFail;
    }
    // Whole lines: a name of 32 characters and a key of 63, or of 64 digits, are kept whole.
    nm::line_buffer line;
    while (line.read(f.get()) > 0) {
        if (strncmp(line.text + 1, "ssid", 4) == 0) {
            take_value(line.text, 4, cfg->ssid);
        } else if (strncmp(line.text + 1, "psk", 3) == 0) {
            take_value(line.text, 3, cfg->password);
            cfg->auth = 2;
        }
    }
    nm::store_batch batch; // the learned network whole, or not at all
    if (nm::store_put_str("network_sta", "ssid", nm::field_text(cfg->ssid).text) < 0) {
        NM_ERR("update sta ssid fail, errno=%d", kStoreFail);
        return kStoreFail;
    }
    if (nm::store_put_int("network_sta", "auth", cfg->auth) < 0) {
        NM_ERR("updatea sta auth fail, errno=%d", kStoreFail);
        return kStoreFail;
    }
    if (nm::store_put_str("network_sta", "password", nm::field_text(cfg->password).text) < 0) {
        NM_ERR("updatea sta password fail, errno=%d", kStoreFail);
        return kStoreFail;
    }
    return batch.commit() < 0 ? kStoreFail : 0;
}

int32_t wps_failed(int32_t code) {
    nm::log(nm::LOG_GATE_ERR, "sta_start_wps", "wifi wps connect fail\n");
    nm::run_cmd(kWpsCmdCap, "%s wps_cancel", kWpaCli);
    nm::run_cmd(kWpsCmdCap, "%s reconfigure", kWpaCli);
    return code;
}

int32_t sta_start_wps(const sta_cfg *cfg) {
    nm::run_cmd(kWpsCmdCap, "%s remove_network 0 &>/dev/null", kWpaCli);
    if (cfg->push_button != 0)
        nm::run_cmd(kWpsCmdCap, "%s wps_pbc any &>/dev/null", kWpaCli);
    else
        nm::run_cmd(kWpsCmdCap, "%s wps_pin any %s &>/dev/null", kWpaCli,
                    nm::field_text(cfg->wps_pin).text);
    time_t start = time(nullptr);
    // Without the LED there is no WPS on this device.
    if (int32_t r = start_led_link(); r < 0)
        return wps_failed(r);
    for (;;) {
        time_t now = time(nullptr);
        if (check_wlan_status())
            break;
        if (now - start >= kWpsWaitS) {
            ctrl_wifi_led(0, 500);
            return wps_failed(kTimeout);
        }
        usleep(kWpsPollPauseUs);
    }
    nm::run_cmd(kWpsCmdCap, "%s select_network 0 &>/dev/null", kWpaCli);
    nm::run_cmd(kWpsCmdCap, "%s remove_network 1 &>/dev/null", kWpaCli);
    ctrl_wifi_led(500, 0);
    if (int32_t r = save_sta_cfg(); r < 0) {
        NM_ERR("save_sta_cfg error");
        return r;
    }
    return 0;
}

int32_t set_sta(lcl_instance *, void *arg1, uintptr_t) {
    const auto *cfg = static_cast<const sta_cfg *>(arg1);
    if (cfg->use_wps != 0) {
        int32_t r = sta_start_wps(cfg);
        if (r < 0)
            NM_ERR("sta wps cfg fail, ret = %d\n", r);
        return r;
    }
    nm::run_cmd(kCmdCap, "%s remove_network 0 &>/dev/null", kWpaCli);
    if (cfg->enable == 0)
        return 0;
    return sta_join(cfg);
}

// ---- flush ----

int32_t flush_sta_info(lcl_instance *, void *arg1, uintptr_t) {
    const char *func = __func__;
    const auto *cfg = static_cast<const sta_cfg *>(arg1);
    if (int32_t r = store_one(func, kEnable, cfg); r < 0)
        return r;
    if (cfg->enable == 0)
        return 0;
    if (cfg->use_wps != 0)
        return cfg->push_button == 0 ? store_one(func, kWpsPin, cfg) : 0;
    if (int32_t r = nm::store_write(func, kStore.slice(kSsid, 2), cfg); r < 0)
        return r;
    if (cfg->auth < 1 || cfg->auth > 4)
        return 0; // open: no key to keep
    if (int32_t r = store_one(func, cfg->auth == 1 ? kIndex : kEncry, cfg); r < 0)
        return r;
    return store_one(func, kPassword, cfg);
}

// ---- get ----

// The supplicant's wpa_state as a link state.
int32_t link_state(const char *state) {
    struct {
        const char *prefix;
        int32_t link;
    } constexpr kStates[] = {
        {"COMPLETED", 1}, {"INACTIVE", 0}, {"DISCONNE", 0}, {"4WAY_HANDSHAKE", 2}};
    for (const auto &s : kStates)
        if (strncmp(state, s.prefix, strlen(s.prefix)) == 0)
            return s.link;
    return 3;
}

int32_t get_sta(lcl_instance *, void *arg1, uintptr_t) {
    const char *func = __func__;
    auto *cfg = static_cast<sta_cfg *>(arg1);
    memset(cfg, 0, sizeof *cfg);
    if (int32_t r = nm::store_read(func, kStore.slice(kEnable, 3), cfg); r < 0)
        return r;
    if (cfg->auth >= 1) {
        field_index security = cfg->auth == 1 ? kIndex : kEncry;
        if (int32_t r = nm::store_read(func, kStore.slice(security, 1), cfg); r < 0)
            return r;
    }
    if (int32_t r = nm::store_read(func, kStore.slice(kPassword, 2), cfg); r < 0)
        return r;
    char path[64];
    snprintf(path, sizeof path, "%s/status_info", kNmDir);
    nm::run_cmd(kWpsCmdCap, "%s -iwlan0 status &>%s", kWpaCli, path);
    nm::unique_file f(fopen(path, "r"));
    if (!f) {
        NM_ERR("open %s fail, errno = %d", path, kOpenFail);
        return kOpenFail;
    }
    char line[128];
    while (fgets(line, sizeof line, f.get())) {
        if (strncmp(line, "wpa_state", 9) == 0) {
            cfg->link_state = link_state(line + 10);
            break;
        }
    }
    return 0;
}

} // namespace

lcl_instance sta_lcl = {
    "sta_lcl",
    check_sta_info_grammar,
    nullptr,
    nullptr,
    flush_sta_info,
    nullptr,
    nm::checked_apply<check_sta_info_grammar, set_sta>,
    get_sta,
    nullptr,
    nullptr,
    200000,
    0,
    0,
};
