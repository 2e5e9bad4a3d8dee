#!/bin/sh
# Makes the Debian 12 (bookworm) armhf sysroot that the 32-bit ARM build
# compiles and links against and that qemu-arm loads the target's shared
# libraries from. Prints the sysroot's path as its last line.
#
# The sysroot is cached outside the work tree, so every clone on the same
# machine shares it; it is rebuilt only when its package list changes.
# It is made in a scratch directory beside it and renamed into place only
# when complete, so an interrupted run never leaves a half sysroot behind.
#
# How: debootstrap --foreign downloads the base system and the -dev
# packages below with their dependencies (no multiarch set-up on the host
# and no code of the target runs), then every downloaded .deb is unpacked
# with dpkg -x. Absolute symlinks are made relative so that they resolve
# inside the sysroot, for the linker and for qemu-arm -L alike.
#
# Environment:
#   MANAGER_SVC_ARMHF_SYSROOT  where the sysroot lives (default: under
#                              ${XDG_CACHE_HOME:-$HOME/.cache}/manager_svc)
#   MANAGER_SVC_DEBIAN_MIRROR  the Debian archive (default: the one apt uses)
set -eu

SUITE=bookworm
TARGET_PACKAGES="libc6-dev libmicrohttpd-dev libjson-c-dev libcurl4-openssl-dev libgtest-dev libgmock-dev"
CACHE_DIR=${XDG_CACHE_HOME:-${HOME:-/root}/.cache}/manager_svc
SYSROOT=${MANAGER_SVC_ARMHF_SYSROOT:-$CACHE_DIR/armhf-sysroot-$SUITE}
STAMP_NAME=.manager_svc-sysroot
STAMP_TEXT="armhf $SUITE $TARGET_PACKAGES"

say() { echo "armhf-sysroot: $*" >&2; }
fail() { say "$*"; exit 1; }

# shellcheck source=scripts/debian-sources.sh
. "$(dirname "$0")/debian-sources.sh"

# The archive that apt already uses for $SUITE.
apt_mirror() {
    debian_sources "$SUITE" | awk -v suite="$SUITE" '$2 == suite { print $1; exit }'
}

need_tools() {
    for tool in debootstrap dpkg-deb realpath; do
        command -v "$tool" >/dev/null 2>&1 ||
            fail "$tool is missing; run: scripts/setup.sh armhf (as root)"
    done
    [ "$(id -u)" -eq 0 ] || fail "debootstrap needs root; run this script as root"
}

relink_absolute_symlinks() {
    find "$1" -type l -lname '/*' | while IFS= read -r link; do
        target=$(readlink "$link")
        ln -sfn "$(realpath -m --relative-to="$(dirname "$link")" "$1$target")" "$link"
    done
}

build_sysroot() {
    partial=$SYSROOT.partial
    mirror=${MANAGER_SVC_DEBIAN_MIRROR:-$(apt_mirror)}
    [ -n "$mirror" ] || fail "no deb entry for $SUITE in $DEBIAN_SOURCE_FILES; add the archive there or set MANAGER_SVC_DEBIAN_MIRROR"
    rm -rf "$partial"
    mkdir -p "$partial"
    say "downloading $SUITE armhf with: $TARGET_PACKAGES"
    say "from $mirror into $partial (a few minutes, done once per machine)"
    include=$(echo "$TARGET_PACKAGES" | tr ' ' ',')
    debootstrap --arch=armhf --variant=minbase --foreign --include="$include" \
        "$SUITE" "$partial" "$mirror" >"$partial.log" 2>&1 ||
        fail "debootstrap failed; see $partial.log"
    say "unpacking $(ls "$partial"/var/cache/apt/archives/*.deb | wc -l) packages"
    for deb in "$partial"/var/cache/apt/archives/*.deb; do
        dpkg-deb -x "$deb" "$partial" || fail "cannot unpack $deb"
    done
    rm -rf "$partial"/var/cache/apt/archives/*.deb "$partial"/debootstrap
    relink_absolute_symlinks "$partial"
    echo "$STAMP_TEXT" >"$partial/$STAMP_NAME"
    rm -rf "$SYSROOT" "$partial.log"
    mv "$partial" "$SYSROOT"
}

if [ -f "$SYSROOT/$STAMP_NAME" ] && [ "$(cat "$SYSROOT/$STAMP_NAME")" = "$STAMP_TEXT" ]; then
    say "up to date: $SYSROOT"
else
    need_tools
    build_sysroot
    say "ready: $SYSROOT"
fi
echo "$SYSROOT"
