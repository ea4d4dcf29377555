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

TEST_F(Generate, RejectsRsaParametersInOrder) {
  const std::string kNoExponent = "E [error] : generate rsa key need public exponent value",
                    kLargeExponent =
                        "E [error] : public exponent is greater than UINT32_MAX, "
                        "not supported",
                    kNoKey = "E [error] : openssl generatekey failed";
  const auto size = [](const std::string& bits) {
    return "E [error] : Invalid key size of " + bits + " bits specified for RSA key generation";
  };
  constexpr int32_t kArgument = KM_ERROR_INVALID_ARGUMENT, kUnknown = KM_ERROR_UNKNOWN_ERROR,
                    kSize = KM_ERROR_UNSUPPORTED_KEY_SIZE;
  const std::tuple<Params, int32_t, std::string> kRows[] = {
      {{kRsa, Bits(8)}, kArgument, kNoExponent},
      {{kRsa, Exponent(0x100000000), Bits(8)}, kArgument, kLargeExponent},
      {{kRsa, Exponent(1ull << 63), Exponent(3)}, kArgument, kLargeExponent},
      {{kRsa, Exponent(3), Exponent(1ull << 63)}, kSize, size("0")},
      {{kRsa, Exponent(3), Bits(8), Bits(512)}, kSize, size("8")},
      {{kRsa, Exponent(3), Bits(15)}, kSize, size("15")},
      {{kRsa, Exponent(3), Bits(0xFFFFFFF8)}, kSize, size("4294967288")},
      {{kRsa, Exponent(3), Bits(16)}, kUnknown, kNoKey},  // what libcrypto does not make
      {{kRsa, Exponent(0), Bits(512)}, kUnknown, kNoKey},
      {{kRsa, Exponent(0xFFFFFFFE), Bits(512)}, kUnknown, kNoKey}};
  for (const auto& [params, result, message] : kRows) {
    EXPECT_EQ(result, Run(params)) << message;
    EXPECT_EQ((Lines{"I KmGenerateKey start", message}), Logged());
    EXPECT_EQ(CommandIds(), Commands());
  }
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
