// Public keys: the TA's numbers become a DER encoding that libcrypto reads back.
#include <openssl/x509.h>

#include "tests/context/request.h"

namespace test {
namespace {

const Bytes kKey = Ramp(0x10, 40);
const keymaster_key_blob_t kKeyBlob = KeyBlob(kKey);

Bytes KeyReply(uint32_t algorithm, uint32_t bits, const Bytes& first, const Bytes& second) {
  return Cat({Le32(algorithm), Le32(bits), Le32(static_cast<uint32_t>(first.size())),
              Le32(static_cast<uint32_t>(second.size())), first, second});
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
  const Bytes n = NumberOf(SharedRsaKey(), "n"), e = NumberOf(SharedRsaKey(), "e");
  const std::string kGood = "0 [5] data=" + Hex(Spki(SharedRsaKey())) + ": I KmExportKey success";
  for (const uint32_t bits : {0u, 0xFFFFFFFFu}) EXPECT_EQ(kGood, Run(KeyReply(1, bits, n, e)));
  EXPECT_EQ(Parts{kKey}, Inputs());
  EXPECT_EQ(kGood, Run(KeyReply(1, 0, Cat({Bytes(3), n}), Cat({{0}, e})))) << "leading zeros";
}

TEST_F(Export, EncodesEcKeys) {
  const Pkey ec(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-521"));
  EXPECT_EQ("0 [5] data=" + Hex(Spki(ec.get())) + ": I nid = 716; I KmExportKey success",
            Run(KeyReply(3, 521, NumberOf(ec.get(), "qx"), NumberOf(ec.get(), "qy"))));
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
  EXPECT_EQ("ffff0009 [5] data=empty: E! TeeExport failed, ret=0xffff0009", Run(TaFails()));
}

TEST_F(Export, SendsClientIdAndAppDataAndChecksItsArguments) {
  const Bytes id = {1, 2, 3, 4}, app = {0x41, 0x42, 0x43};
  const keymaster_blob_t id_blob = Blob(id), app_blob = Blob(app);
  const auto run = [&](int format, const keymaster_key_blob_t* exported,
                       const keymaster_blob_t* client_id, keymaster_blob_t* output) {
    return Outcome(km.TivasKmExportKey(static_cast<keymaster_key_format_t>(format), exported,
                                       client_id, &app_blob, output));
  };
  EXPECT_EQ("-1000 [5] data=empty: E! out_len is too samll(0)", run(0, &kKeyBlob, &id_blob, &data));
  EXPECT_EQ(
      (Parts{kKey, SecondList({{KM_TAG_APPLICATION_ID, id}, {KM_TAG_APPLICATION_DATA, app}})}),
      Inputs());
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
