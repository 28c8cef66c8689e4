# Cross build for 64-bit ARM boards with Debian's g++-aarch64-linux-gnu.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(MEROVANE_TARGET_TRIPLET aarch64-linux-gnu)
set(MEROVANE_QEMU qemu-aarch64)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
include(${CMAKE_CURRENT_LIST_DIR}/DebianCross.cmake)
