#!/bin/bash
# The emulated device's crond: Debian's busybox is built without crond and crontab, and
# busybox-static (which has them) conflicts with the busybox package. So busybox-static's .deb is
# fetched with apt and unpacked into a private directory, outside dpkg's view; only the device's
# init links its crond and crontab from there (sim/lib/device-services.sh).
set -euo pipefail
dest=/usr/local/lib/qmtnm-sim/busybox-static
[ -x "$dest/bin/busybox" ] && exit 0
if busybox --list 2>/dev/null | grep -qx crond; then
    exit 0 # the host's busybox has crond already
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
if ! (cd "$work" && apt-get download busybox-static >/dev/null 2>&1); then
    apt-get update -qq
    (cd "$work" && apt-get download busybox-static >/dev/null)
fi
mkdir -p "$work/x"
dpkg-deb -x "$work"/busybox-static_*.deb "$work/x"
mkdir -p "$dest/bin"
install -m 0755 "$work/x/bin/busybox" "$dest/bin/busybox"
echo "sim-busybox-crond: busybox-static unpacked into $dest (crond for the emulated device)"
