# 32-bit ARM, hard float (Debian armhf): cmake -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/arm-linux-gnueabihf.cmake
# [-DCMAKE_SYSROOT=DIR]; see linux-gnu-cross.cmake and docs/platforms.md.
set(QUIL_CROSS_TRIPLET arm-linux-gnueabihf)
set(QUIL_CROSS_PROCESSOR armv7l)
set(QUIL_CROSS_QEMU qemu-arm-static)
include(${CMAKE_CURRENT_LIST_DIR}/linux-gnu-cross.cmake)
# GCC notes on every std::initializer_list<long long> that its passing changed
# in GCC 7.1; nothing here mixes code built before that.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")
