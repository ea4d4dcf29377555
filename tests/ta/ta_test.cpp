// The TA's cryptography, against published vectors and against libcrypto.
#include <openssl/evp.h>
#include <openssl/rsa.h>

#include <memory>

#include "tests/ta/ta_client.h"

namespace {

Ps CipherKey(uint32_t algorithm, uint32_t mode, uint32_t padding) {
  return Key(algorithm, kEncrypt, {{KM_TAG_BLOCK_MODE, mode}, {KM_TAG_PADDING, padding}}) +
         P(KM_TAG_PURPOSE, kDecrypt) + P(KM_TAG_MIN_MAC_LENGTH, 128) + P(KM_TAG_CALLER_NONCE, 1);
}

TEST_F(TaTest, CiphersTakeTextsOfAnySizeInPiecesOfAnySize) {
  constexpr uint32_t kAes = KM_ALGORITHM_AES, kDes = KM_ALGORITHM_TRIPLE_DES;
  const struct {
    uint32_t algorithm, mode, padding;
  } rows[] = {{kAes, KM_MODE_ECB, KM_PAD_NONE}, {kAes, KM_MODE_ECB, KM_PAD_PKCS7},
              {kAes, KM_MODE_CBC, KM_PAD_NONE}, {kAes, KM_MODE_CBC, KM_PAD_PKCS7},
              {kDes, KM_MODE_ECB, KM_PAD_NONE}, {kDes, KM_MODE_ECB, KM_PAD_PKCS7},
              {kDes, KM_MODE_CBC, KM_PAD_NONE}, {kDes, KM_MODE_CBC, KM_PAD_PKCS7},
              {kAes, KM_MODE_CTR, KM_PAD_NONE}};
  const Str text = "the quick brown fox jumps over it";
  const uint32_t refused = Km(KM_ERROR_INVALID_INPUT_LENGTH);
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    const size_t block = row.algorithm == kAes ? 16 : 8;
    const bool streams = row.mode == KM_MODE_CTR, pads = row.padding == KM_PAD_PKCS7;
    ASSERT_EQ(ta.Import(CipherKey(row.algorithm, row.mode, row.padding), Str(24, 'k')), 0u);
    Ps params = {{KM_TAG_BLOCK_MODE, row.mode}, {KM_TAG_PADDING, row.padding}};
    if (row.mode != KM_MODE_ECB) params.push_back({KM_TAG_NONCE, Str(block, 'n')});
    for (size_t size = 0; size <= text.size(); ++size) {
      const Str plain = text.substr(0, size);
      Str cipher;
      for (const size_t piece : {size_t{33}, size_t{15}, size_t{1}}) {
        const bool fits = streams || pads || size % block == 0;
        ASSERT_EQ(ta.Operate(kEncrypt, params, plain, piece), fits ? 0u : refused);
        if (!fits) continue;
        if (piece == 33) cipher = ta.output;
        ASSERT_EQ(ta.output, cipher);
        ASSERT_EQ(cipher.size(), pads ? (size / block + 1) * block : size);
        ASSERT_EQ(ta.Operate(kDecrypt, params, cipher, piece), 0u);
        ASSERT_EQ(ta.output, plain);
        if (!streams) {
          EXPECT_EQ(ta.Operate(kDecrypt, params, cipher + "x", piece), refused);
        }
      }
    }
  }
}

