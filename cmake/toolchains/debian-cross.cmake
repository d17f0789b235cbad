# Shared by the cross toolchain files beside it: Debian's cross compilers for ATCMD_CROSS_TRIPLET,
# the target's libraries from the multiarch packages under /usr/lib/<triplet>, and the programs
# run through qemu-user (ATCMD_CROSS_QEMU) with / as the target's root, so the multiarch dynamic
# loader and libraries are the ones found. The emulator is named explicitly: a container has no
# binfmt registration that would start a foreign program by itself.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${ATCMD_CROSS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${ATCMD_CROSS_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${ATCMD_CROSS_TRIPLET})
set(CMAKE_CROSSCOMPILING_EMULATOR ${ATCMD_CROSS_QEMU} -L /)
# Build tools come from the host; headers, libraries and package files from the target's paths.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
