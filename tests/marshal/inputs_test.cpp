// The small input buffers, the secure id's choice, and the key-material tables.
#include <keymaster_ts.h>
#include <openssl/bn.h>

#include <memory>

#include "tests/platform/keymaster_test.h"

namespace test {
namespace {

using Inputs = KeymasterTest;

constexpr uint64_t kFourGiB = uint64_t{1} << 32;
const uint8_t kByte = 0;
const keymaster_blob_t kSentinel{&kByte, 77};

// Takes the buffer of a builder: its bytes on success; a failure must hand out nothing.
Bytes Take(int32_t result, keymaster_blob_t* built) {
  if (result != 0) {
    EXPECT_TRUE(built->data == &kByte && built->data_length == 77);
    return {};
  }
  const Bytes bytes = BlobBytes(*built);
  free(const_cast<uint8_t*>(built->data));
  return bytes;
}

TEST_F(Inputs, FinishPacksInputAndSignature) {
  const Bytes abc = {0xAA, 0xBB, 0xCC}, long_signature = Ramp(9, 256);
  const keymaster_blob_t input = Blob(abc), signature = Blob(long_signature), empty{&kByte, 0},
                         no_data{nullptr, 5}, huge{&kByte, kFourGiB}, most{&kByte, 0xFFFFFFF5},
                         above{&kByte, 0xFFFFFFF6}, one{&kByte, 1};
  const Bytes nothing = {0, 0, 0, 0, 0, 1, 0, 0, 0, 0};
  const Bytes signature_item = Cat({{1, 0, 1, 0, 0}, long_signature});
  const Lines no_memory = {"E KeyMaster_Ts: build final input buffer mem alloc failed.\n"};
  const struct {
    const keymaster_blob_t *input, *signature;
    int32_t result;
    Bytes bytes;
    Lines log;
  } cases[] = {
      {nullptr, nullptr, 0, nothing, {}},
      {&no_data, &no_data, 0, nothing, {}},
      {&input, nullptr, 0, {0, 3, 0, 0, 0, 0xAA, 0xBB, 0xCC, 1, 0, 0, 0, 0}, {}},
      {&empty, &signature, 0, Cat({Bytes(5), signature_item}), {}},
      {&input, &signature, 0, Cat({{0, 3, 0, 0, 0, 0xAA, 0xBB, 0xCC}, signature_item}), {}},
      {&huge, nullptr, -22, {}, {}},
      {nullptr, &huge, -22, {}, {}},
      {&above, nullptr, -22, {}, {}},
      {nullptr, &above, -22, {}, {}},
      {&most, &one, -22, {}, {}},
      {&one, &most, -22, {}, {}},
      {&most, nullptr, -12, {}, no_memory},
      {nullptr, &most, -12, {}, no_memory},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    platform().ClearRecords();
    keymaster_blob_t built = kSentinel;
    EXPECT_EQ(c.result, BuildFinalInput(c.input, c.signature, &built));
    EXPECT_EQ(c.bytes, Take(c.result, &built));
    EXPECT_EQ(c.log, Log());
  }
  EXPECT_EQ(-22, BuildFinalInput(&input, &signature, nullptr));
  ForEachFault({Call::kMalloc, Call::kMemcpyS}, [&](const Fault& fault) {
    fault.Arm();
    platform().ClearRecords();
    keymaster_blob_t built = kSentinel;
    const int32_t result = BuildFinalInput(&input, &signature, &built);
    EXPECT_EQ(fault.Hit() ? -12 : 0, result);
    EXPECT_EQ(fault.Hit() && fault.call == Call::kMalloc ? no_memory : Lines(), Log());
    Take(result, &built);
  });
}

TEST_F(Inputs, VerifyAuthorizationPacksChallengeAndToken) {
  const Bytes ramp = Ramp(1, 69);
  const keymaster_blob_t token = Blob(ramp), empty{&kByte, 0};
  const uint64_t challenge = 0x0102030405060708;
  const std::string tag = "E KeyMaster_Ts: ";
  const Lines null_pointer = {tag + "null pointer.\n"},
              no_memory = {tag + "build final input malloc failed.\n"},
              challenge_failed = {tag + "memcpy_s challenge failed.\n"},
              token_failed = {tag + "memcpy_s hwAuthToken failed.\n"};
  const struct {
    const uint64_t* challenge;
    keymaster_blob_t token;
    int32_t result;
    Bytes bytes;
    Lines log;
    Call failing;
    int nth;
  } cases[] = {
      {&challenge, token, 0, Cat({{8, 7, 6, 5, 4, 3, 2, 1}, ramp}), {}, Call::kMalloc, 0},
      {&challenge, empty, 0, {8, 7, 6, 5, 4, 3, 2, 1}, {}, Call::kMalloc, 0},
      {nullptr, token, -32, {}, null_pointer, Call::kMalloc, 0},
      {&challenge, token, -41, {}, no_memory, Call::kMalloc, 1},
      {&challenge, token, -1000, {}, challenge_failed, Call::kMemcpyS, 1},
      {&challenge, token, -1000, {}, token_failed, Call::kMemcpyS, 2},
      {&challenge, {nullptr, 5}, -1000, {}, token_failed, Call::kMalloc, 0},
      {&challenge, {&kByte, kFourGiB}, -1000, {}, token_failed, Call::kMalloc, 0},
      {&challenge, {&kByte, kFourGiB + 3}, -1000, {}, token_failed, Call::kMalloc, 0},
      {&challenge, {&kByte, 0xFFFFFFF7}, -41, {}, no_memory, Call::kMalloc, 0},
      {&challenge, {&kByte, 0xFFFFFFFC}, -1000, {}, challenge_failed, Call::kMalloc, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    platform().ClearRecords();
    FailCall(c.failing, c.nth);
    keymaster_blob_t built = kSentinel;
    EXPECT_EQ(c.result, BuildVerifyAuthInput(c.challenge, &c.token, &built));
    EXPECT_EQ(c.bytes, Take(c.result, &built));
    EXPECT_EQ(c.log, Log());
    ClearFaults();
  }
  keymaster_blob_t built = kSentinel;
  platform().ClearRecords();
  EXPECT_EQ(-32, BuildVerifyAuthInput(&challenge, nullptr, &built));
  EXPECT_EQ(-32, BuildVerifyAuthInput(&challenge, &token, nullptr));
  EXPECT_EQ((Lines{null_pointer[0], null_pointer[0]}), Log());
}

TEST_F(Inputs, SecureIdFollowsTheFirstTokensAuthenticator) {
  constexpr uint64_t kPassword = 0x1111111111111111, kBiometric = 0x2222222222222222;
  const auto token = [](uint32_t type, size_t length = 69) {
    Bytes bytes = Cat({Bytes(25, 2), Le32(type), Bytes(40, 2)});
    bytes.resize(length);
    bytes.shrink_to_fit();
    return Param(KM_TAG_AUTH_TOKEN, bytes);
  };
  const Param seven(KM_TAG_USER_SECURE_ID, 7), eight(KM_TAG_USER_SECURE_ID, 8);
  const struct {
    std::initializer_list<Param> params;
    uint64_t first_id;
  } cases[] = {
      {{seven, token(1)}, kPassword},
      {{seven, token(2)}, kBiometric},
      {{token(2), eight, seven}, kBiometric},
      {{seven, token(0)}, 7},
      {{seven, token(3)}, 7},
      {{seven, token(0x01000000)}, 7},
      {{seven, token(0xFFFFFFFF)}, 7},
      {{seven, token(1), token(2)}, kPassword},
      {{seven, token(0), token(2)}, 7},
      {{seven, {KM_TAG_NONCE, Bytes(69, 1)}}, 7},
      {{seven}, 7},
      {{seven, token(1, 29)}, kPassword},
      {{seven, token(1, 28)}, 7},
      {{seven, token(1, 1)}, 7},
      {{seven, token(1, 0)}, 7},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    ParamSet set(c.params), before(c.params);
    UpdateParamsForSecureid(set.get(), kPassword, kBiometric);
    for (size_t i = 0; i < before.get()->length; ++i) {
      if (before[i].tag == KM_TAG_USER_SECURE_ID) {
        before[i].long_integer = c.first_id;
        break;
      }
    }
    EXPECT_EQ(Describe(*before.get()), Describe(*set.get()));
  }
  ParamSet no_id({token(1), {KM_TAG_USER_ID, 7}}), gap({seven, token(1)});
  UpdateParamsForSecureid(no_id.get(), kPassword, kBiometric);
  EXPECT_EQ(7u, no_id[1].long_integer);
  gap[1].blob.data = nullptr;
  UpdateParamsForSecureid(gap.get(), kPassword, kBiometric);
  gap.get()->length = 0;
  UpdateParamsForSecureid(gap.get(), kPassword, kBiometric);
  EXPECT_EQ(7u, gap[0].long_integer);
  keymaster_key_param_set_t no_array{nullptr, 2};
  UpdateParamsForSecureid(&no_array, kPassword, kBiometric);
  UpdateParamsForSecureid(nullptr, kPassword, kBiometric);
}

TEST_F(Inputs, UpdateArgumentsAreChecked) {
  const size_t consumed = 0;
  const struct {
    uint64_t length;
    int32_t result;
  } cases[] = {{0, 0},       {1, 0}, {0xFFFFFFEF, 0}, {0xFFFFFFF0, -32}, {0xFFFFFFFF, -32},
               {kFourGiB, 0}};
  for (const auto& c : cases) {
    const keymaster_blob_t input{nullptr, c.length};
    EXPECT_EQ(c.result, ParamsCheck(&input, &consumed)) << c.length;
    EXPECT_EQ(c.result == 0 ? -27 : -32, ParamsCheck(&input, nullptr)) << c.length;
  }
  EXPECT_EQ(-32, ParamsCheck(nullptr, nullptr));
}

TEST_F(Inputs, CurveTables) {
  const struct {
    int size, nid;
  } both[] = {{160, 709}, {192, 711}, {224, 713}, {256, 415}, {384, 715}, {521, 716}};
  int sizes = 0, nids = 0;
  for (int i = -1; i < 2000; ++i) {
    sizes += GetNidFromKeySize(i) != 0;
    nids += GetKeySizeFromNid(i) != 0;
  }
  EXPECT_EQ(6, sizes);
  EXPECT_EQ(7, nids);
  EXPECT_EQ(256, GetKeySizeFromNid(714));
  for (const auto& c : both) {
    EXPECT_EQ(c.nid, GetNidFromKeySize(c.size));
    EXPECT_EQ(c.size, GetKeySizeFromNid(c.nid));
  }
}

TEST_F(Inputs, NumberMustEndWithinTheBuffer) {
  const struct {
    uint32_t offset, limit, bytes;
    int result;
  } cases[] = {{0, 4096, 3, 0},
               {4093, 4096, 3, 0},
               {4094, 4096, 3, -1},
               {4096, 4096, 0, 0},
               {4097, 4096, 0, -1},
               {0, 2, 3, -1},
               {0, 0, 0, 0},
               {0xFFFFFFFF, 4096, 1, -1},
               {0xFFFFFFFE, 0xFFFFFFFF, 1, 0},
               {0xFFFFFFFF, 0xFFFFFFFF, 1, -1}};
  for (const auto& c : cases) {
    platform().ClearRecords();
    const Bytes value(c.bytes, 0x5A);
    const std::unique_ptr<BIGNUM, decltype(&BN_free)> number(
        BN_bin2bn(value.data(), static_cast<int>(c.bytes), nullptr), BN_free);
    EXPECT_EQ(c.result, CheckBnSize(c.offset, c.limit, number.get(), "X")) << c.offset;
    EXPECT_EQ(c.result == 0
                  ? Lines()
                  : Lines{"E KeyMaster_Ts: X is too big, size=" + std::to_string(c.bytes)},
              Log());
    platform().ClearRecords();
    EXPECT_EQ(-1, CheckBnSize(0, 4096, nullptr, "X"));
    EXPECT_EQ(-1, CheckBnSize(0, 4096, number.get(), nullptr));
    EXPECT_EQ(Lines(2, "E KeyMaster_Ts: bn or name is NULL"), Log());
  }
}

}  // namespace
}  // namespace test
