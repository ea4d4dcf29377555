// Keys: generation, import, attestation, export, and the import of wrapped ones.
#include <keymaster/android_keymaster_utils.h>
#include <keymaster/authorization_set.h>

#include "tests/context/request_test.h"

namespace test {
namespace {

// ---- Generation: the two routes, and what the software one checks and sends

const Param kRsa(KM_TAG_ALGORITHM, KM_ALGORITHM_RSA), kEc(KM_TAG_ALGORITHM, KM_ALGORITHM_EC),
    kOf99Bits(KM_TAG_KEY_SIZE, 99);
Param Bits(uint64_t bits) { return {KM_TAG_KEY_SIZE, bits}; }
Param Exponent(uint64_t e) { return {KM_TAG_RSA_PUBLIC_EXPONENT, e}; }

struct Generate : RequestTest {
  int32_t Run(const Params& params) {
    const ParamSet set(params);
    return Make("GenerateEc", [&](Args* args) { args->params = set.get(); });
  }
};

TEST_F(Generate, MakesRsaKeysInSoftwareIfTheFirstExponentAndThenTheFirstSizeAllow) {
  constexpr int32_t kSize = KM_ERROR_UNSUPPORTED_KEY_SIZE;
  const struct {
    Params params;
    int32_t result;
    CommandIds commands = {};
  } kRows[] = {
      {{{KM_TAG_ALGORITHM, KM_ALGORITHM_AES}, Bits(7), Exponent(1ull << 40)}, 0, {kCmdGenerateKey}},
      {{Bits(512), Exponent(3), {KM_TAG_PURPOSE, KM_ALGORITHM_RSA}}, 0, {kCmdGenerateKey}},
      {{kEc, Bits(512), Exponent(3), kRsa}, 0, {kCmdImportKey}},
      {{kRsa, Bits(8)}, kBadArgument},
      {{kRsa, Exponent(0x100000000), Exponent(3), Bits(8)}, kBadArgument},
      {{kRsa, Exponent(3), Bits(16)}, kUnknown},  // what libcrypto does not make
      {{kRsa, Exponent(3), Bits(0xFFFFFFF8)}, kSize},
      {{kRsa, Exponent(3), Exponent(1ull << 63), Bits(15), Bits(512)}, kSize}};
  for (const auto& row : kRows) {
    EXPECT_EQ(row.result, Run(row.params)) << &row - kRows;
    EXPECT_EQ(row.commands, Commands());
  }
  EXPECT_EQ(
      "E KeyMaster_Ts: [error] : Invalid key size of 15 bits specified for RSA key generation",
      Log().back());
  ReplyTo(kCmdImportKey, Reply::Ok().Out(2, {7}).Out(3, Bytes(8)));
  EXPECT_EQ(0, Make("GenerateRsa")) << "the shortest key blob";
}

// That the numbers fit each other shows where the keys are used.
TEST_F(Generate, SendsRsaKeysInCrtForm) {
  EXPECT_EQ(0, Run({kRsa, Bits(1024), Exponent(0xFFFFFFFF), {KM_TAG_ORIGIN, 1}}));
  const Bytes material = Sent().at(1),
              params = TwoLists({kRsa, Bits(1024), Exponent(0xFFFFFFFF)}, {{KM_TAG_ORIGIN, 1}});
  EXPECT_EQ((Parts{params, material, Bytes(8)}), Sent());
  EXPECT_EQ(Cat({Le32(2), Le32(128), Le32(128), Le32(4)}),
            Bytes(material.begin(), material.begin() + 16));
  EXPECT_LE(0x80, material.at(36)) << "the modulus has all its bits";
  EXPECT_EQ(Le32(~0u), Bytes(material.begin() + 164, material.begin() + 168));
}

// ---- Import: what of a PKCS#8 key or of raw bytes goes to the TA

// A key whose private number fits two bytes, on the curve of that identifier, as PKCS#8.
Bytes ShortEcPkcs8(const Bytes& curve) {
  Bytes scalar(32);
  scalar[30] = 1;
  scalar[31] = 0x7b;
  const Bytes ec = {6, 7, 0x2a, 0x86, 0x48, 0xce, 0x3d, 2, 1};
  return Der({0x30}, {{2, 1, 0},
                      Der({0x30}, {ec, Der({6}, {curve})}),
                      Der({4}, {Der({0x30}, {{2, 1, 1}, Der({4}, {scalar})})})});
}

struct Import : RequestTest {
  int32_t Run(keymaster_key_format_t format, const Bytes& key) {
    const keymaster_blob_t blob = Blob(key);
    const ParamSet params({kOf99Bits});
    return Make("ImportRaw", [&](Args* args) {
      args->format = format;
      args->input = &blob;
      args->params = params.get();
    });
  }
  // What goes to the TA with key material: the parameters before, the import's source behind.
  static Parts With(const Bytes& material) {
    return {TwoLists({kOf99Bits}, {}), material, Le64(1)};
  }
};

TEST_F(Import, SendsEcNumbersAtTheirMinimalLength) {
  // On P-256 its X is one byte short.
  const Bytes key = ShortEcPkcs8({0x2a, 0x86, 0x48, 0xce, 0x3d, 3, 1, 7});
  EXPECT_EQ(0, Run(KM_KEY_FORMAT_PKCS8, key));
  auto numbers = NumbersOf(ReadPkcs8(key).get());
  const Bytes header = Cat({Le32(256), Le32(4), Le32(31), Le32(32), Le32(2)});
  EXPECT_EQ(With(Cat({header, numbers["x"], numbers["y"], Bytes{1, 0x7b}})), Sent());
  // And secp256k1, where libcrypto has it.
  EXPECT_EQ(kBoringSsl ? KM_ERROR_UNSUPPORTED_KEY_FORMAT : 0,
            Run(KM_KEY_FORMAT_PKCS8, ShortEcPkcs8({0x2b, 0x81, 4, 0, 0x0a})));
}

TEST_F(Import, SendsRawBytesFromTheCallersMemory) {
  const Bytes raw = Ramp(3, 100000);
  EXPECT_EQ(0, Run(KM_KEY_FORMAT_RAW, raw));
  EXPECT_EQ(With(raw), Sent());
  EXPECT_EQ(raw.data(), platform().invocations[0].params[1].buffer);
}

TEST_F(RequestTest, UpgradeThatIsNotNeededLeavesTheOutput) {
  EXPECT_EQ(0, MakeOf("UpgradeKey", {}));
  EXPECT_EQ("I KeyMaster_Ts: KmUpgradeKey don't need upgradekey", Log().back());
  EXPECT_EQ(kUntouched, StateOf(kKeyBlob));
}

// ---- Attestation

// One of the replies fills its buffer.
TEST_F(RequestTest, AttestReturnsTheCertificatesInOrder) {
  for (const Parts& sent : {Parts{{1, 2, 3}, {4, 5, 6, 7, 8}}, {Ramp(0, 8170), {1}}, {{1}, {2}}}) {
    const Bytes behind = Ramp(1, sent[1] == Bytes{2} ? 0 : 9);
    EXPECT_EQ(0, MakeOf("AttestKey", Cat({CertificateChain(sent), behind})));
    Parts certificates;
    for (size_t i = 0; i < outputs.chain.entry_count; ++i) {
      certificates.push_back(BlobBytes(outputs.chain.entries[i]));
    }
    EXPECT_EQ(sent, certificates);
  }
}

TEST_F(RequestTest, AttestRejectsAChainThatDoesNotHoldItsCertificates) {
  const Bytes kBad[] = {
      CertificateChain({{1}}), CertificateChain({{1, 2, 3}, {}}), CertificateChain({{}, {4}}),
      Cat({Le32(0x10000000), Le32(1), {1}, Le32(1), {2}}), Cat({Le32(2), Le32(~0u), Bytes(2)})};
  for (const Bytes& reply : kBad) {
    EXPECT_EQ(kUnknown, MakeOf("AttestKey", reply)) << &reply - kBad;
    EXPECT_EQ(kEmpty, StateOf(kChain));
  }
}

// ---- Export: numbers of the TA become a DER encoding

TEST_F(RequestTest, ExportEncodesRsaKeys) {
  const Pkey rsa = NewRsaKey(2048);
  auto numbers = NumbersOf(rsa.get());
  const Bytes n = numbers["n"], e = numbers["e"];
  for (const Bytes& reply : {PublicKey(KM_ALGORITHM_RSA, 0xFFFFFFFF, n, e),
                             PublicKey(KM_ALGORITHM_RSA, 0, Cat({Bytes(3), n}), Cat({{0}, e}))}) {
    EXPECT_EQ(0, MakeOf("ExportRsa", reply));
    EXPECT_EQ(Spki(rsa.get()), BlobBytes(outputs.data));
  }
}

TEST_F(RequestTest, ExportEncodesEcKeysOfTheCurvesThatLibcryptoHas) {
  for (const auto& [bits, nid] : kCurveOfKeySize) {
    const Pkey ec = NewEcKey(nid);
    EXPECT_TRUE(ec != nullptr || nid != 415);
    auto numbers = ec == nullptr ? std::map<std::string, Bytes>() : NumbersOf(ec.get());
    EXPECT_EQ(ec == nullptr ? kBadArgument : 0,
              MakeOf("ExportRsa", PublicKey(KM_ALGORITHM_EC, bits, numbers["x"], numbers["y"])));
    EXPECT_EQ(ec == nullptr ? Bytes() : Spki(ec.get()), BlobBytes(outputs.data));
  }
}

// Truncated ones and others: the sweep.
TEST_F(RequestTest, ExportRejectsLengthsThatAreNotTheReplys) {
  const Bytes x = Ramp(1, 32), good = PublicKey(KM_ALGORITHM_RSA, 2048, x, {1, 0, 1}),
              wrapping = Cat({Le32(1), Le32(0), Le32(~0u), Le32(5), Bytes(4)});
  for (const Bytes& reply : {Bytes(good.begin(), good.end() - 1), Cat({good, {0}}), wrapping}) {
    EXPECT_EQ(kUnknown, MakeOf("ExportRsa", reply));
  }
  EXPECT_EQ(kBadArgument, MakeOf("ExportRsa", PublicKey(KM_ALGORITHM_EC, 256, {}, {})));
}

// ---- The import of wrapped keys, command by command

TEST_F(RequestTest, WrappedImportSendsSevenCommands) {
  platform().Queue(kCmdBegin, Reply::Ok().Value(3, 1, 0));
  platform().Queue(kCmdBegin, Reply::Ok().Value(3, 2, 0));
  platform().Queue(kCmdImportKey, Reply::Ok().Out(2, Text("transit")));
  EXPECT_EQ(0, Make("ImportWrappedKey"));
  const Wrapper wrapper;
  const Bytes wrapping = BlobBytes(fixture().blob.key);
  const Param aes(KM_TAG_ALGORITHM, 32), gcm(KM_TAG_BLOCK_MODE, 32), unpadded(KM_TAG_PADDING, 1),
      bits(KM_TAG_KEY_SIZE, 256);
  const Params unwrapping = {{KM_TAG_DIGEST, 2},
                             {KM_TAG_ALGORITHM, 1},
                             {KM_TAG_PADDING, 2},
                             {KM_TAG_KEY_SIZE, 2048},
                             {KM_TAG_RSA_PUBLIC_EXPONENT, 4096},
                             {KM_TAG_PURPOSE, 5}};
  const Parts kSent[] = {
      {wrapping},
      {wrapping, TwoLists(unwrapping, {}), Le64(1)},  // decryption
      {FinishInput(wrapper.transit_key, {}), Le64(1)},
      {TwoLists({{KM_TAG_PURPOSE, 1}, aes, unpadded, gcm, {KM_TAG_CALLER_NONCE, 1}, bits},
                {{KM_TAG_MIN_MAC_LENGTH, 128}}),
       fixture().secrets.at("transit key"), Le64(1)},  // of a caller's key
      {Text("transit"),
       TwoLists({unpadded, gcm, bits}, {{KM_TAG_NONCE, wrapper.iv}, {KM_TAG_MAC_LENGTH, 128}}),
       Le64(1)},
      {TwoLists({}, {{KM_TAG_ASSOCIATED_DATA, wrapper.Description()}}),
       FinishInput(Cat({wrapper.material, wrapper.tag}), {}), Le64(2)},
      {TwoLists({aes, bits}, {{KM_TAG_USER_SECURE_ID, 2}, {KM_TAG_AUTH_TOKEN, wrapper.auth_token}}),
       fixture().secrets.at("finish output, unwrapped key"), Le64(2)}};  // of an unwrapped key
  ASSERT_EQ(std::size(kSent), Commands().size());
  for (size_t i = 0; i < std::size(kSent); ++i) {
    EXPECT_EQ(kSent[i], Sent(i)) << i;
  }
}

TEST_F(RequestTest, WrappedImportNeedsAKeyThatMayWrap) {
  const Param wrap(KM_TAG_PURPOSE, 5), decrypt(KM_TAG_PURPOSE, 1), other(KM_TAG_ALGORITHM, 5);
  EXPECT_EQ(0, MakeOf("ImportWrappedKey", TwoLists({}, {other, decrypt, wrap})));
  EXPECT_EQ(KM_ERROR_INCOMPATIBLE_PURPOSE,
            MakeOf("ImportWrappedKey", TwoLists({other, decrypt}, {other, decrypt})));
  EXPECT_EQ(CommandIds{kCmdGetKeyCharacteristics}, Commands());
}

TEST_F(RequestTest, WrappedImportPrefersTheCallersUnwrappingParameters) {
  const ParamSet own({{KM_TAG_DIGEST, KM_DIGEST_SHA_2_256}});
  const keymaster_key_param_set_t hollow = {nullptr, 1};
  EXPECT_EQ(0, Make("ImportWrappedKey", [&](Args* args) { args->unwrapping_params = own.get(); }));
  EXPECT_EQ(TwoLists({{KM_TAG_DIGEST, 4}}, {}), Sent(1)[1]);
  EXPECT_EQ(0, Make("ImportWrappedKey", [&](Args* args) { args->unwrapping_params = &hollow; }));
  EXPECT_EQ(6, Sent(1)[1][0]) << "the count of its own";
}

TEST_F(RequestTest, WrappedImportNeedsAMaskAsLongAsTheTransitKey) {
  const Bytes longer(33);
  const keymaster_key_blob_t mask = {longer.data(), longer.size()}, none = {nullptr, 0};
  EXPECT_EQ(kBadArgument, Make("ImportWrappedKey", [&](Args* args) { args->mask = &mask; }));
  ReplyTo(kCmdFinish, Reply::Ok());
  // Nothing to unmask, and nothing to import.
  EXPECT_EQ(static_cast<int32_t>(TEEC_ERROR_BAD_PARAMETERS),
            Make("ImportWrappedKey", [&](Args* args) { args->mask = &none; }));
}

TEST_F(RequestTest, UnwrappingNeedsPlacesForListAndFormat) {
  keymaster::TKeymasterBlob<keymaster_key_blob_t> wrapped;
  keymaster::AuthorizationSet list;
  keymaster_key_format_t format;
  keymaster_blob_t* const out = &outputs.data;
  EXPECT_EQ(kNullPointer, km.TivasKmUnwrappedKey(&wrapped, {}, {}, {}, nullptr, &format, out));
  EXPECT_EQ(kNullPointer, km.TivasKmUnwrappedKey(&wrapped, {}, {}, {}, &list, nullptr, out));
  EXPECT_EQ(Lines(), Log());
}

}  // namespace
}  // namespace test
