#!/bin/bash
# libqmtnm.so exports only the documented names, and the ones that exist today are all there.
set -euo pipefail
lib=$1
documented="
qmtnm_lcl_set qmtnm_lcl_get get_lcl_instance nm_log_level qmtnm_lcl_apply_stored qmtnm_lcl_boot_order
qmtnm_try_begin qmtnm_try_confirm qmtnm_try_rollback qmtnm_try_recover qmtnm_try_state
br_lcl ethtype_lcl ethmac_lcl wan_lcl lan_lcl ddns_lcl pppoe_lcl upnp_lcl bonjour_lcl
ipfilter_lcl qos_lcl wanflash_lcl doscan_lcl scanresult_lcl sta_lcl ap_lcl stapin_lcl appin_lcl
write_conf_file nm_get_inaddr update_hosts_file save_hw_conf
wpa_ctrl_open wpa_ctrl_close wpa_ctrl_request wpa_ctrl_attach wpa_ctrl_detach wpa_ctrl_recv
wpa_ctrl_pending wpa_ctrl_pending_timeout wpa_ctrl_get_fd
ch_hex qmt_hconf_header qmt_hconf_entry qmt_hconf_header_dump qmt_hconf_entry_dump
qmt_hconf_read_header qmt_hconf_write_header qmt_hconf_read_entry qmt_hconf_write_entry
qmt_hconf_del_entry qmt_hconf_save qmt_hconf_update qmt_hconf_sync qmt_hconf_clear
"
required="qmtnm_lcl_set qmtnm_lcl_get get_lcl_instance nm_log_level qmtnm_lcl_apply_stored
qmtnm_lcl_boot_order qos_lcl wan_lcl appin_lcl
wpa_ctrl_open wpa_ctrl_close wpa_ctrl_request wpa_ctrl_attach wpa_ctrl_detach wpa_ctrl_recv
wpa_ctrl_pending wpa_ctrl_pending_timeout wpa_ctrl_get_fd"
exported=$(nm -D --defined-only "$lib" | awk '{print $3}' | sed 's/@.*//' | sort -u)
bad=0
for s in $exported; do
    case " $(echo $documented) " in
    *" $s "*) ;;
    *) echo "undocumented export: $s"; bad=1 ;;
    esac
done
for s in $required; do
    echo "$exported" | grep -qx "$s" || { echo "missing export: $s"; bad=1; }
done
# Neither library needs the C++ runtime on the device.
for l in "$lib" "$(dirname "$lib")/sysconf/libsysconf.so"; do
    if objdump -p "$l" | grep -E 'NEEDED +lib(stdc\+\+|gcc_s)' >/dev/null; then
        echo "$(basename "$l") needs the C++ runtime:"; objdump -p "$l" | grep NEEDED; bad=1
    fi
done
soname=$(objdump -p "$lib" | awk '/SONAME/ {print $2}')
[ "$soname" = libqmtnm.so.1 ] || { echo "SONAME is '$soname'"; bad=1; }
[ $bad = 0 ] && echo "exports: $(echo "$exported" | wc -l) names, all documented; SONAME $soname"
exit $bad
