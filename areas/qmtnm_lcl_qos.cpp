// QoS: DSCP marking of every packet the device itself sends, through the mangle table's
// qos_mangle_chain hooked into OUTPUT.
#include "common/area.h"
#include "common/nm_log.h"

namespace {

using qos_cfg = qmtnm_qos_cfg;

constexpr uint32_t kModule = QMTNM_MOD_QOS;
constexpr int32_t kInvalid = nm::err(kModule, QMTNM_R_INVALID);
constexpr size_t kCmdCap = 192;

constexpr nm::store_field kFields[] = {
    NM_FIELD(qos_cfg, enable, i32, "enable", 0, "read qos enable fail, ret = %d\n",
             "write qos enable fail, ret = %d\n"),
    NM_FIELD(qos_cfg, dscp, i32, "dscp", 0, "read qos dscp value fail, ret = %d\n",
             "write qos dscp fail, ret = %d\n"),
};
// dscp is stored only while marking is on.
constexpr nm::store_map kStore = {"network_qos", kModule, kFields, 2, nm::stop_when::zero};

int32_t get_qos_config(qos_cfg *cfg) {
    return nm::store_read(__func__, kStore, cfg);
}

int32_t check_qos_info_grammar(lcl_instance *, void *arg1, uintptr_t) {
    const auto *cfg = static_cast<const qos_cfg *>(arg1);
    if (cfg->enable == 0)
        return 0;
    if (cfg->enable != 1) {
        NM_ERR("input qos enable value = %d invalid, errno = %d\n", cfg->enable, kInvalid);
        return kInvalid;
    }
    if (static_cast<uint32_t>(cfg->dscp) >= 64) {
        NM_ERR("qos dscp value > 63, errno = %d\n", kInvalid);
        return kInvalid;
    }
    return 0;
}

int32_t qos_config_nochange(lcl_instance *, void *arg1, uintptr_t, int32_t *changed) {
    return nm::config_nochange<qos_cfg, get_qos_config>(
        __func__, kModule, static_cast<qos_cfg *>(arg1),
        {"calloc memory fail, ret = %d\n", "get qos info fail, ret = %d\n"}, changed);
}

// Always removes the earlier chain first, so a failure half-way leaves marking off.
int32_t set_qos(lcl_instance *, void *arg1, uintptr_t) {
    const auto *cfg = static_cast<const qos_cfg *>(arg1);
    nm::run_cmd(kCmdCap, "iptables -t mangle -D OUTPUT -j qos_mangle_chain &>/dev/null");
    nm::run_cmd(kCmdCap, "iptables -t mangle -F qos_mangle_chain &>/dev/null");
    nm::run_cmd(kCmdCap, "iptables -t mangle -X qos_mangle_chain &>/dev/null");
    if (cfg->enable == 0)
        return 0;
    nm::run_cmd(kCmdCap, "iptables -t mangle -N qos_mangle_chain");
    nm::run_cmd(kCmdCap, "iptables -t mangle -A OUTPUT -j qos_mangle_chain");
    nm::run_cmd(kCmdCap, "iptables -t mangle -A qos_mangle_chain -j DSCP --set-dscp %d", cfg->dscp);
    return 0;
}

int32_t flush_qos_config(lcl_instance *, void *arg1, uintptr_t) {
    return nm::store_write(__func__, kStore, arg1);
}

int32_t get_qos(lcl_instance *, void *arg1, uintptr_t) {
    return get_qos_config(static_cast<qos_cfg *>(arg1));
}

} // namespace

lcl_instance qos_lcl = {
    "qos_lcl",
    check_qos_info_grammar,
    qos_config_nochange,
    nullptr,
    flush_qos_config,
    nullptr,
    nm::checked_apply<check_qos_info_grammar, set_qos>,
    get_qos,
    nullptr,
    nullptr,
    0,
    0,
    0,
};
