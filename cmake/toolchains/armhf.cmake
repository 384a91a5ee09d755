# Cross build for armhf with Debian's cross compiler and multiarch libraries
# (g++-arm-linux-gnueabihf, libssl-dev:armhf, libiw-dev:armhf, libgtest-dev:armhf).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_FIND_ROOT_PATH /usr/arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
# pkg-config (used by FindOpenSSL) must see the target's .pc files, not the host's.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/arm-linux-gnueabihf/pkgconfig:/usr/share/pkgconfig)
# Router kernels use 4 KiB pages; the default 64 KiB alignment of the
# segments would add tens of kB of padding to the file.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-z,max-page-size=4096")
# Unit tests run under qemu-user with the multiarch run-time libraries
# (libc6:armhf, libstdc++6:armhf, ...). The C library of the cross toolchain
# (-L /usr/arm-linux-gnueabihf) made pthread_create crash under qemu-user 7.2 (mipsel).
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm-static)
