# Cross build for arm64 (g++-aarch64-linux-gnu, libssl-dev:arm64, libiw-dev:arm64, libgtest-dev:arm64).
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(PLAITD_TRIPLET aarch64-linux-gnu)
set(PLAITD_QEMU aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/linux-gnu.cmake)
