#!/bin/sh
# Builds the device's libraries: static, size-optimised builds of libcurl,
# libmicrohttpd and json-c, configured down to what the daemon uses, for
# the device build (-DMANAGER_SVC_DEVICE_BUILD=ON) to link into the binary.
# The device then needs only the C and C++ runtime. Prints the install
# prefix (include/, lib/*.a) as its last line.
#
#   libcurl        plain HTTP client: no TLS, no other protocol, no IDN, no
#                  compression, no HTTP/2, no authentication scheme (for
#                  servers or proxies), no cookies, no DNS-over-HTTPS. Proxies
#                  stay built in so that CURLOPT_NOPROXY means what it means
#                  with Debian's libcurl.
#   libmicrohttpd  no HTTPS, no authentication, no upgrade, no post processor
#   json-c         the library only
#
# The sources are Debian 12's own source packages (apt-get source), with
# their Debian patches (security fixes included). apt reads a private
# configuration under the cache: deb-src entries made from the machine's own
# archive entries, its own lists and cache, so the host's apt is untouched.
#
# The result is cached outside the work tree, like the armhf sysroot, and
# rebuilt only when this recipe changes; it is built beside its place and
# renamed into place when complete. Runs on one machine take turns.
#
# usage: scripts/device-deps.sh [armhf|host]      (default armhf)
# Environment:
#   MANAGER_SVC_DEVICE_DEPS  install prefix (default: under
#                            ${XDG_CACHE_HOME:-$HOME/.cache}/manager_svc)
set -eu

SUITE=bookworm
ARCH=${1:-armhf}
case "$ARCH" in
    armhf) TRIPLET=arm-linux-gnueabihf ;;
    host) TRIPLET=$(gcc -dumpmachine) ;;
    *) echo "usage: $0 [armhf|host]" >&2; exit 2 ;;
esac
REPO=$(cd "$(dirname "$0")/.." && pwd)
CACHE_DIR=${XDG_CACHE_HOME:-${HOME:-/root}/.cache}/manager_svc
PREFIX=${MANAGER_SVC_DEVICE_DEPS:-$CACHE_DIR/device-deps-$SUITE-$ARCH}
APT_DIR=$CACHE_DIR/apt-source-$SUITE
SOURCE_DIR=$CACHE_DIR/device-deps-source-$SUITE
SOURCE_PACKAGES="curl libmicrohttpd json-c"
JOBS=2
CFLAGS="-Os -ffunction-sections -fdata-sections"

CURL_OPTIONS="--disable-shared --enable-static --disable-dependency-tracking
--without-ssl --without-zlib --without-brotli --without-zstd --without-libidn2
--without-libpsl --without-nghttp2 --without-ngtcp2 --without-nghttp3
--without-libssh2 --without-libssh --without-librtmp --without-gssapi
--without-hyper --without-ca-bundle --without-ca-path --disable-ldap
--disable-ldaps --disable-ftp --disable-file --disable-rtsp --disable-dict
--disable-telnet --disable-tftp --disable-pop3 --disable-imap --disable-smb
--disable-smtp --disable-gopher --disable-mqtt --disable-websockets
--disable-http-auth --disable-crypto-auth --disable-ntlm --disable-ntlm-wb
--disable-tls-srp --disable-cookies --disable-doh --disable-mime --disable-netrc
--disable-alt-svc --disable-hsts --disable-unix-sockets --disable-manual
--disable-libcurl-option --disable-progress-meter --disable-dnsshuffle
--disable-get-easy-options --disable-headers-api"
MHD_OPTIONS="--disable-shared --enable-static --disable-dependency-tracking
--disable-https --without-gnutls --disable-curl --disable-doc --disable-examples
--disable-bauth --disable-dauth --disable-httpupgrade --disable-postprocessor
--disable-nls"
JSONC_OPTIONS="-DBUILD_SHARED_LIBS=OFF -DBUILD_STATIC_LIBS=ON -DBUILD_TESTING=OFF
-DBUILD_APPS=OFF -DDISABLE_WERROR=ON -DDISABLE_EXTRA_LIBS=ON"

STAMP_NAME=.manager_svc-device-deps
STAMP_TEXT="$ARCH $TRIPLET $SUITE $SOURCE_PACKAGES $CFLAGS
curl: $CURL_OPTIONS
microhttpd: $MHD_OPTIONS
json-c: $JSONC_OPTIONS"

say() { echo "device-deps: $*" >&2; }
fail() { say "$*"; exit 1; }

# shellcheck source=scripts/debian-sources.sh
. "$REPO/scripts/debian-sources.sh"

need_tools() {
    for tool in apt-get dpkg-source make cmake "$TRIPLET-gcc"; do
        command -v "$tool" >/dev/null 2>&1 ||
            fail "$tool is missing; run: scripts/setup.sh armhf (as root)"
    done
}

