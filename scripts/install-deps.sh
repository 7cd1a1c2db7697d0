#!/bin/bash
# Installs every Debian package needed to build, test and run the daemon in the simulated device.
# Idempotent: prints nothing and touches nothing when all are present. Needs root.
set -euo pipefail

packages=(
    build-essential cmake ninja-build ccache
    libboost-dev libboost-log-dev libboost-program-options-dev libboost-filesystem-dev
    libboost-system-dev libboost-thread-dev
    rapidjson-dev libfmt-dev libgtest-dev libgmock-dev libssl-dev openssl clang libclang-rt-14-dev
    redis-server redis-tools nftables iproute2 util-linux procps psmisc python3 clang-format
    help2man dpkg-dev file lintian debootstrap
    prometheus-cpp-dev prometheus curl
)

missing=()
for p in "${packages[@]}"; do
    status=$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)
    [[ $status == "install ok installed" ]] || missing+=("$p")
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

if [[ $(id -u) -ne 0 ]]; then
    echo "install-deps: run as root to install: ${missing[*]}" >&2
    exit 1
fi
echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
