// Key export: the TA's raw public key as a DER SubjectPublicKeyInfo.

#include <utility>

#include "context/libcrypto.h"
#include "context/reply.h"
#include "context/serialized_params.h"
#include "keymaster_tivas_context.h"
#include "keymaster_ts.h"
#include "wire/log.h"

using namespace km41;

namespace {

// The two integers of a raw public key: modulus and exponent, or X and Y.
struct RawPublicKey {
  uint32_t algorithm;
  uint32_t key_size;
  uint32_t first_length;
  uint32_t second_length;
  const uint8_t* first;
  const uint8_t* second;
};

CryptoPtr<BIGNUM> ReadInteger(const uint8_t* bytes, uint32_t length) {
  return CryptoPtr<BIGNUM>(BN_bin2bn(bytes, static_cast<int>(length), nullptr));
}

// Encodes a public key into a new buffer that output receives.
int32_t EncodeSpki(EVP_PKEY* key, bool is_rsa, keymaster_blob_t* output) {
  const int length = i2d_PUBKEY(key, nullptr);
  if (length <= 0) {
    if (is_rsa) {
      KM_LOGE("%s : i2d_PUBKEY failed", kLogFailure);
    } else {
      KM_LOGE("%s : i2d_PUBKEY error\n", kLogFailure);
    }
    return KM_ERROR_INVALID_ARGUMENT;
  }
  MallocBuffer der = AllocateBytes(static_cast<size_t>(length));
  if (der == nullptr) {
    KM_LOGE("%s : Could not allocate memory for public key data", kLogFailure);
    return KM_ERROR_INVALID_ARGUMENT;
  }
  unsigned char* at = der.get();
  if (i2d_PUBKEY(key, &at) != length) {
    if (is_rsa) {
      KM_LOGE("%s : Compare results failed", kLogFailure);
    } else {
      KM_LOGE("%s : i2d_PUBKEY results failed", kLogFailure);
    }
    return KM_ERROR_INVALID_ARGUMENT;
  }
  *output = {der.release(), static_cast<size_t>(length)};
  return KM_ERROR_OK;
}

CryptoPtr<EVP_PKEY> MakeKey() {
  CryptoPtr<EVP_PKEY> key(EVP_PKEY_new());
  if (key == nullptr) KM_LOGE("%s : allocate EVP_PKEY failed", kLogFailure);
  return key;
}

// An RSA key of the raw modulus and exponent, null after a message.
CryptoPtr<RSA> MakeRsa(const RawPublicKey& raw) {
  CryptoPtr<RSA> rsa(RSA_new());
  if (rsa == nullptr) {
    KM_LOGE("%s : Could not allocate RSA structure", kLogFailure);
    return nullptr;
  }
  CryptoPtr<BIGNUM> n = ReadInteger(raw.first, raw.first_length);
  if (n == nullptr) {
    KM_LOGE("%s : rsa->n BN_bin2bn failed", kLogFailure);
    return nullptr;
  }
  CryptoPtr<BIGNUM> e = ReadInteger(raw.second, raw.second_length);
  if (e == nullptr || RSA_set0_key(rsa.get(), n.get(), e.get(), nullptr) != 1) {
    KM_LOGE("%s : rsa->e BN_bin2bn failed", kLogFailure);
    return nullptr;
  }
  // Stored: both now belong to the key.
  (void)n.release();
  (void)e.release();
  return rsa;
}

int32_t EncodeRsaPublicKey(const RawPublicKey& raw, keymaster_blob_t* output) {
  CryptoPtr<RSA> rsa = MakeRsa(raw);
  if (rsa == nullptr) return KM_ERROR_INVALID_ARGUMENT;
  const CryptoPtr<EVP_PKEY> key = MakeKey();
  if (key == nullptr) return KM_ERROR_INVALID_ARGUMENT;
  if (EVP_PKEY_assign_RSA(key.get(), rsa.get()) != 1) {
    KM_LOGE("%s : EVP_PKEY_assign_RSA failed", kLogFailure);
    return KM_ERROR_INVALID_ARGUMENT;
  }
  (void)rsa.release();
  return EncodeSpki(key.get(), true, output);
}

// An EC key of the raw coordinates on that curve, null after a message.
CryptoPtr<EC_KEY> MakeEcKey(const RawPublicKey& raw, int nid) {
  CryptoPtr<EC_KEY> ec(EC_KEY_new_by_curve_name(nid));
  if (ec == nullptr) {
    KM_LOGE("%s : Could not allocate ec_key structure", kLogFailure);
    return nullptr;
  }
  const CryptoPtr<BIGNUM> x = ReadInteger(raw.first, raw.first_length);
  const CryptoPtr<BIGNUM> y = ReadInteger(raw.second, raw.second_length);
  if (x == nullptr || y == nullptr) {
    KM_LOGE("%s : X or Y bin2bn failed", kLogFailure);
    return nullptr;
  }
  if (EC_KEY_set_public_key_affine_coordinates(ec.get(), x.get(), y.get()) != 1) {
    KM_LOGE("%s : ec key set pubkey failed", kLogFailure);
    return nullptr;
  }
  EC_KEY_set_conv_form(ec.get(), POINT_CONVERSION_UNCOMPRESSED);
  return ec;
}

int32_t EncodeEcPublicKey(const RawPublicKey& raw, keymaster_blob_t* output) {
  const int nid = GetNidFromKeySize(static_cast<int>(raw.key_size));
  if (nid == 0) {
    KM_LOGE("%s : invalid ec key size %u", kLogFailure, raw.key_size);
    return KM_ERROR_INVALID_ARGUMENT;
  }
  KM_LOGI("nid = %d", nid);
  const CryptoPtr<EC_KEY> ec = MakeEcKey(raw, nid);
  if (ec == nullptr) return KM_ERROR_INVALID_ARGUMENT;
  const CryptoPtr<EVP_PKEY> key = MakeKey();
  if (key == nullptr) return KM_ERROR_INVALID_ARGUMENT;
  if (EVP_PKEY_set1_EC_KEY(key.get(), ec.get()) != 1) {
    KM_LOGE("%s : EVP_PKEY_set1_EC_KEY error\n", kLogFailure);
    return KM_ERROR_INVALID_ARGUMENT;
  }
  return EncodeSpki(key.get(), false, output);
}

// Reads the header and the two integers, which must fill the reply to its last byte.
bool ReadRawPublicKey(const Reply& reply, RawPublicKey* raw) {
  ReplyReader reader;
  return reply.Read(&reader) && reader.ReadU32(&raw->algorithm) && reader.ReadU32(&raw->key_size) &&
         reader.ReadU32(&raw->first_length) && reader.ReadU32(&raw->second_length) &&
         reader.ReadBytes(raw->first_length, &raw->first) &&
         reader.ReadBytes(raw->second_length, &raw->second) && reader.remaining() == 0;
}

int32_t BuildPubKeySpki(const Reply& reply, keymaster_blob_t* output) {
  RawPublicKey raw = {};
  if (!ReadRawPublicKey(reply, &raw)) {
    KM_LOGE("%s : out_len is invalid size(%u)", kLogFailure, reply.reported_length());
    return KM_ERROR_UNKNOWN_ERROR;
  }
  const ErrorQueueScope error_queue;
  switch (raw.algorithm) {
    case KM_ALGORITHM_RSA:
      return EncodeRsaPublicKey(raw, output);
    case KM_ALGORITHM_EC:
      return EncodeEcPublicKey(raw, output);
    default:
      KM_LOGE("invalid algorithm:%d\n", static_cast<int>(raw.algorithm));
      return KM_ERROR_INVALID_ARGUMENT;
  }
}

}  // namespace

