# 32-bit ARM, as a 32-bit vendor module: cmake -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/arm-linux-gnueabihf.cmake
# Needs crossbuild-essential-armhf, qemu-user and the armhf multiarch packages (scripts/cross-test.sh armhf).
set(CMAKE_SYSTEM_PROCESSOR arm)
set(ATCMD_CROSS_TRIPLET arm-linux-gnueabihf)
set(ATCMD_CROSS_QEMU qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
