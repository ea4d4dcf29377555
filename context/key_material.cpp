#include "context/key_material.h"

#include <openssl/obj_mac.h>
#include <securec.h>

#include "context/libcrypto.h"
#include "keymaster_ts.h"
#include "wire/little_endian.h"
#include "wire/log.h"

using namespace km41;

namespace {

// The form of RSA key material.
constexpr uint32_t kRsaPrivateExponentForm = 1;
constexpr uint32_t kRsaCrtForm = 2;

// Where the fields of an RSA header stand. The modulus length is there twice; the length of the
// private exponent, in its form, stands where the CRT form has that of the first prime.
constexpr uint32_t kRsaFormAt = 0;
constexpr uint32_t kRsaModulusLengthAt = 4;
constexpr uint32_t kRsaNLengthAt = 8;
constexpr uint32_t kRsaELengthAt = 12;
constexpr uint32_t kRsaDLengthAt = 16;
constexpr uint32_t kRsaPLengthAt = 16;
constexpr uint32_t kRsaQLengthAt = 20;
constexpr uint32_t kRsaDmp1LengthAt = 24;
constexpr uint32_t kRsaDmq1LengthAt = 28;
constexpr uint32_t kRsaIqmpLengthAt = 32;

// Where the fields of an EC header stand. The point form has one byte, three are zero.
constexpr uint32_t kEcKeySizeAt = 0;
constexpr uint32_t kEcPointFormAt = 4;
constexpr uint32_t kEcXLengthAt = 8;
constexpr uint32_t kEcYLengthAt = 12;
constexpr uint32_t kEcScalarLengthAt = 16;

struct Curve {
  int nid;
  int key_size;  // bits
};

// A size stands for the first curve that has it: 256 bits are prime256v1.
constexpr Curve kCurves[] = {
    {NID_secp160r1, 160}, {NID_secp192k1, 192}, {NID_secp224r1, 224}, {NID_X9_62_prime256v1, 256},
    {NID_secp256k1, 256}, {NID_secp384r1, 384}, {NID_secp521r1, 521},
};

// One integer of an RSA key, and where its length stands in the header.
struct Component {
  const BIGNUM* number;
  const char* label;
  uint32_t length_at;
};

// MaterialWriter appends integers behind the header and notes their lengths in it.
class MaterialWriter {
 public:
  // length is kept up to date with the bytes used, the header included.
  MaterialWriter(uint8_t* buffer, uint32_t header_size, uint32_t* length)
      : buffer_(buffer), header_size_(header_size), length_(length) {
    *length_ = header_size;
  }

  uint8_t* header() { return header_; }
  // Returns false, with nothing appended, when the integer is missing or does not fit.
  bool Append(const BIGNUM* number, const char* label, uint32_t length_at) {
    if (CheckBnSize(*length_, kKeyMaterialCapacity, number, label) != 0) return false;
    const auto size = static_cast<uint32_t>(BN_bn2bin(number, buffer_ + *length_));
    PutU32(header_ + length_at, size);
    *length_ += size;
    return true;
  }
  template <size_t N>
  bool Append(const Component (&components)[N]) {
    for (const Component& component : components) {
      if (!Append(component.number, component.label, component.length_at)) return false;
    }
    return true;
  }
  bool CopyHeader() { return memcpy_s(buffer_, kKeyMaterialCapacity, header_, header_size_) == 0; }

 private:
  uint8_t* const buffer_;
  const uint32_t header_size_;
  uint32_t* const length_;
  uint8_t header_[kRsaMaterialHeader] = {};
};

bool AppendRsaPrivate(const RSA* key, const BIGNUM* d, MaterialWriter* writer) {
  const BIGNUM* p = nullptr;
  const BIGNUM* q = nullptr;
  const BIGNUM* dmp1 = nullptr;
  const BIGNUM* dmq1 = nullptr;
  const BIGNUM* iqmp = nullptr;
  RSA_get0_factors(key, &p, &q);
  RSA_get0_crt_params(key, &dmp1, &dmq1, &iqmp);
  if (p == nullptr || q == nullptr || dmp1 == nullptr || dmq1 == nullptr || iqmp == nullptr) {
    PutU32(writer->header() + kRsaFormAt, kRsaPrivateExponentForm);
    return writer->Append(d, "rsa->d", kRsaDLengthAt);
  }
  PutU32(writer->header() + kRsaFormAt, kRsaCrtForm);
  const Component crt[] = {
      {p, "rsa->p", kRsaPLengthAt},          {q, "rsa->q", kRsaQLengthAt},
      {dmp1, "rsa->dmp1", kRsaDmp1LengthAt}, {dmq1, "rsa->dmq1", kRsaDmq1LengthAt},
      {iqmp, "rsa->iqmp", kRsaIqmpLengthAt},
  };
  return writer->Append(crt);
}

// Appends the integers of an EC key and logs the size of each.
bool AppendEcComponents(const BIGNUM* x, const BIGNUM* y, const BIGNUM* scalar,
                        MaterialWriter* writer) {
  if (!writer->Append(x, "X", kEcXLengthAt)) return false;
  KM_LOGI("X size = %u", GetU32(writer->header() + kEcXLengthAt));
  if (!writer->Append(y, "Y", kEcYLengthAt)) return false;
  KM_LOGI("Y size = %u", GetU32(writer->header() + kEcYLengthAt));
  if (!writer->Append(scalar, "priv_key", kEcScalarLengthAt)) return false;
  KM_LOGI("priv key size = %u", GetU32(writer->header() + kEcScalarLengthAt));
  return true;
}

}  // namespace

