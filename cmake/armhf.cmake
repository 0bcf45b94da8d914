# SPDX-License-Identifier: MIT
# 32-bit ARM, the architecture of most boxes, with Debian's cross compiler. scripts/build-armhf unpacks GLib
# for armhf into VEXA_ARMHF_TARGET. For boxes with an SDK of their own, use the SDK's toolchain file instead.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

# CMake's compile checks read this file again, without the cache.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VEXA_ARMHF_TARGET)

set(libraries "${VEXA_ARMHF_TARGET}/usr/lib/arm-linux-gnueabihf")
set(ENV{PKG_CONFIG_LIBDIR} "${libraries}/pkgconfig:${VEXA_ARMHF_TARGET}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${VEXA_ARMHF_TARGET}")
# The libraries that GLib itself is linked with.
set(CMAKE_EXE_LINKER_FLAGS_INIT
  "-Wl,-rpath-link,${libraries}:${VEXA_ARMHF_TARGET}/lib/arm-linux-gnueabihf")
