# 64-bit ARM, as a phone runs the module: cmake -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/aarch64-linux-gnu.cmake
# Needs crossbuild-essential-arm64, qemu-user and the arm64 multiarch packages (scripts/cross-test.sh arm64).
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(ATCMD_CROSS_TRIPLET aarch64-linux-gnu)
set(ATCMD_CROSS_QEMU qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
