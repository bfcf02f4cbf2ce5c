// PPPoE: the account (on/off, user name, password), pppd's options and secrets files under
// /etc/ppp, and pppd with the rp-pppoe plugin on br0. A change is only stored and asks for a
// reboot; set_pppoe runs when the stored settings are applied at start-up.
#include "common/area.h"
#include "common/nm_log.h"
#include "common/raii.h"

#include <cstdio>
#include <cstring>

namespace {

using pppoe_cfg = qmtnm_pppoe_cfg;

constexpr uint32_t kModule = QMTNM_MOD_PPPOE;
constexpr int32_t kInvalid = nm::err(kModule, QMTNM_R_INVALID);
constexpr int32_t kOpenFail = nm::err(kModule, QMTNM_R_IO);
constexpr size_t kCmdCap = 128;
constexpr size_t kNameMax = sizeof(pppoe_cfg::username); // a full field has no terminator
constexpr const char *kPppDir = "/etc/ppp";

// In the order they are written; name and password stay stored while PPPoE is off. They go into
// pppd's files inside double quotes: a line break or other control character is refused, a quote
// or backslash is escaped when the files are written.
enum field_index : uint8_t { kEnable, kUsername, kPassword };
constexpr nm::store_field kFields[] = {
    NM_FIELD(pppoe_cfg, enable, i32, "enable", 0, "get network_pppoe enable fail, errno = %d",
             "write network_pppoe enable fail, errno = %d"),
    NM_TEXT(pppoe_cfg, username, str, "username", no_control, 1,
            "get network_pppoe username fail, errno = %d",
            "write network_pppoe username fail, errno = %d"),
    NM_TEXT(pppoe_cfg, password, str, "password", no_control, 1,
            "get network_pppoe password fail, errno = %d",
            "write network_pppoe write fail, errno = %d"),
};
constexpr nm::store_map kStore = {"network_pppoe", kModule, kFields, 3, nm::stop_when::zero};

// The stored account; with PPPoE on (1), whether ppp0 has an address, and which.
int32_t get_pppoe_config(pppoe_cfg *cfg) {
    if (int32_t r = nm::store_read(__func__, kStore, cfg); r < 0)
        return r;
    if (cfg->enable != 1)
        return 0;
    if (nm_get_inaddr("ppp0", 0, &cfg->ipaddr) == 0) {
        cfg->connected = 1;
    } else {
        cfg->connected = 0;
        cfg->ipaddr.s_addr = 0;
    }
    return 0;
}

using field_text = nm::field_text<kNameMax>;

int32_t check_pppoe_info_grammar(lcl_instance *, void *arg1, uintptr_t) {
    const auto *cfg = static_cast<const pppoe_cfg *>(arg1);
    if (cfg->enable == 0)
        return 0;
    nm::text_fault user = nm::field_fault(kFields[kUsername], cfg),
                   pass = nm::field_fault(kFields[kPassword], cfg);
    if (user == nm::text_fault::length) {
        NM_ERR("pppoe username length FAIL of range!, errno = %d", kInvalid);
        return kInvalid;
    }
    if (pass == nm::text_fault::length) {
        NM_ERR("pppoe password length FAIL of range!, errno = %d", kInvalid);
        return kInvalid;
    }
    if (user != nm::text_fault::none || pass != nm::text_fault::none) {
        NM_ERR("pppoe username or password value invalid, errno = %d", kInvalid);
        return kInvalid;
    }
    return 0;
}

int32_t pppoe_config_nochange(lcl_instance *, void *arg1, uintptr_t, int32_t *changed) {
    return nm::config_nochange<pppoe_cfg, get_pppoe_config>(
        __func__, kModule, static_cast<pppoe_cfg *>(arg1),
        {"calloc memory fail!, errno = %d", "get pppor info fail!, errno = %d"}, changed);
}

int32_t pppoe_activate_now(lcl_instance *, void *, uintptr_t, uint32_t *activate) {
    return nm::request_reboot(__func__, activate);
}

// Escaped for a double-quoted pppd word; every character doubled at most, so it always fits.
struct pppd_word {
    char text[2 * kNameMax + 1];
    explicit pppd_word(const char (&field)[kNameMax]) {
        nm::pppd_escape(field_text(field).text, text, sizeof text);
    }
};

int32_t update_pppoe_file(const char *user) {
    char path[64];
    snprintf(path, sizeof path, "%s/options", kPppDir);
    nm::unique_file f(fopen(path, "w+"));
    if (!f) {
        NM_ERR("open %s/oprions fail, errno = -%d!", kPppDir, kOpenFail);
        return kOpenFail;
    }
    fprintf(f.get(), "name \"%s\"\n", user);
    static const char *const kLines[] = {
        "noauth\n",
        "noipdefault\n",
        "defaultroute\n",
        "persist\n",
        "ipcp-accept-remote\n",
        "ipcp-accept-local\n",
        "nodetach\n",
        "usepeerdns\n",
        "mtu 1452\n",
        "mru 1452\n",
        "lcp-echo-interval 20\n",
        "lcp-echo-failure 3\n",
        "holdoff 10\n",
        "plugin /lib/ppp/rp-pppoe.so br0\n",
    };
    for (const char *line : kLines)
        fputs(line, f.get());
    return 0;
}

int32_t set_pppoe(lcl_instance *, void *arg1, uintptr_t) {
    const auto *cfg = static_cast<const pppoe_cfg *>(arg1);
    nm::run_cmd(kCmdCap, "killall pppd &>/dev/null");
    if (cfg->enable == 0)
        return 0;
    pppd_word user(cfg->username), pass(cfg->password);
    if (update_pppoe_file(user.text) < 0) {
        NM_ERR("update pppoe file fail, errno = %d", kOpenFail);
        return kOpenFail;
    }
    // One line for both secrets files, cut at 63 characters as it always was.
    constexpr size_t kSecretCap = 64;
    char secret[sizeof user.text + sizeof pass.text + 8];
    snprintf(secret, sizeof secret, "\"%s\"\t*\t\"%s\"\n", user.text, pass.text);
    secret[kSecretCap - 1] = '\0';
    // Readable by root alone, also when an earlier file had other modes.
    const char *const files[] = {"pap-secrets", "chap-secrets"};
    for (const char *name : files) {
        char path[64];
        snprintf(path, sizeof path, "%s/%s", kPppDir, name);
        nm::write_private_file(path, secret);
    }
    nm::run_cmd(kCmdCap, "pppd &");
    return 0;
}

int32_t flush_pppoe_info(lcl_instance *, void *arg1, uintptr_t) {
    return nm::store_write(__func__, kStore, arg1);
}

int32_t get_pppoe(lcl_instance *, void *arg1, uintptr_t) {
    return get_pppoe_config(static_cast<pppoe_cfg *>(arg1));
}

} // namespace

lcl_instance pppoe_lcl = {
    "pppoe_lcl",
    check_pppoe_info_grammar,
    pppoe_config_nochange,
    pppoe_activate_now,
    flush_pppoe_info,
    nullptr,
    nm::checked_apply<check_pppoe_info_grammar, set_pppoe>,
    get_pppoe,
    nullptr,
    nullptr,
    0,
    0,
    0,
};
