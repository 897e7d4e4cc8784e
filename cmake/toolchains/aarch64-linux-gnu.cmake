# Cross build for Debian arm64 with Debian's multiarch packages: the
# aarch64-linux-gnu cross compiler (crossbuild-essential-arm64), the libraries of the
# :arm64 packages under /usr/lib/aarch64-linux-gnu, and Qt's moc and rcc of the build
# machine (Qt5Core's CMake package of :arm64 points at /usr/lib/qt5/bin, which
# is the amd64 qtbase5-dev-tools). `ARCH=arm64 scripts/install-deps` installs
# all of it; `make build ARCH=arm64` uses this file.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(TARV_DEBIAN_ARCHITECTURE arm64)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

# Libraries and CMake packages of the target only; programs of the build
# machine.
set(CMAKE_FIND_ROOT_PATH /usr/aarch64-linux-gnu)
set(CMAKE_PREFIX_PATH /usr/lib/aarch64-linux-gnu/cmake)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)

# pkg-config reads the target's .pc files, never the build machine's.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")

# Test programs (and the hosts they start) run under qemu-user, called
# directly: binfmt registration is often missing in containers. The
# multiarch libc's loader and libraries are where the target's programs
# look for them, so no -L is needed.
find_program(TARV_QEMU qemu-aarch64 REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${TARV_QEMU})