TEST_F(TaTest, GcmGivesThePublishedValue) {
  // The GCM specification's case 4.
  const Str plain =
      Hex("d9313225f88406e5a55909c5aff5269a86a7a9531534f7da2e4c303d8a318a721c3c0c95956809532fcf0e24"
          "49a6b525b16aedf5aa0de657ba637b39");
  const Str cipher = Hex(
      "42831ec2217774244b7221b784d0d49ce3aa212f2c02a4e035c17e2329aca12e21d514b25466931c7d8f6a5aac84"
      "aa051ba30b396a0aac973d58e0915bc94fbc3221a5db94fae95ae7121a47");
  const Ps aad = {{KM_TAG_ASSOCIATED_DATA, Hex("feedfacedeadbeeffeedfacedeadbeefabaddad2")}};
  const Ps params = {{KM_TAG_BLOCK_MODE, KM_MODE_GCM},
                     {KM_TAG_PADDING, KM_PAD_NONE},
                     {KM_TAG_NONCE, Hex("cafebabefacedbaddecaf888")},
                     {KM_TAG_MAC_LENGTH, 128}};
  ASSERT_EQ(ta.Import(CipherKey(KM_ALGORITHM_AES, KM_MODE_GCM, KM_PAD_NONE),
                      Hex("feffe9928665731c6d6a8f9467308308")),
            0u);
  for (const size_t piece : {1, 3, 7, 15, 16, 17, 33, 1000}) {
    ASSERT_EQ(ta.Operate(kEncrypt, params, plain, piece, {}, aad), 0u);
    EXPECT_EQ(ta.output, cipher) << piece;
    ASSERT_EQ(ta.Operate(kDecrypt, params, cipher, piece, {}, aad), 0u);
    EXPECT_EQ(ta.output, plain) << piece;
  }
  for (size_t i = 0; i < cipher.size(); ++i) {
    EXPECT_EQ(ta.Operate(kDecrypt, params, Flipped(cipher, i), 16, {}, aad),
              Km(KM_ERROR_VERIFICATION_FAILED));
  }
  EXPECT_EQ(ta.Operate(kDecrypt, params, cipher.substr(0, 15), 16, {}, aad),
            Km(KM_ERROR_INVALID_INPUT_LENGTH));
}

TEST_F(TaTest, HmacOfEveryLengthIsThePublishedOne) {
  // RFC 4231, test case 1.
  const Str mac = Hex("b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7");
  const Ps key = Key(KM_ALGORITHM_HMAC, kSign, {kSha256, {KM_TAG_MIN_MAC_LENGTH, 64}});
  ASSERT_EQ(ta.Import(key + P(KM_TAG_PURPOSE, kVerify), Str(20, '\x0b')), 0u);
  for (size_t bytes = 8; bytes <= mac.size(); ++bytes) {
    const Str cut = mac.substr(0, bytes);
    const Ps params = {kSha256, {KM_TAG_MAC_LENGTH, bytes * 8}};
    ASSERT_EQ(ta.Operate(kSign, params, "Hi There", 3), 0u);
    EXPECT_EQ(ta.output, cut);
    EXPECT_EQ(ta.Operate(kVerify, {}, "Hi There", 5, cut), 0u);
    EXPECT_EQ(ta.Operate(kVerify, {}, "Hi there", 5, cut), Km(KM_ERROR_VERIFICATION_FAILED));
  }
  EXPECT_EQ(ta.Operate(kVerify, {}, "Hi There", 5, mac.substr(0, 7)),
            Km(KM_ERROR_INVALID_MAC_LENGTH));
}

// RSA key material of a libcrypto key: form 1 with d, form 2 with the primes.
Str RsaMaterial(const RSA* rsa, uint32_t form) {
  const BIGNUM *n, *e, *d, *p, *q, *dp, *dq, *qi;
  RSA_get0_key(rsa, &n, &e, &d);
  RSA_get0_factors(rsa, &p, &q);
  RSA_get0_crt_params(rsa, &dp, &dq, &qi);
  std::vector<const BIGNUM*> parts = {n, e, d};
  if (form == 2) parts = {n, e, p, q, dp, dq, qi};
  Str header = Le(form, 4) + Le(static_cast<uint64_t>(BN_num_bytes(n)), 4), body;
  for (const BIGNUM* part : parts) {
    Str bytes(static_cast<size_t>(BN_num_bytes(part)), 0);
    BN_bn2bin(part, reinterpret_cast<uint8_t*>(bytes.data()));
    header += Le(bytes.size(), 4);
    body += bytes;
  }
  header.resize(36);
  return header + body;
}

