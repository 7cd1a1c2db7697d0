#!/bin/bash
# Configures (once) and builds everything: the daemon, dhctl, the unit tests and the benchmarks.
# The build directory is build/ (devhost runs build/bin/sysrepo-device-handler), or $BUILD_DIR.
# Extra arguments go to the first cmake configure, e.g. -DDH_SANITIZE=address.
set -euo pipefail
repo=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$repo/build}

# Paths relative to the checkout in ccache's keys, so that clones share cached objects.
export CCACHE_BASEDIR=$repo

if [[ ! -f $build/build.ninja ]]; then
    cmake -S "$repo" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
fi
cmake --build "$build" -j"$(nproc)"
