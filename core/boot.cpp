// The start-up apply of the stored settings: which areas, in which order, and one area's read,
// check and apply. The dispatcher (lcl_core.cpp) runs it under each area's set lock.
#include "common/area.h"
#include "common/nm_log.h"
#include "common/raii.h"
#include "core/lcl_core.h"

#include <cstdlib>
#include <iterator>

namespace nm {

namespace {

// The start-up apply: each area whose stored settings make up part of the running system, in the
// order they are applied, with the instance whose get reads them and the record's size. Marking
// first, so that every packet the device sends afterwards carries it; then the WAN port (address
// and default route) and the LAN (bridge address and DHCP server); the IP filter before anything
// more listens on the LAN; PPPoE once br0, where its plugin runs, has its address; DDNS, because
// its first update goes out at once and needs the way upstream; UPnP and Bonjour, which announce
// the device (Bonjour's hosts file lists the WAN and LAN addresses); the soft AP after them, so
// that its hostapd.conf is written before the start-up script starts hostapd; the station last,
// whose stored network goes back into the supplicant (started empty) as network 0. The bridge and
// Ethernet type have no apply of their own (the areas that use them read them), and the MAC
// address is not stored.
constexpr stored_apply kBootOrder[] = {
    {QMTNM_ID_QOS, &qos_lcl, &qos_lcl, sizeof(qmtnm_qos_cfg)},
    {QMTNM_ID_WAN, &wan_lcl, &wanflash_lcl, sizeof(qmtnm_wan_cfg)},
    {QMTNM_ID_LAN, &lan_lcl, &lan_lcl, sizeof(qmtnm_lan_cfg)},
    {QMTNM_ID_IPFILTER, &ipfilter_lcl, &ipfilter_lcl, sizeof(qmtnm_ipfilter_cfg)},
    {QMTNM_ID_PPPOE, &pppoe_lcl, &pppoe_lcl, sizeof(qmtnm_pppoe_cfg)},
    {QMTNM_ID_DDNS, &ddns_lcl, &ddns_lcl, sizeof(qmtnm_ddns_cfg)},
    {QMTNM_ID_UPNP, &upnp_lcl, &upnp_lcl, sizeof(qmtnm_upnp_cfg)},
    {QMTNM_ID_BONJOUR, &bonjour_lcl, &bonjour_lcl, sizeof(qmtnm_bonjour_cfg)},
    {QMTNM_ID_AP, &ap_lcl, &ap_lcl, sizeof(nm_softap)},
    {QMTNM_ID_STA, &sta_lcl, &sta_lcl, sizeof(qmtnm_sta_cfg)},
};

} // namespace

const stored_apply *boot_order(size_t *count) {
    *count = std::size(kBootOrder);
    return kBootOrder;
}

int32_t apply_stored_locked(const stored_apply &a) {
    unique_heap<void> rec(calloc(1, a.size));
    if (!rec)
        return err(QMTNM_MODULE_CORE, QMTNM_R_NOMEM);
    int32_t r = a.reader->get(a.reader, rec.get(), a.size);
    if (r >= 0)
        r = a.inst->set(a.inst, rec.get(), 0);
    if (r == err(QMTNM_MODULE(a.id), QMTNM_R_INVALID))
        log(LOG_GATE_ERR, "qmtnm_lcl_apply_stored",
            "stored %s settings refused, not applied, errno = %d\n", a.inst->name, r);
    return r;
}

} // namespace nm
