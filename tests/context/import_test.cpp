// Key import: real PKCS#8, raw bytes, and what is refused.
#include <openssl/ec.h>
#include <openssl/obj_mac.h>
#include <openssl/rsa.h>

#include "tests/context/request.h"

namespace test {
namespace {

using Import = RequestTest;

// A P-256 key whose X is one byte short and whose private number fits two bytes, as PKCS#8.
const Bytes kShortX = {0x55, 0x43, 0x89, 0x4a, 0xf3, 0xd0, 0x0e, 0xd7, 0xd7, 0x40, 0xab,
                       0xdb, 0xd7, 0x5c, 0x96, 0xb0, 0x68, 0x77, 0xb7, 0x87, 0xdb, 0x5f,
                       0x70, 0xee, 0xa7, 0x8b, 0x90, 0xa8, 0xd7, 0xc0, 0x0a};
const Bytes kShortY = {0xbb, 0x4c, 0x85, 0xa3, 0xd8, 0xea, 0x29, 0xef, 0xaa, 0xfa, 0x24,
                       0x40, 0x69, 0x12, 0xdd, 0x84, 0xd5, 0xb1, 0x4d, 0xc3, 0x2b, 0xf6,
                       0x56, 0xef, 0x6c, 0x6b, 0xd5, 0x8a, 0x5d, 0x94, 0x3f, 0x92};

Bytes ShortEcPkcs8() {
  const Bytes scalar = Cat({Bytes(30), {0x01, 0x7b}});
  return Cat({{0x30, 0x41, 0x02, 0x01, 0x00, 0x30, 0x13, 0x06, 0x07, 0x2a, 0x86, 0x48,
               0xce, 0x3d, 0x02, 0x01, 0x06, 0x08, 0x2a, 0x86, 0x48, 0xce, 0x3d, 0x03,
               0x01, 0x07, 0x04, 0x27, 0x30, 0x25, 0x02, 0x01, 0x01, 0x04, 0x20},
              scalar});
}

Bytes NewPkcs8(const char* type) {
  return Pkcs8(Pkey(EVP_PKEY_Q_keygen(nullptr, nullptr, type)).get());
}

// Imports with one parameter and room for characteristics, and returns the result.
struct Imported {
  Imported(keymaster::KeymasterTivasContext* km, keymaster_key_format_t format, const Bytes& data) {
    platform().ClearRecords();
    ParamSet set({{KM_TAG_KEY_SIZE, 99}});
    // A block of exactly the data's size, for the sanitizer.
    const std::unique_ptr<uint8_t[]> copy(new uint8_t[data.size()]);
    std::copy(data.begin(), data.end(), copy.get());
    const keymaster_blob_t blob = {copy.get(), data.size()};
    result = km->TivasKmImportKey(set.get(), format, &blob, &key, &characteristics);
    EXPECT_EQ(data, BlobBytes(blob)) << "the caller's data must not change";
  }
  int32_t result;
  OutKey key;
  OutCharacteristics characteristics;
};

TEST_F(Import, SendsRsaNumbers) {
  const EVP_PKEY* rsa = SharedRsaKey();
  platform().Queue(4, Reply::Ok().Out(2, {1, 2}).Out(3, Characteristics()));
  const Bytes p = BigEndianOf(rsa, "rsa-factor1");
  WatchSecret(p.data(), 64);
  Imported imported(&km, KM_KEY_FORMAT_PKCS8, Pkcs8(rsa));
  EXPECT_EQ(0, UnwipedFrees());
  EXPECT_EQ(0, imported.result);
  EXPECT_EQ("0102", imported.key.Take());
  EXPECT_EQ(kCharacteristics, imported.characteristics.Take());
  Bytes header = Cat({Le32(2), Le32(256), Le32(256), Le32(3)}), numbers;
  for (const char* name : {"n", "e", "rsa-factor1", "rsa-factor2", "rsa-exponent1", "rsa-exponent2",
                           "rsa-coefficient1"}) {
    const Bytes number = BigEndianOf(rsa, name);
    if (name[0] == 'r') header = Cat({header, Le32(static_cast<uint32_t>(number.size()))});
    numbers = Cat({numbers, number});
  }
  const Invocation& sent = Sent();
  EXPECT_EQ(Cat({header, numbers}), sent.params[1].in);
  EXPECT_EQ(Cat({WireList({Entry(KM_TAG_KEY_SIZE, 99)}), Le32(0)}), sent.params[0].in);
  EXPECT_EQ(1, sent.params[3].in.at(0)) << "import source";
  EXPECT_EQ("I KmImportKey start; I KmImportKey success", RequestLog());
}

TEST_F(Import, SendsEcNumbersAtTheirMinimalLength) {
  Imported imported(&km, KM_KEY_FORMAT_PKCS8, ShortEcPkcs8());
  EXPECT_EQ(-41, imported.result) << "no characteristics came";
  EXPECT_EQ(Cat({Le32(256), Le32(4), Le32(31), Le32(32), Le32(2), kShortX, kShortY, {1, 0x7b}}),
            Sent().params[1].in);
  EXPECT_EQ(
      "I KmImportKey start; I curve name=415, compressed mode=4\n; I keysize = 256\n; I X size = "
      "31; I Y size = 32; I priv key size = 2; E key_character_len too small, len=0; E build key "
      "character failed",
      RequestLog());
}

TEST_F(Import, PassesRawBytesThrough) {
  ParamSet set({});
  for (const size_t length : {size_t{0}, size_t{32}, size_t{100000}}) {
    const Bytes raw = Ramp(3, length);
    platform().Queue(4, Reply::Ok().Out(2, {1}).Out(3, Bytes(8)));
    EXPECT_EQ(0, Imported(&km, KM_KEY_FORMAT_RAW, raw).result);
    EXPECT_EQ(raw, Sent().params[1].in);
    EXPECT_EQ(1, Sent().params[3].in.at(0));
  }
  // Straight from the caller's memory.
  const Bytes raw = Ramp(3, 32);
  const keymaster_blob_t blob = Blob(raw), null_data = {nullptr, 32};
  OutKey key;
  Answer(4, Reply::Ok().Out(2, {1}));
  EXPECT_EQ(0, km.TivasKmImportKey(set.get(), KM_KEY_FORMAT_RAW, &blob, &key, nullptr));
  EXPECT_EQ(raw.data(), Sent().params[1].buffer);
  EXPECT_EQ("01", key.Take());
  platform().ClearRecords();
  EXPECT_EQ(Code(0xFFFF0006),
            km.TivasKmImportKey(set.get(), KM_KEY_FORMAT_RAW, &null_data, &key, nullptr));
  EXPECT_EQ("E! TeeImportKey failed, ret=0xffff0006", LastLine());
  EXPECT_EQ(0u, Commands().size());
}

TEST_F(Import, RefusesWhatItCannotRead) {
  const Bytes good = Pkcs8(SharedRsaKey());
  const std::string kParse = "; E! parse pkcs8 key failed", kFormat = " wrong key format\n";
  struct Row {
    int format;
    Bytes data;
    std::string log;  // behind the start
  };
  const Row kRows[] = {
      {0, good, kFormat},
      {2, good, kFormat},
      {-1, good, kFormat},
      {1, Text("not DER"), "! pkcs8 is NULL" + kParse},
      {1, {}, "! pkcs8 is NULL" + kParse},
      {1, Bytes(good.begin(), good.end() - 1), "! pkcs8 is NULL" + kParse},
      // An algorithm that no one knows.
      {1, {0x30, 0x0c, 2, 1, 0, 0x30, 4, 6, 2, 0x2a, 3, 4, 1, 0}, "! pkey is NULL" + kParse},
      {1, NewPkcs8("ED25519"), " invalid key type:1087\n" + kParse},
      {1, NewPkcs8("X25519"), " invalid key type:1034\n" + kParse}};
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.log);
    Imported imported(&km, static_cast<keymaster_key_format_t>(row.format), row.data);
    EXPECT_EQ(-17, imported.result);
    EXPECT_EQ("kept", imported.key.Take());
    EXPECT_EQ("kept | kept", imported.characteristics.Take());
    EXPECT_EQ("I KmImportKey start; E" + row.log, RequestLog());
    EXPECT_EQ("", Journal());
  }
}

