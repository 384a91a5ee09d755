# Router build against a musl sysroot made by scripts/routerkit (which writes
# the kit's toolchain.cmake: PLAITD_TRIPLET, PLAITD_CPU, PLAITD_SYSROOT, then
# includes this file). C compiles and links through the kit's gcc driver file (in the
# compile flags, which the link repeats), so
# nothing of the cross toolchain's glibc is seen. The daemon includes C headers
# only: C++ compiles against musl's headers and the compiler's own, and links
# with the C driver, which leaves libstdc++ out.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${PLAITD_CPU})
set(CMAKE_C_COMPILER /usr/bin/${PLAITD_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER /usr/bin/${PLAITD_TRIPLET}-g++)
set(CMAKE_AR /usr/bin/${PLAITD_TRIPLET}-gcc-ar)
set(CMAKE_RANLIB /usr/bin/${PLAITD_TRIPLET}-gcc-ranlib)
set(CMAKE_C_COMPILER_AR ${CMAKE_AR})
set(CMAKE_CXX_COMPILER_AR ${CMAKE_AR})
set(CMAKE_C_COMPILER_RANLIB ${CMAKE_RANLIB})
set(CMAKE_CXX_COMPILER_RANLIB ${CMAKE_RANLIB})
execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=include
                OUTPUT_VARIABLE plaitd_gcc_include OUTPUT_STRIP_TRAILING_WHITESPACE)
set(CMAKE_C_FLAGS_INIT "-specs=${PLAITD_SYSROOT}/musl.gcc")
set(CMAKE_CXX_FLAGS_INIT "-specs=${PLAITD_SYSROOT}/musl.gcc -nostdinc -nostdinc++ -isystem ${PLAITD_SYSROOT}/usr/include -isystem ${plaitd_gcc_include}")
# Debian's libgcc finds the CPU's atomics through glibc's __getauxval, which
# musl's libc.so does not export: inline atomics on arm64 (as the kit's libraries).
if(PLAITD_CPU STREQUAL "aarch64")
  string(APPEND CMAKE_C_FLAGS_INIT " -mno-outline-atomics")
  string(APPEND CMAKE_CXX_FLAGS_INIT " -mno-outline-atomics")
endif()
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-z,max-page-size=4096")
set(CMAKE_CXX_LINK_EXECUTABLE
    "<CMAKE_C_COMPILER> <FLAGS> <CMAKE_CXX_LINK_FLAGS> <LINK_FLAGS> <OBJECTS> -o <TARGET> <LINK_LIBRARIES>")
set(CMAKE_FIND_ROOT_PATH ${PLAITD_SYSROOT})
include(${CMAKE_CURRENT_LIST_DIR}/routerkit-find.cmake)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-${PLAITD_CPU}-static)
