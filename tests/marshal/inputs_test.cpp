// The small input buffers, the secure id's choice, and the bound on a number.
#include <keymaster_ts.h>
#include <openssl/bn.h>

#include <memory>

#include "tests/platform/keymaster_test.h"

namespace test {
namespace {

using Inputs = KeymasterTest;

constexpr uint64_t kFourGiB = uint64_t{1} << 32;
const uint8_t kByte = 0;

// Takes what build(blob) made: its bytes on success; a failure must hand out nothing.
template <typename Build>
Bytes Take(int32_t expected, Build build) {
  platform().ClearRecords();
  keymaster_blob_t built{&kByte, 77};
  EXPECT_EQ(expected, build(&built));
  const bool untouched = built.data == &kByte && built.data_length == 77;
  EXPECT_EQ(expected != 0, untouched);
  if (untouched) return {};
  const Bytes bytes = BlobBytes(built);
  free(const_cast<uint8_t*>(built.data));
  return bytes;
}

TEST_F(Inputs, FinishPacksInputAndSignature) {
  const auto build = [](const keymaster_blob_t* input, const keymaster_blob_t* signature,
                        int32_t result) {
    return Take(result, [&](auto* built) { return BuildFinalInput(input, signature, built); });
  };
  const Bytes abc = {0xAA, 0xBB, 0xCC}, ramp = Ramp(9, 256);
  const keymaster_blob_t input = Blob(abc), signature = Blob(ramp), no_data{nullptr, 5};
  const Bytes none = {0, 0, 0, 0, 0}, unsigned_end = {1, 0, 0, 0, 0};
  const Bytes item = {0, 3, 0, 0, 0, 0xAA, 0xBB, 0xCC}, end = Cat({{1, 0, 1, 0, 0}, ramp});
  EXPECT_EQ(Cat({none, unsigned_end}), build(nullptr, nullptr, 0));
  EXPECT_EQ(Cat({none, unsigned_end}), build(&no_data, &no_data, 0));
  EXPECT_EQ(Cat({item, unsigned_end}), build(&input, nullptr, 0));
  EXPECT_EQ(Cat({none, end}), build(nullptr, &signature, 0));
  EXPECT_EQ(Cat({item, end}), build(&input, &signature, 0));
  EXPECT_EQ(-22, BuildFinalInput(&input, &signature, nullptr));
  constexpr uint64_t kTooLong[][2] = {{kFourGiB, 0},   {0, kFourGiB},   {0xFFFFFFF6, 0},
                                      {0, 0xFFFFFFF6}, {0xFFFFFFF5, 1}, {1, 0xFFFFFFF5}},
                     kLongest[][2] = {{0xFFFFFFF5, 0}, {0, 0xFFFFFFF5}};
  const auto refuse = [&](uint64_t length, uint64_t signature_length, int32_t result) {
    const keymaster_blob_t first{&kByte, length}, second{&kByte, signature_length};
    build(&first, &second, result);
    const char no_memory[] = "E KeyMaster_Ts: build final input buffer mem alloc failed.\n";
    EXPECT_EQ(Lines(result == -12, no_memory), Log()) << length << " " << signature_length;
  };
  for (const auto& [length, signature_length] : kTooLong) refuse(length, signature_length, -22);
  for (const auto& [length, signature_length] : kLongest) refuse(length, signature_length, -12);
}

TEST_F(Inputs, VerifyAuthorizationPacksChallengeAndToken) {
  const Bytes ramp = Ramp(1, 69), eight = {8, 7, 6, 5, 4, 3, 2, 1};
  const uint64_t challenge = 0x0102030405060708;
  const char no_memory[] = "build final input malloc failed.\n",
             challenge_failed[] = "memcpy_s challenge failed.\n",
             token_failed[] = "memcpy_s hwAuthToken failed.\n";
  const struct {
    const uint8_t* token;
    uint64_t length;
    int32_t result;
    Bytes bytes;
    std::string log;
    Call failing = Call::kMalloc;
    int nth = 0;
  } cases[] = {
      {ramp.data(), 69, 0, Cat({eight, ramp}), ""},
      {&kByte, 0, 0, eight, ""},
      {ramp.data(), 69, -41, {}, no_memory, Call::kMalloc, 1},
      {ramp.data(), 69, -1000, {}, challenge_failed, Call::kMemcpyS, 1},
      {ramp.data(), 69, -1000, {}, token_failed, Call::kMemcpyS, 2},
      {nullptr, 5, -1000, {}, token_failed},
      {&kByte, kFourGiB, -1000, {}, token_failed},
      {&kByte, kFourGiB + 3, -1000, {}, token_failed},
      {&kByte, 0xFFFFFFF7, -41, {}, no_memory},
      {&kByte, 0xFFFFFFFC, -1000, {}, challenge_failed},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    FailCall(c.failing, c.nth);
    const keymaster_blob_t token{c.token, c.length};
    const auto build = [&](auto* built) { return BuildVerifyAuthInput(&challenge, &token, built); };
    EXPECT_EQ(c.bytes, Take(c.result, build));
    EXPECT_EQ(c.log.empty() ? Lines() : Lines{"E KeyMaster_Ts: " + c.log}, Log());
    ClearFaults();
  }
  const keymaster_blob_t token = Blob(ramp);
  keymaster_blob_t built;
  platform().ClearRecords();
  EXPECT_EQ(-32, BuildVerifyAuthInput(nullptr, &token, &built));
  EXPECT_EQ(-32, BuildVerifyAuthInput(&challenge, nullptr, &built));
  EXPECT_EQ(-32, BuildVerifyAuthInput(&challenge, &token, nullptr));
  EXPECT_EQ(Lines(3, "E KeyMaster_Ts: null pointer.\n"), Log());
}

TEST_F(Inputs, SecureIdFollowsTheFirstTokensAuthenticator) {
  const auto token = [](uint32_t type, size_t length = 69) {
    Bytes bytes = Cat({Bytes(25, 2), Le32(type), Bytes(40, 2)});
    bytes.resize(length);
    bytes.shrink_to_fit();
    return Param(KM_TAG_AUTH_TOKEN, bytes);
  };
  const Param id(KM_TAG_USER_SECURE_ID, 7), second(KM_TAG_USER_SECURE_ID, 8);
  const struct {
    std::initializer_list<Param> params;
    uint64_t first_id;
  } cases[] = {
      {{id, token(1)}, 1000},
      {{id, token(2)}, 2000},
      {{token(2), id, second}, 2000},
      {{id, token(0)}, 7},
      {{id, token(3)}, 7},
      {{id, token(0x01000000)}, 7},
      {{id, token(1), token(2)}, 1000},
      {{id, token(0), token(2)}, 7},
      {{id, {KM_TAG_NONCE, Bytes(69, 1)}}, 7},
      {{id, token(1, 29)}, 1000},
      {{id, token(1, 28)}, 7},
      {{id, token(1, 0)}, 7},
      {{{KM_TAG_USER_ID, 7}, token(1)}, 7},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    ParamSet set(c.params), expected(c.params);
    UpdateParamsForSecureid(set.get(), 1000, 2000);
    expected[expected[0].tag == KM_TAG_AUTH_TOKEN].long_integer = c.first_id;
    EXPECT_EQ(Describe(*expected.get()), Describe(*set.get()));
  }
  ParamSet gap({id, token(1)});
  gap[1].blob.data = nullptr;
  UpdateParamsForSecureid(gap.get(), 1000, 2000);
  gap.get()->length = 0;
  UpdateParamsForSecureid(gap.get(), 1000, 2000);
  EXPECT_EQ(7u, gap[0].long_integer);
  keymaster_key_param_set_t no_array{nullptr, 2};
  UpdateParamsForSecureid(&no_array, 1000, 2000);
  UpdateParamsForSecureid(nullptr, 1000, 2000);
}

TEST_F(Inputs, UpdateArgumentsAreChecked) {
  const size_t consumed = 0;
  for (const uint64_t length : {0ul, 0xFFFFFFEFul, 0xFFFFFFF0ul, 0xFFFFFFFFul, kFourGiB}) {
    const keymaster_blob_t input{nullptr, length};
    const bool refused = length == 0xFFFFFFF0 || length == 0xFFFFFFFF;
    EXPECT_EQ(refused ? -32 : 0, ParamsCheck(&input, &consumed)) << length;
    EXPECT_EQ(refused ? -32 : -27, ParamsCheck(&input, nullptr)) << length;
  }
  EXPECT_EQ(-32, ParamsCheck(nullptr, nullptr));
}

TEST_F(Inputs, ANumberBehindALargeOffsetDoesNotWrap) {
  const std::unique_ptr<BIGNUM, decltype(&BN_free)> one(BN_new(), BN_free);
  BN_set_word(one.get(), 1);
  EXPECT_EQ(-1, CheckBnSize(0xFFFFFFFF, 4096, one.get(), "X"));
  EXPECT_EQ(-1, CheckBnSize(0xFFFFFFFF, 0xFFFFFFFF, one.get(), "X"));
  EXPECT_EQ(0, CheckBnSize(0xFFFFFFFE, 0xFFFFFFFF, one.get(), "X"));
}

}  // namespace
}  // namespace test
