// The import of wrapped keys, command by command.
#include <keymaster/authorization_set.h>

#include "tests/context/request.h"

namespace test {
namespace {

using KeyHolder = keymaster::TKeymasterBlob<keymaster_key_blob_t>;

// ---- The wrapper

Bytes Der(const Bytes& tag, const Bytes& content) {
  const auto high = static_cast<uint8_t>(content.size() >> 8);
  const auto low = static_cast<uint8_t>(content.size());
  return Cat({tag, content.size() < 128 ? Bytes{low} : Bytes{0x82, high, low}, content});
}
Bytes Octets(const Bytes& content) { return Der({4}, content); }

const Bytes kTransit = Ramp(1, 256), kIv = Ramp(0x21, 12), kSecret = Ramp(0x80, 24),
            kTag = Ramp(0xF0, 16), kAes = {0xa2, 3, 2, 1, 0x20};

Bytes Description(const Bytes& params) {
  return Der({0x30}, Cat({Bytes{2, 1, 3}, Der({0x30}, params)}));
}
Bytes Wrapper(const Bytes& params, const Bytes& secret, const Bytes& tag) {
  return Der({0x30}, Cat({Bytes{2, 1, 0}, Octets(kTransit), Octets(kIv), Description(params),
                          Octets(secret), Octets(tag)}));
}
// With a user secure id of 7 and an auth token of that type.
Bytes WithSecureId(uint8_t type) {
  const Bytes token = Cat({Bytes(25, 0xEE), Le32(type), Bytes(40, 0xEE)});
  const Bytes ids =
      Cat({Bytes{0xbf, 0x83, 0x76, 3, 2, 1, 7}, Der({0xbf, 0x87, 0x6a}, Octets(token))});
  return Wrapper(Cat({kAes, ids}), kSecret, kTag);
}

// ---- The request

const Bytes kMask = Ramp(0x5A, 32), kTransitKey = Ramp(0xC0, 32), kMaterial = Ramp(0x11, 24),
            kWrapping = Ramp(0x66, 50);
const keymaster_key_blob_t kWrappingKey = KeyBlob(kWrapping), kMaskKey = KeyBlob(kMask);
Bytes Masked() {
  Bytes out = kTransitKey;
  for (size_t i = 0; i < out.size(); ++i) out[i] ^= kMask[i];
  return out;
}
struct WrappedImport : RequestTest {
  void SetUp() override {
    KeymasterTest::SetUp();
    for (const uint32_t command : {3u, 4u, 8u, 10u}) {
      platform().On(command, [this](const Invocation&) { return replies.at(served++); });
    }
  }
  std::string Run(const Bytes& wrapped, size_t last_lines) {
    return Run(KeyBlob(wrapped), &kWrappingKey, &mask, unwrapping, last_lines, &key);
  }
  std::string Run(const keymaster_key_blob_t& wrapped, const keymaster_key_blob_t* wrapping,
                  const keymaster_key_blob_t* masking, const keymaster_key_param_set_t* with,
                  size_t last_lines, keymaster_key_blob_t* out) {
    served = 0;
    return Outcome(km.TivasKmImportWrappedKeyNew(&wrapped, wrapping, masking, with, 0xAAAA, 0xBBBB,
                                                 out, &traits),
                   last_lines);
  }

