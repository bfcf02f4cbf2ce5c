#!/bin/bash
# Target libraries for the mipsel cross build: SQLite (shared, as on the device) and the
# GoogleTest/GoogleMock static libraries, unpacked from Debian's mipsel packages into a sysroot.
# The packages are fetched with a private apt state (its own lists, cache and empty status), so
# the host's dpkg gets no foreign architecture and its package lists stay as they are.
# The sysroot's lib/ points at the cross toolchain's C runtime, which makes the sysroot a
# complete root for `qemu-mipsel -L`.
#   QMTNM_MIPS_SYSROOT  where to put it (default /opt/qmtnm-mipsel-sysroot)
# Idempotent: returns at once when the sysroot already holds these packages.
set -euo pipefail
sysroot=${QMTNM_MIPS_SYSROOT:-/opt/qmtnm-mipsel-sysroot}
arch=mipsel
triplet=mipsel-linux-gnu
crt=/usr/$triplet/lib
pkgs=(libsqlite3-0 libsqlite3-dev libgtest-dev libgmock-dev)
stamp_text="packages: ${pkgs[*]}; runtime: $crt"

if [ -f "$sysroot/.qmtnm-sysroot" ] && [ "$(cat "$sysroot/.qmtnm-sysroot")" = "$stamp_text" ]; then
    exit 0
fi
if [ ! -e "$crt/ld.so.1" ]; then
    echo "mips-sysroot: $crt/ld.so.1 missing; install g++-$triplet first" >&2
    exit 1
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/qmtnm-sysroot.XXXXXX")
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/lists/partial" "$work/cache/archives/partial" "$work/debs" "$work/root"
: >"$work/status"
apt_opts=(-q -o "APT::Architecture=$arch" -o "APT::Architectures::=$arch"
    -o "Dir::State::Lists=$work/lists" -o "Dir::State::status=$work/status"
    -o "Dir::Cache=$work/cache" -o "Debug::NoLocking=1" -o "APT::Sandbox::User=root")
echo "mips-sysroot: fetching ${pkgs[*]} ($arch)"
apt-get "${apt_opts[@]}" update >/dev/null
(cd "$work/debs" && apt-get "${apt_opts[@]}" download "${pkgs[@]}" >/dev/null)
for p in "${pkgs[@]}"; do
    deb=$(ls "$work"/debs/"${p}"_*_"$arch".deb)
    dpkg-deb -x "$deb" "$work/root"
done
rm -rf "$work/root/usr/share/doc"
ln -s "$crt" "$work/root/lib"
printf '%s\n' "$stamp_text" >"$work/root/.qmtnm-sysroot"

# Replace any older sysroot in one step.
mkdir -p "$(dirname "$sysroot")"
rm -rf "$sysroot.old"
[ -e "$sysroot" ] && mv "$sysroot" "$sysroot.old"
mv "$work/root" "$sysroot"
rm -rf "$sysroot.old"
echo "mips-sysroot: ready in $sysroot"
