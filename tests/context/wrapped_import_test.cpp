// The import of wrapped keys, command by command.
#include <keymaster/android_keymaster_utils.h>
#include <keymaster/authorization_set.h>

#include "tests/context/request_test.h"

namespace test {
namespace {

constexpr int32_t kBadArgument = KM_ERROR_INVALID_ARGUMENT;
const CommandIds kAll = {kCmdGetKeyCharacteristics,
                         kCmdBegin,
                         kCmdFinish,
                         kCmdImportKey,
                         kCmdBegin,
                         kCmdFinish,
                         kCmdImportKey};
// Where in these they stand.
enum { kTransitBegin = 1, kTransitFinish, kTransitImport, kBegin, kFinish, kImport };

const Bytes kTransitKey = Ramp(0xC0, 32), kMask = Ramp(0x5A, 32), kMaterial = Ramp(0x11, 24),
            kWrapping = Ramp(0x66, 50);
const keymaster_key_blob_t kWrappingKey = KeyBlob(kWrapping);

Bytes Masked() {
  Bytes out = kTransitKey;
  for (size_t i = 0; i < out.size(); ++i) {
    out[i] ^= kMask[i];
  }
  return out;
}

struct WrappedImport : RequestTest {
  WrappedImport() { args.key = &kWrappingKey; }
  void SetUp() override {
    RequestTest::SetUp();
    for (const uint32_t command : kAll) {
      platform().On(command, [this](const Invocation&) { return replies.at(served++); });
    }
  }
  int32_t Run(const Bytes& wrapped, const Bytes& masking = kMask) {
    const Fenced fenced(wrapped);
    const keymaster_key_blob_t mask = KeyBlob(masking);
    args.wrapped = &fenced.key;
    args.mask = &mask;
    served = 0;
    return Call("TivasKmImportWrappedKeyNew");
  }

  const Wrapper wrapper;
  // The TA unwraps: transit key and key material come from finishes, keys from imports.
  std::vector<Reply> replies = {Reply::Ok().Out(2, TwoLists({{KM_TAG_PURPOSE, 5}}, {})),
                                Reply::Ok().Value(3, 1, 0),
                                Reply::Ok().Out(3, Masked()),
                                Reply::Ok().Out(2, Text("transit")),
                                Reply::Ok().Value(3, 2, 0),
                                Reply::Ok().Out(3, kMaterial),
                                Reply::Ok().Out(2, {7}).Out(3, Bytes(8))};
  size_t served = 0;
};

TEST_F(WrappedImport, SendsSevenCommands) {
  EXPECT_EQ(0, Run(wrapper.Encode()));
  const Param aes(KM_TAG_ALGORITHM, 32), gcm(KM_TAG_BLOCK_MODE, 32), unpadded(KM_TAG_PADDING, 1),
      bits(KM_TAG_KEY_SIZE, 256);
  const Parts kSent[] = {
      {kWrapping},
      {kWrapping,
       TwoLists({{KM_TAG_DIGEST, 2},
                 {KM_TAG_ALGORITHM, 1},
                 {KM_TAG_PADDING, 2},
                 {KM_TAG_KEY_SIZE, 2048},
                 {KM_TAG_RSA_PUBLIC_EXPONENT, 4096},
                 {KM_TAG_PURPOSE, 5}},
                {}),
       Le64(1)},  // decryption
      {FinishInput(wrapper.transit_key, {}), Le64(1)},
      {TwoLists({{KM_TAG_PURPOSE, 1}, aes, unpadded, gcm, {KM_TAG_CALLER_NONCE, 1}, bits},
                {{KM_TAG_MIN_MAC_LENGTH, 128}}),
       kTransitKey, Le64(1)},  // of a caller's key
      {Text("transit"),
       TwoLists({unpadded, gcm, bits}, {{KM_TAG_NONCE, wrapper.iv}, {KM_TAG_MAC_LENGTH, 128}}),
       Le64(1)},
      {TwoLists({}, {{KM_TAG_ASSOCIATED_DATA, wrapper.Description()}}),
       FinishInput(Cat({wrapper.material, wrapper.tag}), {}), Le64(2)},
      {TwoLists({aes, bits}, {{KM_TAG_USER_SECURE_ID, 2}, {KM_TAG_AUTH_TOKEN, wrapper.auth_token}}),
       kMaterial, Le64(2)}};  // of an unwrapped key
  ASSERT_EQ(kAll, Commands());
  for (size_t i = 0; i < kAll.size(); ++i) {
    EXPECT_EQ(kSent[i], Sent(i)) << i;
  }
}

TEST_F(WrappedImport, NeedsAKeyThatMayWrap) {
  const Param wrap(KM_TAG_PURPOSE, 5), decrypt(KM_TAG_PURPOSE, 1), other(KM_TAG_ALGORITHM, 5);
  replies[0] = Reply::Ok().Out(2, TwoLists({}, {other, decrypt, wrap}));
  EXPECT_EQ(0, Run(wrapper.Encode()));
  replies[0] = Reply::Ok().Out(2, TwoLists({other, decrypt}, {other, decrypt}));
  EXPECT_EQ(KM_ERROR_INCOMPATIBLE_PURPOSE, Run(wrapper.Encode()));
  EXPECT_EQ(CommandIds{kCmdGetKeyCharacteristics}, Commands());
}

TEST_F(WrappedImport, PrefersTheCallersUnwrappingParameters) {
  ParamSet own({{KM_TAG_DIGEST, KM_DIGEST_SHA_2_256}});
  args.unwrapping_params = own.get();
  EXPECT_EQ(0, Run(wrapper.Encode()));
  EXPECT_EQ(TwoLists({{KM_TAG_DIGEST, 4}}, {}), Sent(kTransitBegin)[1]);
  args.unwrapping_params = &kHollowSet;
  EXPECT_EQ(0, Run(wrapper.Encode()));
  EXPECT_EQ(6, Sent(kTransitBegin)[1][0]) << "the count of its own";
}

TEST_F(WrappedImport, NeedsAMaskAsLongAsTheTransitKey) {
  EXPECT_EQ(kBadArgument, Run(wrapper.Encode(), Bytes(33)));
  replies[kTransitFinish] = Reply::Ok();
  EXPECT_NE(kBadArgument, Run(wrapper.Encode(), {})) << "nothing to unmask";
}

TEST_F(WrappedImport, UnwrappingNeedsPlacesForListAndFormat) {
  keymaster::TKeymasterBlob<keymaster_key_blob_t> wrapped;
  keymaster::AuthorizationSet list;
  keymaster_key_format_t format;
  keymaster_key_blob_t key = kWrappingKey;
  keymaster_key_param_set_t none = kEmptySet;
  EXPECT_EQ(kNullPointer,
            km.TivasKmUnwrappedKey(&wrapped, &key, &none, &key, nullptr, &format, &outputs.data));
  EXPECT_EQ(kNullPointer,
            km.TivasKmUnwrappedKey(&wrapped, &key, &none, &key, &list, nullptr, &outputs.data));
  EXPECT_EQ(Lines(), Logged());
}

}  // namespace
}  // namespace test
