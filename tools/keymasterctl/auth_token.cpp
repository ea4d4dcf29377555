#include "tools/keymasterctl/auth_token.h"

#include <endian.h>
#include <openssl/cmac.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <memory>

#include "tools/keymasterctl/errors.h"
#include "tools/keymasterctl/names.h"
#include "tools/keymasterctl/params.h"

namespace {

constexpr size_t kHalf = 32;  // of the sharing parameters: seed, nonce
// What every instance on a host is given in place of a manufacturer's secret.
constexpr char kKeyAgreementKey[] = "host stand-in key agreement key.";
constexpr size_t kKeySize = sizeof(kKeyAgreementKey) - 1;
constexpr size_t kBlockSize = 16;  // of AES, and so of CMAC

using SharedKey = std::array<uint8_t, kKeySize>;

// The counter-mode KDF of SP 800-108 with AES-256-CMAC over everyone's parameters: a block is the
// CMAC of its number, the label with a zero byte, the parameters and the key's length in bits.
SharedKey DeriveSharedKey(const Bytes& sharing) {
  const char kLabel[] = "KeymasterSharedMac";
  const uint32_t bits = htobe32(8 * kKeySize);
  const std::unique_ptr<CMAC_CTX, void (*)(CMAC_CTX*)> cmac(CMAC_CTX_new(), CMAC_CTX_free);
  const auto add = [&cmac](const void* data, size_t size) {
    return CMAC_Update(cmac.get(), static_cast<const uint8_t*>(data), size) == 1;
  };
  SharedKey key;
  uint32_t number = 0;
  for (size_t at = 0; at < kKeySize; at += kBlockSize) {
    const uint32_t counter = htobe32(++number);
    size_t size = 0;
    if (cmac == nullptr ||
        CMAC_Init(cmac.get(), kKeyAgreementKey, kKeySize, EVP_aes_256_cbc(), nullptr) != 1 ||
        !add(&counter, sizeof(counter)) || !add(kLabel, sizeof(kLabel)) ||
        !add(sharing.data(), sharing.size()) || !add(&bits, sizeof(bits)) ||
        CMAC_Final(cmac.get(), key.data() + at, &size) != 1) {
      throw Failure("cannot derive the shared HMAC key");
    }
  }
  return key;
}

// Between this machine's byte order and a token's, either way.
void SwapFields(hw_auth_token_t* token) {
  token->challenge = htole64(token->challenge);
  token->user_id = htole64(token->user_id);
  token->authenticator_id = htole64(token->authenticator_id);
  token->authenticator_type = htole32(token->authenticator_type);  // a wrapped import reads it
  token->timestamp = htobe64(token->timestamp);
}

}  // namespace

Bytes SharingParameters(Session* session) {
  Bytes parameters(2 * kHalf);
  Check("reading the sharing parameters",
        (*session)->TivasgetHmacSharingParameters(parameters.data(), kHalf,
                                                  parameters.data() + kHalf, kHalf));
  return parameters;
}

Bytes JoinSharing(const Bytes& own, const std::vector<std::string>& others) {
  std::vector<Bytes> all = {own};
  for (const std::string& text : others) {
    const std::optional<Bytes> bytes = ParseHex(text);
    RequireUsage(bytes && bytes->size() == 2 * kHalf,
                 "sharing parameters are 128 hexadecimal digits, as hmac-sharing prints them");
    if (!Contains(all, *bytes)) all.push_back(*bytes);
  }
  std::sort(all.begin(), all.end());
  Bytes joined;
  for (const Bytes& one : all) {
    joined.insert(joined.end(), one.begin(), one.end());
  }
  return joined;
}

Bytes MakeAuthToken(hw_auth_token_t token, const Bytes& sharing) {
  SwapFields(&token);
  Bytes bytes(sizeof(token));
  memcpy(bytes.data(), &token, sizeof(token));
  const size_t signed_length = sizeof(token) - sizeof(token.hmac);
  SharedKey key = DeriveSharedKey(sharing);
  const uint8_t* mac = HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()), bytes.data(),
                            signed_length, bytes.data() + signed_length, nullptr);
  OPENSSL_cleanse(key.data(), key.size());
  Require(mac != nullptr, "cannot authenticate the token");
  return bytes;
}

uint64_t MillisecondsSinceBoot() {
  timespec now = {};
  clock_gettime(CLOCK_BOOTTIME, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

std::optional<hw_auth_token_t> ReadAuthToken(const Bytes& bytes) {
  hw_auth_token_t token = {};
  if (bytes.size() != sizeof(token) || bytes[0] != 0) return std::nullopt;
  memcpy(&token, bytes.data(), sizeof(token));
  SwapFields(&token);
  return token;
}
