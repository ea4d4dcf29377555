# libcrypto, in the flavour asked for, as the target OpenSSL::Crypto.
set(KM_LIBCRYPTO openssl CACHE STRING "flavour of libcrypto: openssl, or boringssl as devices have it")
set_property(CACHE KM_LIBCRYPTO PROPERTY STRINGS openssl boringssl)

if(KM_LIBCRYPTO STREQUAL "openssl")
  find_package(OpenSSL 3.0 REQUIRED)
elseif(KM_LIBCRYPTO STREQUAL "boringssl")
  # Debian keeps it in folders of its own, beside OpenSSL's.
  find_path(KM_BORINGSSL_INCLUDE openssl/is_boringssl.h PATH_SUFFIXES android REQUIRED)
  find_library(KM_BORINGSSL_CRYPTO crypto PATH_SUFFIXES android REQUIRED)
  add_library(OpenSSL::Crypto SHARED IMPORTED GLOBAL)
  set_target_properties(OpenSSL::Crypto PROPERTIES
    IMPORTED_LOCATION ${KM_BORINGSSL_CRYPTO}
    INTERFACE_INCLUDE_DIRECTORIES ${KM_BORINGSSL_INCLUDE})
else()
  message(FATAL_ERROR "KM_LIBCRYPTO is ${KM_LIBCRYPTO}: neither openssl nor boringssl")
endif()
