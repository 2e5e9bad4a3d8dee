# CMake toolchain for the device: 32-bit ARM Linux, hard-float ABI
# (Debian's armhf, triplet arm-linux-gnueabihf), built with Debian's cross
# compiler against the sysroot that scripts/armhf-sysroot.sh makes.
#
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/armhf-toolchain.cmake \
#         -DMANAGER_SVC_ARMHF_SYSROOT=<the path armhf-sysroot.sh printed>
#
# Test binaries run under qemu-arm with the sysroot as the target's root
# (CMAKE_CROSSCOMPILING_EMULATOR), inside the overlay sandbox like on the host.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(MANAGER_SVC_TRIPLET arm-linux-gnueabihf)

set(MANAGER_SVC_ARMHF_SYSROOT "$ENV{MANAGER_SVC_ARMHF_SYSROOT}" CACHE PATH
  "Debian armhf sysroot made by scripts/armhf-sysroot.sh")
if(NOT IS_DIRECTORY "${MANAGER_SVC_ARMHF_SYSROOT}/usr/include/${MANAGER_SVC_TRIPLET}")
  message(FATAL_ERROR "No armhf sysroot at '${MANAGER_SVC_ARMHF_SYSROOT}': "
    "run scripts/armhf-sysroot.sh and pass -DMANAGER_SVC_ARMHF_SYSROOT=<its output>")
endif()
# try_compile projects get the toolchain file again; they need the sysroot too.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES MANAGER_SVC_ARMHF_SYSROOT)

set(CMAKE_C_COMPILER ${MANAGER_SVC_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${MANAGER_SVC_TRIPLET}-g++)
set(CMAKE_SYSROOT "${MANAGER_SVC_ARMHF_SYSROOT}")
set(CMAKE_LIBRARY_ARCHITECTURE ${MANAGER_SVC_TRIPLET})

# The target's shared libraries pull in their own dependencies (libcurl's
# TLS and HTTP/2 libraries, ...); the linker finds those in the sysroot.
set(MANAGER_SVC_SYSROOT_LIBDIRS
  "${MANAGER_SVC_ARMHF_SYSROOT}/usr/lib/${MANAGER_SVC_TRIPLET}"
  "${MANAGER_SVC_ARMHF_SYSROOT}/lib/${MANAGER_SVC_TRIPLET}")
foreach(dir ${MANAGER_SVC_SYSROOT_LIBDIRS})
  string(APPEND CMAKE_EXE_LINKER_FLAGS_INIT " -Wl,-rpath-link,${dir}")
  string(APPEND CMAKE_SHARED_LINKER_FLAGS_INIT " -Wl,-rpath-link,${dir}")
endforeach()

# Headers, libraries and packages (GTest's CMake files included) come from
# the sysroot only; programs (pkg-config, python3, the test scripts) from
# the host.
set(CMAKE_FIND_ROOT_PATH "${MANAGER_SVC_ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config reads the target's .pc files and prefixes their paths with
# the sysroot.
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${MANAGER_SVC_ARMHF_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
  "${MANAGER_SVC_ARMHF_SYSROOT}/usr/lib/${MANAGER_SVC_TRIPLET}/pkgconfig:${MANAGER_SVC_ARMHF_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")

find_program(MANAGER_SVC_QEMU_ARM qemu-arm)
if(MANAGER_SVC_QEMU_ARM)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${MANAGER_SVC_QEMU_ARM};-L;${MANAGER_SVC_ARMHF_SYSROOT}")
endif()
