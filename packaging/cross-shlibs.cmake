# CPack pre-build script of the cross build: dpkg-shlibdeps cannot look up
# the target's C and C++ runtime in the host's dpkg database (the target's
# libraries are not installed there), so it gets them from debian/shlibs.local
# in the staging directory (CPack removes that directory after the look-up).
# The entries come from the cross toolchain's own packages (libc6-armhf-cross,
# libstdc++6-armhf-cross, ...), whose shlibs files name the target's real
# packages with an architecture qualifier that the package, being built for
# that architecture, does not need.
file(GLOB cross_shlibs /var/lib/dpkg/info/*-${CPACK_DEBIAN_PACKAGE_ARCHITECTURE}-cross.shlibs)
if(NOT cross_shlibs)
  message(FATAL_ERROR "no ${CPACK_DEBIAN_PACKAGE_ARCHITECTURE} cross toolchain packages: run scripts/setup.sh armhf")
endif()
set(entries "")
foreach(file IN LISTS cross_shlibs)
  file(READ ${file} text)
  string(REPLACE ":${CPACK_DEBIAN_PACKAGE_ARCHITECTURE}" "" text "${text}")
  string(APPEND entries "${text}")
endforeach()
file(WRITE ${CPACK_TEMPORARY_DIRECTORY}/debian/shlibs.local "${entries}")
