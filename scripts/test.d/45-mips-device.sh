#!/bin/bash
# The full-system device: boots the device build (from scripts/cross-build, run before this) on
# the Malta board's mipsel kernel under qemu-system-mipsel once, and runs its tests there:
# a QoS-marked packet upstream, a DHCP lease on eth0, real radios associating (WPA2 passphrase,
# WPS push button, the soft AP), a PPPoE session, the settings disk across a reboot.
set -euo pipefail
cd "$(dirname "$0")/../.."
build=${QMTNM_MIPS_BUILD:-build-mips}
[ -x "$build/tools/qmtnm" ] || bash scripts/cross-build
bash sim/mips/image
state=$(mktemp -d "${TMPDIR:-/tmp}/qmtnm-mips-device.XXXXXX")
trap 'QMTNM_SIM=mips QMTNM_SIM_STATE=$state sim/device stop || true; rm -rf "$state"' EXIT
start=$(date +%s)
QMTNM_SIM=mips QMTNM_MIPS_BUILD="$PWD/$build" QMTNM_SIM_STATE="$state" PYTHONDONTWRITEBYTECODE=1 \
    timeout 900 python3 tests/sim/test_mips.py
echo "full-system device: tests passed in $(($(date +%s) - start)) s"
