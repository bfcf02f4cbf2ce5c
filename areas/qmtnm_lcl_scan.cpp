// The station's network survey and the WPS PINs: doscan_lcl runs a scan on wlan0 and leaves
// wpa_cli's result table in /var/nm/scan_info, scanresult_lcl parses that table into the
// caller's entries, stapin_lcl and appin_lcl make and store new PINs for the station and the
// soft AP. All four only have a get.
#include "areas/wifi.h"
#include "common/area.h"
#include "common/nm_log.h"
#include "common/raii.h"
#include "wpa_ctrl.h"

#include <cstdio>
#include <cstdlib>
#include <cerrno>
#include <cstring>
#include <sys/random.h>
#include <ctime>
#include <initializer_list>
#include <unistd.h>

namespace {

using nm::wifi::kWpaCli;
using scan_entry = qmtnm_scan_entry;

constexpr int32_t kScanIoFail = nm::err(QMTNM_MOD_DOSCAN, QMTNM_R_IO);
constexpr int32_t kScanBusy = nm::err(QMTNM_MOD_DOSCAN, QMTNM_R_BUSY);
constexpr int32_t kResultIoFail = nm::err(QMTNM_MOD_SCANRESULT, QMTNM_R_IO);
constexpr int32_t kStaPinStoreFail = nm::err(QMTNM_MOD_STAPIN, QMTNM_R_STORE);
constexpr int32_t kApPinStoreFail = nm::err(QMTNM_MOD_APPIN, QMTNM_R_STORE);

constexpr size_t kCmdCap = 128;
constexpr size_t kLineCap = 512;
constexpr const char *kNmDir = "/var/nm";
constexpr const char *kCtrlDir = "/var/run/wpa_supplicant";
constexpr int kEventWaitS = 6;
constexpr unsigned kFallbackSleepS = 3;

// ---- the supplicant's event stream, for the end of a scan ----

wpa_ctrl *ctrl_conn = nullptr;
int wpa_cli_attached = 0;

void wpa_cli_close_connection() {
    if (ctrl_conn == nullptr)
        return;
    if (wpa_cli_attached) {
        wpa_ctrl_detach(ctrl_conn);
        wpa_cli_attached = 0;
    }
    wpa_ctrl_close(ctrl_conn);
    ctrl_conn = nullptr;
}

int32_t wpa_ctrl_iface_init() {
    constexpr size_t kPathCap = 30;
    nm::unique_heap<char> path(static_cast<char *>(malloc(kPathCap)));
    if (path) {
        int n = snprintf(path.get(), kPathCap, "%s/%s", kCtrlDir, "wlan0");
        if (n >= 0 && static_cast<size_t>(n) < kPathCap)
            ctrl_conn = wpa_ctrl_open(path.get());
    }
    if (ctrl_conn == nullptr) {
        NM_ERR("UN socket connection failed, errno = %d\n", kScanIoFail);
        return kScanIoFail;
    }
    if (wpa_ctrl_attach(ctrl_conn) != 0) {
        NM_ERR("Failed to attach to wpa_supplicant, errno = %d\n", kScanBusy);
        wpa_cli_close_connection();
        return kScanBusy;
    }
    wpa_cli_attached = 1;
    return 0;
}

// Waits for the supplicant's "scan results are ready" event, each other event restarting the
// wait; false if the stream went quiet or failed first.
bool wpa_cli_recv_pending() {
    for (;;) {
        if (!wpa_ctrl_pending_timeout(ctrl_conn, kEventWaitS)) {
            NM_ERR("Connection to wpa_supplicant lost, errno = %d", kScanBusy);
            return false;
        }
        char buf[256];
        size_t len = sizeof buf - 1;
        if (wpa_ctrl_recv(ctrl_conn, buf, &len) != 0) {
            NM_ERR("Could not read pending message, errno = %d\n", kScanBusy);
            return false;
        }
        buf[len] = '\0';
        // "<N>" and the event, the whole of it.
        if (len >= 3 && strcmp(buf + 3, "CTRL-EVENT-SCAN-RESULTS ") == 0)
            return true;
    }
}

// ---- the result table ----

void scan_info_path(char (&path)[64]) {
    snprintf(path, sizeof path, "%s/scan_info", kNmDir);
}

bool is_header(const char *line) {
    for (const char *word : {"bssid", "frequency", "signal level", "flags", "ssid"})
        if (strstr(line, word) == nullptr)
            return false;
    return true;
}

// Reads up to and including the header line; false if there is none.
bool skip_header(FILE *f, char (&line)[kLineCap]) {
    while (fgets(line, sizeof line, f))
        if (is_header(line))
            return true;
    return false;
}

int32_t do_scan(lcl_instance *, void *arg1, uintptr_t) {
    if (int32_t r = wpa_ctrl_iface_init(); r < 0) {
        NM_ERR("scan_init failed, errno = %d", r);
        return r;
    }
    nm::run_cmd(kCmdCap, "%s scan >/dev/null", kWpaCli);
    if (!wpa_cli_recv_pending()) {
        NM_ERR("failed to wait for ctrl_iface, errno = %d, use sleep instead", kScanBusy);
        sleep(kFallbackSleepS);
    }
    char path[64];
    scan_info_path(path);
    nm::run_cmd(kCmdCap, "%s scan_results >%s", kWpaCli, path);
    nm::unique_file f(fopen(path, "r"));
    if (!f) {
        NM_ERR("open %s fail, errno = %d", path, kScanIoFail);
        return kScanIoFail; // the connection stays open here, as it always has
    }
    char line[kLineCap];
    uint32_t count = 0;
    if (skip_header(f.get(), line))
        while (fgets(line, sizeof line, f.get()))
            ++count;
    *static_cast<uint32_t *>(arg1) = count;
    f.reset();
    wpa_cli_close_connection();
    return 0;
}

// Copies at most N - 1 characters of text into a zeroed field.
template <size_t N> void copy_field(char (&field)[N], const char *text) {
    memset(field, 0, N);
    if (text != nullptr)
        strncpy(field, text, N - 1);
}

// One tab-separated line: bssid, frequency, signal level, flags, then the name up to the end
// of the line (tabs included).
void parse_entry(char *line, scan_entry *e) {
    char *save = nullptr;
    copy_field(e->bssid, strtok_r(line, "\t", &save));
    const char *freq = strtok_r(nullptr, "\t", &save);
    e->channel = ((freq ? atoi(freq) : 0) - 2407) / 5;
    const char *signal = strtok_r(nullptr, "\t", &save);
    e->signal = signal ? atoi(signal) : 0;
    copy_field(e->flags, strtok_r(nullptr, "\t", &save));
    // Up to 32 characters fill the name; its terminator goes where the 33rd would, which is
    // bssid's first byte for a full name.
    const char *ssid = strtok_r(nullptr, "\n", &save);
    memset(e->ssid, 0, sizeof e->ssid);
    if (ssid != nullptr) {
        size_t n = strnlen(ssid, sizeof e->ssid);
        memcpy(e->ssid, ssid, n);
        if (n == sizeof e->ssid)
            e->bssid[0] = '\0';
    }
}

// The number of entries filled, minus 2.
int32_t get_scan_result(lcl_instance *, void *arg1, uintptr_t arg2) {
    char path[64];
    scan_info_path(path);
    nm::unique_file f(fopen(path, "r"));
    if (!f) {
        NM_ERR("open scan_info fail\n");
        return kResultIoFail;
    }
    auto *entries = static_cast<scan_entry *>(arg1);
    const size_t room = arg2 / sizeof(scan_entry);
    size_t filled = 0;
    char line[kLineCap];
    if (skip_header(f.get(), line))
        while (filled < room && fgets(line, sizeof line, f.get()))
            parse_entry(line, &entries[filled++]);
    return static_cast<int32_t>(filled) - 2;
}

// ---- WPS PINs ----

// Seven digits from the kernel's random source, evenly spread (a draw in the uneven top of the
// range is drawn again), and the check digit; -1 when the source fails.
int creat_wps_pin() {
    constexpr uint32_t kBodies = 10000000, kEven = UINT32_MAX - UINT32_MAX % kBodies;
    uint32_t r = kEven;
    while (r >= kEven)
        if (getrandom(&r, sizeof r, 0) != static_cast<ssize_t>(sizeof r) && errno != EINTR)
            return -1;
    return nm::wifi::wps_pin(static_cast<int>(r % kBodies));
}

int32_t store_pin(const char *func, const char *section, char *buf, const char *fail,
                  int32_t code) {
    const int pin = creat_wps_pin();
    if (pin < 0) {
        const int32_t io = QMTNM_ERR(QMTNM_ERR_MODULE(code), QMTNM_R_IO);
        nm::log(nm::LOG_GATE_ERR, func, "wps pin from the random source fail, errno=%d", io);
        return io;
    }
    char text[16]; // a PIN is 8 digits; the room is for the compiler's sake
    snprintf(text, sizeof text, "%08d", pin);
    memcpy(buf, text, QMTNM_WPS_PIN_SIZE);
    if (nm::store_put_str(section, "wps_pin", buf) < 0) {
        nm::log(nm::LOG_GATE_ERR, func, fail, code);
        return code;
    }
    return 0;
}

int32_t creat_sta_pin(lcl_instance *, void *arg1, uintptr_t) {
    NM_DEBUG("start creat pin");
    return store_pin(__func__, "network_sta", static_cast<char *>(arg1),
                     "write sta wps pin fail, errno=%d", kStaPinStoreFail);
}

int32_t creat_ap_pin(lcl_instance *, void *arg1, uintptr_t) {
    return store_pin(__func__, "network_softap", static_cast<char *>(arg1),
                     "write softap wps pin fail, errno=%d", kApPinStoreFail);
}

} // namespace

#define NM_GET_ONLY_INSTANCE(var, get, get_ms)                                                     \
    lcl_instance var = {#var, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,                \
                        get,  nullptr, nullptr, 0,       get_ms,  0}

NM_GET_ONLY_INSTANCE(doscan_lcl, do_scan, 5000);
NM_GET_ONLY_INSTANCE(scanresult_lcl, get_scan_result, 0);
NM_GET_ONLY_INSTANCE(stapin_lcl, creat_sta_pin, 0);
NM_GET_ONLY_INSTANCE(appin_lcl, creat_ap_pin, 0);
