# Cross build for mipsel (g++-mipsel-linux-gnu, libssl-dev:mipsel, libiw-dev:mipsel, libgtest-dev:mipsel).
set(CMAKE_SYSTEM_PROCESSOR mipsel)
set(PLAITD_TRIPLET mipsel-linux-gnu)
set(PLAITD_QEMU mipsel)
include(${CMAKE_CURRENT_LIST_DIR}/linux-gnu.cmake)
