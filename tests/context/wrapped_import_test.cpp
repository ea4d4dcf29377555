// The import of wrapped keys, command by command.
#include <keymaster/authorization_set.h>
#include <string.h>

#include <thread>

#include "tests/context/request.h"

namespace test {
namespace {

using keymaster::TKeymasterBlob;

// ---- Wrappers

Bytes Der(const Bytes& tag, const Bytes& content) {
  const size_t n = content.size();
  const Bytes length = n < 128 ? Bytes{static_cast<uint8_t>(n)}
                               : Bytes{0x82, static_cast<uint8_t>(n >> 8), static_cast<uint8_t>(n)};
  return Cat({tag, length, content});
}
Bytes Octets(const Bytes& content) { return Der({4}, content); }

struct Wrapper {
  Bytes transit = Ramp(1, 256), iv = Ramp(0x21, 12), secret = Ramp(0x80, 24), tag = Ramp(0xF0, 16);
  Bytes params = {0xa2, 3, 2, 1, 0x20};  // AES
  Bytes Description() const { return Der({0x30}, Cat({{2, 1, 3}, Der({0x30}, params)})); }
  Bytes Encode() const {
    return Der(
        {0x30},
        Cat({{2, 1, 0}, Octets(transit), Octets(iv), Description(), Octets(secret), Octets(tag)}));
  }
  // Adds a user secure id of 7 and an auth token of the given type and length.
  Wrapper& AddSecureId(uint32_t type, size_t length) {
    Bytes token = Cat({Bytes(25, 0xEE), Le32(type), Bytes(40, 0xEE)});
    token.resize(length);
    params = Cat({params, {0xbf, 0x83, 0x76, 3, 2, 1, 7}, Der({0xbf, 0x87, 0x6a}, Octets(token))});
    return *this;
  }
};

// ---- The request

const Bytes kMask = Ramp(0x5A, 32), kTransitKey = Ramp(0xC0, 32), kMaterial = Ramp(0x11, 24);
Bytes Masked(const Bytes& key) {
  Bytes out = key;
  for (size_t i = 0; i < key.size(); ++i) out[i] = static_cast<uint8_t>(key[i] ^ kMask[i]);
  return out;
}
Bytes FinalInput(const Bytes& input) {
  return Cat({{0}, Le32(static_cast<uint32_t>(input.size())), input, {1}, Le32(0)});
}
Bytes Purposes(std::initializer_list<uint64_t> hw, std::initializer_list<uint64_t> sw) {
  Bytes out;
  for (const auto& list : {hw, sw}) {
    out = Cat({out, Le32(static_cast<uint32_t>(list.size()))});
    for (const uint64_t purpose : list) out = Cat({out, Entry(KM_TAG_PURPOSE, purpose)});
  }
  return out;
}
constexpr char kParamsNull[] = "E! params or keyData is NULL";

struct WrappedImport : RequestTest {
  void SetUp() override {
    KeymasterTest::SetUp();
    AnswerAll();
  }
  // The TA unwraps: transit key and key material come from finishes, keys from imports.
  void AnswerAll() {
    platform().queued.clear();
    platform().Queue(3, Reply::Ok().Out(2, Purposes({1, 5}, {})));
    for (uint32_t i = 1; i <= 2; ++i) platform().Queue(8, Reply::Ok().Value(3, i, 0));
    platform().Queue(10, Reply::Ok().Out(3, Masked(kTransitKey)));
    platform().Queue(10, Reply::Ok().Out(3, kMaterial));
    platform().Queue(4, Reply::Ok().Out(2, Text("transit")));
    platform().Queue(4, Reply::Ok().Out(2, Text("key")).Out(3, Characteristics()));
  }
  int32_t Run() {
    key_.Take();
    characteristics_.Take();
    platform().ClearRecords();
    const Bytes encoded = wrapper_.Encode();
    const keymaster_key_blob_t wrapped = KeyBlob(encoded), wrapping = KeyBlob(wrapping_),
                               mask = KeyBlob(mask_);
    return km.TivasKmImportWrappedKeyNew(&wrapped, &wrapping, &mask, unwrapping_, 0xAAAA, 0xBBBB,
                                         &key_, &characteristics_);
  }
  void ExpectNoKey() {
    EXPECT_EQ("kept", key_.Take());
    EXPECT_EQ("kept | kept", characteristics_.Take());
  }
  const SeenParam& Seen(size_t invocation, int param) {
    return platform().invocations.at(invocation).params[param];
  }

