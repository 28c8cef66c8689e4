# Installs the manual page next to the binary and describes the Debian
# package that `cpack -G DEB` builds from the install tree: one package per
# architecture, amd64 natively, armhf and arm64 from the cross toolchains
# (which set CPACK_DEBIAN_PACKAGE_ARCHITECTURE).

set(manualSource ${PROJECT_SOURCE_DIR}/man/Merovane.1)
find_program(MEROVANE_GZIP gzip)
if(MEROVANE_GZIP)
    # -n leaves out the name and time stamp, so that the same page gives the
    # same bytes in every build.
    set(manualPage ${PROJECT_BINARY_DIR}/man/Merovane.1.gz)
    add_custom_command(
        OUTPUT ${manualPage}
        COMMAND ${CMAKE_COMMAND} -E copy ${manualSource} ${PROJECT_BINARY_DIR}/man/Merovane.1
        COMMAND ${MEROVANE_GZIP} -9nf ${PROJECT_BINARY_DIR}/man/Merovane.1
        DEPENDS ${manualSource}
        COMMENT "Compressing the manual page"
        VERBATIM)
    add_custom_target(manual_page ALL DEPENDS ${manualPage})
else()
    set(manualPage ${manualSource})
endif()
install(FILES ${manualPage} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)

set(MEROVANE_PACKAGE_MAINTAINER "Merovane developers <merovane@example.org>"
    CACHE STRING "Maintainer field of the Debian package")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME merovane)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "UART loop-back test tool for embedded Linux boards")
# CPack puts the summary on the Description line and indents this text
# below it.
string(JOIN "\n" CPACK_PACKAGE_DESCRIPTION
    "Merovane opens /dev/ttyS2, sets it to raw 8N1 with RTS/CTS flow control"
    "at a chosen baud rate, prints a report of the port and of the serial"
    "driver's data, and then sends bytes one at a time, reading each back and"
    "comparing it with what was sent. The bytes return through an external"
    "loop-back plug or through the UART's internal loop-back. Its output and"
    "exit status are meant for board bring-up and production test.")
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${MEROVANE_PACKAGE_MAINTAINER})
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

if(MEROVANE_STATIC)
    # Needs nothing from the board's file system.
    set(CPACK_DEBIAN_PACKAGE_DEPENDS "")
elseif(CMAKE_CROSSCOMPILING)
    # dpkg-shlibdeps knows the host architecture's libraries only; for the
    # cross toolchains' runtime it would name the -cross packages. Every
    # program linked against glibc 2.34 or later needs 2.34 (the new
    # __libc_start_main), and tests/cross checks that the binary needs
    # no newer glibc symbol. libstdc++ at the toolchain's own version, whose
    # symbols the binary may use.
    set(CPACK_DEBIAN_PACKAGE_DEPENDS "libc6 (>= 2.34), libgcc-s1, libstdc++6 (>= 12)")
else()
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
endif()

include(CPack)
