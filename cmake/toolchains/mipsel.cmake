# Cross build for mipsel with Debian's cross compiler and multiarch libraries
# (g++-mipsel-linux-gnu, libssl-dev:mipsel, libiw-dev:mipsel, libgtest-dev:mipsel).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mipsel)
set(CMAKE_LIBRARY_ARCHITECTURE mipsel-linux-gnu)
set(CMAKE_C_COMPILER mipsel-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER mipsel-linux-gnu-g++)
set(CMAKE_FIND_ROOT_PATH /usr/mipsel-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
# pkg-config (used by FindOpenSSL) must see the target's .pc files, not the host's.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/mipsel-linux-gnu/pkgconfig:/usr/share/pkgconfig)
# Router kernels use 4 KiB pages; the default 64 KiB alignment of the
# segments would add tens of kB of padding to the file.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-z,max-page-size=4096")
# Unit tests run under qemu-user with the multiarch run-time libraries
# (libc6:mipsel, libstdc++6:mipsel, ...). The C library of the cross toolchain
# (-L /usr/mipsel-linux-gnu) made pthread_create crash under qemu-user 7.2 (mipsel).
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-mipsel-static)
