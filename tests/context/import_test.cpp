// Key import: real PKCS#8, raw bytes, and what is refused.
#include "tests/context/request.h"

namespace test {
namespace {

// A P-256 key whose X is one byte short and whose private number fits two bytes, as PKCS#8.
const Bytes kShortEcPkcs8 =
    Cat({Text(std::string("\x30\x41\x02\x01\0\x30\x13\x06\x07\x2a\x86\x48\xce\x3d\x02\x01", 16)),
         Text("\x06\x08\x2a\x86\x48\xce\x3d\x03\x01\x07\x04\x27\x30\x25\x02\x01\x01\x04\x20"),
         Bytes(30), Bytes{1, 0x7b}});

struct Import : RequestTest {
  Import() { start = "I KmImportKey start"; }
  std::string Run(int format, const Bytes& bytes) {
    const keymaster_blob_t blob = Blob(bytes);
    return Run(format, &blob);
  }
  std::string Run(int format, const keymaster_blob_t* blob) {
    ParamSet set({{KM_TAG_KEY_SIZE, 99}});
    return Outcome(km.TivasKmImportKey(set.get(), static_cast<keymaster_key_format_t>(format), blob,
                                       &key, &traits));
  }
  // What goes to the TA with that key.
  static Parts Sends(const Bytes& bytes) {
    return {Cat({WireList({Entry(KM_TAG_KEY_SIZE, 99)}), Le32(0)}), bytes, Le64(1)};
  }
};

TEST_F(Import, SendsEcNumbersAtTheirMinimalLength) {
  EXPECT_EQ(
      "-41 [4] key=empty: I curve name=415, compressed mode=4\n; I keysize = 256\n; "
      "I X size = 31; I Y size = 32; I priv key size = 2; "
      "E key_character_len too small, len=0; E build key character failed",
      Run(KM_KEY_FORMAT_PKCS8, kShortEcPkcs8));
  const uint8_t* at = kShortEcPkcs8.data();
  const Pkey ec(d2i_AutoPrivateKey(nullptr, &at, static_cast<long>(kShortEcPkcs8.size())));
  const Bytes header = Cat({Le32(256), Le32(4), Le32(31), Le32(32), Le32(2)});
  auto numbers = NumbersOf(ec.get());
  EXPECT_EQ(Sends(Cat({header, numbers["x"], numbers["y"], Bytes{1, 0x7b}})), Inputs());
}

// A curve that libcrypto need not have, with another scalar as short.
TEST_F(Import, TakesTheCurvesThatLibcryptoHas) {
  const Bytes secp256k1 =
      Cat({Text(std::string("\x30\x3e\x02\x01\0\x30\x10\x06\x07\x2a\x86\x48\xce\x3d\x02\x01", 16)),
           Text("\x06\x05\x2b\x81\x04"), Bytes{0, 0x0a},
           Text("\x04\x27\x30\x25\x02\x01\x01\x04\x20"), Bytes(30), Bytes{1, 0x7b}});
  const std::string outcome = Run(KM_KEY_FORMAT_PKCS8, secp256k1);
  const std::string expected =
      kBoringSsl ? "-17: E! pkey is NULL; E! parse pkcs8 key failed"
                 : "-41 [4] key=empty: I curve name=714, compressed mode=4\n; I keysize = 256\n; ";
  EXPECT_EQ(expected, outcome.substr(0, expected.size()));
}

TEST_F(Import, PassesRawBytesThrough) {
  Answer(4, Reply::Ok().Out(2, {1}).Out(3, Bytes(8)));
  for (const size_t length : {size_t{1}, size_t{32}, size_t{100000}}) {
    const Bytes raw = Ramp(3, length);
    EXPECT_EQ("0 [4] key=01 traits=empty|empty: I KmImportKey success",
              Run(KM_KEY_FORMAT_RAW, raw));
    EXPECT_EQ(Sends(raw), Inputs());
    EXPECT_EQ(raw.data(), sent[0].params[1].buffer) << "straight from the caller's memory";
  }
}

TEST_F(Import, HandlesReplies) {
  const auto run = [this](const Reply& reply) {
    Answer(4, reply);
    return Run(KM_KEY_FORMAT_RAW, Bytes(1));
  };
  const Bytes full = Ramp(0, 4096);
  const Reply good = Reply::Ok().Out(2, full).Out(3, Characteristics());
  EXPECT_EQ("0 [4] key=" + Hex(full) + kTraits + ": I KmImportKey success", run(good));
  EXPECT_EQ("-1000 [4]: E! invalid keyBlobLen:4097\n", run(Reply(good).Size(2, 4097)));
  EXPECT_EQ(
      "-41 [4] key=empty traits=empty|empty: E 2 invalid key character size, 4-4; "
      "E build key character failed",
      run(Reply(good).Out(3, Bytes(4))));
  EXPECT_EQ("ffff0009 [4 66]" + Failed("TeeImportKey"), run(TaFails()));
}

TEST_F(Import, RefusesWhatItCannotRead) {
  const Bytes good = Pkcs8(SharedRsaKey());
  const std::string kFormat = "-17: E wrong key format\n", kParse = "E! parse pkcs8 key failed",
                    kNoPkcs8 = "-17: E! pkcs8 is NULL; " + kParse;
  // An algorithm that no one knows.
  const Bytes unknown = {0x30, 0x0c, 2, 1, 0, 0x30, 4, 6, 2, 0x2a, 3, 4, 1, 0};
  for (const int format : {0, 2, -1}) EXPECT_EQ(kFormat, Run(format, good));
  EXPECT_EQ(kNoPkcs8, Run(1, Text("not DER")));
  EXPECT_EQ(kNoPkcs8, Run(1, Bytes(good.begin(), good.end() - 1)));
  EXPECT_EQ("-17: E! pkey is NULL; " + kParse, Run(1, unknown));
  for (const int type : {EVP_PKEY_ED25519, EVP_PKEY_X25519}) {
    EXPECT_EQ("-17: E invalid key type:" + std::to_string(type) + "\n; " + kParse,
              Run(1, Pkcs8(NewKey(type).get())));
  }
  EXPECT_EQ("-17: " + kParse, Run(1, &kHollowBlob));
  EXPECT_EQ("ffff0006: E! TeeImportKey failed, ret=0xffff0006", Run(3, &kHollowBlob));
  const auto import = [this](const keymaster_key_param_set_t* set, const keymaster_blob_t* blob,
                             keymaster_key_blob_t* out) {
    return Outcome(km.TivasKmImportKey(set, KM_KEY_FORMAT_X509, blob, out, nullptr));
  };
  EXPECT_EQ("-32", import(nullptr, &kHollowBlob, nullptr));
  EXPECT_EQ("-32", import(&kHollowSet, nullptr, nullptr));
  EXPECT_EQ("-27: E! keyBlob is NULL", import(&kHollowSet, &kHollowBlob, nullptr));
  EXPECT_EQ("-41: E! build km params failed", import(&kHollowSet, &kHollowBlob, &key));
}

}  // namespace
}  // namespace test
