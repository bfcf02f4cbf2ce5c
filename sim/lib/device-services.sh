# shellcheck shell=bash
# What the device's PPPoE and DDNS areas need on the emulated device (sourced by init-device,
# inside the device's private mount namespace, with /usr/bin already a private overlay):
#   - pppd's rp-pppoe plugin at the path the generated options file names, /lib/ppp/rp-pppoe.so
#     (Debian keeps it under /usr/lib/pppd/<version>/; /usr/lib becomes a private overlay);
#   - busybox crond and crontab, from the privately unpacked busybox-static
#     (scripts/deps.d/sim-busybox-crond.sh) when the host's busybox lacks them;
#   - the DDNS provider's update host, a build-time name, pointed at the upstream router, where
#     sim/lib/ddns-provider-standin.py answers for it.

sim_busybox_static=/usr/local/lib/qmtnm-sim/busybox-static/bin/busybox

# device_services BUILD UPSTREAM_IP MISSING...: sets the above up; prints the applets of
# MISSING that are still missing afterwards.
device_services() {
    local build=$1 upstream=$2 plugin a host
    shift 2
    plugin=$(ls /usr/lib/pppd/*/rp-pppoe.so 2>/dev/null | head -n 1)
    if [ -n "$plugin" ]; then
        private_overlay /usr/lib
        mkdir -p /usr/lib/ppp
        ln -sf "$plugin" /usr/lib/ppp/rp-pppoe.so
    fi
    for a in "$@"; do
        case $a in
        crond | crontab)
            if [ -x "$sim_busybox_static" ]; then
                ln -s "$sim_busybox_static" "/usr/bin/$a"
                continue
            fi
            ;;
        esac
        echo "$a"
    done
    host=$(sed -n 's/^QMTNM_DDNS_UPDATE_HOST:[A-Z]*=//p' "$build/CMakeCache.txt" 2>/dev/null)
    host=${host%%:*}
    if [ -n "$host" ]; then
        echo "$upstream $host" >>/etc/hosts
    fi
}

# network_services TOP: the programs of the UPnP and Bonjour areas and the web service, as the
# appliance has them (inside the device only):
#   - `hostname` is busybox's, which sets any name, as the appliance's does (Debian's refuses
#     a name such as cam's);
#   - `miniupnpd` on PATH is sim/bin/miniupnpd-adapter, which turns the appliance's two-line
#     file into Debian's syntax and runs Debian's /usr/sbin/miniupnpd (the link lives in a
#     private /usr/local/sbin, ahead of /usr/sbin);
#   - /bin/mDNSResponderPosix is sim/bin/mDNSResponderPosix-standin (no Debian package);
#   - the web service's pages in a tmpfs at /var/www, served by busybox `httpd`.
network_services() {
    local top=$1 bb
    bb=$(readlink -f "$(command -v busybox)")
    ln -sf "$bb" /usr/bin/hostname
    ln -sf "$bb" /usr/bin/httpd
    ln -sf "$top/sim/bin/mDNSResponderPosix-standin" /usr/bin/mDNSResponderPosix
    private_overlay /usr/local/sbin
    ln -sf "$top/sim/bin/miniupnpd-adapter" /usr/local/sbin/miniupnpd
    private_tmpfs /var/www
    cat >/var/www/index.html <<'PAGE'
<!DOCTYPE html>
<html><head><title>qmtnm device</title></head>
<body><h1>qmtnm device</h1><p>The appliance's web service.</p></body></html>
PAGE
}

# start_web_service: the appliance's web service on TCP port 80 of every address (busybox
# httpd in the foreground, a child of the device's init).
start_web_service() {
    httpd -f -p 80 -h /var/www </dev/null >/dev/null 2>&1 &
}
