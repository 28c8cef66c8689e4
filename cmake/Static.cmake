# A fully static Merovane: one file to copy onto a board, whatever C and C++
# runtime its root file system has (or lacks). Off by default, because board
# build systems (Buildroot, Yocto) link the shared libstdc++ that the image
# carries anyway, and a static binary would carry a second copy.

option(MEROVANE_STATIC "Link the Merovane binary fully statically" OFF)

if(MEROVANE_STATIC)
    # Deferred to the end of the top directory, where the target exists.
    cmake_language(DEFER DIRECTORY ${CMAKE_SOURCE_DIR} CALL
                   target_link_options Merovane PRIVATE -static)
endif()
