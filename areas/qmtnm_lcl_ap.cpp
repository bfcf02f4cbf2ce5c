// The soft access point on wlan1, served by hostapd: its settings, /var/nm/hostapd.conf, and
// hostapd rereading it. Switching the access point on or off is only stored and asks for a
// reboot; the device's start-up applies it and starts hostapd.
#include "areas/wifi.h"
#include "common/area.h"
#include "common/nm_log.h"
#include "common/raii.h"

#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <iterator>

namespace {

using softap = nm_softap;

constexpr uint32_t kModule = QMTNM_MOD_AP;
constexpr int32_t kStoreFail = nm::err(kModule, QMTNM_R_STORE);
constexpr int32_t kOpenFail = nm::err(kModule, QMTNM_R_IO);
constexpr int32_t kInvalid = nm::err(kModule, QMTNM_R_INVALID);
constexpr size_t kCmdCap = 64;
constexpr const char *kNmDir = "/var/nm";
constexpr int32_t kChannelMarker = 0xFF00;     // bits 8-15 of a channel, masked off everywhere
constexpr int32_t kStoredChannelKept = 0xFF00; // a stored channel from here up stays as it is

#define AP_FIELD(member, type, key, cap, word)                                                     \
    NM_FIELD(softap, member, type, key, cap, "get network_softap " key " fail, errno = %d",        \
             "set network_softap " word " fail, errno = %d")

#define AP_TEXT(member, type, key, rule, min, word)                                                \
    NM_TEXT(softap, member, type, key, rule, min, "get network_softap " key " fail, errno = %d",   \
            "set network_softap " word " fail, errno = %d")

enum field_index : uint8_t {
    kEnable,
    kHwMode,
    kChannel,
    kSsid,
    kHide,
    kAuth,
    kEncry,
    kIndex,
    kPassword,
    kWpsEnable,
    kWpsPin
};
// In the order they are read.
constexpr nm::store_field kFields[] = {
    AP_FIELD(enable, i32, "enable", 0, "enable"),
    AP_FIELD(hw_mode, i32, "hw_mode", 0, "protocol"),
    AP_FIELD(channel, i32, "channel", 0, "channel"),
    AP_TEXT(ssid, str_K, "ssid", no_control, 1, "ssid"),
    AP_FIELD(hide_ssid, i32, "hide_ssid", 0, "hide"),
    AP_FIELD(auth, i32, "auth", 0, "auth"),
    AP_FIELD(encry, i32, "encry", 0, "encry"),
    AP_FIELD(index, i32, "index", 0, "index"),
    AP_TEXT(password, str, "password", no_control, 0, "password"),
    AP_FIELD(wps_enable, i32, "wps_enable", 0, "wps_enable"),
    AP_TEXT(wps_pin, str, "wps_pin", digits, 0, "wps_pin"),
};
constexpr nm::store_map kStore = {"network_softap", kModule, kFields, std::size(kFields)};

int32_t read_fields(const char *func, softap *cfg, field_index i, size_t n = 1) {
    return nm::store_read(func, kStore.slice(i, n), cfg);
}

int32_t write_fields(const char *func, const softap *cfg, field_index i) {
    return nm::store_write(func, kStore.slice(i, 1), cfg);
}

// Every key is read, also with the access point off; the keys of the security in use only.
int32_t get_ap_config(softap *cfg) {
    const char *func = __func__;
    memset(cfg, 0, sizeof *cfg);
    if (int32_t r = read_fields(func, cfg, kEnable, kAuth + 1); r < 0)
        return r;
    if (cfg->auth >= 1) {
        if (int32_t r = read_fields(func, cfg, cfg->auth == 1 ? kIndex : kEncry); r < 0)
            return r;
        if (int32_t r = read_fields(func, cfg, kPassword); r < 0)
            return r;
    }
    return read_fields(func, cfg, kWpsEnable, 2);
}

// ---- check ----

int32_t invalid(const char *text, int len = -1) {
    nm::log(nm::LOG_GATE_ERR, "check_softap_info_grammar", text, len);
    return kInvalid;
}

int32_t check_softap_info_grammar(lcl_instance *, void *arg1, uintptr_t) {
    const auto *cfg = static_cast<const softap *>(arg1);
    if (cfg->enable == 0)
        return 0;
    nm::field_text<sizeof cfg->ssid> ssid(cfg->ssid);
    if (nm::field_fault(kFields[kSsid], cfg) == nm::text_fault::length)
        return invalid("ap ssid len out of range");
    int32_t channel = cfg->channel & ~kChannelMarker;
    if (channel < 1 || channel > 13)
        return invalid("ap channel out of range");
    if (static_cast<uint32_t>(cfg->hw_mode) >= 3)
        return invalid("ap protocol out of range");
    if (static_cast<uint32_t>(cfg->hide_ssid) >= 2)
        return invalid("ap hide out of range");
    if (static_cast<uint32_t>(cfg->auth) >= 5)
        return invalid("ap auth out of range");
    nm::field_text<sizeof cfg->password> pass(cfg->password);
    int len = static_cast<int>(strlen(pass.text));
    if (cfg->auth == 1) {
        if (static_cast<uint32_t>(cfg->index) - 1 >= 4)
            return invalid("ap wep index value invalid");
        if (!nm::wifi::wep_len_ok(len))
            return invalid("ap wep password len invalid, len=%d", len);
    } else if (cfg->auth >= 2) {
        if (static_cast<uint32_t>(cfg->encry) >= 3)
            return invalid("ap cipher out of range");
        if (!nm::wifi::wpa_key_ok(pass.text))
            return invalid("ap password len invalid, len=%d", len);
    }
    // The key is stored also without security when WPS is on: its rule holds then too.
    const char *why = nm::wifi::text_refusal(ssid.text, cfg->auth, pass.text);
    if (why == nullptr && nm::field_fault(kFields[kPassword], cfg) != nm::text_fault::none)
        why = "password holds a control character";
    if (why) {
        nm::log(nm::LOG_GATE_ERR, "check_softap_info_grammar", "ap %s, errno = %d", why, kInvalid);
        return kInvalid;
    }
    return 0;
}

// ---- compare and activate ----

constexpr nm::nochange_text kNochangeText = {"calloc nm_softap fail, errno = %d",
                                             "get ap config fail, errno = %d"};

int32_t softap_config_nochange(lcl_instance *, void *arg1, uintptr_t, int32_t *changed) {
    return nm::config_nochange<softap, get_ap_config>(
        __func__, kModule, static_cast<softap *>(arg1), kNochangeText, changed);
}

// Switching the access point on or off waits for a reboot; other changes apply at once.
int32_t ap_activate_now(lcl_instance *, void *arg1, uintptr_t, uint32_t *activate) {
    if (*activate == 0)
        return 0;
    nm::unique_heap<softap> stored;
    if (int32_t r =
            nm::read_stored<softap, get_ap_config>(__func__, kModule, kNochangeText, stored);
        r < 0)
        return r;
    if (stored->enable != static_cast<const softap *>(arg1)->enable) // no line end, unlike the rest
        return nm::request_reboot(__func__, activate, "function request reboot");
    return 0;
}

// ---- apply ----

int32_t update_hostapd_file(const softap *cfg) {
    char port[8] = {};
    if (nm::store_get_str("network_lan", "port", port, sizeof port) < 0) {
        NM_ERR("get network_wan prot fail, errno = %d", kStoreFail);
        return kStoreFail;
    }
    char path[64];
    snprintf(path, sizeof path, "%s/%s", kNmDir, "hostapd.conf");
    nm::unique_file file(fopen(path, "w+"));
    if (!file) {
        NM_ERR("open %s fail, errno = %d", path, kOpenFail);
        return kOpenFail;
    }
    FILE *f = file.get();
    fputs("interface=wlan1\n"
          "ctrl_interface=/var/run/hostapd\n"
          "beacon_int=100\n"
          "dtim_period=2\n"
          "max_num_sta=8\n",
          f);
    if (strcmp(port, "br0") == 0)
        fputs("bridge=br0\n", f);
    fprintf(f, "ssid=%s\n", nm::field_text(cfg->ssid).text);
    fprintf(f, "channel=%d\n", cfg->channel & ~kChannelMarker);
    if (cfg->hide_ssid != 0)
        fputs("ignore_broadcast_ssid=2\n", f);
    static const char *const kHwMode[] = {"hw_mode=b\n", "hw_mode=g\n",
                                          "hw_mode=g\nieee80211n=1\n"};
    if (static_cast<uint32_t>(cfg->hw_mode) < std::size(kHwMode))
        fputs(kHwMode[cfg->hw_mode], f);
    if (cfg->wps_enable != 0)
        fputs("wps_state=2", f); // no newline: it joins the next line, as it always has
    nm::field_text<sizeof cfg->password> pass(cfg->password);
    size_t len = strlen(pass.text);
    if (cfg->auth == 1) {
        int key = cfg->index - 1;
        fputs("auth_algs=1\n", f);
        fprintf(f, "wep_default_key=%d\n", key);
        if (len == 5 || len == 13)
            fprintf(f, "wep_key%d=\"%s\"\n", key, pass.text);
        else if (nm::wifi::wep_hex_len(len))
            fprintf(f, "wep_key%d=%s\n", key, pass.text);
    } else if (cfg->auth >= 2 && cfg->auth <= 4) {
        static const char *const kPairwise[] = {"wpa_pairwise=CCMP\n", "wpa_pairwise=TKIP\n",
                                                "wpa_pairwise=TKIP CCMP\n"};
        fputs("auth_algs=1\n", f);
        fprintf(f, "wpa=%d\n", cfg->auth - 1);
        if (nm::wifi::wpa_raw_key(pass.text)) // the key itself
            fprintf(f, "wpa_psk=%s\n", pass.text);
        else
            fprintf(f, "wpa_passphrase=%s\n", pass.text);
        fputs("wpa_key_mgmt=WPA-PSK\n", f);
        if (static_cast<uint32_t>(cfg->encry) < std::size(kPairwise))
            fputs(kPairwise[cfg->encry], f);
    }
    return 0;
}

int32_t set_ap(lcl_instance *, void *arg1, uintptr_t) {
    const auto *cfg = static_cast<const softap *>(arg1);
    if (cfg->enable == 0) {
        nm::run_cmd(kCmdCap, "killall hostapd > /dev/null 2>&1");
        return 0;
    }
    if (int32_t r = update_hostapd_file(cfg); r < 0) {
        NM_ERR("update hostapd file fail, errno = %d", r);
        return r;
    }
    nm::run_cmd(kCmdCap, "killall -1 hostapd > /dev/null 2>&1"); // hostapd rereads its file
    return 0;
}

// ---- persist ----

int32_t flush_softap_info(lcl_instance *, void *arg1, uintptr_t) {
    const char *func = __func__;
    const auto *cfg = static_cast<const softap *>(arg1);
    if (int32_t r = write_fields(func, cfg, kEnable); r < 0)
        return r;
    if (cfg->enable == 0)
        return 0;
    for (field_index i : {kSsid, kHwMode, kHide})
        if (int32_t r = write_fields(func, cfg, i); r < 0)
            return r;
    // A stored channel with the marker's high values stays as it is.
    int32_t stored = 0;
    if (nm::store_get_int(kStore.section, "channel", &stored) < 0) {
        NM_ERR("get network_softap channel fail, errno = %d", kStoreFail);
        return kStoreFail;
    }
    if (stored < kStoredChannelKept)
        if (int32_t r = write_fields(func, cfg, kChannel); r < 0)
            return r;
    for (field_index i : {kAuth, kWpsEnable})
        if (int32_t r = write_fields(func, cfg, i); r < 0)
            return r;
    if (cfg->wps_enable != 0)
        if (int32_t r = write_fields(func, cfg, kPassword); r < 0)
            return r;
    if (cfg->auth < 1 || cfg->auth > 4)
        return 0;
    if (int32_t r = write_fields(func, cfg, cfg->auth == 1 ? kIndex : kEncry); r < 0)
        return r;
    return write_fields(func, cfg, kPassword);
}

// ---- get ----

int32_t get_ap(lcl_instance *, void *arg1, uintptr_t) {
    int32_t r = get_ap_config(static_cast<softap *>(arg1));
    if (r < 0)
        NM_ERR("get ap fail, errno = %d\n", r);
    return r;
}

} // namespace

lcl_instance ap_lcl = {
    "ap_lcl",
    check_softap_info_grammar,
    softap_config_nochange,
    ap_activate_now,
    flush_softap_info,
    nullptr,
    nm::checked_apply<check_softap_info_grammar, set_ap>,
    get_ap,
    nullptr,
    nullptr,
    0,
    0,
    0,
};
