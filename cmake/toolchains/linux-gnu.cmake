# Shared body of the cross toolchain files: Debian's cross compiler and
# multiarch libraries for PLAITD_TRIPLET, unit tests under qemu-PLAITD_QEMU.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_LIBRARY_ARCHITECTURE ${PLAITD_TRIPLET})
set(CMAKE_C_COMPILER ${PLAITD_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${PLAITD_TRIPLET}-g++)
set(CMAKE_FIND_ROOT_PATH /usr/${PLAITD_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
# pkg-config (used by FindOpenSSL) must see the target's .pc files, not the host's.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/${PLAITD_TRIPLET}/pkgconfig:/usr/share/pkgconfig)
# Router kernels use 4 KiB pages; the default 64 KiB alignment of the
# segments would add tens of kB of padding to the file.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-z,max-page-size=4096")
# Unit tests run under qemu-user with the multiarch run-time libraries
# (libc6:<arch>, libstdc++6:<arch>, ...). The C library of the cross toolchain
# (-L /usr/<triplet>) made pthread_create crash under qemu-user 7.2 (mipsel).
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-${PLAITD_QEMU}-static)
