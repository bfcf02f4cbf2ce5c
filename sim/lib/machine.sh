# shellcheck shell=bash
# Helpers shared by the init processes of the emulated machines (sourced, not run).
# Every mount made here lives in the caller's private mount namespace and dies with it.

# Where overlay upper and work directories live: a tmpfs of the machine's own.
ov_root=/run/.sim-overlay

# private_tmpfs PATH [MODE]: a fresh, empty tmpfs at PATH (created first if needed).
private_tmpfs() {
    [ -d "$1" ] || mkdir -p "$1"
    mount -t tmpfs -o "mode=${2:-755}" "sim-${1##*/}" "$1"
}

# private_overlay PATH [SUBMOUNT...]: PATH keeps showing the host's files, but every change lands
# in the machine's memory. The host's mounts below PATH are hidden, except the SUBMOUNTs named
# (such as /dev/pts below /dev), which are carried into the overlay.
private_overlay() {
    local dir=$1 name stage sub
    shift
    name=${dir//\//_}
    stage=$ov_root/$name
    mkdir -p "$stage/up" "$stage/wk" "$stage/mnt"
    mount -t overlay "sim-ov$name" -o "lowerdir=$dir,upperdir=$stage/up,workdir=$stage/wk" "$stage/mnt"
    for sub in "$@"; do
        if [ -d "$stage/mnt${sub#"$dir"}" ] && mountpoint -q "$sub"; then
            mount --rbind "$sub" "$stage/mnt${sub#"$dir"}"
        fi
    done
    mount --move "$stage/mnt" "$dir"
}

# The host directories a machine must keep seeing as they are (the source tree, the build and
# the device's persistent state), even when one of them lies below a path made private.
declare -A kept_fd=() kept_id=()
hold_host_dirs() {
    local d fd
    for d in "$@"; do
        [ -d "$d" ] || continue
        exec {fd}<"$d"
        kept_fd[$d]=$fd
        kept_id[$d]=$(stat -L -c %d:%i "$d")
    done
}
restore_host_dirs() {
    local d fd
    for d in "${!kept_fd[@]}"; do
        if [ "$(stat -L -c %d:%i "$d" 2>/dev/null)" != "${kept_id[$d]}" ]; then
            mkdir -p "$d"
            # -c: the descriptor names the host directory; its path would name the new one.
            mount -c --bind "/proc/self/fd/${kept_fd[$d]}" "$d"
        fi
    done
    for d in "${!kept_fd[@]}"; do
        fd=${kept_fd[$d]}
        exec {fd}<&-
    done
}

# A private view of the machine's system directories: /run, /tmp and /dev/shm start empty, and
# /etc, /var, /root and /dev are overlays whose writes stay in the machine. /proc is mounted for the
# PID namespace by unshare; /sys is mounted again so that it shows this network namespace.
private_system_dirs() {
    private_tmpfs /run
    mkdir -p "$ov_root"
    private_overlay /etc
    private_overlay /var
    private_overlay /root
    private_overlay /dev /dev/pts
    if [ -d /dev/mqueue ]; then
        mount -t mqueue sim-mqueue /dev/mqueue
    fi
    private_tmpfs /tmp 1777
    private_tmpfs /dev/shm 1777
    if [ ! -L /var/run ]; then
        mount --bind /run /var/run
    fi
    mount -t sysfs sysfs /sys
}

# link_busybox_applets APPLET...: makes each APPLET that the host lacks a busybox command in
# /usr/bin (which must be private by then). Prints the applets that neither provides.
link_busybox_applets() {
    local a bb links=()
    local -A have=()
    bb=$(readlink -f "$(command -v busybox)")
    for a in $(busybox --list); do
        have[$a]=1
    done
    for a in "$@"; do
        command -v "$a" >/dev/null && continue
        if [ -n "${have[$a]:-}" ]; then
            links+=("/usr/bin/$a")
        else
            echo "$a"
        fi
    done
    for a in "${links[@]}"; do
        ln -s "$bb" "$a"
    done
}

# reap_forever: what init does once the machine is up: it adopts and reaps every orphaned
# process until the machine is powered off (PID 1 killed from the host).
reap_forever() {
    trap 'exit 0' TERM INT
    while :; do
        sleep 3600 &
        wait $! || true
    done
}
