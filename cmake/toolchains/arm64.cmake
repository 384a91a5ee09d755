# Cross build for arm64 with Debian's cross compiler and multiarch libraries
# (g++-aarch64-linux-gnu, libssl-dev:arm64, libiw-dev:arm64, libgtest-dev:arm64).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_FIND_ROOT_PATH /usr/aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
# pkg-config (used by FindOpenSSL) must see the target's .pc files, not the host's.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig)
# Router kernels use 4 KiB pages; the default 64 KiB alignment of the
# segments would add tens of kB of padding to the file.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-z,max-page-size=4096")
# Unit tests run under qemu-user with the multiarch run-time libraries
# (libc6:arm64, libstdc++6:arm64, ...). The C library of the cross toolchain
# (-L /usr/aarch64-linux-gnu) made pthread_create crash under qemu-user 7.2 (mipsel).
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64-static)
