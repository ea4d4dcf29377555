// The descriptions of keys that the TA's tests vary.
#ifndef TESTS_TA_DESCRIPTIONS_H
#define TESTS_TA_DESCRIPTIONS_H

#include "tests/ta/ta_client.h"

// Where an imported key comes from.
inline constexpr char kGenerated = 0, kImported = 1, kWrapped = 2;
inline constexpr uint64_t kFuture = 4102444800000;  // the year 2100, in milliseconds
inline const P kMac104 = {KM_TAG_MAC_LENGTH, 104}, k128 = {KM_TAG_KEY_SIZE, 128};
inline const Ps kEcb = {{KM_TAG_BLOCK_MODE, KM_MODE_ECB}, kNoPadding};
inline const Ps kGcmMode = {{KM_TAG_BLOCK_MODE, KM_MODE_GCM}, kNoPadding};
inline const Ps kAes = Key(KM_ALGORITHM_AES, kEncrypt, kEcb + k128);
inline const Ps kGcm =
    Key(KM_ALGORITHM_AES, kEncrypt, kGcmMode + k128 + P(KM_TAG_MIN_MAC_LENGTH, 104));
inline const Ps kHmac =
    Key(KM_ALGORITHM_HMAC, kSign, {k128, kSha256, {KM_TAG_MIN_MAC_LENGTH, 128}});
inline const Ps kEc = Key(KM_ALGORITHM_EC, kSign, {{KM_TAG_EC_CURVE, KM_EC_CURVE_P_256}, kSha256});
inline const Ps kEcOfNoCurve = Key(KM_ALGORITHM_EC, kSign, {kSha256});
inline const Ps kDes = Key(KM_ALGORITHM_TRIPLE_DES, kEncrypt, kEcb);
inline const Ps kRsa = kOaep + kNoPadding + kPkcs1 + P(KM_TAG_KEY_SIZE, 512) +
                       P(KM_TAG_RSA_PUBLIC_EXPONENT, 65537) +
                       P(KM_TAG_DIGEST, KM_DIGEST_SHA_2_384) + P(KM_TAG_DIGEST, KM_DIGEST_NONE);
inline const Ps kRsaSign = Key(KM_ALGORITHM_RSA, kSign, kRsa);
inline const Ps kRsaWrap = Key(KM_ALGORITHM_RSA, KM_PURPOSE_WRAP_KEY, kRsa);

// The description with its parameters of the change's tag replaced by it.
inline Ps With(const Ps& base, const P& change) {
  Ps out;
  for (const P& p : base) {
    if (p.tag != change.tag) out.push_back(p);
  }
  return out + change;
}

#endif  // TESTS_TA_DESCRIPTIONS_H
