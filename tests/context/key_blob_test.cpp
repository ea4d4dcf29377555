// Requests about a key blob: its characteristics, upgrade, deletion, attestation and export.
#include "tests/context/request.h"

namespace test {
namespace {

const Bytes kKey = Ramp(0x20, 33);
const keymaster_key_blob_t kKeyBlob = KeyBlob(kKey);
const Bytes kId = {1, 2, 3, 4}, kApp = {0x41, 0x42, 0x43},
            kOwner = SecondList({{KM_TAG_APPLICATION_ID, kId}, {KM_TAG_APPLICATION_DATA, kApp}});

using KeyBlobRequest = RequestTest;

TEST_F(KeyBlobRequest, Characteristics) {
  start = "I KmGetKeyCharacteristics start";
  Answer(3, Reply::Ok().Out(2, Characteristics()));
  const keymaster_blob_t id_blob = Blob(kId), app_blob = Blob(kApp), empty_blob = {nullptr, 0};
  const auto run = [&](const keymaster_blob_t* client_id, const keymaster_blob_t* app_data,
                       const keymaster_key_blob_t* of = &kKeyBlob, bool wanted = true) {
    return Outcome(
        km.TivasKmGetKeyCharacteristics(of, client_id, app_data, wanted ? &traits : nullptr));
  };
  const std::string kGood = std::string("0 [3]") + kTraits + ": I KmGetKeyCharacteristics success";
  EXPECT_EQ(kGood, run(nullptr, nullptr));
  EXPECT_EQ(Parts{kKey}, Inputs());
  EXPECT_EQ(kGood, run(nullptr, &app_blob));
  EXPECT_EQ((Parts{kKey, SecondList({{KM_TAG_APPLICATION_DATA, kApp}})}), Inputs());
  EXPECT_EQ(kGood, run(&id_blob, &app_blob));
  EXPECT_EQ((Parts{kKey, kOwner}), Inputs());
  EXPECT_EQ(kGood, run(&empty_blob, nullptr));
  EXPECT_EQ((Parts{kKey, SecondList({{KM_TAG_APPLICATION_ID, {}}})}), Inputs());
  EXPECT_EQ("-41", run(&kHollowBlob, nullptr));
  EXPECT_EQ("-32", run(nullptr, nullptr, nullptr, false));
  EXPECT_EQ("-32", run(nullptr, nullptr, &kHollowKey));
  EXPECT_EQ("-27", run(&kHollowBlob, nullptr, &kKeyBlob, false));
  Answer(3, Reply::Ok().Out(2, Bytes(3)));
  EXPECT_EQ("-41 [3] traits=empty|empty: E key_character_len too small, len=3",
            run(nullptr, nullptr));
  Answer(3, Reply::Ok().Out(2, Bytes(4)));
  EXPECT_EQ("-41 [3] traits=empty|empty: E 2 invalid key character size, 4-4",
            run(nullptr, nullptr));
  Answer(3, Reply::Ok().Size(2, 4097));
  EXPECT_EQ("-41 [3] traits=empty|empty", run(nullptr, nullptr));
  Answer(3, TaFails());
  EXPECT_EQ("ffff0009 [3]" + Failed("TeeGetKeyCharacteristics"), run(nullptr, nullptr));
}

TEST_F(KeyBlobRequest, Upgrade) {
  start = "I KmUpgradeKey start";
  ParamSet set({{KM_TAG_APPLICATION_DATA, Bytes{7}}, {KM_TAG_ALGORITHM, 3}});
  const auto run = [&](const keymaster_key_blob_t& old_key, const Reply& reply) {
    Answer(7, reply);
    return Outcome(km.TivasKmUpgradeKey(&old_key, set.get(), &key));
  };
  const Bytes full = Ramp(9, 4096);
  EXPECT_EQ("0 [7] key=" + Hex(full) + ": I KmUpgradeKey success",
            run(kKeyBlob, Reply::Ok().Out(2, full)));
  const Bytes data_entry = BytesEntry(KM_TAG_APPLICATION_DATA, 0, 1);
  EXPECT_EQ(
      (Parts{kKey, Cat({WireList({Entry(KM_TAG_ALGORITHM, 3)}), WireList({data_entry}), {7}})}),
      Inputs());
  EXPECT_EQ("0 [7]: I KmUpgradeKey don't need upgradekey", run(kKeyBlob, Reply::Ok()));
  EXPECT_EQ("-1000 [7]: E! invalid keyBlobLen:4097\n", run(kKeyBlob, Reply::Ok().Size(2, 4097)));
  EXPECT_EQ("ffff0009 [7 66]" + Failed("TeeUpgrade"), run(kKeyBlob, TaFails()));
  EXPECT_EQ("ffff0006: E! TeeUpgrade failed, ret=0xffff0006", run(kHollowKey, Reply::Ok()));
  EXPECT_EQ("-32", Outcome(km.TivasKmUpgradeKey(nullptr, set.get(), nullptr)));
  EXPECT_EQ("-32", Outcome(km.TivasKmUpgradeKey(&kKeyBlob, nullptr, nullptr)));
  EXPECT_EQ("-27", Outcome(km.TivasKmUpgradeKey(&kKeyBlob, &kHollowSet, nullptr)));
  EXPECT_EQ("-41", Outcome(km.TivasKmUpgradeKey(&kKeyBlob, &kHollowSet, &key)));
}

TEST_F(KeyBlobRequest, Delete) {
  start = "I KmDeletekey start";
  EXPECT_EQ("-100: E! NULL pointers.\n", Outcome(km.TivasKmDeletekey(nullptr)));
  EXPECT_EQ("-100: E! NULL pointers.\n", Outcome(km.TivasKmDeletekey(&kHollowKey)));
  EXPECT_EQ("0 [31]: I km_delete success", Outcome(km.TivasKmDeletekey(&kKeyBlob)));
  EXPECT_EQ(Parts{kKey}, Inputs());
  Answer(31, TaFails());
  EXPECT_EQ("ffff0009 [31]" + Failed("TeeDeleteKey"), Outcome(km.TivasKmDeletekey(&kKeyBlob)));
}

const Bytes kCertificates = Cat({Le32(3), {1, 2, 3}, Le32(5), {4, 5, 6, 7, 8}});
const Bytes kChain = Cat({Le32(2), kCertificates});
constexpr char kOutError[] = "; E! ExtractAttestChain out error.\n";

struct Attest : RequestTest {
  Attest() { start = "I KmAttestKey start"; }
  std::string Run(const Reply& reply) {
    Answer(6, reply);
    return Outcome(km.TivasKmAttestKey(&kKeyBlob, set.get(), &chain));
  }
  std::string Run(const Bytes& reply) { return Run(Reply::Ok().Out(2, reply)); }
  ParamSet set{{KM_TAG_ATTESTATION_CHALLENGE, Bytes{9, 9}}};
};

TEST_F(Attest, ReturnsTheChainInOrder) {
  const std::string kEnd =
      ": I extract attest cert chain success, entry_count=2.\n; I KmAttestKey success";
  EXPECT_EQ("0 [6] chain=/010203/0405060708" + kEnd, Run(kChain));
  EXPECT_EQ((Parts{kKey, SecondList({{KM_TAG_ATTESTATION_CHALLENGE, {9, 9}}})}), Inputs());
  EXPECT_EQ("0 [6] chain=/010203/0405060708" + kEnd, Run(Cat({kChain, Ramp(1, 9)})));
  // The largest chain there is: 8192 bytes.
  const Bytes large = Ramp(0, 8179);
  EXPECT_EQ("0 [6] chain=/" + Hex(large) + "/01" + kEnd,
            Run(Cat({Le32(2), Le32(8179), large, Le32(1), {1}})));
}

TEST_F(Attest, RefusesBadReplies) {
  const std::string kRefused = "-1000 [6] chain=empty: ", kCut = "E 1 invalid out chain size(";
  // The reply ends behind a length field's start or its certificate's.
  const std::pair<int, const char*> kCuts[] = {
      {4, "4"}, {7, "4"}, {8, "8"}, {11, "11"}, {19, "15"}};
  for (const auto& [length, at] : kCuts) {
    EXPECT_EQ(kRefused + kCut + at + "-" + std::to_string(length) + ")" + kOutError,
              Run(Bytes(kChain.begin(), kChain.begin() + length)));
  }
  EXPECT_EQ(kRefused + "E! chain_buf_len too small(3)" + kOutError, Run(Bytes(3)));
  EXPECT_EQ(kRefused + "E! out_chain entry_count err" + kOutError,
            Run(Cat({Le32(1), kCertificates})));
  for (const uint32_t count : {3u, 0x10000000u, 0xFFFFFFFFu}) {
    EXPECT_EQ(kRefused + kCut + "20-20)" + kOutError, Run(Cat({Le32(count), kCertificates})));
  }
  EXPECT_EQ(kRefused + kCut + "8-10)" + kOutError, Run(Cat({Le32(2), Le32(~0u), Bytes(2)})));
  const std::string kEmpty = kRefused + (kOutError + 2);
  EXPECT_EQ(kEmpty, Run(Cat({Le32(2), Le32(3), {1, 2, 3}, Le32(0), {4}})));
  EXPECT_EQ(kEmpty, Run(Cat({Le32(2), Le32(0), Le32(1), {4}})));
  EXPECT_EQ(kRefused + kCut + "8192-8193)" + kOutError, Run(Reply::Ok().Size(2, 8193)));
  EXPECT_EQ("ffff0009 [6 66]" + Failed("TeeAttestKey"), Run(TaFails()));
}

TEST_F(Attest, RefusesBeforeTheTa) {
  for (const uint64_t value : {0u, 1u}) {
    ParamSet unique({{KM_TAG_ALGORITHM, 3}, {KM_TAG_DEVICE_UNIQUE_ATTESTATION, value}});
    EXPECT_EQ("-100: I NonStrongBox must return KM_ERROR_UNIMPLEMENTED",
              Outcome(km.TivasKmAttestKey(&kKeyBlob, unique.get(), &chain)));
  }
  EXPECT_EQ("-32", Outcome(km.TivasKmAttestKey(nullptr, set.get(), &chain)));
  EXPECT_EQ("-32", Outcome(km.TivasKmAttestKey(&kKeyBlob, nullptr, &chain)));
  EXPECT_EQ("-32", Outcome(km.TivasKmAttestKey(&kKeyBlob, set.get(), nullptr)));
  EXPECT_EQ("-32", Outcome(km.TivasKmAttestKey(&kKeyBlob, &kHollowSet, &chain)));
  EXPECT_EQ("ffff0006: E! TeeAttestKey failed, ret=0xffff0006",
            Outcome(km.TivasKmAttestKey(&kHollowKey, set.get(), &chain)));
}

// ---- Export: numbers of the TA become a DER encoding

Bytes KeyReply(uint32_t algorithm, uint32_t bits, const Bytes& first, const Bytes& second) {
  return Cat({Le32(algorithm), Le32(bits), Le32(Size(first)), Le32(Size(second)), first, second});
}

struct Export : RequestTest {
  Export() { start = "I KmExportKey start"; }
  std::string Run(const Reply& reply) {
    Answer(5, reply);
    return Outcome(km.TivasKmExportKey(KM_KEY_FORMAT_X509, &kKeyBlob, nullptr, nullptr, &data));
  }
  std::string Run(const Bytes& reply) { return Run(Reply::Ok().Out(2, reply)); }
};

TEST_F(Export, EncodesRsaKeys) {
  auto numbers = NumbersOf(SharedRsaKey());
  const Bytes n = numbers["n"], e = numbers["e"];
  const std::string kGood = "0 [5] data=" + Hex(Spki(SharedRsaKey())) + ": I KmExportKey success";
  for (const uint32_t bits : {0u, 0xFFFFFFFFu}) EXPECT_EQ(kGood, Run(KeyReply(1, bits, n, e)));
  EXPECT_EQ(Parts{kKey}, Inputs());
  EXPECT_EQ(kGood, Run(KeyReply(1, 0, Cat({Bytes(3), n}), Cat({{0}, e})))) << "leading zeros";
}

TEST_F(Export, EncodesEcKeysOfTheCurvesThatLibcryptoHas) {
  const std::pair<int, uint32_t> kCurves[] = {{709, 160}, {711, 192}, {713, 224},
                                              {415, 256}, {715, 384}, {716, 521}};
  for (const auto& [nid, bits] : kCurves) {
    const Pkey ec = NewEcKey(nid);
    const std::string log = ": I nid = " + std::to_string(nid) + "; ";
    if (kBoringSsl && bits < 224) {
      EXPECT_EQ("-38 [5] data=empty" + log + "E! Could not allocate ec_key structure",
                Run(KeyReply(3, bits, {1}, {1})));
      continue;
    }
    auto numbers = NumbersOf(ec.get());
    EXPECT_EQ("0 [5] data=" + Hex(Spki(ec.get())) + log + "I KmExportKey success",
              Run(KeyReply(3, bits, numbers["x"], numbers["y"])));
  }
}

TEST_F(Export, RefusesBadReplies) {
  const Bytes x = Ramp(1, 32), good = KeyReply(1, 2048, x, {1, 0, 1});
  const std::string kSize = "-1000 [5] data=empty: E! out_len is invalid size(",
                    kSmall = "-1000 [5] data=empty: E! out_len is too samll(",
                    kArgument = "-38 [5] data=empty: ", kNid = kArgument + "I nid = 415; ";
  EXPECT_EQ(kSmall + "0)", Run(Bytes()));
  EXPECT_EQ(kSmall + "15)", Run(Bytes(good.begin(), good.begin() + 15)));
  EXPECT_EQ(kSize + "50)", Run(Bytes(good.begin(), good.end() - 1)));
  EXPECT_EQ(kSize + "52)", Run(Cat({good, {0}})));
  EXPECT_EQ(kSize + "4097)", Run(Reply::Ok().Out(2, good).Size(2, 4097)));
  // Lengths that add up only when they wrap.
  EXPECT_EQ(kSize + "20)", Run(Cat({Le32(1), Le32(0), Le32(~0u), Le32(5), Bytes(4)})));
  EXPECT_EQ(kArgument + "E invalid algorithm:0\n", Run(KeyReply(0, 256, x, x)));
  EXPECT_EQ(kArgument + "E invalid algorithm:32\n", Run(KeyReply(32, 256, x, x)));
  EXPECT_EQ(kArgument + "E! invalid ec key size 255", Run(KeyReply(3, 255, x, x)));
  EXPECT_EQ(kNid + "E! ec key set pubkey failed", Run(KeyReply(3, 256, x, x)));
  EXPECT_EQ(kNid + "E! ec key set pubkey failed", Run(KeyReply(3, 256, {}, {})));
  EXPECT_EQ("ffff0009 [5] data=empty" + Failed("TeeExport"), Run(TaFails()));
}

TEST_F(Export, SendsClientIdAndAppDataAndChecksItsArguments) {
  const keymaster_blob_t id_blob = Blob(kId), app_blob = Blob(kApp);
  const auto run = [&](int format, const keymaster_key_blob_t* exported,
                       const keymaster_blob_t* client_id, keymaster_blob_t* output) {
    return Outcome(km.TivasKmExportKey(static_cast<keymaster_key_format_t>(format), exported,
                                       client_id, &app_blob, output));
  };
  EXPECT_EQ("-1000 [5] data=empty: E! out_len is too samll(0)", run(0, &kKeyBlob, &id_blob, &data));
  EXPECT_EQ((Parts{kKey, kOwner}), Inputs());
  for (const int format : {1, 2, 3, -1}) {
    EXPECT_EQ("-17 data=empty", run(format, &kKeyBlob, &id_blob, &data));
  }
  EXPECT_EQ("-41 data=empty", run(3, &kKeyBlob, &kHollowBlob, &data));
  EXPECT_EQ("-32", run(0, nullptr, nullptr, nullptr));
  EXPECT_EQ("-32", run(0, &kHollowKey, nullptr, &data));
  EXPECT_EQ("-27", run(3, &kKeyBlob, &kHollowBlob, nullptr));
}

}  // namespace
}  // namespace test
