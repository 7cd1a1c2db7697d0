#!/bin/bash
# Installs, removes and purges the Debian package in a throw-away Debian 12 root, as on a fresh
# machine: `apt-get satisfy` the package's Depends, snapshot the root, `dpkg -i`, check the files
# and run `dhctl --version` inside (chroot), `dpkg -r` (the conffile stays), `dpkg --purge`, and
# compare with the snapshot: nothing may be left. The root has no systemd and a policy-rc.d that
# forbids starting services, so no unit is ever started on this machine.
#   scripts/package-test.sh [PACKAGE.deb]   default: the package in the build directory (build/,
#                                           or $BUILD_DIR)
#   scripts/package-test.sh --build         first build that package with scripts/package.sh
# The base root (debootstrap --variant=minbase bookworm) and the downloaded dependencies are
# cached in $DH_PACKAGE_TEST_CACHE (default /var/cache/dh-package-test), so re-runs need no
# network. Needs root; exits 77 (skipped) without it.
set -euo pipefail
repo=$(cd "$(dirname "$0")/.." && pwd)
package=sysrepo-device-handler
cache=${DH_PACKAGE_TEST_CACHE:-/var/cache/dh-package-test}
mirror=${DEBIAN_MIRROR:-http://deb.debian.org/debian}

if [[ $(id -u) -ne 0 ]]; then
    echo "package-test: needs root (debootstrap, chroot); skipped" >&2
    exit 77
fi
build=$(realpath -m "${BUILD_DIR:-$repo/build}")
if [[ ${1:-} == --build ]]; then
    BUILD_DIR=$build "$repo/scripts/package.sh" >/dev/null
    shift
fi
deb=${1:-$(ls -t "$build"/${package}_*.deb 2>/dev/null | head -n1)}
if [[ -z $deb || ! -f $deb ]]; then
    echo "package-test: no package to test: build one with scripts/package.sh" >&2
    exit 1
fi
deb=$(realpath "$deb")

fail() {
    echo "package-test: FAIL: $*" >&2
    exit 1
}

work=$(mktemp -d /var/tmp/dh-package-test.XXXXXX)
trap 'rm -rf --one-file-system "$work"' EXIT
root=$work/root
mkdir -p "$cache/archives" "$root"

base=$cache/bookworm-minbase.tar
if [[ ! -f $base ]]; then
    echo "package-test: making the base root (once; cached in $base)"
    debootstrap --variant=minbase bookworm "$work/base" "$mirror" >"$work/debootstrap.log" 2>&1 ||
        { tail -n 20 "$work/debootstrap.log" >&2; fail "debootstrap failed"; }
    chroot "$work/base" apt-get clean
    chroot "$work/base" apt-get update -qq
    tar -C "$work/base" -cf "$base.part" . && mv "$base.part" "$base"
    rm -rf --one-file-system "$work/base"
fi
tar -C "$root" -xf "$base"

in_root() { chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LANG=C.UTF-8 "$@"; }

# Services never start here: invoke-rc.d and deb-systemd-invoke ask policy-rc.d first, and
# without /run/systemd/system the maintainer scripts take systemd as not running.
printf '#!/bin/sh\nexit 101\n' >"$root/usr/sbin/policy-rc.d"
chmod 755 "$root/usr/sbin/policy-rc.d"
[[ ! -e $root/run/systemd/system ]] || fail "the root claims a running systemd"

depends=$(dpkg-deb -f "$deb" Depends)
cp "$cache"/archives/*.deb "$root/var/cache/apt/archives/" 2>/dev/null || true
if ! in_root apt-get satisfy -y -qq --no-install-recommends "$depends" >"$work/apt.log" 2>&1; then
    # The cached package lists may name versions the mirror no longer has.
    in_root apt-get update -qq
    in_root apt-get satisfy -y -qq --no-install-recommends "$depends" >"$work/apt.log" 2>&1 ||
        { tail -n 20 "$work/apt.log" >&2; fail "cannot install the dependencies: $depends"; }
fi
cp -n "$root"/var/cache/apt/archives/*.deb "$cache/archives/" 2>/dev/null || true
in_root apt-get clean

# Everything dpkg may leave behind, with type and mode; dpkg's own records of what it did are not.
snapshot() {
    (cd "$root" && find . -xdev \
        \( -path ./proc -o -path ./tmp -o -path ./var/log -o -path ./var/cache -o -path ./var/lib/apt \
           -o -path ./var/lib/dpkg/status -o -path ./var/lib/dpkg/status-old \
           -o -path ./var/lib/dpkg/triggers -o -path ./var/lib/dpkg/lock\* \
           -o -path ./var/lib/dpkg/available -o -path ./var/lib/dpkg/available-old \) -prune \
        -o -printf '%p %y %m\n' | LC_ALL=C sort)
}
snapshot >"$work/before"

cp "$deb" "$root/tmp/package.deb"
in_root dpkg -i /tmp/package.deb >"$work/dpkg.log" 2>&1 || { cat "$work/dpkg.log" >&2; fail "dpkg -i"; }
for f in /usr/sbin/sysrepo-device-handler /usr/bin/dhctl /lib/systemd/system/$package.service \
    /etc/default/$package /usr/share/man/man1/dhctl.1.gz /usr/share/man/man8/$package.8.gz \
    /usr/share/bash-completion/completions/dhctl; do
    [[ -f $root$f ]] || fail "$f is not installed"
done
# The unit's directives as this machine's systemd reads them (when it has one); that the
# programs are not installed on this machine is no finding.
if command -v systemd-analyze >/dev/null; then
    findings=$(systemd-analyze verify --man=no "$root/lib/systemd/system/$package.service" 2>&1 |
        grep -Ev 'is not executable|sysinit.target' || true)
    [[ -z $findings ]] || fail "systemd-analyze verify: $findings"
fi
grep -qx /etc/default/$package "$root/var/lib/dpkg/info/$package.conffiles" ||
    fail "/etc/default/$package is not a conffile"
version=$(dpkg-deb -f "$deb" Version)
out=$(in_root dhctl --version) || fail "dhctl --version failed in the root"
[[ $out == "dhctl ${version%%-*}" ]] || fail "dhctl --version printed '$out', not 'dhctl ${version%%-*}'"
# The man pages come from the programs' own help: every option of dhctl is in its page.
for option in $(in_root dhctl --help | grep -o -- '--[a-z][a-z-]*' | sort -u); do
    gzip -dc "$root/usr/share/man/man1/dhctl.1.gz" | sed 's/\\-/-/g' | grep -q -- "$option" ||
        fail "dhctl(1) does not mention $option"
done
gzip -dc "$root/usr/share/man/man8/$package.8.gz" | sed 's/\\-/-/g' | grep -q -- '--port' ||
    fail "$package(8) does not mention --port"
# The completion loads in a plain bash and offers the commands without a daemon.
out=$(in_root bash -c 'source /usr/share/bash-completion/completions/dhctl
    COMP_WORDS=(dhctl w); COMP_CWORD=1; _dhctl; echo "${COMPREPLY[*]}"')
[[ $out == watch ]] || fail "completion of 'dhctl w' gave '$out'"
echo "package-test: installed: $(in_root dhctl --version), $(dpkg-deb -f "$deb" Installed-Size) KiB"
wants=/etc/systemd/system/multi-user.target.wants/$package.service
[[ ! -e $root$wants ]] || fail "the installation enabled the unit"
# The link `systemctl enable` makes (there is no systemctl here): the purge must remove it.
mkdir -p "$root${wants%/*}"
ln -s /lib/systemd/system/$package.service "$root$wants"

in_root dpkg -r $package >>"$work/dpkg.log" 2>&1 || { cat "$work/dpkg.log" >&2; fail "dpkg -r"; }
[[ -f $root/etc/default/$package ]] || fail "dpkg -r removed the conffile"
[[ ! -e $root/usr/sbin/sysrepo-device-handler && ! -e $root/usr/bin/dhctl ]] ||
    fail "dpkg -r left the programs"
in_root dpkg --purge $package >>"$work/dpkg.log" 2>&1 || { cat "$work/dpkg.log" >&2; fail "dpkg --purge"; }
snapshot >"$work/after"
if ! diff -u "$work/before" "$work/after" >"$work/left"; then
    cat "$work/left" >&2
    fail "the purge left the root changed (above)"
fi
echo "package-test: $(basename "$deb") installs, runs, removes and purges cleanly"