  Wrapper wrapper_;
  Bytes wrapping_ = Ramp(0x66, 50), mask_ = kMask;
  keymaster_key_param_set_t empty_ = {nullptr, 0};
  const keymaster_key_param_set_t* unwrapping_ = &empty_;
  OutKey key_;
  OutCharacteristics characteristics_;
};

TEST_F(WrappedImport, SendsSevenCommands) {
  EXPECT_EQ(0, Run());
  EXPECT_EQ(Hex(Text("key")), key_.Take());
  EXPECT_EQ(kCharacteristics, characteristics_.Take());
  ASSERT_EQ((std::vector<uint32_t>{3, 8, 10, 4, 8, 10, 4}), Commands());
  // The wrapping key's characteristics.
  EXPECT_EQ(0x0605u, platform().invocations[0].param_types);
  EXPECT_EQ(wrapping_, Seen(0, 0).in);
  // The transit key's decryption, under the default parameters.
  EXPECT_EQ(wrapping_, Seen(1, 0).in);
  EXPECT_EQ(1u, Seen(1, 3).value.a);
  EXPECT_EQ(Cat({WireList({Entry(0x20000005, 2), Entry(0x10000002, 1), Entry(0x20000006, 2),
                           Entry(0x30000003, 2048), Entry(0x500000C8, 4096), Entry(0x20000001, 5)}),
                 Le32(0)}),
            Seen(1, 1).in);
  EXPECT_EQ(0x6750u, platform().invocations[2].param_types);
  EXPECT_EQ(FinalInput(wrapper_.transit), Seen(2, 1).in);
  EXPECT_EQ(1u, U32(Seen(2, 2).in, 0));
  // The transit key's import.
  EXPECT_EQ(Cat({WireList({Entry(0x20000001, 1), Entry(0x10000002, 32), Entry(0x20000006, 1),
                           Entry(0x20000004, 32), Entry(0x70000007, 1), Entry(0x30000003, 256)}),
                 WireList({Entry(0x30000008, 128)})}),
            Seen(3, 0).in);
  EXPECT_EQ(kTransitKey, Seen(3, 1).in);
  EXPECT_EQ(1, Seen(3, 3).in.at(0)) << "import source";
  // The key material's decryption.
  EXPECT_EQ(Text("transit"), Seen(4, 0).in);
  EXPECT_EQ(1u, Seen(4, 3).value.a);
  EXPECT_EQ(Cat({WireList({Entry(0x20000006, 1), Entry(0x20000004, 32), Entry(0x30000003, 256)}),
                 WireList({BytesEntry(0x900003E9, 0, 12), Entry(0x300003EB, 128)}), wrapper_.iv}),
            Seen(4, 1).in);
  EXPECT_EQ(SecondList({{0x900003E8, wrapper_.Description()}}), Seen(5, 0).in);
  EXPECT_EQ(FinalInput(Cat({wrapper_.secret, wrapper_.tag})), Seen(5, 1).in);
  EXPECT_EQ(2u, U32(Seen(5, 2).in, 0));
  // The key's import.
  EXPECT_EQ(Cat({WireList({Entry(KM_TAG_ALGORITHM, 32)}), Le32(0)}), Seen(6, 0).in);
  EXPECT_EQ(kMaterial, Seen(6, 1).in);
  EXPECT_EQ(2, Seen(6, 3).in.at(0)) << "import source";
  EXPECT_EQ(0u, RequestLog().find("I km_import_wrapped_key start; "));
  EXPECT_EQ("I km_import_wrapped_key finish", LastLine());
}

TEST_F(WrappedImport, WipesSecrets) {
  for (const Bytes& secret : {kTransitKey, Masked(kTransitKey), kMaterial, wrapper_.secret}) {
    AnswerAll();
    WatchSecret(secret.data(), secret.size());
    EXPECT_EQ(0, Run());
    EXPECT_EQ(0, UnwipedFrees()) << Hex(secret);
  }
}

TEST_F(WrappedImport, WrappingKeyMustBeForWrapping) {
  const std::pair<Bytes, bool> kRows[] = {
      {Purposes({5}, {}), true},
      {Purposes({}, {5}), true},
      {Purposes({1, 2}, {0, 5, 1}), true},
      {Purposes({1, 2}, {0}), false},
      {Purposes({}, {}), false},
      {Cat({WireList({Entry(KM_TAG_ALGORITHM, 5)}), Le32(0)}), false}};
  for (const auto& [reply, accepted] : kRows) {
    SCOPED_TRACE(Hex(reply));
    AnswerAll();
    platform().queued[3] = {Reply::Ok().Out(2, reply)};
    EXPECT_EQ(accepted ? 0 : -3, Run());
    if (accepted) continue;
    ExpectNoKey();
    EXPECT_EQ(std::vector<uint32_t>{3}, Commands());
    EXPECT_EQ("E! wrappingKeyBlob is invalid; E KmUnwrappedKey failed, ret fffffffd", LastLines(2));
  }
}

TEST_F(WrappedImport, UnwrappingParametersReplaceTheDefaults) {
  ParamSet own({{KM_TAG_DIGEST, KM_DIGEST_SHA_2_256}});
  const keymaster_key_param_set_t hollow = {nullptr, 3};
  EXPECT_EQ(0, (unwrapping_ = own.get(), Run()));
  EXPECT_EQ(Cat({WireList({Entry(KM_TAG_DIGEST, 4)}), Le32(0)}), Seen(1, 1).in);
  AnswerAll();
  EXPECT_EQ(0, (unwrapping_ = &hollow, Run()));
  EXPECT_EQ(6u, U32(Seen(1, 1).in, 0));
  AnswerAll();
  EXPECT_EQ(-32, (unwrapping_ = nullptr, Run()));
  ExpectNoKey();
  EXPECT_EQ("E KmUnwrappedKey failed, ret ffffffe0", LastLine());
  EXPECT_EQ(std::vector<uint32_t>{3}, Commands());
}

TEST_F(WrappedImport, MaskMustBeAsLongAsTheTransitKey) {
  mask_ = Bytes(32);
  EXPECT_EQ(0, Run());
  EXPECT_EQ(Masked(kTransitKey), Seen(3, 1).in) << "a mask of zeros changes nothing";
  for (const size_t length : {0u, 31u, 33u}) {
    AnswerAll();
    mask_ = Ramp(1, length);
    EXPECT_EQ(-38, Run());
    ExpectNoKey();
    EXPECT_EQ((std::vector<uint32_t>{3, 8, 10}), Commands());
    EXPECT_EQ("E XOR size is not equal\n; E KmUnwrappedKey failed, ret ffffffda", LastLines(2));
  }
}

TEST_F(WrappedImport, SecureIdFollowsTheAuthToken) {
  struct Row {
    uint32_t type;
    size_t length;
    uint64_t secure_id;
  };
  const Row kRows[] = {{1, 69, 0xAAAA}, {2, 69, 0xBBBB}, {2, 29, 0xBBBB},    {0, 69, 7},
                       {3, 69, 7},      {1, 28, 7},      {0x01000000, 69, 7}};
  for (const Row& row : kRows) {
    AnswerAll();
    wrapper_ = Wrapper().AddSecureId(row.type, row.length);
    EXPECT_EQ(0, Run());
    const Bytes& params = Seen(6, 0).in;  // algorithm, then secure id and token
    ASSERT_LE(60u, params.size());
    EXPECT_EQ(Entry(KM_TAG_USER_SECURE_ID, row.secure_id),
              Bytes(params.begin() + 24, params.begin() + 40));
  }
}

TEST_F(WrappedImport, EveryStepMayFail) {
  const std::string kFailed = " failed, error ffff0009; ",
                    kUnwrap = "E KmUnwrappedKey failed, ret ffff0009",
                    kRsa = kFailed + "E TransitKeyRsaDecrypt is invalid; " + kUnwrap,
                    kGcm = kFailed + "E! WrappedKeyAesGcmDecrypt is invalid; " + kUnwrap;
  struct Row {
    size_t nth;  // of the last command
    std::vector<uint32_t> commands;
    size_t lines;
    std::string last;
  };
  const Row kRows[] = {{0, {3}, 2, "E! KmGetKeyCharacteristics" + kFailed + kUnwrap},
                       {0, {3, 8}, 3, "E! KmBegin" + kRsa},
                       {0, {3, 8, 10}, 3, "E! KmFinish" + kRsa},
                       {0, {3, 8, 10, 4}, 3, "E! KmImportKey" + kGcm},
                       {1, {3, 8, 10, 4, 8}, 3, "E! KmBegin" + kGcm},
                       {1, {3, 8, 10, 4, 8, 10}, 3, "E! KmFinish" + kGcm},
                       {1, {3, 8, 10, 4, 8, 10, 4}, 1, "E KmImportKey failed, ret ffff0009"}};
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.commands.size());
    AnswerAll();
    platform().queued[row.commands.back()][row.nth] = Reply::Fail(kTaError).Out(2, {1}).Out(3, {1});
    EXPECT_EQ(kTaFailed, Run());
    ExpectNoKey();
    std::vector<uint32_t> commands = Commands();
    if (commands.back() == 66) commands.pop_back();  // the error record's
    EXPECT_EQ(row.commands, commands) << "no abort";
    EXPECT_EQ(row.last, LastLines(row.lines));
  }
  // A plain import is a plain import again.
  const keymaster_blob_t data = Blob(kMaterial);
  OutKey key;
  platform().ClearRecords();
  EXPECT_EQ(0, km.TivasKmImportKey(&empty_, KM_KEY_FORMAT_RAW, &data, &key, nullptr));
  EXPECT_EQ(1, Seen(0, 3).in.at(0));
}

