// Bonjour: the device's host name, and its web service on TCP port 80 advertised over multicast
// DNS by mDNSResponderPosix, which takes the name from the system host name.
#include "common/area.h"
#include "common/nm_log.h"

#include <cstring>

namespace {

using bonjour_cfg = qmtnm_bonjour_cfg;

constexpr uint32_t kModule = QMTNM_MOD_BONJOUR;
constexpr int32_t kInvalid = nm::err(kModule, QMTNM_R_INVALID);
constexpr size_t kNameMax = sizeof(bonjour_cfg::hostname); // a full field has no terminator
constexpr size_t kQuotedCap = 256;
constexpr size_t kHostnameCmdCap = 192;
constexpr const char kHostnameCmd[] = "hostname '%s'";

// The host name is stored only while Bonjour is on. It must stay one field of the hosts file's
// line (no blank, '#' or control character) and must not read as an option to hostname (a
// leading '-').
constexpr size_t kName = 1; // the text field
constexpr nm::store_field kFields[] = {
    NM_FIELD(bonjour_cfg, enable, i32, "enable", 0, "read bonjour enable fail, ret = %d\n",
             "write bonjour enable fail, ret = %d\n"),
    NM_TEXT(bonjour_cfg, hostname, str, "hostname", host_word, 0,
            "read bonjour hostname fail, ret = %d\n", "write bonjour hostname fail, ret = %d\n"),
};
constexpr nm::store_map kStore = {"network_bonjour", kModule, kFields, 2, nm::stop_when::zero};

int32_t get_bonjr_config(bonjour_cfg *cfg) {
    return nm::store_read(__func__, kStore, cfg);
}

using name_text = nm::field_text<kNameMax>;

// The name in single quotes for the shell; false if it does not fit the hostname command whole.
bool quote_hostname(const name_text &name, char (&quoted)[kQuotedCap]) {
    return nm::shell_squote(name.text, quoted, sizeof quoted) &&
           strlen(quoted) + sizeof kHostnameCmd - 3 < kHostnameCmdCap;
}

// Besides its rule, the name's quoted form must fit the hostname command.
int32_t check_bonjour_info_grammar(lcl_instance *, void *arg1, uintptr_t) {
    const auto *cfg = static_cast<const bonjour_cfg *>(arg1);
    if (cfg->enable == 0)
        return 0;
    if (cfg->enable != 1) {
        NM_ERR("input bonjour enable value = %d invalid, errno = %d\n", cfg->enable, kInvalid);
        return kInvalid;
    }
    // The field holds 64 characters at most, so the "> 64" limit cannot be reached from here.
    name_text name(cfg->hostname);
    char quoted[kQuotedCap];
    if (nm::field_fault(kFields[kName], cfg) != nm::text_fault::none ||
        !quote_hostname(name, quoted)) {
        NM_ERR("input hostname value invalid, errno = %d\n", kInvalid);
        return kInvalid;
    }
    return 0;
}

int32_t bonjr_config_nochange(lcl_instance *, void *arg1, uintptr_t, int32_t *changed) {
    return nm::config_nochange<bonjour_cfg, get_bonjr_config>(
        __func__, kModule, static_cast<bonjour_cfg *>(arg1),
        {"calloc memory fail, ret = %d\n", "get bonjour info fail, ret = %d\n"}, changed);
}

// The responder is always stopped first; with Bonjour on, the hosts file is rewritten, the host
// name set and the responder started again.
int32_t set_bonjour(lcl_instance *, void *arg1, uintptr_t) {
    const auto *cfg = static_cast<const bonjour_cfg *>(arg1);
    nm::run_cmd(64, "killall mDNSResponderPosix &>/dev/null");
    nm::run_cmd(64, "rm -f /var/run/mDNSResponder.pid &>/dev/null");
    if (cfg->enable == 0)
        return 0;
    // The hosts file is written from the store. A stored name or address it refuses leaves the
    // earlier file in place and does not stop this set, whose own name is checked and stored.
    if (int32_t r = update_hosts_file(); r < 0) {
        NM_ERR("update hosts file failed, errno = %d", r);
        if (r != nm::err(QMTNM_MODULE_CORE, QMTNM_R_INVALID))
            return r;
    }
    char quoted[kQuotedCap] = {};
    quote_hostname(name_text(cfg->hostname), quoted);
    nm::run_cmd(kHostnameCmdCap, kHostnameCmd, quoted);
    nm::run_cmd(64, "/bin/mDNSResponderPosix -n -t _http._tcp. -p 80 -b &");
    return 0;
}

int32_t flush_bonjour_config(lcl_instance *, void *arg1, uintptr_t) {
    return nm::store_write(__func__, kStore, arg1);
}

int32_t get_bonjour(lcl_instance *, void *arg1, uintptr_t) {
    return get_bonjr_config(static_cast<bonjour_cfg *>(arg1));
}

} // namespace

lcl_instance bonjour_lcl = {
    "bonjour_lcl",
    check_bonjour_info_grammar,
    bonjr_config_nochange,
    nullptr,
    flush_bonjour_config,
    nullptr,
    nm::checked_apply<check_bonjour_info_grammar, set_bonjour>,
    get_bonjour,
    nullptr,
    nullptr,
    0,
    0,
    0,
};
