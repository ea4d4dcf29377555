// Requests about a key blob: its characteristics, upgrade, deletion, attestation and export.
#include "tests/context/request_test.h"

namespace test {
namespace {

const Bytes kKey = Ramp(0x20, 33), kApp = {0x41, 0x42, 0x43};
const keymaster_key_blob_t kStoredKey = KeyBlob(kKey);
const keymaster_blob_t kAppBlob = Blob(kApp), kEmptyBlob = {nullptr, 0};

struct KeyBlobRequest : RequestTest {
  KeyBlobRequest() { args.key = &kStoredKey; }
};

// ---- Client id and application data, of characteristics and export alike

TEST_F(KeyBlobRequest, BringsClientIdAndApplicationDataThatAreGiven) {
  const Param no_id(KM_TAG_APPLICATION_ID, Bytes()), app(KM_TAG_APPLICATION_DATA, kApp);
  const struct {
    const keymaster_blob_t *client_id, *app_data;
    Parts sent;
  } kRows[] = {
      {nullptr, nullptr, {kKey}},
      {nullptr, &kAppBlob, {kKey, TwoLists({}, {app})}},
      {&kEmptyBlob, nullptr, {kKey, TwoLists({}, {no_id})}},
  };
  for (const auto& row : kRows) {
    args.client_id = row.client_id;
    args.app_data = row.app_data;
    for (const char* method : {"TivasKmGetKeyCharacteristics", "TivasKmExportKey"}) {
      Call(method);
      EXPECT_EQ(row.sent, Sent()) << method;
    }
  }
}

// ---- Upgrade and deletion

TEST_F(KeyBlobRequest, UpgradeThatIsNotNeededLeavesTheOutput) {
  EXPECT_EQ(0, Call("TivasKmUpgradeKey"));
  EXPECT_EQ("I KmUpgradeKey don't need upgradekey", Logged().back());
  EXPECT_EQ(kUntouched, StateOf(kKeyBlob));
}

// ---- Attestation

struct Attest : KeyBlobRequest {
  int32_t Run(const Bytes& reply) {
    ReplyTo(kCmdAttestKey, Reply::Ok().Out(2, reply));
    return Call("TivasKmAttestKey");
  }
  Parts Certificates() const {
    Parts all;
    for (size_t i = 0; i < outputs.chain.entry_count; ++i) {
      all.push_back(BlobBytes(outputs.chain.entries[i]));
    }
    return all;
  }
};

TEST_F(Attest, ReturnsTheCertificatesInOrder) {
  const Parts certificates = {{1, 2, 3}, {4, 5, 6, 7, 8}};
  EXPECT_EQ(0, Run(CertificateChain(certificates)));
  EXPECT_EQ(certificates, Certificates());
  EXPECT_EQ(0, Run(Cat({CertificateChain(certificates), Ramp(1, 9)}))) << "bytes behind the end";
  EXPECT_EQ(certificates, Certificates());
  for (const Parts& extreme : {Parts{Ramp(0, 8179), {1}}, Parts{{1}, {2}}}) {
    EXPECT_EQ(0, Run(CertificateChain(extreme)));
    EXPECT_EQ(extreme, Certificates());
  }
}

TEST_F(Attest, RejectsAChainThatDoesNotHoldItsCertificates) {
  const Bytes kBad[] = {
      CertificateChain({{1}}), CertificateChain({{1, 2, 3}, {}}), CertificateChain({{}, {4}}),
      Cat({Le32(0x10000000), Le32(1), {1}, Le32(1), {2}}), Cat({Le32(2), Le32(~0u), Bytes(2)})};
  for (const Bytes& reply : kBad) {
    EXPECT_EQ(KM_ERROR_UNKNOWN_ERROR, Run(reply)) << &reply - kBad;
    EXPECT_EQ(kEmpty, StateOf(kChain));
  }
}

// ---- Export: numbers of the TA become a DER encoding

struct Export : KeyBlobRequest {
  int32_t Run(const Bytes& reply) {
    ReplyTo(kCmdExportKey, Reply::Ok().Out(2, reply));
    return Call("TivasKmExportKey");
  }
};

TEST_F(Export, EncodesRsaKeys) {
  const Pkey rsa = NewRsaKey(2048);
  auto numbers = NumbersOf(rsa.get());
  const Bytes n = numbers["n"], e = numbers["e"];
  const Bytes kReplies[] = {PublicKey(KM_ALGORITHM_RSA, 0, n, e),
                            PublicKey(KM_ALGORITHM_RSA, 0xFFFFFFFF, n, e),
                            PublicKey(KM_ALGORITHM_RSA, 0, Cat({Bytes(3), n}), Cat({{0}, e}))};
  for (const Bytes& reply : kReplies) {
    EXPECT_EQ(0, Run(reply));
    EXPECT_EQ(Spki(rsa.get()), BlobBytes(outputs.data));
  }
}

TEST_F(Export, EncodesEcKeysOfTheCurvesThatLibcryptoHas) {
  const std::pair<int, uint32_t> kCurves[] = {{709, 160}, {711, 192}, {713, 224},
                                              {415, 256}, {715, 384}, {716, 521}};
  for (const auto& [nid, bits] : kCurves) {
    const Pkey ec = NewEcKey(nid);
    if (ec == nullptr) {
      EXPECT_EQ(KM_ERROR_INVALID_ARGUMENT, Run(PublicKey(KM_ALGORITHM_EC, bits, {1}, {1})));
      continue;
    }
    auto numbers = NumbersOf(ec.get());
    EXPECT_EQ(0, Run(PublicKey(KM_ALGORITHM_EC, bits, numbers["x"], numbers["y"])));
    EXPECT_EQ(Spki(ec.get()), BlobBytes(outputs.data));
  }
  EXPECT_NE(nullptr, NewEcKey(415));
}

TEST_F(Export, RejectsRepliesThatAreNoKey) {
  const Bytes x = Ramp(1, 32), good = PublicKey(KM_ALGORITHM_RSA, 2048, x, {1, 0, 1}),
              wrapping = Cat({Le32(1), Le32(0), Le32(~0u), Le32(5), Bytes(4)});  // its lengths
  for (const Bytes& reply : {Bytes(), Bytes(good.begin(), good.begin() + 15),
                             Bytes(good.begin(), good.end() - 1), Cat({good, {0}}), wrapping}) {
    EXPECT_EQ(KM_ERROR_UNKNOWN_ERROR, Run(reply)) << reply.size();
  }
  EXPECT_EQ(KM_ERROR_INVALID_ARGUMENT, Run(PublicKey(KM_ALGORITHM_AES, 256, x, x)));
  EXPECT_EQ(KM_ERROR_INVALID_ARGUMENT, Run(PublicKey(KM_ALGORITHM_EC, 256, {}, {})));
}

}  // namespace
}  // namespace test
