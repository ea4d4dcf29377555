#include "key_description.h"

#include <algorithm>
#include <chrono>

#include "state.h"

namespace ta {
namespace {

using Values = std::vector<uint32_t>;

// What an algorithm can do, and its sizes in bits. A list that is empty is not looked at.
struct AlgorithmRules {
  uint32_t algorithm;
  uint32_t min_size;
  uint32_t max_size;
  uint32_t size_step;
  Values purposes;
  Values digests;
  Values paddings;
  Values block_modes;
};

const AlgorithmRules* RulesOf(uint64_t algorithm) {
  static const Values kAllDigests = {KM_DIGEST_NONE,      KM_DIGEST_MD5,       KM_DIGEST_SHA1,
                                     KM_DIGEST_SHA_2_224, KM_DIGEST_SHA_2_256, KM_DIGEST_SHA_2_384,
                                     KM_DIGEST_SHA_2_512};
  static const AlgorithmRules kRules[] = {
      {KM_ALGORITHM_RSA,
       512,
       4096,
       8,
       {KM_PURPOSE_ENCRYPT, KM_PURPOSE_DECRYPT, KM_PURPOSE_SIGN, KM_PURPOSE_VERIFY,
        KM_PURPOSE_WRAP_KEY},
       kAllDigests,
       {KM_PAD_NONE, KM_PAD_RSA_OAEP, KM_PAD_RSA_PSS, KM_PAD_RSA_PKCS1_1_5_ENCRYPT,
        KM_PAD_RSA_PKCS1_1_5_SIGN},
       {}},
      {KM_ALGORITHM_EC, 224, 521, 1, {KM_PURPOSE_SIGN, KM_PURPOSE_VERIFY}, kAllDigests, {}, {}},
      {KM_ALGORITHM_AES,
       128,
       256,
       64,
       {KM_PURPOSE_ENCRYPT, KM_PURPOSE_DECRYPT},
       {},
       {KM_PAD_NONE, KM_PAD_PKCS7},
       {KM_MODE_ECB, KM_MODE_CBC, KM_MODE_CTR, KM_MODE_GCM}},
      {KM_ALGORITHM_TRIPLE_DES,
       168,
       168,
       1,
       {KM_PURPOSE_ENCRYPT, KM_PURPOSE_DECRYPT},
       {},
       {KM_PAD_NONE, KM_PAD_PKCS7},
       {KM_MODE_ECB, KM_MODE_CBC}},
      {KM_ALGORITHM_HMAC,
       64,
       512,
       8,
       {KM_PURPOSE_SIGN, KM_PURPOSE_VERIFY},
       {KM_DIGEST_SHA1, KM_DIGEST_SHA_2_224, KM_DIGEST_SHA_2_256, KM_DIGEST_SHA_2_384,
        KM_DIGEST_SHA_2_512},
       {},
       {}},
  };
  for (const AlgorithmRules& rules : kRules) {
    if (rules.algorithm == algorithm) return &rules;
  }
  return nullptr;
}

constexpr Curve kCurves[] = {
    {KM_EC_CURVE_P_224, 224, "P-224"},
    {KM_EC_CURVE_P_256, 256, "P-256"},
    {KM_EC_CURVE_P_384, 384, "P-384"},
    {KM_EC_CURVE_P_521, 521, "P-521"},
};

bool AllKnown(const ParamSet& description, uint32_t tag, const Values& known) {
  return known.empty() || std::all_of(description.begin(), description.end(), [&](const Param& p) {
           return p.tag != tag || std::count(known.begin(), known.end(), p.value) != 0;
         });
}

TEEC_Result CheckMinMacLength(const ParamSet& description, uint32_t least, uint32_t most) {
  const std::optional<uint64_t> length = description.Value(KM_TAG_MIN_MAC_LENGTH);
  if (!length) return Fail(KM_ERROR_MISSING_MIN_MAC_LENGTH);
  if (*length < least || *length > most || *length % 8 != 0) {
    return Fail(KM_ERROR_UNSUPPORTED_MIN_MAC_LENGTH);
  }
  return TEEC_SUCCESS;
}

TEEC_Result CheckHmac(const ParamSet& description) {
  constexpr uint32_t kDigestBits[] = {0, 0, 160, 224, 256, 384, 512};
  const auto is_digest = [](const Param& param) { return param.tag == KM_TAG_DIGEST; };
  if (std::count_if(description.begin(), description.end(), is_digest) != 1) {
    return Fail(KM_ERROR_UNSUPPORTED_DIGEST);
  }
  return CheckMinMacLength(description, 64, kDigestBits[*description.Value(KM_TAG_DIGEST)]);
}

// Tags that the hardware-enforced list takes from a description; the TA adds origin and version.
constexpr keymaster_tag_t kHardwareTags[] = {
    KM_TAG_PURPOSE,
    KM_TAG_ALGORITHM,
    KM_TAG_KEY_SIZE,
    KM_TAG_BLOCK_MODE,
    KM_TAG_DIGEST,
    KM_TAG_PADDING,
    KM_TAG_CALLER_NONCE,
    KM_TAG_MIN_MAC_LENGTH,
    KM_TAG_EC_CURVE,
    KM_TAG_RSA_PUBLIC_EXPONENT,
    KM_TAG_BLOB_USAGE_REQUIREMENTS,
    KM_TAG_BOOTLOADER_ONLY,
    KM_TAG_ROLLBACK_RESISTANCE,
    KM_TAG_EARLY_BOOT_ONLY,
    KM_TAG_MIN_SECONDS_BETWEEN_OPS,
    KM_TAG_MAX_USES_PER_BOOT,
    KM_TAG_USER_SECURE_ID,
    KM_TAG_NO_AUTH_REQUIRED,
    KM_TAG_USER_AUTH_TYPE,
    KM_TAG_AUTH_TIMEOUT,
    KM_TAG_TRUSTED_USER_PRESENCE_REQUIRED,
    KM_TAG_TRUSTED_CONFIRMATION_REQUIRED,
    KM_TAG_UNLOCKED_DEVICE_REQUIRED,
    KM_TAG_IDENTITY_CREDENTIAL_KEY,
    KM_TAG_STORAGE_KEY,
};

// What a TEE without a clock of its own, and without users, leaves to the system.
constexpr keymaster_tag_t kSoftwareTags[] = {
    KM_TAG_ACTIVE_DATETIME,
    KM_TAG_ORIGINATION_EXPIRE_DATETIME,
    KM_TAG_USAGE_EXPIRE_DATETIME,
    KM_TAG_ALL_USERS,
    KM_TAG_USER_ID,
    KM_TAG_ALLOW_WHILE_ON_BODY,
    KM_TAG_ALL_APPLICATIONS,
    KM_TAG_EXPORTABLE,
    KM_TAG_CREATION_DATETIME,
};

template <size_t N>
bool Lists(const keymaster_tag_t (&tags)[N], uint32_t tag) {
  return std::count(std::begin(tags), std::end(tags), static_cast<keymaster_tag_t>(tag)) != 0;
}

}  // namespace

uint64_t WallClockMillis() {
  using std::chrono::system_clock;
  return static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::milliseconds>(system_clock::now().time_since_epoch())
          .count());
}

