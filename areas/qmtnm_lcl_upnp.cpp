// UPnP: switches the UPnP daemon miniupnpd on or off and sets the friendly name it announces.
// The daemon's configuration file is rewritten at every set, also when UPnP goes off.
#include "common/area.h"
#include "common/nm_log.h"
#include "common/raii.h"

#include <cerrno>
#include <cstdio>

namespace {

using upnp_cfg = qmtnm_upnp_cfg;

constexpr uint32_t kModule = QMTNM_MOD_UPNP;
constexpr int32_t kInvalid = nm::err(kModule, QMTNM_R_INVALID);
constexpr int32_t kOpenFail = nm::err(kModule, QMTNM_R_IO);
constexpr const char *kConfDir = "/var/nm";
constexpr const char *kConfName = "miniupnpd.conf";

// The name is stored only while UPnP is on. It becomes a line of the daemon's file, so no control
// character may stand in it.
constexpr size_t kName = 1; // the text field
constexpr nm::store_field kFields[] = {
    NM_FIELD(upnp_cfg, enable, i32, "enable", 0, "get upnp enable fail, ret = %d\n",
             "write upnp enable fail, ret=%d\n"),
    NM_TEXT(upnp_cfg, friendlyName, str, "friendlyName", no_control, 0,
            "get upnp friendlyname fail, ret = %d\n", "write upnp friendlyname fail, ret=%d\n"),
};
constexpr nm::store_map kStore = {"network_upnp", kModule, kFields, 2, nm::stop_when::zero};

int32_t get_upnp_config(upnp_cfg *cfg) {
    return nm::store_read(__func__, kStore, cfg);
}

// The name's rule holds whether UPnP is being switched on or off: the file is written in both
// cases.
int32_t check_upnp_info_grammar(lcl_instance *, void *arg1, uintptr_t) {
    const auto *cfg = static_cast<const upnp_cfg *>(arg1);
    nm::field_text<sizeof cfg->friendlyName> name(cfg->friendlyName);
    if (nm::field_fault(kFields[kName], cfg) != nm::text_fault::none) {
        NM_ERR("upnp friendlyname holds a control character, errno = %d\n", kInvalid);
        return kInvalid;
    }
    if (cfg->enable == 0)
        return 0;
    if (cfg->enable != 1) {
        NM_ERR("upnp enable should 0~1, errno = %d\n", kInvalid);
        return kInvalid;
    }
    if (strlen(name.text) >= sizeof cfg->friendlyName) {
        NM_ERR("upnp friendlyname length should < 64, errno=%d\n", kInvalid);
        return kInvalid;
    }
    return 0;
}

int32_t upnp_config_nochange(lcl_instance *, void *arg1, uintptr_t, int32_t *changed) {
    return nm::config_nochange<upnp_cfg, get_upnp_config>(
        __func__, kModule, static_cast<upnp_cfg *>(arg1),
        {"calloc memory fail, ret = %d", "get upnp info fail, ret = %d\n"}, changed);
}

// Writes the daemon's two lines; false when the file could not be opened.
bool update_upnp_file(const upnp_cfg *cfg) {
    char path[32];
    snprintf(path, sizeof path, "%s/%s", kConfDir, kConfName);
    nm::unique_file f(fopen(path, "w+"));
    if (!f) {
        NM_ERR("open %s fail, errno = %d\n", path, errno);
        return false;
    }
    fputs(cfg->enable == 1 ? "enable=yes\n" : "enable=no\n", f.get());
    fprintf(f.get(), "friendlyName=%s\n", nm::field_text(cfg->friendlyName).text);
    return true;
}

// The daemon is always stopped first; it is started again only when UPnP is on.
int32_t set_upnp(lcl_instance *, void *arg1, uintptr_t) {
    const auto *cfg = static_cast<const upnp_cfg *>(arg1);
    if (!update_upnp_file(cfg)) {
        NM_ERR("update upnp cfg fail, ret = %d\n", kOpenFail);
        return kOpenFail;
    }
    nm::run_cmd(64, "killall miniupnpd &>/dev/null");
    nm::run_cmd(64, "rm -f /var/run/miniupnpd.pid &>/dev/null");
    if (cfg->enable != 0)
        nm::run_cmd(128, "miniupnpd -f %s/%s -P /var/run/miniupnpd.pid &", kConfDir, kConfName);
    return 0;
}

int32_t flush_upnp_config(lcl_instance *, void *arg1, uintptr_t) {
    return nm::store_write(__func__, kStore, arg1);
}

int32_t get_upnp(lcl_instance *, void *arg1, uintptr_t) {
    return get_upnp_config(static_cast<upnp_cfg *>(arg1));
}

} // namespace

lcl_instance upnp_lcl = {
    "upnp_lcl",
    check_upnp_info_grammar,
    upnp_config_nochange,
    nullptr,
    flush_upnp_config,
    nullptr,
    nm::checked_apply<check_upnp_info_grammar, set_upnp>,
    get_upnp,
    nullptr,
    nullptr,
    0,
    0,
    0,
};