namespace keymaster {

int32_t KeymasterTivasContext::TivasKmExportKey(keymaster_key_format_t format,
                                                const keymaster_key_blob_t* key,
                                                const keymaster_blob_t* client_id,
                                                const keymaster_blob_t* app_data,
                                                keymaster_blob_t* output) {
  KM_LOGI("KmExportKey start");
  if (key == nullptr || key->key_material == nullptr) return KM_ERROR_UNEXPECTED_NULL_POINTER;
  if (output == nullptr) return KM_ERROR_OUTPUT_PARAMETER_NULL;
  *output = keymaster_blob_t{};
  SerializedParams params;
  if (!params.BuildClient(client_id, app_data)) return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  if (format != KM_KEY_FORMAT_X509) return KM_ERROR_UNSUPPORTED_KEY_FORMAT;
  Reply reply(kReplyCapacity);
  if (!reply.allocated()) return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  const uint32_t tee_result = TeeExportKey(params.data(), params.length(), key->key_material,
                                           static_cast<uint32_t>(key->key_material_size),
                                           reply.buffer(), reply.length_in_out());
  if (tee_result != 0) return ReportFailure("%s : TeeExport failed, ret=0x%x", tee_result);
  if (reply.reported_length() < kPublicKeyHeader) {
    KM_LOGE("%s : out_len is too samll(%u)", kLogFailure, reply.reported_length());
    return KM_ERROR_UNKNOWN_ERROR;
  }
  const int32_t result = BuildPubKeySpki(reply, output);
  if (result != KM_ERROR_OK) return result;
  KM_LOGI("KmExportKey success");
  return KM_ERROR_OK;
}

}  // namespace keymaster