int CheckBnSize(uint32_t offset, uint32_t limit, const BIGNUM* number, const char* label) {
  if (number == nullptr || label == nullptr) {
    KM_LOGE("bn or name is NULL");
    return -1;
  }
  const auto size = static_cast<uint32_t>(BN_num_bytes(number));
  if (offset > limit || size > limit - offset) {
    KM_LOGE("%s is too big, size=%u", label, size);
    return -1;
  }
  return 0;
}

int GetNidFromKeySize(int key_size) {
  for (const Curve& curve : kCurves) {
    if (curve.key_size == key_size) return curve.nid;
  }
  return 0;
}

int GetKeySizeFromNid(int nid) {
  for (const Curve& curve : kCurves) {
    if (curve.nid == nid) return curve.key_size;
  }
  return 0;
}

namespace km41 {

int32_t BuildRsaKeyMaterial(uint8_t* buffer, const RSA* key, uint32_t* length) {
  if (buffer == nullptr || key == nullptr || length == nullptr) {
    return KM_ERROR_UNEXPECTED_NULL_POINTER;
  }
  const BIGNUM* n = nullptr;
  const BIGNUM* e = nullptr;
  const BIGNUM* d = nullptr;
  RSA_get0_key(key, &n, &e, &d);
  if (e == nullptr) return KM_ERROR_UNEXPECTED_NULL_POINTER;
  MaterialWriter writer(buffer, kRsaMaterialHeader, length);
  const Component public_part[] = {{n, "rsa->n", kRsaNLengthAt}, {e, "rsa->e", kRsaELengthAt}};
  if (!writer.Append(public_part) || !AppendRsaPrivate(key, d, &writer)) {
    return KM_ERROR_UNKNOWN_ERROR;
  }
  PutU32(writer.header() + kRsaModulusLengthAt, GetU32(writer.header() + kRsaNLengthAt));
  if (!writer.CopyHeader()) {
    KM_LOGE("%s : copy key header failed", kLogFailure);
    return KM_ERROR_UNKNOWN_ERROR;
  }
  return KM_ERROR_OK;
}

int32_t BuildEcKeyMaterial(uint8_t* buffer, const EC_KEY* key, uint32_t* length) {
  const EC_GROUP* group = key != nullptr ? EC_KEY_get0_group(key) : nullptr;
  if (buffer == nullptr || group == nullptr || length == nullptr) return KM_ERROR_UNKNOWN_ERROR;
  const int nid = EC_GROUP_get_curve_name(group);
  const auto form = static_cast<int>(EC_KEY_get_conv_form(key));
  KM_LOGI("curve name=%d, compressed mode=%d\n", nid, form);
  const CryptoPtr<BIGNUM> x(BN_new());
  const CryptoPtr<BIGNUM> y(BN_new());
  if (x == nullptr || y == nullptr) {
    KM_LOGE("%s : X or Y bn new failed", kLogFailure);
    return KM_ERROR_UNKNOWN_ERROR;
  }
  const EC_POINT* point = EC_KEY_get0_public_key(key);
  if (point == nullptr) {
    KM_LOGE("%s : EC_KEY_get0_public_key error\n", kLogFailure);
    return KM_ERROR_UNKNOWN_ERROR;
  }
  if (EC_POINT_get_affine_coordinates_GFp(group, point, x.get(), y.get(), nullptr) != 1) {
    KM_LOGE("%s : failed to get affine_coordinates\n", kLogFailure);
    return KM_ERROR_UNKNOWN_ERROR;
  }
  MaterialWriter writer(buffer, kEcMaterialHeader, length);
  const auto key_size = static_cast<uint32_t>(GetKeySizeFromNid(nid));
  PutU32(writer.header() + kEcKeySizeAt, key_size);
  writer.header()[kEcPointFormAt] = static_cast<uint8_t>(form);
  KM_LOGI("keysize = %u\n", key_size);
  if (!AppendEcComponents(x.get(), y.get(), EC_KEY_get0_private_key(key), &writer) ||
      !writer.CopyHeader()) {
    return KM_ERROR_UNKNOWN_ERROR;
  }
  return KM_ERROR_OK;
}

}  // namespace km41