TEST_F(WrappedImport, EveryCallMayFail) {
  FailEachCallOf([this] {
    AnswerAll();
    const int32_t result = Run();
    const std::string key = key_.Take(), characteristics = characteristics_.Take();
    EXPECT_TRUE(result == 0 || key == "kept" || key == "empty") << key;
    EXPECT_TRUE(result == 0 || characteristics == "kept | kept" ||
                characteristics == "empty | empty");
    return result;
  });
}

TEST_F(WrappedImport, RefusesBadWrappers) {
  const Bytes good = wrapper_.Encode();
  const keymaster_key_blob_t wrapping = KeyBlob(wrapping_), mask = KeyBlob(mask_);
  for (const Bytes& bad :
       {Text("not DER"), Bytes(good.begin(), good.end() - 1), Cat({good, {0}})}) {
    const keymaster_key_blob_t wrapped = KeyBlob(bad);
    platform().ClearRecords();
    EXPECT_EQ(
        KM_ERROR_INVALID_ARGUMENT,
        km.TivasKmImportWrappedKeyNew(&wrapped, &wrapping, &mask, &empty_, 1, 2, &key_, nullptr));
    EXPECT_EQ(
        "I km_import_wrapped_key start; E! parse_wrapped_key failed, error ffffffda; E "
        "KmUnwrappedKey failed, ret ffffffda",
        RequestLog());
    EXPECT_EQ("", Journal());
  }
  wrapper_.secret = wrapper_.tag = {};
  EXPECT_EQ(-21, Run());
  EXPECT_EQ("E KmUnwrappedKey failed, ret ffffffeb", LastLine());
  EXPECT_EQ((std::vector<uint32_t>{3, 8, 10}), Commands());
  ExpectNoKey();
}

