// Key generation: the two routes, the checks of the software one, and what becomes of replies.
#include <openssl/rsa.h>

#include "tests/context/request.h"

namespace test {
namespace {

using Generate = RequestTest;

constexpr int64_t kAlgorithm = KM_TAG_ALGORITHM, kSize = KM_TAG_KEY_SIZE,
                  kExponent = KM_TAG_RSA_PUBLIC_EXPONENT;

TEST_F(Generate, AlgorithmChoosesTheRoute) {
  struct Row {
    std::vector<Param> params;
    uint32_t command;
  };
  const Row kRows[] = {{{{kAlgorithm, KM_ALGORITHM_EC}}, 2},
                       {{{kAlgorithm, KM_ALGORITHM_AES}, {kSize, 7}, {kExponent, 1ull << 40}}, 2},
                       {{{kSize, 512}, {kExponent, 3}}, 2},
                       {{{kAlgorithm, 3}, {kSize, 512}, {kAlgorithm, 1}, {kExponent, 3}}, 4},
                       {{}, 2}};
  for (const Row& row : kRows) {
    Answer(row.command, Reply::Ok().Out(2, {1, 2, 3}));
    ParamSet set({});
    for (const Param& param : row.params) set.Add(param);
    OutKey key;
    EXPECT_EQ(0, km.TivasKmGenerateKey(set.get(), &key, nullptr));
    EXPECT_EQ("010203", key.Take());
    EXPECT_EQ(std::vector<uint32_t>{row.command}, Commands());
    EXPECT_EQ(row.command == 2 ? "I KmGenerateKey start; I KmGenerateKey success"
                               : "I KmGenerateKey start; I TivasKmGenerateKeyExt success",
              RequestLog());
  }
  // The whole set, sorted into its two lists, and room for two replies of 4096 bytes.
  Answer(2, Reply::Ok().Out(2, {1}).Out(3, Characteristics()));
  ParamSet set({{KM_TAG_NO_AUTH_REQUIRED, 1}, {kAlgorithm, 32}, {KM_TAG_APPLICATION_ID, {9, 8}}});
  OutKey key;
  OutCharacteristics characteristics;
  EXPECT_EQ(0, km.TivasKmGenerateKey(set.get(), &key, &characteristics));
  EXPECT_EQ(kCharacteristics, characteristics.Take());
  const Invocation& sent = Sent();
  EXPECT_EQ(0x6605u, sent.param_types);
  EXPECT_EQ(
      Cat({WireList({Entry(kAlgorithm, 32)}),
           WireList({Entry(KM_TAG_NO_AUTH_REQUIRED, 1), BytesEntry(KM_TAG_APPLICATION_ID, 0, 2)}),
           {9, 8}}),
      sent.params[0].in);
  EXPECT_EQ(4096u, sent.params[2].size);
  EXPECT_EQ(4096u, sent.params[3].size);
}

TEST_F(Generate, RefusesBadArguments) {
  const keymaster_key_param_set_t hollow = {nullptr, 1}, empty = {nullptr, 0};
  OutKey key;
  EXPECT_EQ(-32, km.TivasKmGenerateKey(nullptr, &key, nullptr));
  EXPECT_EQ(-27, km.TivasKmGenerateKey(&empty, nullptr, nullptr));
  EXPECT_EQ(-32, km.TivasKmGenerateKey(&hollow, &key, nullptr));
  EXPECT_EQ("kept", key.Take());
  EXPECT_EQ("I KmGenerateKey start; I KmGenerateKey start; I KmGenerateKey start", RequestLog());
  platform().Queue(2, Reply::Ok().Out(2, {1}));
  EXPECT_EQ(0, km.TivasKmGenerateKey(&empty, &key, nullptr));
  EXPECT_EQ(Bytes(8), Sent().params[0].in);
}

TEST_F(Generate, ChecksRsaParametersInOrder) {
  const std::string kSizeLine = "E! Invalid key size of ",
                    kSizeEnd = " bits specified for RSA key generation",
                    kNoExponent = "E! generate rsa key need public exponent value",
                    kBig = "E! public exponent is greater than UINT32_MAX, not supported",
                    kRefused = "E! openssl generatekey failed";
  struct Row {
    std::vector<Param> params;
    int32_t result;
    std::string line;
  };
  const Row kRows[] = {
      {{}, -38, kNoExponent},
      {{{kSize, 8}}, -38, kNoExponent},
      {{{kExponent, 0x100000000}, {kSize, 8}}, -38, kBig},
      {{{kExponent, 1ull << 63}, {kExponent, 3}}, -38, kBig},
      {{{kExponent, 3}, {kExponent, 1ull << 63}}, -6, kSizeLine + "0" + kSizeEnd},
      {{{kExponent, 3}, {kSize, 8}, {kSize, 512}}, -6, kSizeLine + "8" + kSizeEnd},
      {{{kExponent, 3}, {kSize, 15}}, -6, kSizeLine + "15" + kSizeEnd},
      {{{kExponent, 3}, {kSize, 2050}}, -6, kSizeLine + "2050" + kSizeEnd},
      {{{kExponent, 3}, {kSize, 4104}}, -6, kSizeLine + "4104" + kSizeEnd},
      {{{kExponent, 3}, {kSize, 0xFFFFFFF8}}, -6, kSizeLine + "4294967288" + kSizeEnd},
      {{{kExponent, 3}, {kSize, 16}}, -1000, kRefused},
      {{{kExponent, 1}, {kSize, 4096}}, -1000, kRefused},
      {{{kExponent, 0}, {kSize, 512}}, -1000, kRefused}};
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.line);
    platform().ClearRecords();
    ParamSet set({{kAlgorithm, 1}});
    for (const Param& param : row.params) set.Add(param);
    OutKey key;
    EXPECT_EQ(row.result, km.TivasKmGenerateKey(set.get(), &key, nullptr));
    EXPECT_EQ("kept", key.Take());
    EXPECT_EQ("I KmGenerateKey start; " + row.line, RequestLog());
    EXPECT_EQ("", Journal());
  }
}

