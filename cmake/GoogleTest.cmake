# Provides GTest::gtest, GTest::gtest_main, GTest::gmock and GTest::gmock_main.
#
# A native build uses the installed GoogleTest. A cross build cannot link the
# host's libraries, so it compiles Debian's GoogleTest sources
# (/usr/src/googletest, package googletest) with the target's compiler:
# nothing is downloaded and both builds test with the same version.

if(NOT CMAKE_CROSSCOMPILING)
    find_package(GTest REQUIRED)
    return()
endif()

if(TARGET GTest::gtest)
    return()
endif()

set(MEROVANE_GOOGLETEST_SOURCE_DIR /usr/src/googletest
    CACHE PATH "GoogleTest sources to build for the target")
if(NOT EXISTS ${MEROVANE_GOOGLETEST_SOURCE_DIR}/CMakeLists.txt)
    message(FATAL_ERROR
        "No GoogleTest sources in ${MEROVANE_GOOGLETEST_SOURCE_DIR}: "
        "install Debian's googletest package, or configure with -DBUILD_TESTING=OFF.")
endif()

# The framework is test scaffolding: it must neither be installed with the
# product nor built when no test needs it.
set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
add_subdirectory(${MEROVANE_GOOGLETEST_SOURCE_DIR} ${CMAKE_BINARY_DIR}/googletest
                 EXCLUDE_FROM_ALL)

# The same names that find_package(GTest) gives, so that test targets link
# the same way in both builds. GoogleTest's own build defines them too, from
# 1.11 on.
foreach(library gtest gtest_main gmock gmock_main)
    if(TARGET ${library} AND NOT TARGET GTest::${library})
        add_library(GTest::${library} ALIAS ${library})
    endif()
endforeach()