TEST_F(WrappedImport, NullArguments) {
  const Bytes encoded = wrapper_.Encode();
  const keymaster_key_blob_t good = KeyBlob(encoded), key = KeyBlob(wrapping_),
                             mask = KeyBlob(mask_), hollow = {nullptr, 32};
  struct Row {
    const keymaster_key_blob_t *wrapped, *wrapping, *mask;
    const keymaster_key_param_set_t* unwrapping;
    bool output;
    int32_t result;  // 1: any failure
    std::string last;
    size_t commands;
  };
  const Row kRows[] = {
      {nullptr, &key, &mask, &empty_, true, -32, kParamsNull, 0},
      {&hollow, &key, &mask, &empty_, true, -32, kParamsNull, 0},
      {&good, nullptr, &mask, &empty_, true, -32, kParamsNull, 0},
      {&good, &key, nullptr, &empty_, true, -32, kParamsNull, 0},
      {&good, nullptr, nullptr, nullptr, false, -32, kParamsNull, 0},
      {&good, &key, &mask, nullptr, false, -27, "E! keyBlob is NULL", 0},
      {&good, &hollow, &mask, &empty_, true, -32, "E KmUnwrappedKey failed, ret ffffffe0", 0},
      {&good, &hollow, &hollow, nullptr, true, -32, "E KmUnwrappedKey failed, ret ffffffe0", 0},
      {&good, &key, &hollow, nullptr, true, -32, "E KmUnwrappedKey failed, ret ffffffe0", 1},
      {&good, &key, &hollow, &empty_, true, 1, "", 3}};
  for (const Row& row : kRows) {
    SCOPED_TRACE(&row - kRows);
    AnswerAll();
    platform().ClearRecords();
    const int32_t result =
        km.TivasKmImportWrappedKeyNew(row.wrapped, row.wrapping, row.mask, row.unwrapping, 1, 2,
                                      row.output ? &key_ : nullptr, nullptr);
    EXPECT_TRUE(row.result == 1 ? result != 0 : result == row.result) << result;
    EXPECT_TRUE(row.last.empty() || row.last == LastLine()) << LastLine();
    EXPECT_EQ(row.commands, Commands().size());
    ExpectNoKey();
  }
}

