#!/bin/bash
# Builds the Debian package sysrepo-device-handler_VERSION_ARCH.deb into the build directory
# (build/, or $BUILD_DIR): the programs (scripts/build.sh), the man pages (scripts/man-pages.sh,
# which reads the daemon's help inside the simulated device and so needs root), the changelog,
# then cpack. Test it with scripts/package-test.sh.
set -euo pipefail
repo=$(cd "$(dirname "$0")/.." && pwd)
build=$(realpath -m "${BUILD_DIR:-$repo/build}")

BUILD_DIR=$build "$repo/scripts/build.sh"
version=$(sed -n 's/^set(CPACK_PACKAGE_VERSION "\(.*\)")$/\1/p' "$build/CPackConfig.cmake")
if [[ $(head -n1 "$repo/packaging/debian/changelog") != "sysrepo-device-handler ($version) "* ]]; then
    echo "package: packaging/debian/changelog does not start with version $version" >&2
    exit 1
fi
generated=$build/generated
rm -rf "$generated"
"$repo/scripts/man-pages.sh" "$build/bin" "$generated"
gzip -9nc "$repo/packaging/debian/changelog" >"$generated/changelog.gz"

rm -rf "$build/cpack"
cpack --config "$build/CPackConfig.cmake" -B "$build/cpack" >"$build/cpack.log" 2>&1 ||
    { cat "$build/cpack.log" >&2; exit 1; }
deb=$(ls "$build"/cpack/sysrepo-device-handler_*.deb)
rm -f "$build"/sysrepo-device-handler_*.deb
mv "$deb" "$build/"
echo "$build/$(basename "$deb")"
