#include "key_material.h"

#include <openssl/core_names.h>
#include <openssl/x509.h>

#include "key_description.h"
#include "rsa_material.h"

namespace ta {
namespace {

bool IsAsymmetric(uint32_t algorithm) {
  return algorithm == KM_ALGORITHM_RSA || algorithm == KM_ALGORITHM_EC;
}

BnPtr PartOf(const Key& key, const char* name) {
  BIGNUM* number = nullptr;
  RequireCrypto(EVP_PKEY_get_bn_param(key.pkey.get(), name, &number) == 1);
  return BnPtr(number);
}

Bytes ToBytes(const BnPtr& number) {
  Bytes bytes(static_cast<size_t>(BN_num_bytes(number.get())));
  BN_bn2bin(number.get(), bytes.data());
  return bytes;
}

void SetCurve(const Curve& curve, Key* key) {
  key->curve = curve.id;
  key->key_size = curve.key_size;
}

// The curve that a description asks for by name, by size or by both.
const Curve& ChooseCurve(const ParamSet& description) {
  const std::optional<uint64_t> id = description.Value(KM_TAG_EC_CURVE);
  const std::optional<uint64_t> size = description.Value(KM_TAG_KEY_SIZE);
  if (!id && !size) Fail(KM_ERROR_UNSUPPORTED_KEY_SIZE);
  const Curve* curve = id ? CurveById(*id) : CurveBySize(*size);
  if (curve == nullptr) Fail(id ? KM_ERROR_UNSUPPORTED_EC_CURVE : KM_ERROR_UNSUPPORTED_KEY_SIZE);
  if (size && *size != curve->key_size) Fail(KM_ERROR_INVALID_ARGUMENT);
  return *curve;
}

void GenerateEc(const ParamSet& description, Key* key) {
  const Curve& curve = ChooseCurve(description);
  SetCurve(curve, key);
  key->pkey.reset(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", curve.name));
  RequireCrypto(key->pkey != nullptr);
}

void GenerateRsa(const ParamSet& description, Key* key) {
  const uint64_t exponent = description.Value(KM_TAG_RSA_PUBLIC_EXPONENT).value_or(0);
  if (exponent < 3 || exponent % 2 == 0) Fail(KM_ERROR_INVALID_ARGUMENT);
  const BnPtr e(BN_new());
  const PkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr));
  EVP_PKEY* pkey = nullptr;
  RequireCrypto(e != nullptr && ctx != nullptr && BN_set_word(e.get(), exponent) == 1 &&
                EVP_PKEY_keygen_init(ctx.get()) == 1 &&
                EVP_PKEY_CTX_set_rsa_keygen_bits(ctx.get(), static_cast<int>(key->key_size)) == 1 &&
                EVP_PKEY_CTX_set1_rsa_keygen_pubexp(ctx.get(), e.get()) == 1 &&
                EVP_PKEY_keygen(ctx.get(), &pkey) == 1);
  key->pkey.reset(pkey);
}

void GenerateSymmetric(Key* key) {
  // Of a Triple DES key's 192 bits 24 are parity.
  key->symmetric.resize(key->algorithm == KM_ALGORITHM_TRIPLE_DES ? 24 : key->key_size / 8);
  FillRandom(key->symmetric.data(), key->symmetric.size());
}

// A coordinate or scalar of EC key material, in the full width of the field.
bool TakePadded(ByteReader* reader, uint32_t length, size_t width, SecureBytes* out) {
  ByteView bytes;
  if (length > width || !reader->TakeBytes(length, &bytes)) return false;
  out->insert(out->end(), width - length, 0);
  AppendBytes(out, bytes);
  return true;
}

PkeyPtr MakeEcPkey(const Curve& curve, const SecureBytes& point, const SecureBytes& scalar) {
  const BnPtr private_key(
      BN_bin2bn(scalar.data(), static_cast<int>(scalar.size()), BN_secure_new()));
  const ParamBuilderPtr numbers(OSSL_PARAM_BLD_new());
  const bool built =
      numbers != nullptr && private_key != nullptr &&
      OSSL_PARAM_BLD_push_utf8_string(numbers.get(), OSSL_PKEY_PARAM_GROUP_NAME, curve.name, 0) ==
          1 &&
      OSSL_PARAM_BLD_push_octet_string(numbers.get(), OSSL_PKEY_PARAM_PUB_KEY, point.data(),
                                       point.size()) == 1 &&
      OSSL_PARAM_BLD_push_BN(numbers.get(), OSSL_PKEY_PARAM_PRIV_KEY, private_key.get()) == 1;
  // Null already for a point off the curve.
  return built ? MakePkey("EC", numbers.get()) : nullptr;
}

void ImportEc(ByteView material, Key* key) {
  ByteReader reader(material);
  uint32_t header[5];  // size, form of the point, lengths of X, Y and the scalar
  for (uint32_t& field : header) {
    if (!reader.TakeU32(&field)) Fail(KM_ERROR_INVALID_ARGUMENT);
  }
  const Curve* curve = CurveBySize(header[0]);
  if (curve == nullptr) Fail(KM_ERROR_UNSUPPORTED_EC_CURVE);
  const size_t width = (curve->key_size + 7) / 8;
  SecureBytes point = {POINT_CONVERSION_UNCOMPRESSED};
  SecureBytes scalar;
  if (!TakePadded(&reader, header[2], width, &point) ||
      !TakePadded(&reader, header[3], width, &point) ||
      !TakePadded(&reader, header[4], width, &scalar) || reader.remaining() != 0) {
    Fail(KM_ERROR_INVALID_ARGUMENT);
  }
  key->pkey = MakeEcPkey(*curve, point, scalar);
  if (key->pkey == nullptr) Fail(KM_ERROR_INVALID_ARGUMENT);
  const PkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_pkey(nullptr, key->pkey.get(), nullptr));
  RequireCrypto(ctx != nullptr);
  if (EVP_PKEY_check(ctx.get()) != 1) Fail(KM_ERROR_INVALID_ARGUMENT);
  SetCurve(*curve, key);
}

