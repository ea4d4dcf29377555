#include "auth_token.h"

#include <endian.h>
#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/kdf.h>
#include <openssl/params.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <memory>

#include "errors.h"
#include "params.h"

namespace {

constexpr size_t kHalf = 32;  // of the sharing parameters: seed, nonce
// What every instance on a host is given in place of a manufacturer's secret.
constexpr char kKeyAgreementKey[] = "host stand-in key agreement key.";
constexpr size_t kKeySize = sizeof(kKeyAgreementKey) - 1;

using SharedKey = std::array<uint8_t, kKeySize>;

// The counter-mode KDF of SP 800-108 with AES-256-CMAC over everyone's parameters.
SharedKey DeriveSharedKey(const Bytes& sharing) {
  const auto text = [](const char* name, const char* value) {
    return OSSL_PARAM_construct_utf8_string(name, const_cast<char*>(value), 0);
  };
  const auto bytes = [](const char* name, const void* data, size_t length) {
    return OSSL_PARAM_construct_octet_string(name, const_cast<void*>(data), length);
  };
  const char kLabel[] = "KeymasterSharedMac";
  const OSSL_PARAM params[] = {
      text(OSSL_KDF_PARAM_MODE, "counter"),
      text(OSSL_KDF_PARAM_MAC, "CMAC"),
      text(OSSL_KDF_PARAM_CIPHER, "AES-256-CBC"),
      bytes(OSSL_KDF_PARAM_KEY, kKeyAgreementKey, kKeySize),
      bytes(OSSL_KDF_PARAM_SALT, kLabel, sizeof(kLabel) - 1),
      bytes(OSSL_KDF_PARAM_INFO, sharing.data(), sharing.size()),
      OSSL_PARAM_construct_end(),
  };
  const std::unique_ptr<EVP_KDF, void (*)(EVP_KDF*)> kdf(EVP_KDF_fetch(nullptr, "KBKDF", nullptr),
                                                         EVP_KDF_free);
  const std::unique_ptr<EVP_KDF_CTX, void (*)(EVP_KDF_CTX*)> context(EVP_KDF_CTX_new(kdf.get()),
                                                                     EVP_KDF_CTX_free);
  SharedKey key;
  if (context == nullptr || EVP_KDF_derive(context.get(), key.data(), key.size(), params) != 1) {
    throw Failure("cannot derive the shared HMAC key");
  }
  return key;
}

uint64_t MillisecondsSinceBoot() {
  timespec now = {};
  clock_gettime(CLOCK_BOOTTIME, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

}  // namespace

Bytes SharingParameters(Session& session) {
  Bytes parameters(2 * kHalf);
  Check("reading the sharing parameters",
        session->TivasgetHmacSharingParameters(parameters.data(), kHalf, parameters.data() + kHalf,
                                               kHalf));
  return parameters;
}

Bytes JoinSharing(const Bytes& own, const std::vector<std::string>& others) {
  std::vector<Bytes> all = {own};
  for (const std::string& text : others) {
    const std::optional<Bytes> bytes = ParseHex(text);
    if (!bytes || bytes->size() != 2 * kHalf) {
      throw UsageFailure(
          "sharing parameters are 128 hexadecimal digits, as hmac-sharing prints them");
    }
    if (std::find(all.begin(), all.end(), *bytes) == all.end()) all.push_back(*bytes);
  }
  std::sort(all.begin(), all.end());
  Bytes joined;
  for (const Bytes& one : all) joined.insert(joined.end(), one.begin(), one.end());
  return joined;
}

Bytes MakeAuthToken(const AuthTokenArgs& args, const Bytes& sharing) {
  hw_auth_token_t token = {};
  token.challenge = htole64(args.challenge);
  token.user_id = htole64(args.sid);
  token.authenticator_id = htole64(args.authenticator_id);
  token.authenticator_type = htobe32(args.type);
  token.timestamp = htobe64(args.timestamp.value_or(MillisecondsSinceBoot()));
  Bytes bytes(sizeof(token));
  memcpy(bytes.data(), &token, sizeof(token));
  const size_t signed_length = sizeof(token) - sizeof(token.hmac);
  SharedKey key = DeriveSharedKey(sharing);
  const uint8_t* mac = HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()), bytes.data(),
                            signed_length, bytes.data() + signed_length, nullptr);
  OPENSSL_cleanse(key.data(), key.size());
  if (mac == nullptr) throw Failure("cannot authenticate the token");
  return bytes;
}
