#include "hmac_sharing.h"

#include <openssl/core_names.h>
#include <openssl/kdf.h>
#include <openssl/params.h>

#include <algorithm>

#include "commands.h"
#include "device_state.h"
#include "evp.h"
#include "state.h"

namespace ta {
namespace {

constexpr char kSeedFile[] = "hmac_sharing_seed";
constexpr char kLabel[] = "KeymasterSharedMac";
constexpr char kCheckMessage[] = "Keymaster HMAC Verification";
constexpr size_t kSharingParametersSize = kSharingSeedSize + kSharingNonceSize;

using KdfPtr = std::unique_ptr<EVP_KDF, CallFree<EVP_KDF, EVP_KDF_free>>;
using KdfCtxPtr = std::unique_ptr<EVP_KDF_CTX, CallFree<EVP_KDF_CTX, EVP_KDF_CTX_free>>;

// libcrypto takes the inputs of a KDF as pointers to what it only reads.
OSSL_PARAM TextParam(const char* name, const char* text) {
  return OSSL_PARAM_construct_utf8_string(name, const_cast<char*>(text), 0);
}
OSSL_PARAM BytesParam(const char* name, const void* bytes, size_t size) {
  return OSSL_PARAM_construct_octet_string(name, const_cast<void*>(bytes), size);
}

SecureBytes DeriveSharedKey(ByteView sharing_parameters) {
  const KdfPtr kdf(EVP_KDF_fetch(nullptr, "KBKDF", nullptr));
  const KdfCtxPtr context(kdf ? EVP_KDF_CTX_new(kdf.get()) : nullptr);
  const OSSL_PARAM inputs[] = {
      TextParam(OSSL_KDF_PARAM_MAC, "CMAC"),
      TextParam(OSSL_KDF_PARAM_CIPHER, "AES-256-CBC"),
      TextParam(OSSL_KDF_PARAM_MODE, "counter"),
      BytesParam(OSSL_KDF_PARAM_KEY, kKeyAgreementKey, sizeof(kKeyAgreementKey) - 1),
      BytesParam(OSSL_KDF_PARAM_SALT, kLabel, sizeof(kLabel) - 1),
      BytesParam(OSSL_KDF_PARAM_INFO, sharing_parameters.data, sharing_parameters.size),
      OSSL_PARAM_construct_end()};
  SecureBytes key(kSharedHmacSize);
  RequireCrypto(context && EVP_KDF_derive(context.get(), key.data(), key.size(), inputs) == 1);
  return key;
}

SecureBytes OwnParameters(const BootState& state) {
  SecureBytes own = LoadOrCreateSecret(kSeedFile, kSharingSeedSize);
  AppendBytes(&own, ByteView(state.sharing_nonce.data(), state.sharing_nonce.size()));
  return own;
}

bool ContainsOwn(ByteView sharing_parameters, const SecureBytes& own) {
  ByteReader reader(sharing_parameters);
  ByteView one;
  while (reader.TakeBytes(kSharingParametersSize, &one)) {
    if (std::equal(one.begin(), one.end(), own.begin(), own.end())) return true;
  }
  return false;
}

}  // namespace

SecureBytes SharedHmac(ByteView message) {
  const BootState state = UpdateBootState();
  const bool shared = !state.shared_hmac_key.empty();
  return HmacSha256(shared ? state.shared_hmac_key : DeriveSharedKey(OwnParameters(state)),
                    message);
}

void GetHmacSharingParameters(uint32_t, TaParam params[4]) {
  const SecureBytes own = OwnParameters(UpdateBootState());
  const bool fits = params[0].size >= kSharingSeedSize && params[1].size >= kSharingNonceSize;
  params[0].size = kSharingSeedSize;
  params[1].size = kSharingNonceSize;
  if (!fits) Fail(TEEC_ERROR_SHORT_BUFFER);
  std::copy_n(own.begin(), kSharingSeedSize, params[0].buffer);
  std::copy_n(own.begin() + kSharingSeedSize, kSharingNonceSize, params[1].buffer);
}

void ComputeSharedHmac(uint32_t, TaParam params[4]) {
  const ByteView all = InputOf(params[0]);
  if (all.size % kSharingParametersSize != 0 ||
      !ContainsOwn(all, OwnParameters(UpdateBootState()))) {
    Fail(KM_ERROR_INVALID_ARGUMENT);
  }
  const SecureBytes key = DeriveSharedKey(all);
  const ByteView message(reinterpret_cast<const uint8_t*>(kCheckMessage),
                         sizeof(kCheckMessage) - 1);
  Reply(HmacSha256(key, message), &params[1]);
  UpdateBootState([&key](BootState* state) { state->shared_hmac_key = key; });
}

}  // namespace ta
