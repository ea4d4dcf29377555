#include "key_material.h"

#include <openssl/core_names.h>
#include <openssl/param_build.h>
#include <openssl/rand.h>
#include <openssl/x509.h>

#include <stdexcept>

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
TEEC_Result ChooseCurve(const ParamSet& description, Key* key) {
  const std::optional<uint64_t> id = description.Value(KM_TAG_EC_CURVE);
  const std::optional<uint64_t> size = description.Value(KM_TAG_KEY_SIZE);
  if (!id && !size) return Fail(KM_ERROR_UNSUPPORTED_KEY_SIZE);
  const Curve* curve = id ? CurveById(*id) : CurveBySize(*size);
  if (curve == nullptr) {
    return Fail(id ? KM_ERROR_UNSUPPORTED_EC_CURVE : KM_ERROR_UNSUPPORTED_KEY_SIZE);
  }
  if (size && *size != curve->key_size) return Fail(KM_ERROR_INVALID_ARGUMENT);
  SetCurve(*curve, key);
  return TEEC_SUCCESS;
}

TEEC_Result GenerateEc(const ParamSet& description, Key* key) {
  if (const TEEC_Result result = ChooseCurve(description, key); result != 0) return result;
  key->pkey.reset(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", CurveById(key->curve)->name));
  RequireCrypto(key->pkey != nullptr);
  return TEEC_SUCCESS;
}

TEEC_Result GenerateRsa(const ParamSet& description, Key* key) {
  const uint64_t exponent = description.Value(KM_TAG_RSA_PUBLIC_EXPONENT).value_or(0);
  if (exponent < 3 || exponent % 2 == 0) return Fail(KM_ERROR_INVALID_ARGUMENT);
  const BnPtr e(BN_new());
  const PkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr));
  EVP_PKEY* pkey = nullptr;
  RequireCrypto(e != nullptr && ctx != nullptr && BN_set_word(e.get(), exponent) == 1 &&
                EVP_PKEY_keygen_init(ctx.get()) == 1 &&
                EVP_PKEY_CTX_set_rsa_keygen_bits(ctx.get(), static_cast<int>(key->key_size)) == 1 &&
                EVP_PKEY_CTX_set1_rsa_keygen_pubexp(ctx.get(), e.get()) == 1 &&
                EVP_PKEY_keygen(ctx.get(), &pkey) == 1);
  key->pkey.reset(pkey);
  return TEEC_SUCCESS;
}

TEEC_Result GenerateSymmetric(Key* key) {
  // Of a Triple DES key's 192 bits 24 are parity.
  key->symmetric.resize(key->algorithm == KM_ALGORITHM_TRIPLE_DES ? 24 : key->key_size / 8);
  RequireCrypto(RAND_priv_bytes(key->symmetric.data(), static_cast<int>(key->symmetric.size())) ==
                1);
  return TEEC_SUCCESS;
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
  OSSL_PARAM_BLD* builder = OSSL_PARAM_BLD_new();
  const bool built =
      builder != nullptr && private_key != nullptr &&
      OSSL_PARAM_BLD_push_utf8_string(builder, OSSL_PKEY_PARAM_GROUP_NAME, curve.name, 0) == 1 &&
      OSSL_PARAM_BLD_push_octet_string(builder, OSSL_PKEY_PARAM_PUB_KEY, point.data(),
                                       point.size()) == 1 &&
      OSSL_PARAM_BLD_push_BN(builder, OSSL_PKEY_PARAM_PRIV_KEY, private_key.get()) == 1;
  OSSL_PARAM* params = built ? OSSL_PARAM_BLD_to_param(builder) : nullptr;
  OSSL_PARAM_BLD_free(builder);
  const PkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_name(nullptr, "EC", nullptr));
  EVP_PKEY* pkey = nullptr;
  // A point off the curve already fails here: that is the material's fault.
  if (ctx != nullptr && params != nullptr && EVP_PKEY_fromdata_init(ctx.get()) == 1 &&
      EVP_PKEY_fromdata(ctx.get(), &pkey, EVP_PKEY_KEYPAIR, params) != 1) {
    pkey = nullptr;
  }
  OSSL_PARAM_free(params);
  return PkeyPtr(pkey);
}

TEEC_Result ImportEc(ByteView material, Key* key) {
  ByteReader reader(material);
  uint32_t size = 0;
  uint32_t point_form = 0;
  uint32_t lengths[3];
  if (!reader.TakeU32(&size) || !reader.TakeU32(&point_form) || !reader.TakeU32(&lengths[0]) ||
      !reader.TakeU32(&lengths[1]) || !reader.TakeU32(&lengths[2])) {
    return Fail(KM_ERROR_INVALID_ARGUMENT);
  }
  const Curve* curve = CurveBySize(size);
  if (curve == nullptr) return Fail(KM_ERROR_UNSUPPORTED_EC_CURVE);
  const size_t width = (size + 7) / 8;
  SecureBytes point = {POINT_CONVERSION_UNCOMPRESSED};
  SecureBytes scalar;
  if (!TakePadded(&reader, lengths[0], width, &point) ||
      !TakePadded(&reader, lengths[1], width, &point) ||
      !TakePadded(&reader, lengths[2], width, &scalar) || reader.remaining() != 0) {
    return Fail(KM_ERROR_INVALID_ARGUMENT);
  }
  key->pkey = MakeEcPkey(*curve, point, scalar);
  if (key->pkey == nullptr) return Fail(KM_ERROR_INVALID_ARGUMENT);
  const PkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_pkey(nullptr, key->pkey.get(), nullptr));
  RequireCrypto(ctx != nullptr);
  if (EVP_PKEY_check(ctx.get()) != 1) return Fail(KM_ERROR_INVALID_ARGUMENT);
  SetCurve(*curve, key);
  return TEEC_SUCCESS;
}

