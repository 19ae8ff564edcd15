# How every target of ours is compiled: warnings are errors, hardening is on.

add_library(vel_flags INTERFACE)
target_compile_options(vel_flags INTERFACE
    -Wall -Wextra -Wshadow -Wconversion -Wnon-virtual-dtor -Woverloaded-virtual -Werror
    -fstack-protector-strong
    -ffile-prefix-map=${CMAKE_SOURCE_DIR}/=)

if(VEL_SANITIZE)
    target_compile_options(vel_flags INTERFACE -fsanitize=${VEL_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(vel_flags INTERFACE -fsanitize=${VEL_SANITIZE})
else()
    # _FORTIFY_SOURCE needs optimisation and is at odds with the sanitizers' own interceptors.
    target_compile_options(vel_flags INTERFACE $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE$<SEMICOLON>-D_FORTIFY_SOURCE=2>)
endif()
target_link_options(vel_flags INTERFACE -Wl,-z,relro -Wl,-z,now)