TEST_F(TaTest, RsaTakesBothFormsOfMaterialAndNothingAltered) {
  const std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)> pkey(EVP_RSA_gen(1024), EVP_PKEY_free);
  const P no_digest = {KM_TAG_DIGEST, KM_DIGEST_NONE};
  const Ps description = Key(KM_ALGORITHM_RSA, kSign, kOaep + kNoPadding + no_digest + kPkcs1) +
                         P(KM_TAG_PURPOSE, kVerify) + P(KM_TAG_PURPOSE, kEncrypt) +
                         P(KM_TAG_PURPOSE, kDecrypt);
  const Str data(60, 'd');
  const std::pair<P, Str> schemes[] = {{kNoPadding, Str(68, 0) + data},
                                       {kPkcs1, Hex("0001") + Str(65, '\xff') + Str(1, 0) + data}};
  for (const uint32_t form : {1u, 2u}) {
    const Str material = RsaMaterial(EVP_PKEY_get0_RSA(pkey.get()), form);
    ASSERT_EQ(ta.Import(description, material), 0u);
    for (const auto& [padding, block] : schemes) {
      ASSERT_EQ(ta.Operate(kSign, {no_digest, padding}, data, 9), 0u);
      const Str signature = ta.output;
      EXPECT_EQ(ta.Operate(kVerify, {no_digest, padding}, data, 60, signature), 0u);
      EXPECT_EQ(ta.Operate(kVerify, {no_digest, padding}, data + "x", 61, signature),
                Km(KM_ERROR_VERIFICATION_FAILED));
      ASSERT_EQ(ta.Operate(kEncrypt, {kNoPadding}, signature, 100), 0u);
      EXPECT_EQ(ta.output, block) << form;
    }
    ASSERT_EQ(ta.Operate(kEncrypt, kOaep, "transit key", 4), 0u);
    const Str cipher = ta.output;
    ASSERT_EQ(ta.Operate(kDecrypt, kOaep, cipher, 77), 0u);
    EXPECT_EQ(ta.output, "transit key");
    EXPECT_EQ(ta.Operate(kDecrypt, kOaep, Flipped(cipher, 60), 77), Km(KM_ERROR_UNKNOWN_ERROR));
    // Every number of the material counts: none can be altered, and nothing may be missing.
    for (size_t at = 0; at < material.size(); at += at < 36 ? 1 : 61) {
      const bool unread = form == 1 && at >= 20 && at < 36;
      EXPECT_EQ(ta.Import(description, Flipped(material, at)) == 0, unread) << form << " " << at;
      EXPECT_NE(ta.Import(description, material.substr(0, at)), 0u);
    }
  }
}

TEST_F(TaTest, EcSignsTheLeftmostBitsOfBareData) {
  const Ps bare = {{KM_TAG_DIGEST, KM_DIGEST_NONE}};
  const Ps key = Key(KM_ALGORITHM_EC, kSign, bare + P(KM_TAG_KEY_SIZE, 256));
  ASSERT_EQ(ta.Generate(key + P(KM_TAG_PURPOSE, kVerify)), 0u);
  const Str data(100, 'd');
  ASSERT_EQ(ta.Operate(kSign, bare, data, 9), 0u);
  const Str signature = ta.output;
  EXPECT_EQ(ta.Operate(kVerify, bare, data.substr(0, 32), 50, signature), 0u);
  EXPECT_EQ(ta.Operate(kVerify, bare, Flipped(data, 32), 50, signature), 0u);
  EXPECT_EQ(ta.Operate(kVerify, bare, Flipped(data, 31), 50, signature),
            Km(KM_ERROR_VERIFICATION_FAILED));
}

}  // namespace
