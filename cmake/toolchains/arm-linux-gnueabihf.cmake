# Cross build for 32-bit ARM boards (ARMv7, hard-float ABI) with Debian's
# g++-arm-linux-gnueabihf. Test programs run under qemu-user, which finds the
# target's dynamic loader and libraries below the -L prefix.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(MEROVANE_TARGET_TRIPLET arm-linux-gnueabihf)
set(CMAKE_C_COMPILER ${MEROVANE_TARGET_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${MEROVANE_TARGET_TRIPLET}-g++)

# Headers and libraries come from the target's tree only; build tools
# (gzip, qemu) are the host's.
set(CMAKE_FIND_ROOT_PATH /usr/${MEROVANE_TARGET_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L /usr/${MEROVANE_TARGET_TRIPLET})

# Debian's name for the architecture, which differs from the triplet's.
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
