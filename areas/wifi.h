// What the station, the soft AP and the WPS PINs share: the rules for WEP keys and WPA
// passphrases, the test that keeps a name or key on its one line of wpa_supplicant's and
// hostapd's files and in its quoted word of a wpa_cli command, and the WPS PIN check digit.
// Private to the library; the tests include it for the check digit.
#pragma once

#include "common/area.h"

#include <cstddef>
#include <cstring>

namespace nm::wifi {

// The prefix of every wpa_cli command: the supplicant's control directory on the device.
constexpr const char *kWpaCli = "wpa_cli -p/var/run/wpa_supplicant";

// WEP keys: 5 or 13 characters, or 10 or 26 hexadecimal digits.
constexpr bool wep_len_ok(size_t n) {
    return n == 5 || n == 13 || n == 10 || n == 26;
}
constexpr bool wep_hex_len(size_t n) {
    return n == 10 || n == 26;
}
// A WPA key of 64 hexadecimal digits is the pre-shared key itself: wpa_supplicant and hostapd
// take it unquoted (psk, wpa_psk); any other text of 64 characters is neither key nor passphrase.
inline bool wpa_raw_key(const char *key) {
    return strlen(key) == 64 && all_hex(key);
}
// WPA keys: a passphrase of 8 to 63 characters, or the raw key.
inline bool wpa_key_ok(const char *key) {
    size_t n = strlen(key);
    return (n >= 8 && n <= 63) || wpa_raw_key(key);
}

// Why a name or key cannot be used as it is, or null. A control character (a line break, a
// tab, DEL) would end or split its line in wpa_supplicant.conf or hostapd.conf, and the
// supplicant refuses one in a passphrase; so it is refused. A hexadecimal-length WEP key stands
// unquoted on a wpa_cli command line and in hostapd.conf, so it must be hexadecimal digits.
// Every other character is kept: in a command, a name or key stands inside '"..."', where the
// shell leaves everything but a single quote alone (that one is written '\'') and wpa_supplicant
// takes the text up to the last double quote, so double quotes, backslashes and blanks inside
// arrive as typed; the configuration files give the rest of the line as the value.
inline const char *text_refusal(const char *ssid, int32_t auth, const char *password) {
    if (has_control(ssid))
        return "ssid holds a control character";
    if (auth == 0)
        return nullptr;
    if (has_control(password))
        return "password holds a control character";
    if (auth == 1 && wep_hex_len(strlen(password)) && !all_hex(password))
        return "wep key of 10 or 26 characters must be hexadecimal";
    return nullptr;
}

// The WPS PIN of a 7-digit body: the body and its check digit. From the lowest digit up, the
// digits count 3, 1, 3, 1... times; the check digit brings the sum to a multiple of 10.
constexpr int wps_pin(int body) {
    int sum = 0;
    int weight = 3;
    for (int rest = body; rest > 0; rest /= 10) {
        sum += weight * (rest % 10);
        weight = 4 - weight;
    }
    return body * 10 + (10 - sum % 10) % 10;
}

} // namespace nm::wifi
