// Key import: what of a PKCS#8 key or of raw bytes goes to the TA, and which keys are rejected.
#include "tests/context/request_test.h"

namespace test {
namespace {

// A P-256 key whose X is one byte short and whose private number fits two bytes, as PKCS#8.
const Bytes kShortEcPkcs8 =
    Cat({Text(std::string("\x30\x41\x02\x01\0\x30\x13\x06\x07\x2a\x86\x48\xce\x3d\x02\x01", 16)),
         Text("\x06\x08\x2a\x86\x48\xce\x3d\x03\x01\x07\x04\x27\x30\x25\x02\x01\x01\x04\x20"),
         Bytes(30), Bytes{1, 0x7b}});
// The same private number on secp256k1.
const Bytes kOtherCurvePkcs8 =
    Cat({Text(std::string("\x30\x3e\x02\x01\0\x30\x10\x06\x07\x2a\x86\x48\xce\x3d\x02\x01", 16)),
         Text("\x06\x05\x2b\x81\x04"), Bytes{0, 0x0a}, Text("\x04\x27\x30\x25\x02\x01\x01\x04\x20"),
         Bytes(30), Bytes{1, 0x7b}});

struct Import : RequestTest {
  void SetUp() override {
    RequestTest::SetUp();
    ReplyTo(kCmdImportKey, Reply::Ok().Out(2, {7}).Out(3, Bytes(8)));
    SetParams({{KM_TAG_KEY_SIZE, 99}});
  }
  int32_t Run(keymaster_key_format_t format, const Bytes& key) {
    const keymaster_blob_t blob = Blob(key);
    args.format = format;
    args.input = &blob;
    return Call("TivasKmImportKey");
  }
  // What goes to the TA with key material: the parameters before, the import's source behind.
  static Parts With(const Bytes& material) {
    return {TwoLists({{KM_TAG_KEY_SIZE, 99}}, {}), material, Le64(1)};
  }
};

TEST_F(Import, SendsEcNumbersAtTheirMinimalLength) {
  EXPECT_EQ(0, Run(KM_KEY_FORMAT_PKCS8, kShortEcPkcs8));
  auto numbers = NumbersOf(ReadPkcs8(kShortEcPkcs8).get());
  const Bytes header = Cat({Le32(256), Le32(4), Le32(31), Le32(32), Le32(2)});
  EXPECT_EQ(With(Cat({header, numbers["x"], numbers["y"], Bytes{1, 0x7b}})), Sent());
}

TEST_F(Import, SendsRawBytesFromTheCallersMemory) {
  const Bytes raw = Ramp(3, 100000);
  EXPECT_EQ(0, Run(KM_KEY_FORMAT_RAW, raw));
  EXPECT_EQ(With(raw), Sent());
  EXPECT_EQ(raw.data(), platform().invocations[0].params[1].buffer);
}

// Unlike a generated RSA key's, an imported key's blob may be empty.
TEST_F(Import, HandsOutAnEmptyKeyBlob) {
  ReplyTo(kCmdImportKey, Reply::Ok().Out(2, {}).Out(3, Bytes(8)));
  EXPECT_EQ(0, Run(KM_KEY_FORMAT_RAW, Ramp(3, 16)));
  EXPECT_NE(nullptr, outputs.key_blob.key_material);
  EXPECT_EQ(0u, outputs.key_blob.key_material_size);
}

TEST_F(Import, AcceptsTheCurvesThatLibcryptoHas) {
  EXPECT_EQ(kBoringSsl ? KM_ERROR_UNSUPPORTED_KEY_FORMAT : 0,
            Run(KM_KEY_FORMAT_PKCS8, kOtherCurvePkcs8));
}

}  // namespace
}  // namespace test
