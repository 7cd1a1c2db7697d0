#!/bin/bash
# Prepares a fresh Debian 12 machine: the packages, then the build. Run as root.
set -euo pipefail
here=$(dirname "$0")
"$here/install-deps.sh"
"$here/build.sh"
