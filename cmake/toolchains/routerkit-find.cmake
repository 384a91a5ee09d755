# What both router kits' toolchain files share: libraries, headers and CMake
# packages come from the kit's root (CMAKE_FIND_ROOT_PATH) only, programs from
# the build machine, pkg-config reads the kit's .pc files.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR} ${PLAITD_SYSROOT}/usr/lib/pkgconfig)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${PLAITD_SYSROOT})