  // The TA unwraps: transit key and key material come from finishes, keys from imports.
  std::vector<Reply> replies = {
      Reply::Ok().Out(2, Cat({WireList({Entry(KM_TAG_PURPOSE, 5)}), Le32(0)})),
      Reply::Ok().Value(3, 1, 0),
      Reply::Ok().Out(3, Masked()),
      Reply::Ok().Out(2, Text("transit")),
      Reply::Ok().Value(3, 2, 0),
      Reply::Ok().Out(3, kMaterial),
      Reply::Ok().Out(2, {7}).Out(3, Characteristics())};
  size_t served = 0;
  keymaster_key_blob_t mask = kMaskKey;
  const keymaster_key_param_set_t* unwrapping = &kEmptySet;
  const Bytes wrapper = Wrapper(kAes, kSecret, kTag);
  const std::string whole =
      std::string("0 [3 8 10 4 8 10 4] key=07") + kTraits + ": I km_import_wrapped_key finish";
};

TEST_F(WrappedImport, SendsSevenCommands) {
  EXPECT_EQ(whole, Run(wrapper, 1));
  const Bytes aes = Entry(0x10000002, 32), decrypt = Entry(0x20000001, 1),
              bits = Entry(0x30000003, 256), unpadded = Entry(0x20000006, 1),
              gcm = Entry(0x20000004, 32), none = Le32(0);
  const Bytes transit_params =
      Cat({WireList({Entry(0x20000005, 2), Entry(0x10000002, 1), Entry(0x20000006, 2),
                     Entry(0x30000003, 2048), Entry(0x500000C8, 4096), Entry(0x20000001, 5)}),
           none});
  const Bytes import_params =
      Cat({WireList({decrypt, aes, unpadded, gcm, Entry(0x70000007, 1), bits}),
           WireList({Entry(0x30000008, 128)})});
  const Bytes material_params =
      Cat({WireList({unpadded, gcm, bits}),
           WireList({BytesEntry(0x900003E9, 0, 12), Entry(0x300003EB, 128)}), kIv});
  const Parts kSent[] = {
      {kWrapping},
      {kWrapping, transit_params, Le64(1)},  // decryption
      {FinishInput(kTransit, {}), Le64(1)},
      {import_params, kTransitKey, Le64(1)},  // of a caller's key
      {Text("transit"), material_params, Le64(1)},
      {SecondList({{0x900003E8, Description(kAes)}}), FinishInput(Cat({kSecret, kTag}), {}),
       Le64(2)},
      {Cat({WireList({aes}), none}), kMaterial, Le64(2)}};  // of an unwrapped key
  for (size_t i = 0; i < sent.size(); ++i) EXPECT_EQ(kSent[i], Inputs(i)) << i;
}

TEST_F(WrappedImport, WrappingKeyMustBeForWrapping) {
  const Bytes no = Cat({Entry(KM_TAG_ALGORITHM, 5), Entry(KM_TAG_PURPOSE, 1)}),
              wrap = Entry(KM_TAG_PURPOSE, 5), zero = Le32(0);
  for (const Bytes& good : {Cat({Le32(1), wrap, zero}), Cat({zero, Le32(3), no, wrap})}) {
    replies[0] = Reply::Ok().Out(2, good);
    EXPECT_EQ(whole, Run(wrapper, 1));
  }
  for (const Bytes& bad : {Cat({zero, zero}), Cat({Le32(2), no, Le32(2), no})}) {
    replies[0] = Reply::Ok().Out(2, bad);
    EXPECT_EQ("-3 [3]: E! wrappingKeyBlob is invalid; E KmUnwrappedKey failed, ret fffffffd",
              Run(wrapper, 2));
  }
}

TEST_F(WrappedImport, UnwrappingParametersReplaceTheDefaults) {
  ParamSet own({{KM_TAG_DIGEST, KM_DIGEST_SHA_2_256}});
  EXPECT_EQ(whole, (unwrapping = own.get(), Run(wrapper, 1)));
  EXPECT_EQ(Cat({WireList({Entry(KM_TAG_DIGEST, 4)}), Le32(0)}), Inputs(1)[1]);
  EXPECT_EQ(whole, (unwrapping = &kHollowSet, Run(wrapper, 1)));
  EXPECT_EQ(6, Inputs(1)[1][0]);
  EXPECT_EQ("-32 [3]: E KmUnwrappedKey failed, ret ffffffe0",
            (unwrapping = nullptr, Run(wrapper, 1)));
}

TEST_F(WrappedImport, MaskMustBeAsLongAsTheTransitKey) {
  const Bytes long_mask(33);
  for (const size_t length : {0u, 31u, 33u}) {
    mask = {long_mask.data(), length};
    EXPECT_EQ("-38 [3 8 10]: E XOR size is not equal\n; E KmUnwrappedKey failed, ret ffffffda",
              Run(wrapper, 2));
  }
}

TEST_F(WrappedImport, SecureIdFollowsTheAuthToken) {
  for (const auto& [type, id] : {std::pair{1, 0xAAAA}, std::pair{2, 0xBBBB}, std::pair{3, 7}}) {
    EXPECT_EQ(whole, Run(WithSecureId(static_cast<uint8_t>(type)), 1));
    const Bytes list = Inputs(6)[0];  // algorithm, then secure id and token
    EXPECT_EQ(Entry(KM_TAG_USER_SECURE_ID, static_cast<uint64_t>(id)),
              Bytes(list.begin() + 24, list.begin() + 40));
  }
}

TEST_F(WrappedImport, RefusesBadWrappersAndArguments) {
  for (const Bytes& bad :
       {Text("not DER"), Bytes(wrapper.begin(), wrapper.end() - 1), Cat({wrapper, {0}})}) {
    EXPECT_EQ(
        "-38: I km_import_wrapped_key start; E! parse_wrapped_key failed, error ffffffda; "
        "E KmUnwrappedKey failed, ret ffffffda",
        Run(bad, 9));
  }
  EXPECT_EQ("-21 [3 8 10]: E KmUnwrappedKey failed, ret ffffffeb", Run(Wrapper(kAes, {}, {}), 1));
  const keymaster_key_blob_t good = KeyBlob(wrapper);
  const std::string kNull = "-32: E! params or keyData is NULL",
                    kUnwrap = ": E KmUnwrappedKey failed, ret ffffffe0";
  EXPECT_EQ(kNull, Run(kHollowKey, &kWrappingKey, &kMaskKey, &kEmptySet, 1, &key));
  EXPECT_EQ(kNull, Run(good, nullptr, &kMaskKey, &kEmptySet, 1, &key));
  EXPECT_EQ(kNull, Run(good, &kWrappingKey, nullptr, &kEmptySet, 1, &key));
  EXPECT_EQ("-32" + kUnwrap, Run(good, &kHollowKey, &kHollowKey, nullptr, 1, &key));
  EXPECT_EQ("-32 [3]" + kUnwrap, Run(good, &kWrappingKey, &kHollowKey, nullptr, 1, &key));
  EXPECT_EQ("-32 [3 8 10]" + kUnwrap, Run(good, &kWrappingKey, &kHollowKey, &kEmptySet, 1, &key));
  EXPECT_EQ(kNull, Run(kHollowKey, nullptr, nullptr, nullptr, 1, nullptr));
  EXPECT_EQ("-27: E! keyBlob is NULL", Run(good, &kWrappingKey, &kMaskKey, nullptr, 1, nullptr));
}

TEST_F(WrappedImport, StepsCheckTheirOwnArguments) {
  keymaster_key_blob_t wrapping = kWrappingKey;
  keymaster_key_param_set_t none = kEmptySet;
  KeyHolder holder;
  holder.key_material =
      keymaster::dup_buffer(wrapper.data(), holder.key_material_size = wrapper.size());
  keymaster::AuthorizationSet list;
  keymaster_key_format_t format;
  EXPECT_EQ("-32", Outcome(km.DecryptTransitKeyMaterial(&wrapping, nullptr, &holder, &data)));
  EXPECT_EQ("-32", Outcome(km.DecryptTransitKeyMaterial(&wrapping, &none, nullptr, &data)));
  EXPECT_EQ("-32", Outcome(km.DecryptTransitKeyMaterial(&wrapping, &none, &holder, nullptr)));
  EXPECT_EQ("-32", Outcome(km.TivasKmUnwrappedKey(&holder, &wrapping, &none, &wrapping, &list,
                                                  &format, nullptr)));
  // A missing mask is noticed only once the transit key is there.
  EXPECT_EQ("-32 [3 8 10]", Outcome(km.TivasKmUnwrappedKey(&holder, &wrapping, &none, nullptr,
                                                           &list, &format, &data),
                                    0));
}

}  // namespace
}  // namespace test