# apt with a private source list, lists and cache under $APT_DIR.
private_apt() {
    apt-get -q -o Dir::Etc::SourceList="$APT_DIR/sources.list" \
        -o Dir::Etc::SourceParts="$APT_DIR/sources.list.d" \
        -o Dir::State::Lists="$APT_DIR/lists" -o Dir::Cache="$APT_DIR/cache" \
        -o APT::Sandbox::User=root "$@"
}

# The source entries: one deb-src line per archive entry apt uses for $SUITE.
write_source_list() {
    mkdir -p "$APT_DIR/sources.list.d" "$APT_DIR/lists/partial" "$APT_DIR/cache/archives/partial"
    debian_sources "$SUITE" | awk '{
        keyring = ($3 == "-") ? "" : "[signed-by=" $3 "] "
        components = ""
        for (i = 4; i <= NF; i++) components = components " " $i
        print "deb-src " keyring $1 " " $2 components }' >"$APT_DIR/sources.list"
    [ -s "$APT_DIR/sources.list" ] || fail "no deb entry for $SUITE in $DEBIAN_SOURCE_FILES"
}

# Unpacks the source packages (with their Debian patches) once per machine.
fetch_sources() {
    [ -f "$SOURCE_DIR/.complete" ] && return 0
    write_source_list
    say "fetching the source packages: $SOURCE_PACKAGES"
    private_apt update >"$APT_DIR/update.log" 2>&1 ||
        fail "apt-get update failed; see $APT_DIR/update.log"
    rm -rf "$SOURCE_DIR"
    mkdir -p "$SOURCE_DIR"
    # shellcheck disable=SC2086
    (cd "$SOURCE_DIR" && private_apt source $SOURCE_PACKAGES) >"$SOURCE_DIR.log" 2>&1 ||
        fail "apt-get source failed; see $SOURCE_DIR.log"
    touch "$SOURCE_DIR/.complete"
    rm -f "$SOURCE_DIR.log"
}

source_of() {
    for dir in "$SOURCE_DIR/$1"-[0-9]*; do
        [ -d "$dir" ] && echo "$dir" && return 0
    done
    fail "no unpacked source of $1 in $SOURCE_DIR"
}

# autotools_build SOURCE-PACKAGE SUBDIRS OPTIONS: an out-of-tree build that
# installs only the library and the headers (the SUBDIRS) into $partial.
autotools_build() {
    src=$(source_of "$1")
    dir=$work/$1
    mkdir -p "$dir"
    say "building $(basename "$src")"
    # shellcheck disable=SC2086
    (cd "$dir" && "$src/configure" --host="$TRIPLET" --prefix="$partial" \
        CC="$TRIPLET-gcc" CFLAGS="$CFLAGS" $3) >"$dir.log" 2>&1 ||
        fail "configure of $1 failed; see $dir.log"
    for sub in $2; do
        make -C "$dir/$sub" -j"$JOBS" install >>"$dir.log" 2>&1 ||
            fail "build of $1 failed; see $dir.log"
    done
}

json_c_build() {
    src=$(source_of json-c)
    dir=$work/json-c
    say "building $(basename "$src")"
    # shellcheck disable=SC2086
    { cmake -S "$src" -B "$dir" -DCMAKE_SYSTEM_NAME=Linux -DCMAKE_C_COMPILER="$TRIPLET-gcc" \
        -DCMAKE_BUILD_TYPE=MinSizeRel -DCMAKE_C_FLAGS="$CFLAGS" \
        -DCMAKE_INSTALL_PREFIX="$partial" -DCMAKE_INSTALL_LIBDIR=lib $JSONC_OPTIONS &&
        cmake --build "$dir" -j"$JOBS" && cmake --install "$dir"; } >"$dir.log" 2>&1 ||
        fail "build of json-c failed; see $dir.log"
}

build_deps() {
    partial=$PREFIX.partial
    work=$PREFIX.build
    rm -rf "$partial" "$work"
    mkdir -p "$partial" "$work"
    autotools_build curl "lib include" "$CURL_OPTIONS"
    autotools_build libmicrohttpd "src/include src/microhttpd" "$MHD_OPTIONS"
    json_c_build
    rm -rf "$partial/lib/pkgconfig" "$partial/lib/cmake" "$partial"/lib/*.la "$work"
    echo "$STAMP_TEXT" >"$partial/$STAMP_NAME"
    rm -rf "$PREFIX"
    mv "$partial" "$PREFIX"
}

# One run at a time per machine: the sources and their apt lists are shared.
mkdir -p "$CACHE_DIR"
exec 9>"$CACHE_DIR/device-deps.lock"
flock 9

if [ -f "$PREFIX/$STAMP_NAME" ] && [ "$(cat "$PREFIX/$STAMP_NAME")" = "$STAMP_TEXT" ]; then
    say "up to date: $PREFIX"
else
    need_tools
    fetch_sources
    build_deps
    say "ready: $PREFIX"
fi
echo "$PREFIX"
