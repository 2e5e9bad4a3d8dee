# Sourced by the scripts that build the armhf device build
# (scripts/test-armhf.sh, scripts/boot-check.sh); the caller defines REPO,
# BUILD and fail.
#
# configure_device_build: makes (or checks) the sysroot and the device's
# libraries, sets SYSROOT and DEVICE_DEPS, and configures $BUILD for the
# device build against them.
configure_device_build() {
    SYSROOT=$("$REPO/scripts/armhf-sysroot.sh" | tail -n 1)
    DEVICE_DEPS=$("$REPO/scripts/device-deps.sh" armhf | tail -n 1)
    mkdir -p "$BUILD"
    cmake -S "$REPO" -B "$BUILD" -DCMAKE_TOOLCHAIN_FILE="$REPO/cmake/armhf-toolchain.cmake" \
        -DMANAGER_SVC_ARMHF_SYSROOT="$SYSROOT" -DMANAGER_SVC_DEVICE_BUILD=ON \
        -DMANAGER_SVC_DEVICE_DEPS="$DEVICE_DEPS" >"$BUILD/configure.log" 2>&1 ||
        { cat "$BUILD/configure.log" >&2; fail "configure"; }
}