void ImportSymmetric(ByteView material, Key* key) {
  const bool triple_des = key->algorithm == KM_ALGORITHM_TRIPLE_DES;
  if (material.size == 0 || material.size > 64 || (triple_des && material.size != 24)) {
    Fail(KM_ERROR_UNSUPPORTED_KEY_SIZE);
  }
  key->key_size = triple_des ? 168 : static_cast<uint32_t>(material.size * 8);
  key->symmetric.assign(material.begin(), material.end());
}

// Adds what the description leaves open and refuses what it says otherwise.
void Reconcile(uint32_t tag, uint64_t actual, ParamSet* description) {
  const std::optional<uint64_t> described = description->Value(tag);
  if (!described) description->Add(tag, actual);
  if (described && *described != actual) Fail(KM_ERROR_IMPORT_PARAMETER_MISMATCH);
}

}  // namespace

Key GenerateMaterial(const ParamSet& description) {
  Key key;
  key.algorithm = static_cast<uint32_t>(description.Value(KM_TAG_ALGORITHM).value_or(0));
  key.key_size = static_cast<uint32_t>(description.Value(KM_TAG_KEY_SIZE).value_or(0));
  if (key.algorithm != KM_ALGORITHM_EC) CheckKeySize(key.algorithm, key.key_size);
  switch (key.algorithm) {
    case KM_ALGORITHM_EC:
      GenerateEc(description, &key);
      break;
    case KM_ALGORITHM_RSA:
      GenerateRsa(description, &key);
      break;
    default:
      GenerateSymmetric(&key);
  }
  return key;
}

Key ImportMaterial(ByteView material, ParamSet* description) {
  Key key;
  key.algorithm = static_cast<uint32_t>(description->Value(KM_TAG_ALGORITHM).value_or(0));
  switch (key.algorithm) {
    case KM_ALGORITHM_EC:
      ImportEc(material, &key);
      break;
    case KM_ALGORITHM_RSA:
      ImportRsaMaterial(material, &key);
      key.key_size = static_cast<uint32_t>(EVP_PKEY_get_bits(key.pkey.get()));
      break;
    default:
      ImportSymmetric(material, &key);
  }
  CheckKeySize(key.algorithm, key.key_size);
  Reconcile(KM_TAG_KEY_SIZE, key.key_size, description);
  if (key.algorithm == KM_ALGORITHM_EC) Reconcile(KM_TAG_EC_CURVE, key.curve, description);
  if (key.algorithm == KM_ALGORITHM_RSA) {
    const BnPtr e = PartOf(key, OSSL_PKEY_PARAM_RSA_E);
    Reconcile(KM_TAG_RSA_PUBLIC_EXPONENT, BN_get_word(e.get()), description);
  }
  return key;
}

Bytes ExportPublicKey(const Key& key) {
  if (!IsAsymmetric(key.algorithm)) Fail(KM_ERROR_UNSUPPORTED_KEY_FORMAT);
  Bytes out;
  const bool rsa = key.algorithm == KM_ALGORITHM_RSA;
  const Bytes first = ToBytes(PartOf(key, rsa ? OSSL_PKEY_PARAM_RSA_N : OSSL_PKEY_PARAM_EC_PUB_X));
  const Bytes second = ToBytes(PartOf(key, rsa ? OSSL_PKEY_PARAM_RSA_E : OSSL_PKEY_PARAM_EC_PUB_Y));
  AppendU32(&out, key.algorithm);
  AppendU32(&out, key.key_size);
  AppendU32(&out, static_cast<uint32_t>(first.size()));
  AppendU32(&out, static_cast<uint32_t>(second.size()));
  AppendBytes(&out, first);
  AppendBytes(&out, second);
  return out;
}

SecureBytes EncodeSecret(const Key& key) {
  if (!IsAsymmetric(key.algorithm)) return key.symmetric;
  const int size = i2d_PrivateKey(key.pkey.get(), nullptr);
  RequireCrypto(size > 0);
  SecureBytes secret(static_cast<size_t>(size));
  uint8_t* end = secret.data();
  RequireCrypto(i2d_PrivateKey(key.pkey.get(), &end) == size);
  return secret;
}

bool DecodeSecret(ByteView secret, Key* key) {
  if (!IsAsymmetric(key->algorithm)) {
    key->symmetric.assign(secret.begin(), secret.end());
    return true;
  }
  const int type = key->algorithm == KM_ALGORITHM_RSA ? EVP_PKEY_RSA : EVP_PKEY_EC;
  const uint8_t* next = secret.data;
  key->pkey.reset(d2i_PrivateKey(type, nullptr, &next, static_cast<long>(secret.size)));
  return key->pkey != nullptr;
}

}  // namespace ta
