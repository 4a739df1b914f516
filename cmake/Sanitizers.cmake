# TRAK_SANITIZE=ON builds every user-space target with AddressSanitizer and
# UndefinedBehaviorSanitizer; any report ends the process with an error, so
# a test that provokes one fails. `make check` runs the host tests built so
# (build-san/), next to the plain build.
option(TRAK_SANITIZE "Build with ASan and UBSan" OFF)
if(TRAK_SANITIZE)
    set(_trak_sanitizers -fsanitize=address,undefined -fno-sanitize-recover=all
                         -fno-omit-frame-pointer)
    add_compile_options(${_trak_sanitizers})
    add_link_options(${_trak_sanitizers})
endif()
