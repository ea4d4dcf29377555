#include "ta/hmac_sharing.h"

#include <openssl/cmac.h>

#include <algorithm>

#include "ta/auth.h"
#include "ta/commands.h"
#include "ta/evp.h"
#include "ta/state.h"

namespace ta {
namespace {

constexpr char kSeedFile[] = "hmac_sharing_seed";
using std::string_view_literals::operator""sv;
constexpr std::string_view kLabel = "KeymasterSharedMac\0"sv;
constexpr std::string_view kCheckMessage = "Keymaster HMAC Verification";
constexpr size_t kSharingParametersSize = kSharingSeedSize + kSharingNonceSize;

using CmacPtr = std::unique_ptr<CMAC_CTX, CallFree<CMAC_CTX, CMAC_CTX_free>>;

SecureBytes DeriveSharedKey(ByteView sharing_parameters) {
  constexpr size_t kBlock = 16;
  SecureBytes key(kSharedHmacSize);
  for (uint32_t i = 0; i < kSharedHmacSize / kBlock; ++i) {
    SecureBytes input;
    AppendBigEndian(&input, i + 1, 4);
    AppendBytes(&input, kLabel);
    AppendBytes(&input, sharing_parameters);
    AppendBigEndian(&input, kSharedHmacSize * 8, 4);
    const CmacPtr cmac(CMAC_CTX_new());
    size_t size = 0;
    RequireCrypto(cmac != nullptr &&
                  CMAC_Init(cmac.get(), kKeyAgreementKey, sizeof(kKeyAgreementKey) - 1,
                            EVP_aes_256_cbc(), nullptr) == 1 &&
                  CMAC_Update(cmac.get(), input.data(), input.size()) == 1 &&
                  CMAC_Final(cmac.get(), key.data() + i * kBlock, &size) == 1);
  }
  return key;
}

SecureBytes OwnParameters(const BootState& state) {
  SecureBytes own = LoadOrCreateSecret(kSeedFile);
  AppendBytes(&own, {state.sharing_nonce, kSharingNonceSize});
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
  if (state.is_key_shared) return HmacSha256({state.shared_hmac_key, kSharedHmacSize}, message);
  return HmacSha256(DeriveSharedKey(OwnParameters(state)), message);
}

void GetHmacSharingParameters(uint32_t, TaParam params[4]) {
  const SecureBytes own = OwnParameters(UpdateBootState());
  const bool fits = params[0].size >= kSharingSeedSize && params[1].size >= kSharingNonceSize;
  params[0].size = kSharingSeedSize;
  params[1].size = kSharingNonceSize;
  FailIf(!fits, TEEC_ERROR_SHORT_BUFFER);
  std::copy_n(own.begin(), kSharingSeedSize, params[0].buffer);
  std::copy_n(own.begin() + kSharingSeedSize, kSharingNonceSize, params[1].buffer);
}

void ComputeSharedHmac(uint32_t, TaParam params[4]) {
  const ByteView all = InputOf(params[0]);
  FailIf(
      all.size % kSharingParametersSize != 0 || !ContainsOwn(all, OwnParameters(UpdateBootState())),
      KM_ERROR_INVALID_ARGUMENT);
  const SecureBytes key = DeriveSharedKey(all);
  Reply(HmacSha256(key, kCheckMessage), &params[1]);
  UpdateBootState([&key](BootState* state) {
    state->is_key_shared = true;
    std::copy(key.begin(), key.end(), state->shared_hmac_key);
  });
}

}  // namespace ta
