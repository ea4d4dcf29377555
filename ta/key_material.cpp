#include <openssl/x509.h>

#include "ta/key_description.h"

namespace ta {
namespace {

bool IsAsymmetric(uint32_t algorithm) {
  return algorithm == KM_ALGORITHM_RSA || algorithm == KM_ALGORITHM_EC;
}

const RSA* RsaOf(const Key& key) {
  const RSA* rsa = EVP_PKEY_get0_RSA(key.pkey.get());
  RequireCrypto(rsa != nullptr);
  return rsa;
}

void SetCurve(const Curve& curve, Key* key) {
  key->curve = curve.id;
  key->key_size = curve.key_size;
}

// The curve that a description asks for by name, by size or by both.
const Curve& ChooseCurve(const ParamSet& description) {
  const std::optional<uint64_t> id = description.Value(KM_TAG_EC_CURVE);
  const std::optional<uint64_t> size = description.Value(KM_TAG_KEY_SIZE);
  FailIf(!id && !size, KM_ERROR_UNSUPPORTED_KEY_SIZE);
  const Curve* curve = id ? FindCurve(&Curve::id, *id) : FindCurve(&Curve::key_size, *size);
  FailIf(curve == nullptr, id ? KM_ERROR_UNSUPPORTED_EC_CURVE : KM_ERROR_UNSUPPORTED_KEY_SIZE);
  FailIf(size && *size != curve->key_size, KM_ERROR_INVALID_ARGUMENT);
  return *curve;
}

void GenerateEc(const ParamSet& description, Key* key) {
  const Curve& curve = ChooseCurve(description);
  SetCurve(curve, key);
  key->pkey = NewEcPkey(curve.nid);
}

void GenerateRsa(const ParamSet& description, Key* key) {
  const uint64_t exponent = description.Value(KM_TAG_RSA_PUBLIC_EXPONENT).value_or(0);
  FailIf(exponent < 3 || exponent % 2 == 0, KM_ERROR_INVALID_ARGUMENT);
  const BnPtr e(BN_new());
  const RsaPtr rsa(RSA_new());
  RequireCrypto(e != nullptr && rsa != nullptr && BN_set_word(e.get(), exponent) == 1 &&
                RSA_generate_key_ex(rsa.get(), static_cast<int>(key->key_size), e.get(), nullptr) ==
                    1);
  key->pkey = ToPkey(rsa, EVP_PKEY_set1_RSA);
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

// Null when point and scalar are no key pair of the curve.
PkeyPtr MakeEcPkey(const Curve& curve, const SecureBytes& point, const SecureBytes& scalar) {
  const EcKeyPtr key(EC_KEY_new_by_curve_name(curve.nid));
  const BnPtr number(BN_bin2bn(scalar.data(), static_cast<int>(scalar.size()), nullptr));
  RequireCrypto(key != nullptr && number != nullptr);
  const EC_GROUP* group = EC_KEY_get0_group(key.get());
  const PointPtr public_point(EC_POINT_new(group));
  RequireCrypto(public_point != nullptr);
  const bool is_pair =
      EC_POINT_oct2point(group, public_point.get(), point.data(), point.size(), nullptr) == 1 &&
      EC_KEY_set_public_key(key.get(), public_point.get()) == 1 &&
      EC_KEY_set_private_key(key.get(), number.get()) == 1 && EC_KEY_check_key(key.get()) == 1;
  return is_pair ? ToPkey(key, EVP_PKEY_set1_EC_KEY) : nullptr;
}

void ImportEc(ByteView material, Key* key) {
  ByteReader reader(material);
  uint32_t header[5];  // size, form of the point, lengths of X, Y and the scalar
  for (uint32_t& field : header) {
    FailIf(!reader.TakeInteger(&field), KM_ERROR_INVALID_ARGUMENT);
  }
  const Curve* curve = FindCurve(&Curve::key_size, header[0]);
  FailIf(curve == nullptr, KM_ERROR_UNSUPPORTED_EC_CURVE);
  const size_t width = (curve->key_size + 7) / 8;
  SecureBytes point = {POINT_CONVERSION_UNCOMPRESSED};
  SecureBytes scalar;
  FailIf(!TakePadded(&reader, header[2], width, &point) ||
             !TakePadded(&reader, header[3], width, &point) ||
             !TakePadded(&reader, header[4], width, &scalar) || reader.remaining() != 0,
         KM_ERROR_INVALID_ARGUMENT);
  key->pkey = MakeEcPkey(*curve, point, scalar);
  FailIf(key->pkey == nullptr, KM_ERROR_INVALID_ARGUMENT);
  SetCurve(*curve, key);
}

void ImportSymmetric(ByteView material, Key* key) {
  const bool triple_des = key->algorithm == KM_ALGORITHM_TRIPLE_DES;
  FailIf(material.size == 0 || material.size > 64 || (triple_des && material.size != 24),
         KM_ERROR_UNSUPPORTED_KEY_SIZE);
  key->key_size = triple_des ? 168 : static_cast<uint32_t>(material.size * 8);
  key->symmetric.assign(material.begin(), material.end());
}

// Adds what the description leaves open and refuses what it says otherwise.
void Reconcile(Tag tag, uint64_t actual, ParamSet* description) {
  const std::optional<uint64_t> described = description->Value(tag);
  if (!described) description->Add(tag, actual);
  FailIf(described && *described != actual, KM_ERROR_IMPORT_PARAMETER_MISMATCH);
}

}  // namespace

Key GenerateMaterial(const ParamSet& description) {
  Key key;
  key.algorithm = static_cast<uint32_t>(description.Value(KM_TAG_ALGORITHM).value_or(0));
  key.key_size = static_cast<uint32_t>(description.Value(KM_TAG_KEY_SIZE).value_or(0));
  if (key.algorithm != KM_ALGORITHM_EC) CheckKeySize(key.algorithm, key.key_size);
  if (key.algorithm == KM_ALGORITHM_EC) {
    GenerateEc(description, &key);
  } else if (key.algorithm == KM_ALGORITHM_RSA) {
    GenerateRsa(description, &key);
  } else {
    GenerateSymmetric(&key);
  }
  return key;
}

Key ImportMaterial(ByteView material, ParamSet* description) {
  Key key;
  key.algorithm = static_cast<uint32_t>(description->Value(KM_TAG_ALGORITHM).value_or(0));
  if (key.algorithm == KM_ALGORITHM_EC) {
    ImportEc(material, &key);
  } else if (key.algorithm == KM_ALGORITHM_RSA) {
    ImportRsaMaterial(material, &key);
    key.key_size = static_cast<uint32_t>(EVP_PKEY_bits(key.pkey.get()));
  } else {
    ImportSymmetric(material, &key);
  }
  CheckKeySize(key.algorithm, key.key_size);
  Reconcile(KM_TAG_KEY_SIZE, key.key_size, description);
  if (key.algorithm == KM_ALGORITHM_EC) Reconcile(KM_TAG_EC_CURVE, key.curve, description);
  if (key.algorithm == KM_ALGORITHM_RSA) {
    Reconcile(KM_TAG_RSA_PUBLIC_EXPONENT, BN_get_word(RSA_get0_e(RsaOf(key))), description);
  }
  return key;
}

Bytes ExportPublicKey(const Key& key) {
  FailIf(!IsAsymmetric(key.algorithm), KM_ERROR_UNSUPPORTED_KEY_FORMAT);
  const BnPtr x(BN_new()), y(BN_new());
  RequireCrypto(x != nullptr && y != nullptr);
  const BIGNUM* numbers[] = {x.get(), y.get()};
  if (key.algorithm == KM_ALGORITHM_RSA) {
    RSA_get0_key(RsaOf(key), &numbers[0], &numbers[1], nullptr);
  } else {
    const EC_KEY* ec = EVP_PKEY_get0_EC_KEY(key.pkey.get());
    RequireCrypto(ec != nullptr && EC_POINT_get_affine_coordinates_GFp(
                                       EC_KEY_get0_group(ec), EC_KEY_get0_public_key(ec), x.get(),
                                       y.get(), nullptr) == 1);
  }
  Bytes header, content;
  AppendInteger(&header, key.algorithm);
  AppendInteger(&header, key.key_size);
  for (const BIGNUM* number : numbers) {
    Bytes bytes(static_cast<size_t>(BN_num_bytes(number)));
    BN_bn2bin(number, bytes.data());
    AppendInteger(&header, static_cast<uint32_t>(bytes.size()));
    AppendBytes(&content, bytes);
  }
  AppendBytes(&header, content);
  return header;
}

SecureBytes EncodeSecret(const Key& key) {
  return IsAsymmetric(key.algorithm) ? ToDer<SecureBytes>(key.pkey.get(), i2d_PrivateKey)
                                     : key.symmetric;
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
