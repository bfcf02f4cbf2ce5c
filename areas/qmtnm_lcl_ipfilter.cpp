// IP filter: which client addresses may reach the web service (TCP port 80), by a white list or
// a black list of address ranges, through the chain ipf_chain hooked into INPUT. Every set
// applies and stores; the rules are the store's list "rules", one element per range.
#include "common/area.h"
#include "common/nm_log.h"
#include "qmt_conf.h"

#include <cstring>

namespace {

using ipf_cfg = qmtnm_ipfilter_cfg;

constexpr uint32_t kModule = QMTNM_MOD_IPFILTER;
constexpr int32_t kInvalid = nm::err(kModule, QMTNM_R_INVALID);
constexpr int32_t kStoreFail = nm::err(kModule, QMTNM_R_STORE);
constexpr const char *kDomain = "network";
constexpr const char *kSection = "network_ipfilter";
constexpr int32_t kMaxRules = QMTNM_IPF_RULES;
constexpr size_t kAddrCap = 16; // an address is used up to its 15th character
constexpr size_t kCmdCap = 128;

// ---- store ----

int32_t store_failed(const char *func, const char *what) {
    nm::log(nm::LOG_GATE_ERR, func, what, kStoreFail);
    return kStoreFail;
}

int get_common(const char *key, int32_t *value) {
    return qmt_conf_scanf(kDomain, "%k%k%k%d", kSection, "common", key, value);
}

int put_common(const char *key, int32_t value) {
    return qmt_conf_printf(kDomain, "%k%k%k%d", kSection, "common", key, static_cast<int>(value));
}

// An address of a rule slot as the library uses it: its first 15 characters.
struct addr_text {
    char text[kAddrCap] = {};
    explicit addr_text(const char (&field)[17]) { memcpy(text, field, strnlen(field, 15)); }
};

// The number of rules a record or the store holds, at most the record's 8 slots.
int32_t rules_in_use(int32_t index) {
    return index > kMaxRules ? kMaxRules : index;
}

int32_t get_ipf_config(lcl_instance *, void *arg1, uintptr_t) {
    auto *cfg = static_cast<ipf_cfg *>(arg1);
    if (get_common("enable", &cfg->enable) < 0)
        return store_failed(__func__, "get ipfilter enable status fail, errno = %d\n");
    if (get_common("mode", &cfg->mode) < 0)
        return store_failed(__func__, "get ipfilter mode fail!, errno = %d");
    if (get_common("index", &cfg->index) < 0)
        return store_failed(__func__, "get ipfilter rule index fail!, errno = %d\n");
    cfg->index = rules_in_use(cfg->index);
    for (int32_t i = 0; i < cfg->index; ++i) {
        char begin[kAddrCap] = {}, end[kAddrCap] = {};
        if (qmt_conf_scanf(kDomain, "%k%k%i%k%l%s", kSection, "rules", static_cast<int>(i),
                           "begin_ip", static_cast<int>(kAddrCap), begin) < 0)
            return store_failed(__func__, "get ipfilter begin_ip fail!, errno = %d\n");
        if (qmt_conf_scanf(kDomain, "%k%k%i%k%l%s", kSection, "rules", static_cast<int>(i),
                           "end_ip", static_cast<int>(kAddrCap), end) < 0)
            return store_failed(__func__, "get ipfilter end_ip fail!, errno = %d\n");
        memcpy(cfg->rules[i].begin_ip, begin, kAddrCap);
        memcpy(cfg->rules[i].end_ip, end, kAddrCap);
    }
    return 0;
}

// ---- check ----

int32_t invalid(const char *what) {
    nm::log(nm::LOG_GATE_ERR, "check_ipfilter_info_grammar", what, kInvalid);
    return kInvalid;
}

// A rule's address that is no dotted quad: which is "begin_ip" or "end_ip".
int32_t invalid_addr(int32_t index, const char *which, const char *addr) {
    nm::log(nm::LOG_GATE_ERR, "check_ipfilter_info_grammar",
            "index=%d %s=%s format error, errno = %d\n", index, which, addr, kInvalid);
    return kInvalid;
}

// Only a plain dotted quad passes: the addresses go into an iptables command unquoted, and
// inet_aton would also take "1.1.1.1 anything".
bool dotted_quad(const char *text, in_addr *addr) {
    return inet_pton(AF_INET, text, addr) == 1;
}

int32_t check_ipfilter_info_grammar(lcl_instance *, void *arg1, uintptr_t) {
    const auto *cfg = static_cast<const ipf_cfg *>(arg1);
    if (cfg->enable == 0)
        return 0;
    if (cfg->mode != 0 && cfg->index == 0)
        return invalid("white list index should > 0, errno = %d\n");
    if (cfg->index < 0 || cfg->index > kMaxRules) {
        nm::log(nm::LOG_GATE_ERR, __func__, "rule index = %d out of range, errno = %d\n",
                cfg->index, kInvalid);
        return kInvalid;
    }
    for (int32_t i = 0; i < cfg->index; ++i) {
        addr_text begin(cfg->rules[i].begin_ip), end(cfg->rules[i].end_ip);
        in_addr b, e;
        if (!dotted_quad(begin.text, &b))
            return invalid_addr(i, "begin_ip", begin.text);
        if (!dotted_quad(end.text, &e))
            return invalid_addr(i, "end_ip", end.text);
        // One 255.255.255.0 network, and the end's last octet not below the begin's.
        const auto *bb = reinterpret_cast<const unsigned char *>(&b.s_addr);
        const auto *eb = reinterpret_cast<const unsigned char *>(&e.s_addr);
        if (memcmp(bb, eb, 3) != 0 || eb[3] < bb[3])
            return invalid("begin ip & end ip are in wrong format, errno = %d\n");
    }
    return 0;
}

// ---- apply ----

// The chain is always removed first, so a disabled filter leaves nothing behind.
int32_t set_ipfilter(lcl_instance *, void *arg1, uintptr_t) {
    const auto *cfg = static_cast<const ipf_cfg *>(arg1);
    nm::run_cmd(kCmdCap, "iptables -D INPUT -j ipf_chain &>/dev/null");
    nm::run_cmd(kCmdCap, "iptables -F ipf_chain &>/dev/null");
    nm::run_cmd(kCmdCap, "iptables -X ipf_chain &>/dev/null");
    if (cfg->enable == 0)
        return 0;
    nm::run_cmd(kCmdCap, "iptables -N ipf_chain");
    nm::run_cmd(kCmdCap, "iptables -A INPUT -j ipf_chain");
    for (int32_t i = 0; i < rules_in_use(cfg->index); ++i) {
        addr_text begin(cfg->rules[i].begin_ip), end(cfg->rules[i].end_ip);
        nm::run_cmd(kCmdCap,
                    cfg->mode != 0 ? "iptables -A ipf_chain -m iprange --src-range %s-%s -p tcp "
                                     "--dport 80 -j ACCEPT\n"
                                   : "iptables -A ipf_chain -m iprange --src-range %s-%s -p tcp "
                                     "--dport 80 -j DROP\n",
                    begin.text, end.text);
    }
    if (cfg->mode != 0)
        nm::run_cmd(kCmdCap, "iptables -A ipf_chain -p tcp --dport 80 -j DROP");
    return 0;
}

// ---- store ----

int remove_rule_key(int32_t i, const char *key) {
    return qmt_conf_printf(kDomain, "%k%k%i%k%r", kSection, "rules", static_cast<int>(i), key);
}

int put_rule_key(int32_t i, const char *key, const char (&field)[17]) {
    return qmt_conf_printf(kDomain, "%k%k%i%k%s", kSection, "rules", static_cast<int>(i), key,
                           addr_text(field).text);
}

// Surplus stored rules go first, then the record's rules are written over the rest.
int32_t flush_ipfilter_config(lcl_instance *, void *arg1, uintptr_t) {
    const auto *cfg = static_cast<const ipf_cfg *>(arg1);
    if (put_common("enable", cfg->enable) < 0)
        return store_failed(__func__, "write ipf enable fail, ret = %d\n");
    if (cfg->enable == 0)
        return 0;
    if (put_common("mode", cfg->mode) < 0)
        return store_failed(__func__, "write ipf mode fail, ret = %d\n");
    int stored = 0;
    if (qmt_conf_scanf(kDomain, "%k%k%z", kSection, "rules", &stored) < 0)
        return store_failed(__func__, "read ipf rules fail, ret = %d\n");
    if (put_common("index", cfg->index) < 0)
        return store_failed(__func__, "write ipf index fail, ret = %d\n");
    for (int32_t i = cfg->index; i < stored; ++i) {
        if (remove_rule_key(i, "begin_ip") < 0)
            return store_failed(__func__, "delete begin_ip fail, ret = %d\n");
        if (remove_rule_key(i, "end_ip") < 0)
            return store_failed(__func__, "delete end_ip fail, ret = %d\n");
    }
    for (int32_t i = 0; i < rules_in_use(cfg->index); ++i) {
        if (put_rule_key(i, "begin_ip", cfg->rules[i].begin_ip) < 0)
            return store_failed(__func__, "write begin_ip fail, ret = %d\n");
        if (put_rule_key(i, "end_ip", cfg->rules[i].end_ip) < 0)
            return store_failed(__func__, "write end_ip fail, ret = %d\n");
    }
    return 0;
}

} // namespace

lcl_instance ipfilter_lcl = {
    "ipfilter_lcl",
    check_ipfilter_info_grammar,
    nullptr,
    nullptr,
    flush_ipfilter_config,
    nullptr,
    nm::checked_apply<check_ipfilter_info_grammar, set_ipfilter>,
    get_ipf_config,
    nullptr,
    nullptr,
    0,
    0,
    0,
};