// Takes key material in CRT form apart and lets libcrypto judge the key.
void CheckCrtMaterial(const Bytes& material, uint32_t bits, uint64_t exponent) {
  ASSERT_EQ(2u, U32(material, 0));
  EXPECT_EQ(U32(material, 8), U32(material, 4));
  size_t offset = 36;
  BIGNUM* n[7];
  for (size_t i = 0; i < 7; ++i) {
    const uint32_t length = U32(material, 8 + 4 * i);
    ASSERT_LE(offset + length, material.size());
    ASSERT_NE(0, material[offset]) << "leading zero";
    n[i] = BN_bin2bn(&material[offset], static_cast<int>(length), nullptr);
    offset += length;
  }
  EXPECT_EQ(offset, material.size());
  EXPECT_EQ(static_cast<int>(bits), BN_num_bits(n[0]));
  EXPECT_TRUE(BN_is_word(n[1], exponent));
  // The private exponent follows from e and the primes.
  BN_CTX* ctx = BN_CTX_new();
  Number p1(BN_dup(n[2])), q1(BN_dup(n[3])), phi(BN_new());
  BN_sub_word(p1.get(), 1);
  BN_sub_word(q1.get(), 1);
  BN_mul(phi.get(), p1.get(), q1.get(), ctx);
  BIGNUM* d = BN_mod_inverse(nullptr, n[1], phi.get(), ctx);
  BN_CTX_free(ctx);
  RSA* key = RSA_new();
  RSA_set0_key(key, n[0], n[1], d);
  RSA_set0_factors(key, n[2], n[3]);
  RSA_set0_crt_params(key, n[4], n[5], n[6]);
  EXPECT_EQ(1, RSA_check_key(key));
  RSA_free(key);
}

TEST_F(Generate, MakesRsaKeysAndImportsThem) {
  const std::pair<uint32_t, uint64_t> kRows[] = {{2048, 65537}, {1024, 0xFFFFFFFF}, {520, 3}};
  for (const auto& [bits, exponent] : kRows) {
    SCOPED_TRACE(bits);
    Answer(4, Reply::Ok().Out(2, {5, 6}).Out(3, Characteristics()));
    ParamSet set({{kAlgorithm, 1}, {kSize, bits}, {kExponent, exponent}, {KM_TAG_ORIGIN, 1}});
    OutKey key;
    OutCharacteristics characteristics;
    EXPECT_EQ(0, km.TivasKmGenerateKey(set.get(), &key, &characteristics));
    EXPECT_EQ("0506", key.Take());
    EXPECT_EQ(kCharacteristics, characteristics.Take());
    const Invocation& sent = Sent();
    EXPECT_EQ(Cat({WireList({Entry(kAlgorithm, 1), Entry(kSize, bits), Entry(kExponent, exponent)}),
                   WireList({Entry(KM_TAG_ORIGIN, 1)})}),
              sent.params[0].in);
    EXPECT_EQ(0, sent.params[3].in.at(0)) << "import source";
    CheckCrtMaterial(sent.params[1].in, bits, exponent);
  }
}

TEST_F(Generate, HandlesReplies) {
  const Bytes full = Ramp(0, 4096), three(3), four(4), good = Characteristics();
  const auto ok = [](const Bytes& key, const Bytes& reply) {
    return Reply::Ok().Out(2, key).Out(3, reply);
  };
  const std::string kSmall = "E key_character_len too small, len=3", kKept = "kept | kept";
  struct Row {
    bool rsa;
    Reply reply;
    int32_t result;
    std::string key, characteristics, log;
  };
  const Row kRows[] = {
      {false, ok(full, good), 0, Hex(full), kCharacteristics, "I KmGenerateKey success"},
      {true, ok(full, good), 0, Hex(full), kCharacteristics, "I TivasKmGenerateKeyExt success"},
      {true, Reply::Ok(), -1000, "kept", kKept, "E! invalid keyBlobLen:0\n"},
      {true, Reply::Ok().Size(2, 4097), -1000, "kept", kKept, "E! invalid keyBlobLen:4097\n"},
      {true, Reply::Fail(7), 7, "kept", kKept, "E! TeeImportKey failed, ret=0x7"},
      {false, Reply::Fail(5).Out(2, full).Out(3, good), 5, "kept", kKept,
       "E! TeeGenerateKey failed, ret=0x5"},
      {true, ok(full, three), -41, "empty", kKept, kSmall + "; E build key character failed"},
      {false, ok(full, three), -41, "empty", kKept, kSmall},
      {false, ok(full, four), -41, "empty", "empty | empty",
       "E 2 invalid key character size, 4-4"}};
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.log);
    Answer(row.rsa ? 4 : 2, row.reply);
    ParamSet set({{kAlgorithm, row.rsa ? 1u : 3u}, {kSize, 512}, {kExponent, 65537}});
    OutKey key;
    OutCharacteristics characteristics;
    EXPECT_EQ(row.result, km.TivasKmGenerateKey(set.get(), &key, &characteristics));
    EXPECT_EQ(row.key, key.Take());
    EXPECT_EQ(row.characteristics, characteristics.Take());
    EXPECT_EQ("I KmGenerateKey start; " + row.log, RequestLog());
  }
}

}  // namespace
}  // namespace test
