// Public keys: the TA's numbers become a DER encoding that libcrypto reads back.
#include <openssl/ec.h>
#include <openssl/x509.h>

#include "tests/context/request.h"

namespace test {
namespace {

using Export = RequestTest;

const Bytes kKey = Ramp(0x10, 40);

Bytes KeyReply(uint32_t algorithm, uint32_t bits, const Bytes& first, const Bytes& second) {
  return Cat({Le32(algorithm), Le32(bits), Le32(static_cast<uint32_t>(first.size())),
              Le32(static_cast<uint32_t>(second.size())), first, second});
}

struct Exported {
  Exported(keymaster::KeymasterTivasContext* km, const Bytes& reply) {
    Answer(5, Reply::Ok().Out(2, reply));
    const keymaster_key_blob_t key = KeyBlob(kKey);
    result = km->TivasKmExportKey(KM_KEY_FORMAT_X509, &key, nullptr, nullptr, &output);
  }
  // Whether the output is wholly the encoding of key.
  bool Is(const EVP_PKEY* key) const {
    const uint8_t* at = output.data;
    const Pkey read(d2i_PUBKEY(nullptr, &at, static_cast<long>(output.data_length)));
    return read != nullptr && at == output.data + output.data_length &&
           EVP_PKEY_eq(read.get(), key) == 1;
  }
  int32_t result;
  OutBlob output;
};

TEST_F(Export, EncodesRsaKeys) {
  const Bytes n = BigEndianOf(SharedRsaKey(), "n"), e = BigEndianOf(SharedRsaKey(), "e");
  for (const uint32_t bits : {0u, 2048u, 0xFFFFFFFFu}) {
    Exported exported(&km, KeyReply(1, bits, n, e));
    EXPECT_EQ(0, exported.result);
    EXPECT_TRUE(exported.Is(SharedRsaKey()));
  }
  EXPECT_EQ("I KmExportKey start; I KmExportKey success", RequestLog());
  const Invocation& sent = Sent();
  EXPECT_EQ(0x0605u, sent.param_types);
  EXPECT_EQ(kKey, sent.params[0].in);
  EXPECT_EQ(4096u, sent.params[2].size);
  // Leading zeros do not matter.
  EXPECT_TRUE(Exported(&km, KeyReply(1, 0, Cat({Bytes(3), n}), Cat({{0}, e}))).Is(SharedRsaKey()));
}

TEST_F(Export, EncodesEcKeys) {
  const std::pair<uint32_t, int> kRows[] = {{160, NID_secp160r1}, {192, NID_secp192k1},
                                            {224, NID_secp224r1}, {256, NID_X9_62_prime256v1},
                                            {384, NID_secp384r1}, {521, NID_secp521r1}};
  for (const auto& [bits, nid] : kRows) {
    SCOPED_TRACE(bits);
    const Pkey key(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", OBJ_nid2sn(nid)));
    const Bytes x = BigEndianOf(key.get(), "qx"), y = BigEndianOf(key.get(), "qy");
    Exported exported(&km, KeyReply(3, bits, x, y));
    ASSERT_EQ(0, exported.result);
    EXPECT_TRUE(exported.Is(key.get()));
    EXPECT_EQ(4, exported.output.data[exported.output.data_length - 2 * ((bits + 7) / 8) - 1]);
    EXPECT_EQ("I KmExportKey start; I nid = " + std::to_string(nid) + "; I KmExportKey success",
              RequestLog());
  }
}

TEST_F(Export, RefusesBadReplies) {
  const Bytes n = BigEndianOf(SharedRsaKey(), "n"), e = {1, 0, 1}, x = Ramp(1, 32);
  const Bytes good = KeyReply(1, 2048, n, e);
  const auto sized = [](const std::string& what, size_t size) {
    return "E! out_len is " + what + "(" + std::to_string(size) + ")";
  };
  struct Row {
    Bytes reply;
    int32_t result;
    std::string last;
  };
  const Row kRows[] = {
      {{}, -1000, sized("too samll", 0)},
      {Bytes(good.begin(), good.begin() + 15), -1000, sized("too samll", 15)},
      {Bytes(good.begin(), good.end() - 1), -1000, sized("invalid size", good.size() - 1)},
      {Cat({good, {0}}), -1000, sized("invalid size", good.size() + 1)},
      // Lengths that add up only when they wrap.
      {Cat({Le32(1), Le32(0), Le32(0xFFFFFFFF), Le32(5), Bytes(4)}), -1000,
       sized("invalid size", 20)},
      {KeyReply(0, 256, x, x), -38, "E invalid algorithm:0\n"},
      {KeyReply(32, 256, x, x), -38, "E invalid algorithm:32\n"},
      {KeyReply(3, 255, x, x), -38, "E! invalid ec key size 255"},
      {KeyReply(3, 256, x, x), -38, "E! ec key set pubkey failed"},
      {KeyReply(3, 256, {}, {}), -38, "E! ec key set pubkey failed"}};
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.last);
    Exported exported(&km, row.reply);
    EXPECT_EQ(row.result, exported.result);
    EXPECT_EQ("empty", exported.output.Take());
    EXPECT_EQ(row.last, LastLine());
  }
  // Every wrong length field, by one either way.
  for (const size_t field : {8u, 12u}) {
    for (const int by : {1, 255}) {
      Bytes bad = good;
      bad[field] = static_cast<uint8_t>(bad[field] + by);
      EXPECT_EQ(-1000, Exported(&km, bad).result);
    }
  }
}

TEST_F(Export, SendsClientIdAndAppData) {
  const keymaster_key_blob_t key = KeyBlob(kKey), no_material = {nullptr, 4};
  const Bytes id = {1, 2, 3, 4}, data = {0x41, 0x42, 0x43};
  const keymaster_blob_t id_blob = Blob(id), data_blob = Blob(data), unreadable = {nullptr, 1};
  OutBlob output;
  platform().Queue(5, Reply::Fail(kTaError));
  EXPECT_EQ(kTaFailed,
            km.TivasKmExportKey(KM_KEY_FORMAT_X509, &key, &id_blob, &data_blob, &output));
  EXPECT_EQ("empty", output.Take());
  EXPECT_EQ("E! TeeExport failed, ret=0xffff0009", LastLine());
  EXPECT_EQ(SecondList({{KM_TAG_APPLICATION_ID, id}, {KM_TAG_APPLICATION_DATA, data}}),
            Sent().params[1].in);
  EXPECT_EQ(0x0655u, Sent().param_types);
  platform().ClearRecords();
  for (const int format : {1, 2, 3, -1}) {
    EXPECT_EQ(-17, km.TivasKmExportKey(static_cast<keymaster_key_format_t>(format), &key, &id_blob,
                                       &data_blob, &output));
    EXPECT_EQ("empty", output.Take());
  }
  EXPECT_EQ(-41, km.TivasKmExportKey(KM_KEY_FORMAT_RAW, &key, &unreadable, nullptr, &output));
  EXPECT_EQ("empty", output.Take());
  EXPECT_EQ(-32, km.TivasKmExportKey(KM_KEY_FORMAT_X509, nullptr, nullptr, nullptr, &output));
  EXPECT_EQ(-32, km.TivasKmExportKey(KM_KEY_FORMAT_X509, &no_material, nullptr, nullptr, &output));
  EXPECT_EQ("kept", output.Take());
  EXPECT_EQ(-27, km.TivasKmExportKey(KM_KEY_FORMAT_X509, &key, nullptr, nullptr, nullptr));
  EXPECT_EQ("I KmExportKey start; I KmExportKey start", LastLines(2));
  EXPECT_EQ("", Journal());
}

}  // namespace
}  // namespace test
