# Installs the manual page next to the binary and describes the Debian
# package that `cpack -G DEB` builds from the install tree and the package's
# own documents: one package per architecture, amd64 natively, armhf and arm64
# from the cross toolchains (which set CPACK_DEBIAN_PACKAGE_ARCHITECTURE).

set(MEROVANE_PACKAGE_MAINTAINER "Merovane developers <merovane@example.org>"
    CACHE STRING "Maintainer field of the Debian package")

# The manual page and the changelog carry the date of the sources, not of the
# build, so that every build of one commit gives the same bytes:
# SOURCE_DATE_EPOCH where the build system sets one (Debian, Yocto and
# Buildroot do), else the last commit's, else a fixed day. Git is asked only
# in the project's own checkout: sources unpacked inside a board build
# system's repository would otherwise get that repository's date.
if(NOT DEFINED ENV{SOURCE_DATE_EPOCH})
    set(sourceEpoch 1767225600) # 2026-01-01
    find_package(Git QUIET)
    if(Git_FOUND AND EXISTS ${PROJECT_SOURCE_DIR}/.git)
        execute_process(COMMAND ${GIT_EXECUTABLE} -C ${PROJECT_SOURCE_DIR} log -1 --format=%ct
                        OUTPUT_VARIABLE commitEpoch OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
        if(commitEpoch MATCHES "^[0-9]+$")
            set(sourceEpoch ${commitEpoch})
        endif()
    endif()
    # string(TIMESTAMP) formats the time this names instead of the clock.
    set(ENV{SOURCE_DATE_EPOCH} ${sourceEpoch})
endif()
string(TIMESTAMP sourceDate "%Y-%m-%d" UTC)
# Day and month names by number: strftime's would follow the locale.
set(weekdays Sun Mon Tue Wed Thu Fri Sat)
set(months Jan Feb Mar Apr May Jun Jul Aug Sep Oct Nov Dec)
string(TIMESTAMP weekday "%w" UTC)
string(TIMESTAMP month "%m" UTC)
math(EXPR month "${month} - 1")
list(GET weekdays ${weekday} weekday)
list(GET months ${month} month)
string(TIMESTAMP changelogDate "${weekday}, %d ${month} %Y %H:%M:%S +0000" UTC)

set(manualPage ${PROJECT_BINARY_DIR}/man/Merovane.1)
configure_file(${PROJECT_SOURCE_DIR}/man/Merovane.1.in ${manualPage} @ONLY)
set(verdictPage ${PROJECT_BINARY_DIR}/man/merovane-verdict.1)
configure_file(${PROJECT_SOURCE_DIR}/man/merovane-verdict.1.in ${verdictPage} @ONLY)

# A version number without a Debian revision makes this a native package,
# whose changelog Debian names changelog.gz (changelog.Debian.gz belongs to
# packages of someone else's sources). Its one entry is written from the
# version being packaged, so that the two can't differ.
set(changelog ${PROJECT_BINARY_DIR}/debian/changelog)
file(CONFIGURE OUTPUT ${changelog} @ONLY CONTENT
"merovane (@PROJECT_VERSION@) unstable; urgency=medium

  * Merovane @PROJECT_VERSION@. The project's version history lists the
    changes.

 -- @MEROVANE_PACKAGE_MAINTAINER@  @changelogDate@
")

# Debian's machine-readable copyright file, made from LICENSE: the holder from
# its notice, then the permission text, indented, with "." for blank lines.
# Debian's name for this licence text is Expat ("MIT" names several).
file(READ ${PROJECT_SOURCE_DIR}/LICENSE license)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/LICENSE)
if(NOT license MATCHES "Copyright \\(c\\) ([^\n]+)\n\n(.+)")
    message(FATAL_ERROR "LICENSE: no \"Copyright (c)\" line followed by the licence text")
endif()
set(copyrightHolder ${CMAKE_MATCH_1})
string(STRIP "${CMAKE_MATCH_2}" licenseText)
string(REPLACE "\n\n" "\n.\n" licenseText "${licenseText}")
string(REPLACE "\n" "\n " licenseText "${licenseText}")
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/debian/copyright @ONLY CONTENT
"Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/
Upstream-Name: Merovane

Files: *
Copyright: @copyrightHolder@
License: Expat
 @licenseText@
")

find_program(MEROVANE_GZIP gzip)
if(MEROVANE_GZIP)
    # -n leaves out the name and time stamp, so that the same text gives the
    # same bytes in every build; -k keeps the configured text, which the
    # command depends on.
    foreach(document manualPage verdictPage changelog)
        add_custom_command(
            OUTPUT ${${document}}.gz
            COMMAND ${MEROVANE_GZIP} -9nkf ${${document}}
            DEPENDS ${${document}}
            COMMENT "Compressing ${${document}}"
            VERBATIM)
        set(${document} ${${document}}.gz)
    endforeach()
    add_custom_target(compressed_documents ALL DEPENDS ${manualPage} ${verdictPage} ${changelog})
endif()
install(FILES ${manualPage} ${verdictPage} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
# The farm engines judge each run on the board with it: it goes wherever
# the tool goes.
install(PROGRAMS ${PROJECT_SOURCE_DIR}/farm/merovane-verdict DESTINATION ${CMAKE_INSTALL_BINDIR})

# The copyright file, the changelog and the lintian overrides are Debian's and
# go into the package only: board build systems take the licence from LICENSE
# themselves (Buildroot's legal-info, Yocto's LIC_FILES_CHKSUM) and keep
# /usr/share/doc off the image, so `cmake --install` still installs just the
# programs and their manual pages. `cmake --install --component debian` adds them.
install(FILES ${PROJECT_BINARY_DIR}/debian/copyright ${changelog}
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/merovane
        COMPONENT debian EXCLUDE_FROM_ALL)
install(FILES ${PROJECT_SOURCE_DIR}/cmake/lintian-overrides RENAME merovane
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides
        COMPONENT debian EXCLUDE_FROM_ALL)
set(CPACK_INSTALL_CMAKE_PROJECTS
    "${PROJECT_BINARY_DIR};${PROJECT_NAME};ALL;/"
    "${PROJECT_BINARY_DIR};${PROJECT_NAME};debian;/")

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
    # cross toolchains' runtime it would name the -cross packages. The
    # toolchain's own glibc and libstdc++ are the floor instead: a binary
    # linked against them may use any of their symbols (glibc 2.38's C23
    # strtol, say, that Debian 13's toolchains call), and tests/cross checks
    # that it needs no newer glibc symbol than the package names.
    execute_process(
        COMMAND ${CMAKE_CXX_COMPILER} -dM -E -include features.h -x c++ /dev/null
        OUTPUT_VARIABLE toolchainMacros RESULT_VARIABLE status)
    string(REGEX MATCH "#define __GLIBC__ ([0-9]+)" _ "${toolchainMacros}")
    set(glibcMajor "${CMAKE_MATCH_1}")
    string(REGEX MATCH "#define __GLIBC_MINOR__ ([0-9]+)" _ "${toolchainMacros}")
    set(glibcMinor "${CMAKE_MATCH_1}")
    if(NOT status EQUAL 0 OR glibcMajor STREQUAL "" OR glibcMinor STREQUAL "")
        message(FATAL_ERROR "cannot tell the glibc version of ${CMAKE_CXX_COMPILER}")
    endif()
    string(REGEX MATCH "^[0-9]+" gccMajor "${CMAKE_CXX_COMPILER_VERSION}")
    set(CPACK_DEBIAN_PACKAGE_DEPENDS
        "libc6 (>= ${glibcMajor}.${glibcMinor}), libgcc-s1, libstdc++6 (>= ${gccMajor})")
else()
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
endif()

include(CPack)