TEST_F(Import, RefusesMissingArgumentsAndPassesCodesOn) {
  ParamSet set({});
  const keymaster_blob_t none = {nullptr, 9};
  OutKey key;
  struct Row {
    const keymaster_key_param_set_t* params;
    const keymaster_blob_t* data;
    keymaster_key_blob_t* key;
    int32_t result;
    std::string last;
  };
  const Row kRows[] = {{nullptr, &none, &key, -32, "I KmImportKey start"},
                       {set.get(), nullptr, nullptr, -32, "I KmImportKey start"},
                       {set.get(), &none, nullptr, -27, "E! keyBlob is NULL"},
                       {set.get(), &none, &key, -17, "E! parse pkcs8 key failed"}};
  for (const Row& row : kRows) {
    EXPECT_EQ(row.result,
              km.TivasKmImportKey(row.params, KM_KEY_FORMAT_PKCS8, row.data, row.key, nullptr));
    EXPECT_EQ(row.last, LastLine());
  }
  const keymaster_key_param_set_t hollow = {nullptr, 2};
  EXPECT_EQ(-41, km.TivasKmImportKey(&hollow, KM_KEY_FORMAT_RAW, &none, &key, nullptr));
  EXPECT_EQ("E! build km params failed", LastLine());
  platform().Queue(4, Reply::Fail(kTaError).Out(2, {1}).Out(3, Characteristics()));
  Imported failed(&km, KM_KEY_FORMAT_RAW, {1});
  EXPECT_EQ(kTaFailed, failed.result);
  EXPECT_EQ("kept", failed.key.Take());
  EXPECT_EQ("kept | kept", failed.characteristics.Take());
  EXPECT_EQ("E! TeeImportKey failed, ret=0xffff0009", LastLine());
  platform().Queue(4, Reply::Ok().Out(2, {1}).Out(3, Cat({Le32(1), Le32(0)})));
  Imported undecoded(&km, KM_KEY_FORMAT_RAW, {1});
  EXPECT_EQ(-41, undecoded.result);
  EXPECT_EQ("empty", undecoded.key.Take());
  EXPECT_EQ("empty | empty", undecoded.characteristics.Take());
}

}  // namespace
}  // namespace test
