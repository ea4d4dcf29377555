// RSA keys are made once a size and exponent.
#include <dlfcn.h>

#include <map>

#include "tests/platform/keys.h"

int RSA_generate_key_ex(RSA* key, int bits, BIGNUM* e, BN_GENCB*) {
  static const auto real =
      reinterpret_cast<decltype(&RSA_generate_key_ex)>(dlsym(RTLD_NEXT, "RSA_generate_key_ex"));
  static auto& made = *new std::map<std::pair<int, BN_ULONG>, test::Bytes>();
  test::Bytes& der = made[{bits, BN_get_word(e)}];
  if (der.empty()) {
    if (real(key, bits, e, nullptr) != 1) return 0;
    der = test::DerOf(i2d_RSAPrivateKey, key);
  }
  const uint8_t* at = der.data();
  return d2i_RSAPrivateKey(&key, &at, static_cast<long>(der.size())) != nullptr ? 1 : 0;
}
