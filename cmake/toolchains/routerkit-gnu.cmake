# Cross build against the glibc and libstdc++ of Debian's cross toolchain
# (/usr/PLAITD_TRIPLET) and a kit made by scripts/routerkit (OpenSSL, libiw,
# GoogleTest in PLAITD_SYSROOT/usr): the unit tests on CPUs that Debian has no
# multiarch port for (big-endian MIPS). They run under qemu-user with that C
# library as loader prefix.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${PLAITD_CPU})
set(CMAKE_C_COMPILER /usr/bin/${PLAITD_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER /usr/bin/${PLAITD_TRIPLET}-g++)
set(CMAKE_FIND_ROOT_PATH ${PLAITD_SYSROOT} /usr/${PLAITD_TRIPLET})
include(${CMAKE_CURRENT_LIST_DIR}/routerkit-find.cmake)
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-z,max-page-size=4096")
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-${PLAITD_CPU}-static -L /usr/${PLAITD_TRIPLET})
