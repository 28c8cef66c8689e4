# Cross build for 32-bit ARM boards (ARMv7, hard-float ABI) with Debian's
# g++-arm-linux-gnueabihf.
set(CMAKE_SYSTEM_PROCESSOR arm)
set(MEROVANE_TARGET_TRIPLET arm-linux-gnueabihf)
set(MEROVANE_QEMU qemu-arm)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
include(${CMAKE_CURRENT_LIST_DIR}/DebianCross.cmake)
