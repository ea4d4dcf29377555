// Key generation: the two routes, the checks of the software one, and what becomes of replies.
#include "tests/context/request.h"

namespace test {
namespace {

const Param kRsa(KM_TAG_ALGORITHM, 1), kEc(KM_TAG_ALGORITHM, 3), k512(KM_TAG_KEY_SIZE, 512);
Param Bits(uint64_t bits) { return {KM_TAG_KEY_SIZE, bits}; }
Param Exponent(uint64_t e) { return {KM_TAG_RSA_PUBLIC_EXPONENT, e}; }

struct Generate : RequestTest {
  Generate() { start = "I KmGenerateKey start"; }
  std::string Run(std::initializer_list<Param> list) {
    ParamSet set(list);
    return Outcome(km.TivasKmGenerateKey(set.get(), &key, &traits));
  }
};

TEST_F(Generate, AlgorithmChoosesTheRoute) {
  Answer(2, Reply::Ok().Out(2, {2}).Out(3, Characteristics()));
  Answer(4, Reply::Ok().Out(2, {4}).Out(3, Characteristics()));
  const std::string kTa = std::string("0 [2] key=02") + kTraits + ": I KmGenerateKey success",
                    kSoftware =
                        std::string("0 [4] key=04") + kTraits + ": I TivasKmGenerateKeyExt success";
  EXPECT_EQ(kTa, Run({kEc}));
  EXPECT_EQ(kTa, Run({{KM_TAG_ALGORITHM, 32}, Bits(7), Exponent(1ull << 40)}));
  EXPECT_EQ(kTa, Run({k512, Exponent(3)}));
  EXPECT_EQ(kTa, Run({}));
  EXPECT_EQ(kSoftware, Run({kEc, k512, kRsa, Exponent(3)}));
  // The whole set, sorted into its two lists.
  EXPECT_EQ(kTa, Run({{KM_TAG_NO_AUTH_REQUIRED, 1}, kEc, {KM_TAG_APPLICATION_ID, Bytes{9, 8}}}));
  const Bytes id = BytesEntry(KM_TAG_APPLICATION_ID, 0, 2);
  EXPECT_EQ(Parts{Cat({WireList({Entry(KM_TAG_ALGORITHM, 3)}),
                       WireList({Entry(KM_TAG_NO_AUTH_REQUIRED, 1), id}), Bytes{9, 8}})},
            Inputs());
  EXPECT_EQ("-32", Outcome(km.TivasKmGenerateKey(nullptr, nullptr, nullptr)));
  EXPECT_EQ("-27", Outcome(km.TivasKmGenerateKey(&kHollowSet, nullptr, nullptr)));
  EXPECT_EQ("-32", Outcome(km.TivasKmGenerateKey(&kHollowSet, &key, nullptr)));
  EXPECT_EQ("0 [2] key=02: I KmGenerateKey success",
            Outcome(km.TivasKmGenerateKey(&kEmptySet, &key, nullptr)));
}

TEST_F(Generate, ChecksRsaParametersInOrder) {
  const std::string kNone = "-38: E! generate rsa key need public exponent value",
                    kBig = "-38: E! public exponent is greater than UINT32_MAX, not supported",
                    kRefused = "-1000: E! openssl generatekey failed";
  const auto size = [](const std::string& bits) {
    return "-6: E! Invalid key size of " + bits + " bits specified for RSA key generation";
  };
  EXPECT_EQ(kNone, Run({kRsa}));
  EXPECT_EQ(kNone, Run({kRsa, Bits(8)}));
  EXPECT_EQ(kBig, Run({kRsa, Exponent(0x100000000), Bits(8)}));
  EXPECT_EQ(kBig, Run({kRsa, Exponent(1ull << 63), Exponent(3)}));
  EXPECT_EQ(size("0"), Run({kRsa, Exponent(3), Exponent(1ull << 63)}));
  EXPECT_EQ(size("8"), Run({kRsa, Exponent(3), Bits(8), k512}));
  EXPECT_EQ(size("15"), Run({kRsa, Exponent(3), Bits(15)}));
  EXPECT_EQ(size("2050"), Run({kRsa, Exponent(3), Bits(2050)}));
  EXPECT_EQ(size("4104"), Run({kRsa, Exponent(3), Bits(4104)}));
  EXPECT_EQ(size("4294967288"), Run({kRsa, Exponent(3), Bits(0xFFFFFFF8)}));
  EXPECT_EQ(kRefused, Run({kRsa, Exponent(3), Bits(16)}));
  EXPECT_EQ(kRefused, Run({kRsa, Exponent(1), Bits(4096)}));
  EXPECT_EQ(kRefused, Run({kRsa, Exponent(0), k512}));
  EXPECT_EQ(kRefused, Run({kRsa, Exponent(0xFFFFFFFE), k512}));
}

// That the numbers fit each other shows where the keys are used.
TEST_F(Generate, SendsRsaKeysInCrtForm) {
  Run({kRsa, Bits(1024), Exponent(0xFFFFFFFF), {KM_TAG_ORIGIN, 1}});
  const Bytes material = Inputs().at(1), origin = WireList({Entry(KM_TAG_ORIGIN, 1)}),
              list = WireList({Entry(kRsa.tag, 1), Entry(k512.tag, 1024),
                               Entry(KM_TAG_RSA_PUBLIC_EXPONENT, 0xFFFFFFFF)});
  EXPECT_EQ((Parts{Cat({list, origin}), material, Bytes(8)}), Inputs());
  EXPECT_EQ(Cat({Le32(2), Le32(128), Le32(128), Le32(4)}),
            Bytes(material.begin(), material.begin() + 16));
  EXPECT_LE(0x80, material.at(36)) << "the modulus has all its bits";
  EXPECT_EQ(Le32(~0u), Bytes(material.begin() + 164, material.begin() + 168));
}

TEST_F(Generate, HandlesReplies) {
  const Bytes full = Ramp(0, 4096), good = Characteristics();
  const auto run = [this](bool rsa, const Reply& reply) {
    Answer(rsa ? 4 : 2, reply);
    return Run({rsa ? kRsa : kEc, k512, Exponent(65537)});
  };
  const auto reply = [&](const Bytes& traits_reply) {
    return Reply::Ok().Out(2, full).Out(3, traits_reply);
  };
  const std::string kFull = " key=" + Hex(full) + kTraits, kLength = ": E! invalid keyBlobLen:";
  EXPECT_EQ("0 [2]" + kFull + ": I KmGenerateKey success", run(false, reply(good)));
  EXPECT_EQ("0 [4]" + kFull + ": I TivasKmGenerateKeyExt success", run(true, reply(good)));
  EXPECT_EQ("-1000 [4]" + kLength + "0\n", run(true, Reply::Ok()));
  EXPECT_EQ("-1000 [4]" + kLength + "4097\n", run(true, reply(good).Size(2, 4097)));
  EXPECT_EQ("-1000 [2]" + kLength + "4097\n", run(false, reply(good).Size(2, 4097)));
  EXPECT_EQ("-41 [2] key=empty traits=empty|empty", run(false, reply(good).Size(3, 4097)));
  EXPECT_EQ("ffff0009 [4 66]" + Failed("TeeImportKey"), run(true, TaFails()));
  EXPECT_EQ("ffff0009 [2 66]" + Failed("TeeGenerateKey"), run(false, TaFails()));
  const std::string kSmall = " key=empty: E key_character_len too small, len=3";
  EXPECT_EQ("-41 [4]" + kSmall + "; E build key character failed", run(true, reply(Bytes(3))));
  EXPECT_EQ("-41 [2]" + kSmall, run(false, reply(Bytes(3))));
  EXPECT_EQ("-41 [2] key=empty traits=empty|empty: E 2 invalid key character size, 4-4",
            run(false, reply(Bytes(4))));
}

}  // namespace
}  // namespace test
