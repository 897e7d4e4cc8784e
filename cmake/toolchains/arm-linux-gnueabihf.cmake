# Cross build for Debian armhf with Debian's multiarch packages: the
# arm-linux-gnueabihf cross compiler (crossbuild-essential-armhf), the libraries of the
# :armhf packages under /usr/lib/arm-linux-gnueabihf, and Qt's moc and rcc of the build
# machine (Qt5Core's CMake package of :armhf points at /usr/lib/qt5/bin, which
# is the amd64 qtbase5-dev-tools). `ARCH=armhf scripts/install-deps` installs
# all of it; `make build ARCH=armhf` uses this file.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(TARV_DEBIAN_ARCHITECTURE armhf)

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

# Libraries and CMake packages of the target only; programs of the build
# machine.
set(CMAKE_FIND_ROOT_PATH /usr/arm-linux-gnueabihf)
set(CMAKE_PREFIX_PATH /usr/lib/arm-linux-gnueabihf/cmake)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)

# pkg-config reads the target's .pc files, never the build machine's.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/arm-linux-gnueabihf/pkgconfig:/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")

# Test programs (and the hosts they start) run under qemu-user, called
# directly: binfmt registration is often missing in containers. The
# multiarch libc's loader and libraries are where the target's programs
# look for them, so no -L is needed.
find_program(TARV_QEMU qemu-arm REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${TARV_QEMU})
