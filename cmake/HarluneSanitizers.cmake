if(HARLUNE_SANITIZE)
    add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
    add_link_options(-fsanitize=address,undefined)
endif()

# RealtimeSanitizer (clang 20 and later): functions marked HARLUNE_NONBLOCKING fail the program
# on any allocation, lock or blocking system call made while they run.
option(HARLUNE_REALTIME_SANITIZE "Build with clang's RealtimeSanitizer" OFF)
if(HARLUNE_REALTIME_SANITIZE)
    add_compile_options(-fsanitize=realtime -fno-omit-frame-pointer)
    add_link_options(-fsanitize=realtime)
endif()
