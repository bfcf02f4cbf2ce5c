#!/bin/bash
# Power cuts on the full-system device: 5 trials of scripts/powercut (a stream of sets, the
# emulator killed, the store and the applied settings checked after the next boot). Uses the
# device build and image of 45-mips-device.sh.
set -euo pipefail
cd "$(dirname "$0")/../.."
build=${QMTNM_MIPS_BUILD:-build-mips}
[ -x "$build/tools/qmtnm" ] || bash scripts/cross-build
bash sim/mips/image
QMTNM_MIPS_BUILD="$PWD/$build" timeout 600 scripts/powercut 5
