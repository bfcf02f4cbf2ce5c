/* The settings records of the public headers, for the ABI baseline. The library takes them as
 * void *, so no export of its own carries their layouts: this probe's one function takes each
 * record, and its ABI (abi/records.abi) is their layouts. Built by scripts/test.d/50-abi.sh. */
#include "qmt_hconf.h"
#include "qmtnm.h"
#include "qmtnm_try.h"

__attribute__((visibility("default"))) void
qmtnm_abi_records(qmtnm_qos_cfg *qos, qmtnm_wan_cfg *wan, qmtnm_lan_cfg *lan, qmtnm_br_cfg *br,
                  qmtnm_ethtype_cfg *ethtype, qmtnm_mac_addr *ethmac, qmtnm_pppoe_cfg *pppoe,
                  qmtnm_ddns_cfg *ddns, qmtnm_sta_cfg *sta, qmtnm_scan_entry *scan, nm_softap *ap,
                  qmtnm_upnp_cfg *upnp, qmtnm_bonjour_cfg *bonjour, qmtnm_ipfilter_cfg *ipfilter,
                  qmt_hconf_header_rec *hconf_header, qmt_hconf_entry_rec *hconf_entry) {
    (void)qos, (void)wan, (void)lan, (void)br, (void)ethtype, (void)ethmac, (void)pppoe;
    (void)ddns, (void)sta, (void)scan, (void)ap, (void)upnp, (void)bonjour, (void)ipfilter;
    (void)hconf_header, (void)hconf_entry;
}

/* Records added later get a function of their own: the one above keeps its type. */
__attribute__((visibility("default"))) void qmtnm_abi_try_records(qmtnm_try_info *info) {
    (void)info;
}