TEEC_Result CheckKeyDescription(const ParamSet& description) {
  const AlgorithmRules* rules = RulesOf(description.Value(KM_TAG_ALGORITHM).value_or(0));
  if (rules == nullptr) return Fail(KM_ERROR_UNSUPPORTED_ALGORITHM);
  const struct {
    uint32_t tag;
    const Values& known;
    keymaster_error_t error;
  } checks[] = {
      {KM_TAG_PURPOSE, rules->purposes, KM_ERROR_UNSUPPORTED_PURPOSE},
      {KM_TAG_DIGEST, rules->digests, KM_ERROR_UNSUPPORTED_DIGEST},
      {KM_TAG_PADDING, rules->paddings, KM_ERROR_UNSUPPORTED_PADDING_MODE},
      {KM_TAG_BLOCK_MODE, rules->block_modes, KM_ERROR_UNSUPPORTED_BLOCK_MODE},
  };
  for (const auto& check : checks) {
    if (!AllKnown(description, check.tag, check.known)) return Fail(check.error);
  }
  if (rules->algorithm == KM_ALGORITHM_HMAC) return CheckHmac(description);
  if (rules->algorithm == KM_ALGORITHM_AES &&
      description.Contains(KM_TAG_BLOCK_MODE, KM_MODE_GCM)) {
    return CheckMinMacLength(description, 96, 128);
  }
  return TEEC_SUCCESS;
}

TEEC_Result CheckKeySize(uint32_t algorithm, uint32_t key_size) {
  const AlgorithmRules* rules = RulesOf(algorithm);
  if (rules == nullptr) return Fail(KM_ERROR_UNSUPPORTED_ALGORITHM);
  if (key_size < rules->min_size || key_size > rules->max_size ||
      key_size % rules->size_step != 0 ||
      (algorithm == KM_ALGORITHM_EC && CurveBySize(key_size) == nullptr)) {
    return Fail(KM_ERROR_UNSUPPORTED_KEY_SIZE);
  }
  return TEEC_SUCCESS;
}

bool HasPurpose(uint32_t algorithm, uint32_t purpose) {
  const AlgorithmRules* rules = RulesOf(algorithm);
  return rules != nullptr &&
         std::count(rules->purposes.begin(), rules->purposes.end(), purpose) != 0;
}

const Curve* CurveById(uint64_t id) {
  for (const Curve& curve : kCurves) {
    if (curve.id == id) return &curve;
  }
  return nullptr;
}

const Curve* CurveBySize(uint64_t key_size) {
  for (const Curve& curve : kCurves) {
    if (curve.key_size == key_size) return &curve;
  }
  return nullptr;
}

void DescribeKey(const ParamSet& description, Key* key) {
  for (const Param& param : description) {
    if (Lists(kHardwareTags, param.tag)) key->hw_enforced.Add(param);
    if (Lists(kSoftwareTags, param.tag)) key->sw_enforced.Add(param);
  }
  if (!key->sw_enforced.Contains(KM_TAG_CREATION_DATETIME)) {
    key->sw_enforced.Add(KM_TAG_CREATION_DATETIME, WallClockMillis());
  }
  key->hw_enforced.Set(KM_TAG_ALGORITHM, key->algorithm);
  key->hw_enforced.Set(KM_TAG_KEY_SIZE, key->key_size);
  key->hw_enforced.Remove(KM_TAG_EC_CURVE);
  if (key->algorithm == KM_ALGORITHM_EC) key->hw_enforced.Add(KM_TAG_EC_CURVE, key->curve);
  key->hw_enforced.Add(KM_TAG_ORIGIN, key->origin);
  SetKeySystemVersion(key);
}

void SetKeySystemVersion(Key* key) {
  SystemVersion version;
  GetSystemVersion(&version);
  key->hw_enforced.Set(KM_TAG_OS_VERSION, version.os_version);
  key->hw_enforced.Set(KM_TAG_OS_PATCHLEVEL, version.os_patchlevel);
}

}  // namespace ta
