#include "ta/key_description.h"

#include <openssl/obj_mac.h>

#include <algorithm>

#include "ta/auth.h"
#include "ta/state.h"

namespace ta {
namespace {

// The sizes of an algorithm's keys, in bits.
struct Sizes {
  uint32_t algorithm, min, max, step;
};
constexpr Sizes kSizes[] = {
    {KM_ALGORITHM_RSA, 512, 4096, 8}, {KM_ALGORITHM_EC, 224, 521, 1},
    {KM_ALGORITHM_AES, 128, 256, 64}, {KM_ALGORITHM_TRIPLE_DES, 168, 168, 1},
    {KM_ALGORITHM_HMAC, 64, 512, 8},
};

const Sizes* SizesOf(uint64_t algorithm) {
  for (const Sizes& row : kSizes) {
    if (row.algorithm == algorithm) return &row;
  }
  return nullptr;
}

constexpr Curve kCurves[] = {
    {KM_EC_CURVE_P_224, 224, NID_secp224r1},
    {KM_EC_CURVE_P_256, 256, NID_X9_62_prime256v1},
    {KM_EC_CURVE_P_384, 384, NID_secp384r1},
    {KM_EC_CURVE_P_521, 521, NID_secp521r1},
};

void CheckMinMacLength(const ParamSet& description, uint32_t least, uint32_t most) {
  const std::optional<uint64_t> length = description.Value(KM_TAG_MIN_MAC_LENGTH);
  FailIf(!length, KM_ERROR_MISSING_MIN_MAC_LENGTH);
  FailIf(*length < least || *length > most || *length % 8 != 0,
         KM_ERROR_UNSUPPORTED_MIN_MAC_LENGTH);
}

void CheckHmac(const ParamSet& description) {
  constexpr uint32_t kDigestBits[] = {0, 0, 160, 224, 256, 384, 512};
  FailIf(description.Count(KM_TAG_DIGEST) != 1, KM_ERROR_UNSUPPORTED_DIGEST);
  CheckMinMacLength(description, 64, kDigestBits[*description.Value(KM_TAG_DIGEST)]);
}

}  // namespace

bool CanHave(uint64_t algorithm, keymaster_tag_t tag, uint64_t value) {
  // Nothing here has a destructor: commands may come while the process ends.
  using Values = std::initializer_list<uint32_t>;
  static constexpr Values kCiphers = {KM_PURPOSE_ENCRYPT, KM_PURPOSE_DECRYPT};
  static constexpr Values kSigners = {KM_PURPOSE_SIGN, KM_PURPOSE_VERIFY};
  static constexpr Values kPaddings = {KM_PAD_NONE, KM_PAD_PKCS7};
  static constexpr Values kMacDigests = {KM_DIGEST_SHA1, KM_DIGEST_SHA_2_224, KM_DIGEST_SHA_2_256,
                                         KM_DIGEST_SHA_2_384, KM_DIGEST_SHA_2_512};
  static constexpr Values kDigests = {KM_DIGEST_NONE,      KM_DIGEST_MD5,       KM_DIGEST_SHA1,
                                      KM_DIGEST_SHA_2_224, KM_DIGEST_SHA_2_256, KM_DIGEST_SHA_2_384,
                                      KM_DIGEST_SHA_2_512};
  static constexpr struct {
    uint32_t algorithm;
    keymaster_tag_t tag;
    Values values;
  } kRows[] = {
      {KM_ALGORITHM_RSA,
       KM_TAG_PURPOSE,
       {KM_PURPOSE_ENCRYPT, KM_PURPOSE_DECRYPT, KM_PURPOSE_SIGN, KM_PURPOSE_VERIFY,
        KM_PURPOSE_WRAP_KEY}},
      {KM_ALGORITHM_RSA, KM_TAG_DIGEST, kDigests},
      {KM_ALGORITHM_RSA,
       KM_TAG_PADDING,
       {KM_PAD_NONE, KM_PAD_RSA_OAEP, KM_PAD_RSA_PSS, KM_PAD_RSA_PKCS1_1_5_ENCRYPT,
        KM_PAD_RSA_PKCS1_1_5_SIGN}},
      {KM_ALGORITHM_EC, KM_TAG_PURPOSE, kSigners},
      {KM_ALGORITHM_EC, KM_TAG_DIGEST, kDigests},
      {KM_ALGORITHM_AES, KM_TAG_PURPOSE, kCiphers},
      {KM_ALGORITHM_AES, KM_TAG_PADDING, kPaddings},
      {KM_ALGORITHM_AES, KM_TAG_BLOCK_MODE, {KM_MODE_ECB, KM_MODE_CBC, KM_MODE_CTR, KM_MODE_GCM}},
      {KM_ALGORITHM_TRIPLE_DES, KM_TAG_PURPOSE, kCiphers},
      {KM_ALGORITHM_TRIPLE_DES, KM_TAG_PADDING, kPaddings},
      {KM_ALGORITHM_TRIPLE_DES, KM_TAG_BLOCK_MODE, {KM_MODE_ECB, KM_MODE_CBC}},
      {KM_ALGORITHM_HMAC, KM_TAG_PURPOSE, kSigners},
      {KM_ALGORITHM_HMAC, KM_TAG_DIGEST, kMacDigests},
  };
  for (const auto& row : kRows) {
    if (row.algorithm != algorithm || row.tag != tag) continue;
    return std::count(row.values.begin(), row.values.end(), value) != 0;
  }
  return true;  // of tags that no row is about, any value
}

void CheckKeyDescription(const ParamSet& description) {
  const uint64_t algorithm = description.Value(KM_TAG_ALGORITHM).value_or(0);
  FailIf(SizesOf(algorithm) == nullptr, KM_ERROR_UNSUPPORTED_ALGORITHM);
  constexpr std::pair<keymaster_tag_t, keymaster_error_t> kChecks[] = {
      {KM_TAG_PURPOSE, KM_ERROR_UNSUPPORTED_PURPOSE},
      {KM_TAG_DIGEST, KM_ERROR_UNSUPPORTED_DIGEST},
      {KM_TAG_PADDING, KM_ERROR_UNSUPPORTED_PADDING_MODE},
      {KM_TAG_BLOCK_MODE, KM_ERROR_UNSUPPORTED_BLOCK_MODE},
  };
  for (const auto& [tag, error] : kChecks) {
    for (const Param& param : description) {
      FailIf(param.tag == tag && !CanHave(algorithm, tag, param.value), error);
    }
  }
  FailIf(description.Contains(KM_TAG_USER_SECURE_ID) && description.IsTrue(KM_TAG_NO_AUTH_REQUIRED),
         KM_ERROR_INVALID_ARGUMENT);
  if (algorithm == KM_ALGORITHM_HMAC) CheckHmac(description);
  if (algorithm == KM_ALGORITHM_AES && description.Contains(KM_TAG_BLOCK_MODE, KM_MODE_GCM)) {
    CheckMinMacLength(description, 96, 128);
  }
}

void CheckKeySize(uint32_t algorithm, uint32_t key_size) {
  const Sizes* sizes = SizesOf(algorithm);
  FailIf(sizes == nullptr, KM_ERROR_UNSUPPORTED_ALGORITHM);
  FailIf(key_size < sizes->min || key_size > sizes->max || key_size % sizes->step != 0 ||
             (algorithm == KM_ALGORITHM_EC && FindCurve(&Curve::key_size, key_size) == nullptr),
         KM_ERROR_UNSUPPORTED_KEY_SIZE);
}

const Curve* FindCurve(uint32_t Curve::*field, uint64_t value) {
  for (const Curve& curve : kCurves) {
    if (curve.*field == value) return &curve;
  }
  return nullptr;
}

void DescribeKey(const ParamSet& description, uint32_t origin, Key* key) {
  for (const Param& param : description) {
    for (const KnownTag& known : kKnownTags) {
      if (known.tag != param.tag) continue;
      if (known.home == Home::kHardware) key->hw_enforced.Add(param);
      if (known.home == Home::kSoftware) key->sw_enforced.Add(param);
    }
  }
  if (!key->sw_enforced.Contains(KM_TAG_CREATION_DATETIME)) {
    key->sw_enforced.Add(KM_TAG_CREATION_DATETIME, Millis(CLOCK_REALTIME));
  }
  key->hw_enforced.Set(KM_TAG_ALGORITHM, key->algorithm);
  key->hw_enforced.Set(KM_TAG_KEY_SIZE, key->key_size);
  key->hw_enforced.Remove(KM_TAG_EC_CURVE);
  if (key->algorithm == KM_ALGORITHM_EC) key->hw_enforced.Add(KM_TAG_EC_CURVE, key->curve);
  key->hw_enforced.Add(KM_TAG_ORIGIN, origin);
  SetKeySystemVersion(key);
}

void SetKeySystemVersion(Key* key) {
  SystemVersion version;
  GetSystemVersion(&version);
  key->hw_enforced.Set(KM_TAG_OS_VERSION, version.os_version);
  key->hw_enforced.Set(KM_TAG_OS_PATCHLEVEL, version.os_patchlevel);
}

}  // namespace ta
