#!/bin/bash
# The exported ABI of libqmtnm.so and libsysconf.so against the baseline in abi/ (libabigail's
# abidw and abidiff). The settings records travel as void *: their layouts are the ABI of a probe
# of the public headers (abi/records.c). An incompatible change fails: abidiff's bit 8 (a removed
# export, a changed symbol), or an ABI change (bit 4) that removes or changes anything (a record's
# or lcl_instance's layout, a function's type). Only additions (new exports) pass, and are shown. A baseline may change incompatibly only in a commit that also changes the
# library's SONAME. On purpose: bump the SONAME, then `scripts/test.d/50-abi.sh --update`.
#   QMTNM_BUILD  the build directory (default build/, as scripts/test makes it)
set -euo pipefail
top=$(cd "$(dirname "$0")/../.." && pwd)
cd "$top"
build=${QMTNM_BUILD:-build}
cmake --build "$build" -j"$(nproc)" --target qmtnm sysconf >/dev/null
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# The probe with the flags of the library's own build (RelWithDebInfo).
cc -std=c99 -O2 -g -fPIC -shared -Wall -Wextra -Werror -Iinclude abi/records.c -o "$work/records.so"
declare -A lib=([libqmtnm]=$build/libqmtnm.so [libsysconf]=$build/sysconf/libsysconf.so
    [records]=$work/records.so)
declare -A headers=([libqmtnm]=include [libsysconf]=sysconf [records]=include)
declare -A owner=([libqmtnm]=libqmtnm [libsysconf]=libsysconf [records]=libqmtnm)
# Status 0 when new is incompatible with old (diff in $work/diff), 2 for additions only, 3 same.
incompatible() {
    local r=0
    abidiff "$1" "$2" >"$work/diff" || r=$?
    [ $((r & 11)) -ne 0 ] || grep -qE '[1-9][0-9]* (Removed|Changed)' "$work/diff" && return 0
    [ $r = 0 ] && return 3
    return 2
}
soname() { sed -n "1s/.* soname='\([^']*\)'.*/\1/p" "$1"; }
status=0
for name in libqmtnm libsysconf records; do
    abidw --no-corpus-path --exported-interfaces-only --drop-private-types \
        --headers-dir "${headers[$name]}" "${lib[$name]}" >"$work/$name.abi"
    if [ "${1:-}" = --update ]; then
        cp "$work/$name.abi" "abi/$name.abi"
        continue
    fi
    r=0
    incompatible abi/"$name".abi "$work/$name.abi" || r=$?
    [ $r = 0 ] && { echo "abi: $name: incompatible with abi/$name.abi:"; status=1; }
    [ $r = 2 ] && echo "abi: $name: compatible change (additions):"
    [ $r = 3 ] && echo "abi: $name: as in abi/$name.abi" || cat "$work/diff"
    # A baseline changed incompatibly by the last commit: only with its library's new SONAME.
    git show HEAD~1:abi/"$name".abi >"$work/old.abi" 2>/dev/null || continue
    git show HEAD~1:abi/"${owner[$name]}".abi >"$work/old-owner.abi"
    if incompatible "$work/old.abi" abi/"$name".abi &&
        [ "$(soname "$work/old-owner.abi")" = "$(soname abi/"${owner[$name]}".abi)" ]; then
        echo "abi: abi/$name.abi changed incompatibly in the last commit without a new SONAME"
        status=1
    fi
done
exit $status
