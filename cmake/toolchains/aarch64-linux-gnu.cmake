# 64-bit ARM (Debian arm64): cmake -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/aarch64-linux-gnu.cmake
# [-DCMAKE_SYSROOT=DIR]; see linux-gnu-cross.cmake and docs/platforms.md.
set(QUIL_CROSS_TRIPLET aarch64-linux-gnu)
set(QUIL_CROSS_PROCESSOR aarch64)
set(QUIL_CROSS_QEMU qemu-aarch64-static)
include(${CMAKE_CURRENT_LIST_DIR}/linux-gnu-cross.cmake)
