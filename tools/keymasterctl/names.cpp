#include "tools/keymasterctl/names.h"

#include <constant_names.h>
#include <ctype.h>

#include <algorithm>
#include <map>
#include <numeric>

#include "tools/keymasterctl/errors.h"

namespace {

struct Named {
  std::string name;
  uint32_t value;
};

// Constants and their names, which come as one text with commas between.
std::vector<Named> Name(const std::vector<int64_t>& values, const std::string& names) {
  std::vector<Named> out;
  size_t start = 0;
  for (int64_t value : values) {
    const size_t end = std::min(names.find(',', start), names.size());
    out.push_back({names.substr(start, end - start), static_cast<uint32_t>(value)});
    start = names.find_first_not_of(", ", end);
  }
  return out;
}

// From 0xFFFF0000 on, as the TEE client numbers them.
constexpr const char* kTeeResults[] = {"GENERIC",         "ACCESS_DENIED", "CANCEL",
                                       "ACCESS_CONFLICT", "EXCESS_DATA",   "BAD_FORMAT",
                                       "BAD_PARAMETERS",  "BAD_STATE",     "ITEM_NOT_FOUND",
                                       "NOT_IMPLEMENTED", "NOT_SUPPORTED", "NO_DATA",
                                       "OUT_OF_MEMORY",   "BUSY",          "COMMUNICATION",
                                       "SECURITY",        "SHORT_BUFFER",  "EXTERNAL_CANCEL"};

// The values of enumerated tags. Several names of one value may stand here; the first is printed.
const std::map<keymaster_tag_t, std::vector<Named>>& ValueTable() {
  static const std::map<keymaster_tag_t, std::vector<Named>> table = {
      {KM_TAG_PURPOSE,
       Name({KM_PURPOSE_ENCRYPT, KM_PURPOSE_DECRYPT, KM_PURPOSE_SIGN, KM_PURPOSE_VERIFY,
             KM_PURPOSE_DERIVE_KEY, KM_PURPOSE_WRAP_KEY, KM_PURPOSE_WRAP_KEY},
            "encrypt, decrypt, sign, verify, derive-key, wrap-key, wrap")},
      {KM_TAG_ALGORITHM, Name({KM_ALGORITHM_RSA, KM_ALGORITHM_EC, KM_ALGORITHM_AES,
                               KM_ALGORITHM_TRIPLE_DES, KM_ALGORITHM_HMAC},
                              "rsa, ec, aes, 3des, hmac")},
      {KM_TAG_BLOCK_MODE,
       Name({KM_MODE_ECB, KM_MODE_CBC, KM_MODE_CTR, KM_MODE_GCM}, "ecb, cbc, ctr, gcm")},
      {KM_TAG_DIGEST, Name({KM_DIGEST_NONE, KM_DIGEST_MD5, KM_DIGEST_SHA1, KM_DIGEST_SHA_2_224,
                            KM_DIGEST_SHA_2_256, KM_DIGEST_SHA_2_384, KM_DIGEST_SHA_2_512},
                           "none, md5, sha1, sha224, sha256, sha384, sha512")},
      {KM_TAG_PADDING,
       Name({KM_PAD_NONE, KM_PAD_RSA_OAEP, KM_PAD_RSA_PSS, KM_PAD_RSA_PKCS1_1_5_ENCRYPT,
             KM_PAD_RSA_PKCS1_1_5_SIGN, KM_PAD_PKCS7, kPadPkcs1ByUse},
            "none, oaep, pss, pkcs1-encrypt, pkcs1-sign, pkcs7, pkcs1")},
      {KM_TAG_EC_CURVE,
       Name({KM_EC_CURVE_P_224, KM_EC_CURVE_P_256, KM_EC_CURVE_P_384, KM_EC_CURVE_P_521,
             KM_EC_CURVE_P_224, KM_EC_CURVE_P_256, KM_EC_CURVE_P_256, KM_EC_CURVE_P_384,
             KM_EC_CURVE_P_521},
            "p224, p256, p384, p521, secp224r1, secp256r1, prime256v1, secp384r1, secp521r1")},
      {KM_TAG_ORIGIN, Name({KM_ORIGIN_GENERATED, KM_ORIGIN_DERIVED, KM_ORIGIN_IMPORTED,
                            KM_ORIGIN_UNKNOWN, KM_ORIGIN_SECURELY_IMPORTED},
                           "generated, derived, imported, unknown, securely-imported")},
      {KM_TAG_USER_AUTH_TYPE,
       Name({HW_AUTH_NONE, HW_AUTH_PASSWORD, HW_AUTH_FINGERPRINT, HW_AUTH_FINGERPRINT,
             HW_AUTH_PASSWORD | HW_AUTH_FINGERPRINT, HW_AUTH_ANY},
            "none, password, fingerprint, biometric, password-or-fingerprint, any")},
      {KM_TAG_BLOB_USAGE_REQUIREMENTS, Name({KM_BLOB_STANDALONE, KM_BLOB_REQUIRES_FILE_SYSTEM},
                                            "standalone, requires-file-system")},
  };
  return table;
}

// The spelling that names are compared in: "SHA-256", "sha_256" and "sha256" are one.
std::string Plain(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (isalnum(static_cast<unsigned char>(c)) != 0) {
      out += static_cast<char>(tolower(static_cast<unsigned char>(c)));
    }
  }
  return out;
}

