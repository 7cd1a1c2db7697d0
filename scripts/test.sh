#!/bin/bash
# Runs every test: installs missing packages, builds, then runs ctest with all labels (unit tests,
# and the end-to-end tests, which start the daemon in the simulated device and need root; without
# root ctest reports them as skipped). Extra arguments go to ctest, e.g. -L unit or -R startup.
set -euo pipefail
repo=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$repo/build}
"$repo/scripts/install-deps.sh"
"$repo/scripts/build.sh"
ctest --test-dir "$build" --output-on-failure "$@"
