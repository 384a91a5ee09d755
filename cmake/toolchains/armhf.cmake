# Cross build for armhf (g++-arm-linux-gnueabihf, libssl-dev:armhf, libiw-dev:armhf, libgtest-dev:armhf).
set(CMAKE_SYSTEM_PROCESSOR arm)
set(PLAITD_TRIPLET arm-linux-gnueabihf)
set(PLAITD_QEMU arm)
include(${CMAKE_CURRENT_LIST_DIR}/linux-gnu.cmake)
