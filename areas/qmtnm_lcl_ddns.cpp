// DDNS: keeps a dynamic-DNS name pointed at the device. An update script asks the provider's
// update host with wget; root's crontab has crond run it once a minute. The provider's host and
// the file that receives its answer are build-time constants (QMTNM_DDNS_UPDATE_HOST,
// QMTNM_DDNS_SCRATCH_FILE).
#include "common/area.h"
#include "common/nm_log.h"
#include "common/raii.h"

#include <cstdio>
#include <cstring>

#if !defined(QMTNM_DDNS_UPDATE_HOST) || !defined(QMTNM_DDNS_SCRATCH_FILE)
#error "QMTNM_DDNS_UPDATE_HOST and QMTNM_DDNS_SCRATCH_FILE must be defined"
#endif

namespace {

using ddns_cfg = qmtnm_ddns_cfg;

constexpr uint32_t kModule = QMTNM_MOD_DDNS;
constexpr int32_t kInvalid = nm::err(kModule, QMTNM_R_INVALID);
constexpr int32_t kOpenFail = nm::err(kModule, QMTNM_R_IO);
constexpr size_t kTextMax = sizeof(ddns_cfg::domain); // a full field has no terminator
constexpr const char *kScript = "/etc/cron/ddns.conf";
constexpr const char *kCrontab = "/var/spool/cron/crontabs/root";

// In the order they are written; the domain and credentials stay stored while DDNS is off. The
// domain goes into the update's URL as it is, so it must be a host name; the credentials are
// percent-encoded there.
enum field_index : uint8_t { kEnable, kType, kDomain, kUsername, kPassword };
constexpr nm::store_field kFields[] = {
    NM_FIELD(ddns_cfg, enable, i32, "enable", 0, "read network_ddns enable fail, errno = %d",
             "write network_ddns enable fail, errno = %d"),
    NM_FIELD(ddns_cfg, type, i32, "type", 0, "read network_ddns type fail, errno = %d",
             "write network_ddns type fail, errno = %d"),
    NM_TEXT(ddns_cfg, domain, str, "domain", host_name, 1,
            "read network_ddns domain fail, errno = %d",
            "write network_ddns domain fail, errno = %d"),
    NM_TEXT(ddns_cfg, username, str, "username", any, 1,
            "read network_ddns username fail, errno = %d",
            "write network_ddns username fail, errno = %d"),
    NM_TEXT(ddns_cfg, password, str, "password", any, 1,
            "read network_ddns password fail, errno = %d",
            "write network_ddns password fail, errno = %d"),
};
constexpr nm::store_map kStore = {"network_ddns", kModule, kFields, 5, nm::stop_when::zero};

int32_t get_ddns_config(ddns_cfg *cfg) {
    return nm::store_read(__func__, kStore, cfg);
}

using field_text = nm::field_text<kTextMax>;

int32_t invalid(const char *what) {
    nm::log(nm::LOG_GATE_ERR, "check_ddns_info_grammar", what, kInvalid);
    return kInvalid;
}

int32_t check_ddns_info_grammar(lcl_instance *, void *arg1, uintptr_t) {
    const auto *cfg = static_cast<const ddns_cfg *>(arg1);
    if (cfg->enable == 0)
        return 0;
    if (cfg->type != 0)
        return invalid("ddns type FAIL of range!, errno = %d");
    constexpr struct {
        field_index field;
        const char *too_short;
    } kLengths[] = {{kDomain, "ddns domain length FAIL of range!, errno = %d"},
                    {kUsername, "ddns username length FAIL of range!, errno = %d"},
                    {kPassword, "ddns password length FAIL of range!, errno = %d"}};
    for (const auto &l : kLengths)
        if (nm::field_fault(kFields[l.field], cfg) == nm::text_fault::length)
            return invalid(l.too_short);
    if (nm::field_fault(kFields[kDomain], cfg) != nm::text_fault::none)
        return invalid("ddns domain value invalid, errno = %d");
    return 0;
}

int32_t ddns_config_nochange(lcl_instance *, void *arg1, uintptr_t, int32_t *changed) {
    return nm::config_nochange<ddns_cfg, get_ddns_config>(
        __func__, kModule, static_cast<ddns_cfg *>(arg1),
        {"calloc memory fail!", "read ddns falsh fail, errno=%d"}, changed);
}

// Percent-encoded for the URL's user information; every byte tripled at most, so it always fits.
struct url_part {
    char text[3 * kTextMax + 1];
    explicit url_part(const char (&field)[kTextMax]) {
        nm::url_encode(field_text(field).text, text, sizeof text);
    }
};

// Opens path for writing, logging a failure under update_ddns_file and set_ddns.
nm::unique_file open_for_update(const char *path) {
    nm::unique_file f(fopen(path, "w+"));
    if (!f) {
        nm::log(nm::LOG_GATE_ERR, "update_ddns_file", "open %s fail, errno = %d", path, kOpenFail);
        nm::log(nm::LOG_GATE_ERR, "set_ddns", "update ddns info fail, errno = %d", kOpenFail);
    }
    return f;
}

// crond is stopped and the old script and crontab removed first, so that a disabled DDNS
// leaves no cron job and no crond running.
int32_t set_ddns(lcl_instance *, void *arg1, uintptr_t) {
    const auto *cfg = static_cast<const ddns_cfg *>(arg1);
    nm::run_cmd(64, "killall crond &>/dev/null");
    nm::run_cmd(64, "rm -f %s", kScript);
    nm::run_cmd(64, "rm -f %s", kCrontab);
    if (cfg->enable == 0)
        return 0;
    nm::run_cmd(64, "mkdir -p /etc/cron");
    nm::run_cmd(64, "mkdir -p /var/spool/cron/crontabs");
    nm::unique_file script = open_for_update(kScript);
    if (!script)
        return kOpenFail;
    nm::unique_file crontab = open_for_update(kCrontab);
    if (!crontab)
        return kOpenFail;
    if (cfg->type == 0) {
        // The URL is not quoted for the shell: the user name and password are percent-encoded
        // and the domain is a host name, so it stays one word up to its "&".
        fputs("#!/bin/sh\n", script.get());
        fprintf(script.get(),
                "wget -q -O %s -q http://%s:%s@%s/dyndns/update?hostname=%s"
                "&wildcard=OFF\n",
                QMTNM_DDNS_SCRATCH_FILE, url_part(cfg->username).text, url_part(cfg->password).text,
                QMTNM_DDNS_UPDATE_HOST, field_text(cfg->domain).text);
        fprintf(crontab.get(), "*/1 * * * * %s > /dev/null\n", kScript);
    }
    nm::run_cmd(128, "chmod +x %s", kScript);
    script.reset();
    crontab.reset();
    nm::run_cmd(128, "%s > /dev/null", kScript);
    nm::run_cmd(128, "crond &");
    return 0;
}

int32_t flush_ddns_info(lcl_instance *, void *arg1, uintptr_t) {
    return nm::store_write(__func__, kStore, arg1);
}

int32_t get_ddns(lcl_instance *, void *arg1, uintptr_t) {
    return get_ddns_config(static_cast<ddns_cfg *>(arg1));
}

} // namespace

lcl_instance ddns_lcl = {
    "ddns_lcl",
    check_ddns_info_grammar,
    ddns_config_nochange,
    nullptr,
    flush_ddns_info,
    nullptr,
    nm::checked_apply<check_ddns_info_grammar, set_ddns>,
    get_ddns,
    nullptr,
    nullptr,
    0,
    0,
    0,
};