constexpr const char* kTagPrefix = "KM_TAG_";

// KEY_SIZE is "key-size".
std::string Written(std::string name) {
  for (char& c : name) {
    c = c == '_' ? '-' : static_cast<char>(tolower(static_cast<unsigned char>(c)));
  }
  return name;
}

const std::vector<Named>& ValuesOfTag(keymaster_tag_t tag) {
  static const std::vector<Named> none;
  const auto row = ValueTable().find(tag);
  return row != ValueTable().end() ? row->second : none;
}

// How many letters are added, dropped or changed between two words.
size_t Distance(const std::string& from, const std::string& to) {
  std::vector<size_t> row(to.size() + 1);
  std::iota(row.begin(), row.end(), 0);
  for (size_t i = 1; i <= from.size(); ++i) {
    size_t diagonal = row[0]++;
    for (size_t j = 1; j <= to.size(); ++j) {
      const size_t changed = diagonal + (from[i - 1] != to[j - 1] ? 1 : 0);
      diagonal = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, changed});
    }
  }
  return row.back();
}

}  // namespace

std::string TagName(keymaster_tag_t tag) {
  const char* const name = FindConstantName(kTagPrefix, static_cast<uint32_t>(tag));
  return name != nullptr ? Written(name) : "tag-" + std::to_string(static_cast<uint32_t>(tag));
}

keymaster_tag_t TagByName(const std::string& name) {
  std::vector<std::string> names;
  for (const ConstantName& constant : kConstantNames) {
    if (FindConstantName(kTagPrefix, constant.value) == nullptr) continue;
    names.push_back(TagName(static_cast<keymaster_tag_t>(constant.value)));
    if (Plain(names.back()) == Plain(name)) return static_cast<keymaster_tag_t>(constant.value);
  }
  const std::string near = Nearest(name, names);
  throw UsageFailure("no parameter is named '" + name + "'",
                     near.empty() ? "" : "did you mean " + near + "?");
}

bool IsRepeatable(keymaster_tag_t tag) {
  const keymaster_tag_type_t type = keymaster_tag_get_type(tag);
  return type == KM_ENUM_REP || type == KM_UINT_REP || type == KM_ULONG_REP;
}

bool IsEnumerated(keymaster_tag_t tag) {
  const keymaster_tag_type_t type = keymaster_tag_get_type(tag);
  return type == KM_ENUM || type == KM_ENUM_REP;
}

bool IsBytes(keymaster_tag_t tag) {
  const keymaster_tag_type_t type = keymaster_tag_get_type(tag);
  return type == KM_BYTES || type == KM_BIGNUM;
}

std::string ValueName(keymaster_tag_t tag, uint32_t value) {
  for (const Named& row : ValuesOfTag(tag)) {
    if (row.value == value) return row.name;
  }
  return std::to_string(value);
}

std::optional<uint32_t> ValueByName(keymaster_tag_t tag, const std::string& name) {
  for (const Named& row : ValuesOfTag(tag)) {
    if (Plain(row.name) == Plain(name)) return row.value;
  }
  return std::nullopt;
}

std::string ValueNames(keymaster_tag_t tag) {
  std::vector<std::string> names;
  for (const Named& row : ValuesOfTag(tag)) {
    if (ValueName(tag, row.value) == row.name) names.emplace_back(row.name);
  }
  return Joined(names, "|");
}

std::string ResultName(int32_t result) {
  const uint32_t code = static_cast<uint32_t>(result);
  if (IsTeeResult(result) && (code & 0xFFFF) < std::size(kTeeResults)) {
    return std::string("TEEC_ERROR_") + kTeeResults[code & 0xFFFF];
  }
  const char* const name = FindConstantName("KM_ERROR_", code);
  if (name != nullptr) return std::string("KM_ERROR_") + name;
  return code == 0xFFFF3024u ? "TEEC_ERROR_TARGET_DEAD" : "";
}

bool IsTeeResult(int32_t result) {
  const uint32_t code = static_cast<uint32_t>(result);
  return code >= 0xFFFF0000u && code < 0xFFFFF000u;
}

std::string Nearest(const std::string& word, const std::vector<std::string>& candidates) {
  std::string nearest;
  size_t least = word.size() / 3;
  for (const std::string& candidate : candidates) {
    const size_t distance = Distance(word, candidate);
    if (distance < least || (distance == least && nearest.empty())) {
      nearest = candidate;
      least = distance;
    }
  }
  return nearest;
}

std::string Joined(const std::vector<std::string>& words, const char* between) {
  std::string out;
  for (const std::string& word : words) {
    out += (out.empty() ? "" : between) + word;
  }
  return out;
}

std::string ReplaceAll(std::string text, const std::string& from, const std::string& to) {
  for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
  return text;
}

std::vector<std::string> Split(const std::string& text, char between) {
  std::vector<std::string> parts;
  for (size_t start = 0; start <= text.size() && !text.empty();) {
    const size_t end = std::min(text.find(between, start), text.size());
    parts.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return parts;
}
