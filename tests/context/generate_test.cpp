// Key generation: the two routes, and what the software one checks and sends.
#include "tests/context/request_test.h"

namespace test {
namespace {

const Param kRsa(KM_TAG_ALGORITHM, KM_ALGORITHM_RSA), kEc(KM_TAG_ALGORITHM, KM_ALGORITHM_EC);
Param Bits(uint64_t bits) { return {KM_TAG_KEY_SIZE, bits}; }
Param Exponent(uint64_t e) { return {KM_TAG_RSA_PUBLIC_EXPONENT, e}; }

struct Generate : RequestTest {
  void SetUp() override {
    RequestTest::SetUp();
    ReplyTo(kCmdGenerateKey, Reply::Ok().Out(2, {7}).Out(3, Bytes(8)));
    ReplyTo(kCmdImportKey, Reply::Ok().Out(2, {7}).Out(3, Bytes(8)));
  }
  int32_t Run(const Params& params) {
    SetParams(params);
    return Call("TivasKmGenerateKey");
  }
};

TEST_F(Generate, MakesRsaKeysInSoftwareAndAllOthersInTheTa) {
  const std::pair<Params, uint32_t> kRows[] = {
      {{kEc}, kCmdGenerateKey},
      {{{KM_TAG_ALGORITHM, KM_ALGORITHM_AES}, Bits(7), Exponent(1ull << 40)}, kCmdGenerateKey},
      {{Bits(512), Exponent(3)}, kCmdGenerateKey},
      {{}, kCmdGenerateKey},
      {{{KM_TAG_PURPOSE, KM_ALGORITHM_RSA}}, kCmdGenerateKey},
      {{kEc, Bits(512), Exponent(3), kRsa}, kCmdImportKey}};
  for (const auto& [params, command] : kRows) {
    EXPECT_EQ(0, Run(params));
    EXPECT_EQ(CommandIds{command}, Commands());
  }
}

TEST_F(Generate, NeedsNoCharacteristics) {
  args.params = &kEmptySet;
  args.characteristics = nullptr;
  EXPECT_EQ(0, Call("TivasKmGenerateKey"));
  EXPECT_EQ(Bytes{7}, BlobBytes(outputs.key_blob));
}

TEST_F(Generate, JudgesTheFirstExponentBeforeTheFirstSize) {
  constexpr int32_t kArgument = KM_ERROR_INVALID_ARGUMENT, kSize = KM_ERROR_UNSUPPORTED_KEY_SIZE;
  const std::pair<Params, int32_t> kRows[] = {
      {{kRsa, Bits(8)}, kArgument},
      {{kRsa, Exponent(0x100000000), Exponent(3), Bits(8)}, kArgument},
      {{kRsa, Exponent(3), Bits(16)}, KM_ERROR_UNKNOWN_ERROR},  // what libcrypto does not make
      {{kRsa, Exponent(3), Bits(0xFFFFFFF8)}, kSize},
      {{kRsa, Exponent(3), Exponent(1ull << 63), Bits(15), Bits(512)}, kSize}};
  for (const auto& [params, result] : kRows) {
    EXPECT_EQ(result, Run(params)) << params.size();
    EXPECT_EQ(CommandIds(), Commands());
  }
  EXPECT_EQ("E [error] : Invalid key size of 15 bits specified for RSA key generation",
            Logged().back());
}

// That the numbers fit each other shows where the keys are used.
TEST_F(Generate, SendsRsaKeysInCrtForm) {
  EXPECT_EQ(0, Run({kRsa, Bits(1024), Exponent(0xFFFFFFFF), {KM_TAG_ORIGIN, 1}}));
  const Bytes material = Sent().at(1);
  EXPECT_EQ((Parts{TwoLists({kRsa, Bits(1024), Exponent(0xFFFFFFFF)}, {{KM_TAG_ORIGIN, 1}}),
                   material, Bytes(8)}),
            Sent());
  EXPECT_EQ(Cat({Le32(2), Le32(128), Le32(128), Le32(4)}),
            Bytes(material.begin(), material.begin() + 16));
  EXPECT_LE(0x80, material.at(36)) << "the modulus has all its bits";
  EXPECT_EQ(Le32(~0u), Bytes(material.begin() + 164, material.begin() + 168));
}

}  // namespace
}  // namespace test
