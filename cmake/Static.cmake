# A fully static Merovane: one file to copy onto a board, whatever C and C++
# runtime its root file system has (or lacks). Off by default, because board
# build systems (Buildroot, Yocto) link the shared libstdc++ that the image
# carries anyway, and a static binary would carry a second copy.

option(MEROVANE_STATIC "Link the Merovane binary fully statically" OFF)

if(MEROVANE_STATIC)
    if(BUILD_TESTING)
        # The run tests put a simulated UART into the binary with LD_PRELOAD,
        # which a static binary never sees: they would talk to a real
        # /dev/ttyS2, or fail for want of one.
        message(FATAL_ERROR
            "MEROVANE_STATIC=ON needs BUILD_TESTING=OFF: the tests of the run "
            "preload a simulated UART, which a static binary cannot load. "
            "Test the shared build; ship the static one.")
    endif()
    # Deferred to the end of the top directory, where the target exists.
    cmake_language(DEFER DIRECTORY ${CMAKE_SOURCE_DIR} CALL
                   target_link_options Merovane PRIVATE -static)
endif()
