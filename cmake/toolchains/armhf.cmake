# Cross build for the device: 32-bit little-endian ARM, hard-float ABI, Debian's
# arm-linux-gnueabihf toolchain. Programs built here run on the build machine
# through qemu-arm user-mode emulation, so tests and gtest discovery work too.
#
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/armhf.cmake
#
# Debian's cross compiler has the target's headers and libraries built into its
# search paths (/usr/arm-linux-gnueabihf/{include,lib}); it is not a --sysroot
# compiler, so CMAKE_SYSROOT stays unset and that tree is only the find root.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(AVPOOL_ARMHF_TRIPLE arm-linux-gnueabihf)
set(AVPOOL_ARMHF_ROOT /usr/${AVPOOL_ARMHF_TRIPLE})

set(CMAKE_C_COMPILER ${AVPOOL_ARMHF_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${AVPOOL_ARMHF_TRIPLE}-g++)

# Target libraries and packages come only from the target tree and from prefixes
# given on the command line (CMAKE_FIND_ROOT_PATH may be preset there, e.g. with
# a cross-built GoogleTest); programs run during the build come from the host.
list(APPEND CMAKE_FIND_ROOT_PATH ${AVPOOL_ARMHF_ROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# GStreamer for the target, for the plugin: Debian's armhf packages unpacked
# into a directory by scripts/armhf-sysroot.sh, named in the environment or
# the cache as AVPOOL_ARMHF_SYSROOT. pkg-config then answers from that tree
# (its paths prefixed with it), and the linker finds there the libraries the
# GStreamer libraries need in turn.
if(NOT AVPOOL_ARMHF_SYSROOT AND DEFINED ENV{AVPOOL_ARMHF_SYSROOT})
  set(AVPOOL_ARMHF_SYSROOT $ENV{AVPOOL_ARMHF_SYSROOT})
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES AVPOOL_ARMHF_SYSROOT)
if(AVPOOL_ARMHF_SYSROOT)
  set(ENV{PKG_CONFIG_SYSROOT_DIR} ${AVPOOL_ARMHF_SYSROOT})
  set(ENV{PKG_CONFIG_LIBDIR}
    "${AVPOOL_ARMHF_SYSROOT}/usr/lib/${AVPOOL_ARMHF_TRIPLE}/pkgconfig:${AVPOOL_ARMHF_SYSROOT}/usr/share/pkgconfig")
  list(APPEND CMAKE_FIND_ROOT_PATH ${AVPOOL_ARMHF_SYSROOT})
  foreach(dir usr/lib/${AVPOOL_ARMHF_TRIPLE} lib/${AVPOOL_ARMHF_TRIPLE})
    string(APPEND CMAKE_SHARED_LINKER_FLAGS_INIT " -Wl,-rpath-link,${AVPOOL_ARMHF_SYSROOT}/${dir}")
    string(APPEND CMAKE_MODULE_LINKER_FLAGS_INIT " -Wl,-rpath-link,${AVPOOL_ARMHF_SYSROOT}/${dir}")
    string(APPEND CMAKE_EXE_LINKER_FLAGS_INIT " -Wl,-rpath-link,${AVPOOL_ARMHF_SYSROOT}/${dir}")
  endforeach()
endif()

# Debian's qemu-user installs qemu-arm; the static build is qemu-arm-static.
# -L makes the emulator load the target's dynamic loader and libraries.
find_program(AVPOOL_QEMU_ARM NAMES qemu-arm qemu-arm-static
  DOC "User-mode emulator that runs ARM programs on the build machine")
if(AVPOOL_QEMU_ARM)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${AVPOOL_QEMU_ARM};-L;${AVPOOL_ARMHF_ROOT}")
else()
  message(WARNING "qemu-arm not found (Debian package qemu-user): ARM test programs cannot run here")
endif()
