# Shared compile settings for every target of the project.

option(MEROVANE_WERROR "Treat compiler warnings as errors" OFF)
option(MEROVANE_SANITIZE "Build with AddressSanitizer and UndefinedBehaviorSanitizer" OFF)

if(MEROVANE_SANITIZE)
    # Applied globally so that the test framework and the product agree on
    # the instrumented runtime.
    add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all
                        -fno-omit-frame-pointer)
    add_link_options(-fsanitize=address,undefined)
endif()

function(merovane_target_defaults target)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic)
    # Binds every symbol at start, so that the loader can make the whole GOT
    # read-only (full RELRO) for a tool that often runs as root.
    target_link_options(${target} PRIVATE LINKER:-z,now)
    if(MEROVANE_WERROR)
        target_compile_options(${target} PRIVATE -Werror)
    endif()
endfunction()
