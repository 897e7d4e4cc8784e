# Cross build for Debian armhf: the arm-linux-gnueabihf cross compiler
# (crossbuild-essential-armhf) and Qt's moc and rcc of the build machine,
# with the target's libraries from one of two places:
# - Debian multiarch: the :armhf packages under /usr/lib/arm-linux-gnueabihf
#   (Qt5Core's CMake package of :armhf points at /usr/lib/qt5/bin, which is
#   the amd64 qtbase5-dev-tools);
# - otherwise a sysroot of unpacked armhf packages (scripts/cross-sysroot),
#   TARV_SYSROOT, by default /opt/tarv-sysroot-armhf: what
#   `ARCH=armhf scripts/install-deps` makes when multiarch cannot install
#   them (an armhf index out of step with amd64's).
# `make build ARCH=armhf` uses this file.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(TARV_DEBIAN_ARCHITECTURE armhf)

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

# The choice is made once, in the first configure run, and kept for the
# try_compile projects (which read this file again).
if(NOT DEFINED TARV_SYSROOT)
  if(EXISTS /usr/lib/arm-linux-gnueabihf/cmake/Qt5Core/Qt5CoreConfig.cmake)
    set(TARV_SYSROOT "")
  elseif(DEFINED ENV{TARV_SYSROOT})
    set(TARV_SYSROOT "$ENV{TARV_SYSROOT}")
  else()
    set(TARV_SYSROOT /opt/tarv-sysroot-armhf)
  endif()
  set(TARV_SYSROOT "${TARV_SYSROOT}" CACHE PATH "The armhf sysroot (empty: Debian multiarch)")
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TARV_SYSROOT)

find_program(TARV_QEMU qemu-arm REQUIRED)
if(TARV_SYSROOT)
  if(NOT EXISTS "${TARV_SYSROOT}/usr/lib/arm-linux-gnueabihf/cmake/Qt5Core/Qt5CoreConfig.cmake")
    message(FATAL_ERROR "armhf: neither the :armhf multiarch packages nor a sysroot at ${TARV_SYSROOT}; "
                        "run `ARCH=armhf scripts/install-deps` (as root)")
  endif()
  # Headers, libraries, the C and C++ runtime: all from the sysroot. The
  # libraries' own dependencies are found there at link time too.
  set(CMAKE_SYSROOT "${TARV_SYSROOT}")
  set(CMAKE_FIND_ROOT_PATH "${TARV_SYSROOT}")
  set(CMAKE_PREFIX_PATH "${TARV_SYSROOT}/usr/lib/arm-linux-gnueabihf/cmake")
  set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
  set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
  set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
  set(ENV{PKG_CONFIG_SYSROOT_DIR} "${TARV_SYSROOT}")
  set(ENV{PKG_CONFIG_LIBDIR} "${TARV_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${TARV_SYSROOT}/usr/share/pkgconfig")
  # Under qemu-user the target's loader and libraries are looked up in the
  # sysroot first (-L), since this machine has none of them.
  set(CMAKE_CROSSCOMPILING_EMULATOR ${TARV_QEMU} -L ${TARV_SYSROOT})
else()
  # Libraries and CMake packages of the target only; programs of the build
  # machine.
  set(CMAKE_FIND_ROOT_PATH /usr/arm-linux-gnueabihf)
  set(CMAKE_PREFIX_PATH /usr/lib/arm-linux-gnueabihf/cmake)
  set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
  set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
  set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
  # pkg-config reads the target's .pc files, never the build machine's.
  set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/arm-linux-gnueabihf/pkgconfig:/usr/share/pkgconfig)
  set(ENV{PKG_CONFIG_PATH} "")
  # The multiarch libc's loader and libraries are where the target's
  # programs look for them, so qemu needs no -L.
  set(CMAKE_CROSSCOMPILING_EMULATOR ${TARV_QEMU})
endif()
set(ENV{PKG_CONFIG_PATH} "")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)

# GCC notes on 32-bit ARM that std::pair and similar arguments are passed
# differently since GCC 7.1. The note concerns linking with code built by
# GCC 6 or older, which no part of this build or its Debian 12 libraries is;
# it names libstdc++'s templates, not a fault in our code.
string(APPEND CMAKE_CXX_FLAGS_INIT " -Wno-psabi")