TEEC_Result ImportRsa(ByteView material, Key* key) {
  if (const TEEC_Result result = ImportRsaMaterial(material, key); result != 0) return result;
  key->key_size = static_cast<uint32_t>(EVP_PKEY_get_bits(key->pkey.get()));
  return TEEC_SUCCESS;
}

TEEC_Result ImportSymmetric(ByteView material, Key* key) {
  if (material.size == 0 || material.size > 64) return Fail(KM_ERROR_UNSUPPORTED_KEY_SIZE);
  const bool triple_des = key->algorithm == KM_ALGORITHM_TRIPLE_DES;
  if (triple_des && material.size != 24) return Fail(KM_ERROR_UNSUPPORTED_KEY_SIZE);
  key->key_size = triple_des ? 168 : static_cast<uint32_t>(material.size * 8);
  key->symmetric.assign(material.begin(), material.end());
  return TEEC_SUCCESS;
}

// Adds what the description leaves open and refuses what it says otherwise.
TEEC_Result Reconcile(uint32_t tag, uint64_t actual, ParamSet* description) {
  const std::optional<uint64_t> described = description->Value(tag);
  if (!described) description->Add(tag, actual);
  return described && *described != actual ? Fail(KM_ERROR_IMPORT_PARAMETER_MISMATCH)
                                           : TEEC_SUCCESS;
}

}  // namespace

void RequireCrypto(bool success) {
  if (!success) throw std::runtime_error("libcrypto failed");
}

TEEC_Result GenerateMaterial(const ParamSet& description, Key* key) {
  key->algorithm = static_cast<uint32_t>(description.Value(KM_TAG_ALGORITHM).value_or(0));
  if (key->algorithm == KM_ALGORITHM_EC) return GenerateEc(description, key);
  key->key_size = static_cast<uint32_t>(description.Value(KM_TAG_KEY_SIZE).value_or(0));
  const TEEC_Result result = CheckKeySize(key->algorithm, key->key_size);
  if (result != 0) return result;
  return key->algorithm == KM_ALGORITHM_RSA ? GenerateRsa(description, key)
                                            : GenerateSymmetric(key);
}

TEEC_Result ImportMaterial(ByteView material, ParamSet* description, Key* key) {
  key->algorithm = static_cast<uint32_t>(description->Value(KM_TAG_ALGORITHM).value_or(0));
  TEEC_Result result = 0;
  if (key->algorithm == KM_ALGORITHM_RSA) {
    result = ImportRsa(material, key);
  } else if (key->algorithm == KM_ALGORITHM_EC) {
    result = ImportEc(material, key);
  } else {
    result = ImportSymmetric(material, key);
  }
  if (result != 0) return result;
  if (result = CheckKeySize(key->algorithm, key->key_size); result != 0) return result;
  result = Reconcile(KM_TAG_KEY_SIZE, key->key_size, description);
  if (result == 0 && key->algorithm == KM_ALGORITHM_EC) {
    result = Reconcile(KM_TAG_EC_CURVE, key->curve, description);
  }
  if (result == 0 && key->algorithm == KM_ALGORITHM_RSA) {
    const BnPtr e = PartOf(*key, OSSL_PKEY_PARAM_RSA_E);
    result = Reconcile(KM_TAG_RSA_PUBLIC_EXPONENT, BN_get_word(e.get()), description);
  }
  return result;
}

TEEC_Result ExportPublicKey(const Key& key, Bytes* out) {
  if (!IsAsymmetric(key.algorithm)) return Fail(KM_ERROR_UNSUPPORTED_KEY_FORMAT);
  const bool rsa = key.algorithm == KM_ALGORITHM_RSA;
  const Bytes first = ToBytes(PartOf(key, rsa ? OSSL_PKEY_PARAM_RSA_N : OSSL_PKEY_PARAM_EC_PUB_X));
  const Bytes second = ToBytes(PartOf(key, rsa ? OSSL_PKEY_PARAM_RSA_E : OSSL_PKEY_PARAM_EC_PUB_Y));
  AppendU32(out, key.algorithm);
  AppendU32(out, key.key_size);
  AppendU32(out, static_cast<uint32_t>(first.size()));
  AppendU32(out, static_cast<uint32_t>(second.size()));
  AppendBytes(out, first);
  AppendBytes(out, second);
  return TEEC_SUCCESS;
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
