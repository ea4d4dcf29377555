// The TA's cryptography, against published vectors and against libcrypto.
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>

#include <memory>

#include "ta_client.h"

namespace {

using Pkey = std::shared_ptr<EVP_PKEY>;

constexpr size_t kPieces[] = {1, 3, 7, 15, 16, 17, 33, 1000};

const Str kBlocks = Hex("6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51");
const Str kGcmAssociated = Hex("feedfacedeadbeeffeedfacedeadbeefabaddad2");

struct CipherVector {
  const char* name;
  uint32_t algorithm;
  uint32_t mode;
  const char* key;
  const char* nonce;
  Str plain;
  const char* cipher;
};

// SP 800-38A; the GCM specification's case 4; SP 800-67, whose CBC row is its first ECB block with
// the vector added to the plaintext.
const CipherVector kCipherVectors[] = {
    {"AES-128-ECB", KM_ALGORITHM_AES, KM_MODE_ECB, "2b7e151628aed2a6abf7158809cf4f3c", "", kBlocks,
     "3ad77bb40d7a3660a89ecaf32466ef97f5d3d58503b9699de785895a96fdbaaf"},
    {"AES-192-ECB", KM_ALGORITHM_AES, KM_MODE_ECB,
     "8e73b0f7da0e6452c810f32b809079e562f8ead2522c6b7b", "", kBlocks,
     "bd334f1d6e45f25ff712a214571fa5cc974104846d0ad3ad7734ecb3ecee4eef"},
    {"AES-128-CBC", KM_ALGORITHM_AES, KM_MODE_CBC, "2b7e151628aed2a6abf7158809cf4f3c",
     "000102030405060708090a0b0c0d0e0f", kBlocks,
     "7649abac8119b246cee98e9b12e9197d5086cb9b507219ee95db113a917678b2"},
    {"AES-256-CBC", KM_ALGORITHM_AES, KM_MODE_CBC,
     "603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4",
     "000102030405060708090a0b0c0d0e0f", kBlocks,
     "f58c4c04d6e5f1ba779eabfb5f7bfbd69cfc4e967edb808d679f777bc6702c7d"},
    {"AES-128-CTR", KM_ALGORITHM_AES, KM_MODE_CTR, "2b7e151628aed2a6abf7158809cf4f3c",
     "f0f1f2f3f4f5f6f7f8f9fafbfcfdfeff", kBlocks.substr(0, 29),
     "874d6191b620e3261bef6864990db6ce9806f66b7970fdff8617187bb9"},
    {"AES-128-GCM", KM_ALGORITHM_AES, KM_MODE_GCM, "feffe9928665731c6d6a8f9467308308",
     "cafebabefacedbaddecaf888",
     Hex("d9313225f88406e5a55909c5aff5269a86a7a9531534f7da2e4c303d8a318a721c3c0c95956809532fcf0e24"
         "49a6b525b16aedf5aa0de657ba637b39"),
     "42831ec2217774244b7221b784d0d49ce3aa212f2c02a4e035c17e2329aca12e21d514b25466931c7d8f6a5aac84"
     "aa051ba30b396a0aac973d58e0915bc94fbc3221a5db94fae95ae7121a47"},
    {"3DES-ECB", KM_ALGORITHM_TRIPLE_DES, KM_MODE_ECB,
     "0123456789abcdef23456789abcdef01456789abcdef0123", "", "The qufck brown fox jump",
     "a826fd8ce53b855fcce21c8112256fe668d5c05dd9b6b900"},
    {"3DES-CBC", KM_ALGORITHM_TRIPLE_DES, KM_MODE_CBC,
     "0123456789abcdef23456789abcdef01456789abcdef0123", "0102030405060708",
     Hex("556a66247473616b"), "a826fd8ce53b855f"},
};

Ps CipherKey(uint32_t algorithm, uint32_t mode, uint32_t padding) {
  return {{KM_TAG_ALGORITHM, algorithm},
          {KM_TAG_BLOCK_MODE, mode},
          {KM_TAG_PADDING, padding},
          {KM_TAG_MIN_MAC_LENGTH, 128},
          {KM_TAG_CALLER_NONCE, 1},
          {KM_TAG_NO_AUTH_REQUIRED, 1},
          {KM_TAG_PURPOSE, KM_PURPOSE_ENCRYPT},
          {KM_TAG_PURPOSE, KM_PURPOSE_DECRYPT}};
}

TEST_F(TaTest, CiphersGiveThePublishedValuesInPiecesOfAnySize) {
  for (const CipherVector& v : kCipherVectors) {
    SCOPED_TRACE(v.name);
    ASSERT_EQ(ta.Import(CipherKey(v.algorithm, v.mode, KM_PAD_NONE), Hex(v.key)), 0u);
    const Str cipher = Hex(v.cipher);
    Ps params = {{KM_TAG_BLOCK_MODE, v.mode}, {KM_TAG_PADDING, KM_PAD_NONE}};
    if (v.mode != KM_MODE_ECB) params.push_back({KM_TAG_NONCE, Hex(v.nonce)});
    Ps associated;
    if (v.mode == KM_MODE_GCM) {
      params.push_back({KM_TAG_MAC_LENGTH, 128});
      associated.push_back({KM_TAG_ASSOCIATED_DATA, kGcmAssociated});
    }
    for (const size_t piece : kPieces) {
      ASSERT_EQ(ta.Operate(KM_PURPOSE_ENCRYPT, params, v.plain, piece, {}, associated), 0u);
      EXPECT_EQ(ta.output, cipher) << piece;
      ASSERT_EQ(ta.Operate(KM_PURPOSE_DECRYPT, params, cipher, piece, {}, associated), 0u);
      EXPECT_EQ(ta.output, v.plain) << piece;
    }
    if (v.mode == KM_MODE_GCM) {
      for (size_t i = 0; i < cipher.size(); ++i) {
        Str bad = cipher;
        bad[i] = static_cast<char>(bad[i] ^ 1);
        EXPECT_EQ(ta.Operate(KM_PURPOSE_DECRYPT, params, bad, 16, {}, associated),
                  Km(KM_ERROR_VERIFICATION_FAILED));
      }
      EXPECT_EQ(ta.Operate(KM_PURPOSE_DECRYPT, params, cipher.substr(0, 15), 16, {}, associated),
                Km(KM_ERROR_INVALID_INPUT_LENGTH));
    } else if (v.mode != KM_MODE_CTR) {
      EXPECT_EQ(ta.Operate(KM_PURPOSE_DECRYPT, params, cipher.substr(1), 16),
                Km(KM_ERROR_INVALID_INPUT_LENGTH));
    }
  }
}

TEST_F(TaTest, PaddedCiphersReturnWhatTheyWereGiven) {
  for (const uint32_t algorithm : {KM_ALGORITHM_AES, KM_ALGORITHM_TRIPLE_DES}) {
    const size_t block = algorithm == KM_ALGORITHM_AES ? 16 : 8;
    for (const uint32_t mode : {KM_MODE_ECB, KM_MODE_CBC}) {
      ASSERT_EQ(ta.Import(CipherKey(algorithm, mode, KM_PAD_PKCS7), Str(24, 'k')), 0u);
      Ps params = {{KM_TAG_BLOCK_MODE, mode}, {KM_TAG_PADDING, KM_PAD_PKCS7}};
      if (mode == KM_MODE_CBC) params.push_back({KM_TAG_NONCE, Str(block, 'n')});
      for (size_t size = 0; size <= 33; ++size) {
        const Str plain(size, 'p');
        for (const size_t piece : {size_t{1}, size_t{15}, size_t{33}}) {
          ASSERT_EQ(ta.Operate(KM_PURPOSE_ENCRYPT, params, plain, piece), 0u);
          const Str cipher = ta.output;
          ASSERT_EQ(cipher.size(), (size / block + 1) * block);
          ASSERT_EQ(ta.Operate(KM_PURPOSE_DECRYPT, params, cipher, piece), 0u);
          ASSERT_EQ(ta.output, plain);
          EXPECT_EQ(ta.Operate(KM_PURPOSE_DECRYPT, params, cipher + "x", piece),
                    Km(KM_ERROR_INVALID_INPUT_LENGTH));
        }
      }
    }
  }
}

TEST_F(TaTest, HmacGivesThePublishedValues) {
  // RFC 2202 and RFC 4231, test case 1.
  const struct {
    uint32_t digest;
    const char* mac;
  } rows[] = {
      {KM_DIGEST_SHA1, "b617318655057264e28bc0b6fb378c8ef146be00"},
      {KM_DIGEST_SHA_2_224, "896fb1128abbdf196832107cd49df33f47b4b1169912ba4f53684b22"},
      {KM_DIGEST_SHA_2_256, "b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7"},
      {KM_DIGEST_SHA_2_384,
       "afd03944d84895626b0825f4ab46907f15f9dadbe4101ec682aa034c7cebc59cfaea9ea9076ede7f4af152e8b2"
       "fa9cb6"},
      {KM_DIGEST_SHA_2_512,
       "87aa7cdea5ef619d4ff0b4241a1d6cb02379f4e2ce4ec2787ad0b30545e17cdedaa833b7d6b8a702038b274eae"
       "a3f4e4be9d914eeb61f1702e696c203a126854"},
  };
  for (const auto& row : rows) {
    const Str mac = Hex(row.mac);
    const Ps key = {{KM_TAG_ALGORITHM, KM_ALGORITHM_HMAC}, {KM_TAG_DIGEST, row.digest},
                    {KM_TAG_MIN_MAC_LENGTH, 64},           {KM_TAG_PURPOSE, KM_PURPOSE_SIGN},
                    {KM_TAG_PURPOSE, KM_PURPOSE_VERIFY},   {KM_TAG_NO_AUTH_REQUIRED, 1}};
    ASSERT_EQ(ta.Import(key, Str(20, '\x0b')), 0u);
    for (size_t bytes = 8; bytes <= mac.size(); ++bytes) {
      const Ps params = {{KM_TAG_DIGEST, row.digest}, {KM_TAG_MAC_LENGTH, bytes * 8}};
      ASSERT_EQ(ta.Operate(KM_PURPOSE_SIGN, params, "Hi There", 3), 0u);
      EXPECT_EQ(ta.output, mac.substr(0, bytes));
      EXPECT_EQ(ta.Operate(KM_PURPOSE_VERIFY, {}, "Hi There", 5, mac.substr(0, bytes)), 0u);
    }
    EXPECT_EQ(ta.Operate(KM_PURPOSE_VERIFY, {}, "Hi There", 5, mac.substr(0, 7)),
              Km(KM_ERROR_INVALID_MAC_LENGTH));
    EXPECT_EQ(ta.Operate(KM_PURPOSE_VERIFY, {}, "Hi there", 5, mac),
              Km(KM_ERROR_VERIFICATION_FAILED));
  }
}

const EVP_MD* Md(uint32_t digest) {
  const EVP_MD* const mds[] = {nullptr,      EVP_md5(),    EVP_sha1(),  EVP_sha224(),
                               EVP_sha256(), EVP_sha384(), EVP_sha512()};
  return mds[digest];
}

// Whether libcrypto accepts a signature; padding is libcrypto's, 0 for EC.
bool Verifies(const Pkey& key, uint32_t digest, int padding, const Str& data,
              const Str& signature) {
  const auto bytes = [](const Str& s) { return reinterpret_cast<const uint8_t*>(s.data()); };
  Str hash = data;
  if (digest != KM_DIGEST_NONE) {
    hash.resize(EVP_MAX_MD_SIZE);
    unsigned int size = 0;
    EVP_Digest(data.data(), data.size(), reinterpret_cast<uint8_t*>(hash.data()), &size, Md(digest),
               nullptr);
    hash.resize(size);
  }
  const std::unique_ptr<EVP_PKEY_CTX, void (*)(EVP_PKEY_CTX*)> ctx(
      EVP_PKEY_CTX_new(key.get(), nullptr), EVP_PKEY_CTX_free);
  EXPECT_EQ(EVP_PKEY_verify_init(ctx.get()), 1);
  if (padding != 0) {
    EXPECT_EQ(EVP_PKEY_CTX_set_rsa_padding(ctx.get(), padding), 1);
  }
  if (digest != KM_DIGEST_NONE) {
    EXPECT_EQ(EVP_PKEY_CTX_set_signature_md(ctx.get(), Md(digest)), 1);
  }
  return EVP_PKEY_verify(ctx.get(), bytes(signature), signature.size(), bytes(hash), hash.size()) ==
         1;
}

Ps AllDigests() {
  Ps digests;
  for (uint64_t d = KM_DIGEST_NONE; d <= KM_DIGEST_SHA_2_512; ++d)
    digests.push_back({KM_TAG_DIGEST, d});
  return digests;
}

const Ps kSignKey = AllDigests() + Ps{{KM_TAG_NO_AUTH_REQUIRED, 1},
                                      {KM_TAG_PURPOSE, KM_PURPOSE_SIGN},
                                      {KM_TAG_PURPOSE, KM_PURPOSE_VERIFY}};

// The public key of an export's reply.
Pkey EcPublic(const Str& reply, int nid) {
  const auto number = [&](size_t at, size_t size) {
    return BN_bin2bn(reinterpret_cast<const uint8_t*>(reply.data()) + at, static_cast<int>(size),
                     nullptr);
  };
  const size_t x_size = UnLe(reply, 8, 4);
  const size_t y_size = UnLe(reply, 12, 4);
  EXPECT_EQ(reply.size(), 16 + x_size + y_size);
  BIGNUM* x = number(16, x_size);
  BIGNUM* y = number(16 + x_size, y_size);
  EC_KEY* ec = EC_KEY_new_by_curve_name(nid);
  EXPECT_EQ(EC_KEY_set_public_key_affine_coordinates(ec, x, y), 1);
  EVP_PKEY* pkey = EVP_PKEY_new();
  EVP_PKEY_assign_EC_KEY(pkey, ec);
  BN_free(x);
  BN_free(y);
  return Pkey(pkey, EVP_PKEY_free);
}

TEST_F(TaTest, EcSignaturesAreAcceptedByLibcrypto) {
  const struct {
    P description;
    uint64_t size;
    int nid;
  } rows[] = {{{KM_TAG_KEY_SIZE, 224}, 224, NID_secp224r1},
              {{KM_TAG_EC_CURVE, KM_EC_CURVE_P_256}, 256, NID_X9_62_prime256v1},
              {{KM_TAG_KEY_SIZE, 384}, 384, NID_secp384r1},
              {{KM_TAG_EC_CURVE, KM_EC_CURVE_P_521}, 521, NID_secp521r1}};
  for (const auto& row : rows) {
    ASSERT_EQ(ta.Generate(kSignKey + Ps{{KM_TAG_ALGORITHM, KM_ALGORITHM_EC}, row.description}), 0u);
    ASSERT_EQ(ta.Run(kCmdExportKey, In(ta.blob), {}, Out(4096)), 0u);
    EXPECT_EQ(UnLe(ta.slots[2].out, 0, 4), KM_ALGORITHM_EC);
    EXPECT_EQ(UnLe(ta.slots[2].out, 4, 4), row.size);
    const Pkey key = EcPublic(ta.slots[2].out, row.nid);
    for (uint32_t digest = KM_DIGEST_NONE; digest <= KM_DIGEST_SHA_2_512; ++digest) {
      const Ps params = {{KM_TAG_DIGEST, digest}};
      const Str data(100, 'd');
      ASSERT_EQ(ta.Operate(KM_PURPOSE_SIGN, params, data, 9), 0u);
      const Str signature = ta.output;
      EXPECT_TRUE(Verifies(key, digest, 0, data, signature)) << row.size << "/" << digest;
      EXPECT_EQ(ta.Operate(KM_PURPOSE_VERIFY, params, data, 50, signature), 0u);
      EXPECT_EQ(ta.Operate(KM_PURPOSE_VERIFY, params, "e" + data, 50, signature),
                Km(KM_ERROR_VERIFICATION_FAILED));
    }
  }
}

// RSA key material of a libcrypto key: form 1 with d, form 2 with the primes.
Str RsaMaterial(const RSA* rsa, uint32_t form) {
  const BIGNUM *n, *e, *d, *p, *q, *dp, *dq, *qi;
  RSA_get0_key(rsa, &n, &e, &d);
  RSA_get0_factors(rsa, &p, &q);
  RSA_get0_crt_params(rsa, &dp, &dq, &qi);
  const std::vector<const BIGNUM*> parts = form == 1
                                               ? std::vector<const BIGNUM*>{n, e, d}
                                               : std::vector<const BIGNUM*>{n, e, p, q, dp, dq, qi};
  Str header = Le(form, 4) + Le(static_cast<uint64_t>(BN_num_bytes(n)), 4);
  Str body;
  for (const BIGNUM* part : parts) {
    Str bytes(static_cast<size_t>(BN_num_bytes(part)), 0);
    BN_bn2bin(part, reinterpret_cast<uint8_t*>(bytes.data()));
    header += Le(bytes.size(), 4);
    body += bytes;
  }
  header.resize(36);
  return header + body;
}

TEST_F(TaTest, RsaAgreesWithLibcryptoInBothFormsOfMaterial) {
  const Pkey key(EVP_RSA_gen(1024), EVP_PKEY_free);
  const RSA* rsa = EVP_PKEY_get0_RSA(key.get());
  const Ps description = kSignKey + Ps{{KM_TAG_ALGORITHM, KM_ALGORITHM_RSA},
                                       {KM_TAG_PADDING, KM_PAD_NONE},
                                       {KM_TAG_PADDING, KM_PAD_RSA_OAEP},
                                       {KM_TAG_PADDING, KM_PAD_RSA_PSS},
                                       {KM_TAG_PADDING, KM_PAD_RSA_PKCS1_1_5_SIGN},
                                       {KM_TAG_PADDING, KM_PAD_RSA_PKCS1_1_5_ENCRYPT},
                                       {KM_TAG_PURPOSE, KM_PURPOSE_ENCRYPT},
                                       {KM_TAG_PURPOSE, KM_PURPOSE_DECRYPT}};
  const struct {
    uint64_t padding;
    int libcrypto;
    uint32_t first_digest, last_digest;
  } schemes[] = {{KM_PAD_NONE, RSA_NO_PADDING, 0, 0},
                 {KM_PAD_RSA_PKCS1_1_5_SIGN, RSA_PKCS1_PADDING, 0, 6},
                 {KM_PAD_RSA_PSS, RSA_PKCS1_PSS_PADDING, 1, 5}};
  for (const uint32_t form : {1u, 2u}) {
    const Str material = RsaMaterial(rsa, form);
    ASSERT_EQ(ta.Import(description, material), 0u);
    for (const auto& scheme : schemes) {
      for (uint32_t digest = scheme.first_digest; digest <= scheme.last_digest; ++digest) {
        const Ps params = {{KM_TAG_DIGEST, digest}, {KM_TAG_PADDING, scheme.padding}};
        const Str data(60, 'd');
        ASSERT_EQ(ta.Operate(KM_PURPOSE_SIGN, params, data, 9), 0u) << scheme.padding << digest;
        const Str signature = ta.output;
        const Str judged = scheme.padding == KM_PAD_NONE ? Str(68, 0) + data : data;
        EXPECT_TRUE(Verifies(key, digest, scheme.libcrypto, judged, signature));
        EXPECT_EQ(ta.Operate(KM_PURPOSE_VERIFY, params, data, 60, signature), 0u);
        EXPECT_EQ(ta.Operate(KM_PURPOSE_VERIFY, params, data + "x", 61, signature),
                  Km(KM_ERROR_VERIFICATION_FAILED));
      }
    }
    for (const uint64_t digest : {KM_DIGEST_SHA1, KM_DIGEST_SHA_2_256}) {
      const Ps oaep = {{KM_TAG_DIGEST, digest}, {KM_TAG_PADDING, KM_PAD_RSA_OAEP}};
      EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new(key.get(), nullptr);
      Str cipher(128, 0);
      size_t size = cipher.size();
      ASSERT_TRUE(EVP_PKEY_encrypt_init(ctx) == 1 &&
                  EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_OAEP_PADDING) == 1 &&
                  EVP_PKEY_CTX_set_rsa_oaep_md(ctx, Md(static_cast<uint32_t>(digest))) == 1 &&
                  EVP_PKEY_CTX_set_rsa_mgf1_md(ctx, EVP_sha1()) == 1 &&
                  EVP_PKEY_encrypt(ctx, reinterpret_cast<uint8_t*>(cipher.data()), &size,
                                   reinterpret_cast<const uint8_t*>("transit key"), 11) == 1);
      EVP_PKEY_CTX_free(ctx);
      ASSERT_EQ(ta.Operate(KM_PURPOSE_DECRYPT, oaep, cipher, 77), 0u);
      EXPECT_EQ(ta.output, "transit key");
      cipher[60] = static_cast<char>(cipher[60] ^ 1);
      EXPECT_EQ(ta.Operate(KM_PURPOSE_DECRYPT, oaep, cipher, 77), Km(KM_ERROR_UNKNOWN_ERROR));
    }
    for (const uint64_t padding : {KM_PAD_NONE, KM_PAD_RSA_PKCS1_1_5_ENCRYPT}) {
      const Ps params = {{KM_TAG_PADDING, padding}};
      ASSERT_EQ(ta.Operate(KM_PURPOSE_ENCRYPT, params, "secret", 4), 0u);
      ASSERT_EQ(ta.Operate(KM_PURPOSE_DECRYPT, params, ta.output, 100), 0u);
      EXPECT_EQ(ta.output, padding == KM_PAD_NONE ? Str(122, 0) + "secret" : "secret");
    }
    // Every number of the material counts: none can be altered, and nothing may be missing.
    for (size_t at = 0; at < material.size(); at += at < 36 ? 1 : 61) {
      Str bad = material;
      bad[at] = static_cast<char>(bad[at] ^ 1);
      const bool unread = form == 1 && at >= 20 && at < 36;
      EXPECT_EQ(ta.Import(description, bad) == 0, unread) << form << " " << at;
      EXPECT_NE(ta.Import(description, material.substr(0, at)), 0u);
    }
  }
}

}  // namespace
