// Requests about a key blob: its characteristics, its upgrade and its deletion.
#include "tests/context/request.h"

namespace test {
namespace {

using KeyBlobRequest = RequestTest;

const Bytes kKey = Ramp(0x20, 33);

TEST_F(KeyBlobRequest, CharacteristicsSendsClientIdAndAppData) {
  const Bytes id = {1, 2, 3, 4}, data = {0x41, 0x42, 0x43}, nothing;
  const keymaster_blob_t id_blob = Blob(id), data_blob = Blob(data), empty_blob = {nullptr, 0};
  struct Row {
    const keymaster_blob_t *id, *data;
    Bytes params;
  };
  const Row kRows[] = {{nullptr, nullptr, {}},
                       {nullptr, &data_blob, {0, 0, 0, 0, 1, 0, 0, 0, 0xBC, 2, 0,    0x90, 0,   0,
                                              0, 0, 0, 0, 0, 0, 3, 0, 0,    0, 0x41, 0x42, 0x43}},
                       {&id_blob, &data_blob,
                        SecondList({{KM_TAG_APPLICATION_ID, id}, {KM_TAG_APPLICATION_DATA, data}})},
                       {&empty_blob, nullptr, SecondList({{KM_TAG_APPLICATION_ID, {}}})}};
  const keymaster_key_blob_t key = KeyBlob(kKey);
  for (const Row& row : kRows) {
    Answer(3, Reply::Ok().Out(2, Characteristics()));
    OutCharacteristics characteristics;
    EXPECT_EQ(0, km.TivasKmGetKeyCharacteristics(&key, row.id, row.data, &characteristics));
    EXPECT_EQ(kCharacteristics, characteristics.Take());
    const Invocation& sent = Sent();
    EXPECT_EQ(row.params.empty() ? 0x0605u : 0x0655u, sent.param_types);
    EXPECT_EQ(kKey, sent.params[0].in);
    EXPECT_EQ(row.params, sent.params[1].in);
    EXPECT_EQ(4096u, sent.params[2].size);
    EXPECT_EQ("I KmGetKeyCharacteristics start; I KmGetKeyCharacteristics success", RequestLog());
  }
}

TEST_F(KeyBlobRequest, CharacteristicsFailures) {
  const keymaster_key_blob_t key = KeyBlob(kKey), none = {nullptr, 1};
  const keymaster_blob_t unreadable = {nullptr, 5};
  OutCharacteristics out;
  EXPECT_EQ(-32, km.TivasKmGetKeyCharacteristics(nullptr, nullptr, nullptr, &out));
  EXPECT_EQ(-32, km.TivasKmGetKeyCharacteristics(&none, nullptr, nullptr, &out));
  EXPECT_EQ(-27, km.TivasKmGetKeyCharacteristics(&key, nullptr, nullptr, nullptr));
  EXPECT_EQ(-41, km.TivasKmGetKeyCharacteristics(&key, &unreadable, nullptr, &out));
  EXPECT_EQ("", Journal());
  platform().Queue(3, Reply::Fail(kTaError).Out(2, Characteristics()));
  EXPECT_EQ(kTaFailed, km.TivasKmGetKeyCharacteristics(&key, nullptr, nullptr, &out));
  EXPECT_EQ("E! TeeGetKeyCharacteristics failed, ret=0xffff0009", LastLine());
  EXPECT_EQ("kept | kept", out.Take());
  // Every cut of the reply but those behind its last byte.
  const Bytes reply = Characteristics();
  for (size_t length = 4; length < reply.size(); ++length) {
    platform().Queue(
        3, Reply::Ok().Out(2, Bytes(reply.begin(), reply.begin() + static_cast<long>(length))));
    EXPECT_EQ(-41, km.TivasKmGetKeyCharacteristics(&key, nullptr, nullptr, &out)) << length;
    EXPECT_EQ("empty | empty", out.Take()) << length;
  }
}

TEST_F(KeyBlobRequest, Upgrade) {
  ParamSet params({{KM_TAG_APPLICATION_DATA, Bytes{7}}, {KM_TAG_ALGORITHM, 3}});
  const keymaster_key_blob_t key = KeyBlob(kKey), none = {nullptr, 1};
  const Bytes full = Ramp(9, 4096);
  struct Row {
    const keymaster_key_blob_t* key;
    const keymaster_key_param_set_t* params;
    Reply reply;
    int32_t result;
    std::string upgraded, last;
  };
  const Row kRows[] = {
      {&key, params.get(), Reply::Ok().Out(2, {5, 6, 7}), 0, "050607", "I KmUpgradeKey success"},
      {&key, params.get(), Reply::Ok().Out(2, full), 0, Hex(full), "I KmUpgradeKey success"},
      {&key, params.get(), Reply::Ok(), 0, "kept", "I KmUpgradeKey don't need upgradekey"},
      {&key, params.get(), Reply::Fail(kTaError).Out(2, {5}), kTaFailed, "kept",
       "E! TeeUpgrade failed, ret=0xffff0009"},
      {&none, params.get(), Reply::Ok(), Code(0xFFFF0006), "kept",
       "E! TeeUpgrade failed, ret=0xffff0006"},
      {nullptr, params.get(), Reply::Ok(), -32, "kept", "I KmUpgradeKey start"},
      {&key, nullptr, Reply::Ok(), -32, "kept", "I KmUpgradeKey start"}};
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.last);
    Answer(7, row.reply);
    OutKey upgraded;
    EXPECT_EQ(row.result, km.TivasKmUpgradeKey(row.key, row.params, &upgraded));
    EXPECT_EQ(row.upgraded, upgraded.Take());
    EXPECT_EQ(row.last, LastLine());
    if (row.result != 0) continue;
    const Invocation& sent = Sent();
    EXPECT_EQ(kKey, sent.params[0].in);
    EXPECT_EQ(Cat({WireList({Entry(KM_TAG_ALGORITHM, 3)}),
                   WireList({BytesEntry(KM_TAG_APPLICATION_DATA, 0, 1)}),
                   {7}}),
              sent.params[1].in);
  }
  EXPECT_EQ(-27, km.TivasKmUpgradeKey(&key, params.get(), nullptr));
}

TEST_F(KeyBlobRequest, Delete) {
  const keymaster_key_blob_t key = KeyBlob(kKey), none = {nullptr, 1};
  for (const keymaster_key_blob_t* bad :
       {static_cast<const keymaster_key_blob_t*>(nullptr), &none}) {
    platform().ClearRecords();
    EXPECT_EQ(-100, km.TivasKmDeletekey(bad));
    EXPECT_EQ("I KmDeletekey start; E! NULL pointers.\n", RequestLog());
    EXPECT_EQ("", Journal());
  }
  EXPECT_EQ(0, km.TivasKmDeletekey(&key));
  EXPECT_EQ("I km_delete success", LastLine());
  EXPECT_EQ(kKey, Sent().params[0].in);
  platform().Queue(31, Reply::Fail(kTaError));
  EXPECT_EQ(kTaFailed, km.TivasKmDeletekey(&key));
  EXPECT_EQ("E! TeeDeleteKey failed, ret=0xffff0009", LastLine());
}

}  // namespace
}  // namespace test
