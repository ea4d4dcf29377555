# Flags that all of the project's code is built with; the library adds its own in library.cmake.
add_library(km_flags INTERFACE)
target_compile_options(km_flags INTERFACE
  -Wall -Wextra -Wshadow -Wconversion -Wformat=2 -Wundef -Werror
  -fstack-protector-strong -fno-omit-frame-pointer)
# libcrypto's RSA and EC_KEY interfaces are what both of its flavours share.
target_compile_definitions(km_flags INTERFACE OPENSSL_SUPPRESS_DEPRECATED)
target_link_options(km_flags INTERFACE -Wl,-z,defs -Wl,-z,relro -Wl,-z,now -Wl,--as-needed)

if(KM_SANITIZE)
  add_compile_options(-fsanitize=${KM_SANITIZE} -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${KM_SANITIZE})
else()
  target_compile_options(km_flags INTERFACE $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE>)
  target_compile_definitions(km_flags INTERFACE $<$<NOT:$<CONFIG:Debug>>:_FORTIFY_SOURCE=2>)
endif()

option(KM_COVERAGE "count the lines and branches of the library that the tests reach" OFF)
add_library(km_counted INTERFACE)
if(KM_COVERAGE)
  # Not inlined, which would join branches of different functions; and counted by threads too.
  target_compile_options(km_counted INTERFACE
    --coverage -fprofile-update=atomic -O0 -U_FORTIFY_SOURCE)
  target_link_options(km_counted INTERFACE --coverage)
endif()
