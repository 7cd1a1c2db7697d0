#!/bin/bash
# Writes the man pages dhctl.1.gz and sysrepo-device-handler.8.gz into OUT_DIR with help2man,
# from each program's own --help and --version plus the hand-written sections in
# packaging/man/*.h2m, so the pages list exactly the options the programs take.
#   scripts/man-pages.sh BIN_DIR OUT_DIR
# The daemon is never started on this machine: its --help and --version are read inside a
# simulated device (devhost up, then devhost exec), which needs root.
set -euo pipefail
repo=$(cd "$(dirname "$0")/.." && pwd)
bin=$(realpath "${1:?usage: man-pages.sh BIN_DIR OUT_DIR}")
out=${2:?usage: man-pages.sh BIN_DIR OUT_DIR}
mkdir -p "$out"
out=$(realpath "$out")
# The pages' date: that of the last commit, so the same tree gives the same pages.
SOURCE_DATE_EPOCH=$(git -C "$repo" log -1 --format=%ct 2>/dev/null || date +%s)
export SOURCE_DATE_EPOCH

page() { # NAME SECTION DESCRIPTION PROGRAM
    help2man --no-info --section "$2" --name "$3" --include "$repo/packaging/man/$1.h2m" \
        --output "$out/$1.$2" "$4"
    gzip -9nf "$out/$1.$2"
}

page dhctl 1 "command-line client of the device-handler daemon" "$bin/dhctl"

if [[ $(id -u) -ne 0 ]]; then
    echo "man-pages: the daemon's page needs root (its help is read inside devhost)" >&2
    exit 1
fi
device=$(mktemp -d /tmp/dh-man.XXXXXX)
cleanup() {
    "$repo/devhost/devhost" down "$device" >/dev/null 2>&1 || true
    rm -rf "$device"
}
trap cleanup EXIT
DH_DAEMON=$bin/sysrepo-device-handler "$repo/devhost/devhost" up "$device" >/dev/null
# help2man names the page after the program it runs: a wrapper of that name runs the daemon
# inside the device.
mkdir "$device/wrapper"
cat >"$device/wrapper/sysrepo-device-handler" <<WRAPPER
#!/bin/sh
exec "$repo/devhost/devhost" exec "$device" -- /usr/bin/sysrepo-device-handler "\$@"
WRAPPER
chmod 755 "$device/wrapper/sysrepo-device-handler"
page sysrepo-device-handler 8 "device-handler daemon of the optical transport device" \
    "$device/wrapper/sysrepo-device-handler"