TEST_F(WrappedImport, StepsCheckTheirOwnArguments) {
  keymaster_key_blob_t wrapping = KeyBlob(wrapping_);
  TKeymasterBlob<keymaster_key_blob_t> transit, wrapped;
  transit.key_material = keymaster::dup_buffer("abc", transit.key_material_size = 3);
  keymaster_blob_t plain{};
  EXPECT_EQ(-32, km.DecryptTransitKeyMaterial(&wrapping, nullptr, &transit, &plain));
  EXPECT_EQ(-32, km.DecryptTransitKeyMaterial(&wrapping, &empty_, nullptr, &plain));
  EXPECT_EQ(-32, km.DecryptTransitKeyMaterial(&wrapping, &empty_, &transit, nullptr));
  keymaster::AuthorizationSet list;
  keymaster_key_format_t format = KM_KEY_FORMAT_X509;
  EXPECT_EQ(-32, km.TivasKmUnwrappedKey(&wrapped, &wrapping, &empty_, &wrapping, &list, &format,
                                        nullptr));
  EXPECT_EQ("", Journal());
  EXPECT_EQ(0, km.DecryptTransitKeyMaterial(&wrapping, &empty_, &transit, &plain));
  EXPECT_EQ(Masked(kTransitKey), BlobBytes(plain));
  free(const_cast<uint8_t*>(plain.data));
  // A missing mask is noticed only once the transit key is there.
  AnswerAll();
  platform().ClearRecords();
  const Bytes encoded = wrapper_.Encode();
  wrapped.key_material =
      keymaster::dup_buffer(encoded.data(), wrapped.key_material_size = encoded.size());
  plain = {};
  EXPECT_EQ(-32,
            km.TivasKmUnwrappedKey(&wrapped, &wrapping, &empty_, nullptr, &list, &format, &plain));
  EXPECT_EQ((std::vector<uint32_t>{3, 8, 10}), Commands());
  EXPECT_EQ(nullptr, plain.data);
}

TEST_F(WrappedImport, MarksOnlyItsOwnThread) {
  const keymaster_blob_t data = Blob(kMaterial);
  std::vector<int> sources;
  platform().queued[4].clear();
  platform().On(4, [&](const Invocation& invocation) {
    sources.push_back(invocation.params[3].in.at(0));
    if (sources.back() == 2) {
      std::thread([&] {
        OutKey key;
        EXPECT_EQ(0, km.TivasKmImportKey(&empty_, KM_KEY_FORMAT_RAW, &data, &key, nullptr));
      }).join();
    }
    return Reply::Ok().Out(2, {1}).Out(3, Bytes(8));
  });
  EXPECT_EQ(0, Run());
  EXPECT_EQ((std::vector<int>{1, 2, 1}), sources);
}

}  // namespace
}  // namespace test
