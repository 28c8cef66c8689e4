# Shared part of the cross toolchain files: Debian's cross compilers for
# MEROVANE_TARGET_TRIPLET, the target's own tree for headers and libraries,
# and qemu-user to run test programs. The including file sets
# CMAKE_SYSTEM_PROCESSOR, MEROVANE_TARGET_TRIPLET, MEROVANE_QEMU and
# CPACK_DEBIAN_PACKAGE_ARCHITECTURE (Debian's name for the architecture,
# which differs from the triplet's).

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${MEROVANE_TARGET_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${MEROVANE_TARGET_TRIPLET}-g++)

# Headers and libraries come from the target's tree only; build tools
# (gzip, qemu) are the host's.
set(CMAKE_FIND_ROOT_PATH /usr/${MEROVANE_TARGET_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# qemu-user finds the target's dynamic loader and libraries below -L.
set(CMAKE_CROSSCOMPILING_EMULATOR ${MEROVANE_QEMU} -L /usr/${MEROVANE_TARGET_TRIPLET})
