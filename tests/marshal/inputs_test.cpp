// The small input buffers and the choice of a secure id.
#include <errno.h>
#include <keymaster_ts.h>

#include "tests/platform/keymaster_test.h"
#include "tests/requests/wire.h"

namespace test {
namespace {

using Inputs = KeymasterTest;

constexpr uint64_t kFourGiB = uint64_t{1} << 32;
const uint8_t kByte = 0;

// What build(blob) made, released; a failure must leave its output untouched.
template <typename Build>
Bytes Built(int32_t result, Build build) {
  platform().ClearRecords();
  keymaster_blob_t built{&kByte, 77};
  EXPECT_EQ(result, build(&built));
  if (result != 0) {
    EXPECT_TRUE(built.data == &kByte && built.data_length == 77);
    return {};
  }
  const Bytes bytes = BlobBytes(built);
  free(const_cast<uint8_t*>(built.data));
  return bytes;
}

// What of either is there: the requests' tests.
TEST_F(Inputs, FinishRejectsLengthsThatWrapAndAllocatesAllOthers) {
  const std::tuple<uint64_t, uint64_t, int32_t> kRows[] = {
      {kFourGiB, 0, -EINVAL},   {0, kFourGiB, -EINVAL},   {0xFFFFFFF6, 0, -EINVAL},
      {0, 0xFFFFFFF6, -EINVAL}, {0xFFFFFFF5, 1, -EINVAL}, {1, 0xFFFFFFF5, -EINVAL},
      {0xFFFFFFF5, 0, -ENOMEM}, {0, 0xFFFFFFF5, -ENOMEM}};
  for (const auto& [input_length, signature_length, result] : kRows) {
    const keymaster_blob_t input{&kByte, input_length}, signature{&kByte, signature_length};
    Built(result, [&](auto* built) { return BuildFinalInput(&input, &signature, built); });
    EXPECT_EQ(result == -ENOMEM ? 1u : 0u, Log().size()) << input_length << signature_length;
  }
  const keymaster_blob_t no_data{nullptr, 5};
  EXPECT_EQ((Bytes{0, 0, 0, 0, 0, 1, 0, 0, 0, 0}),
            Built(0, [&](auto* built) { return BuildFinalInput(&no_data, &no_data, built); }));
  EXPECT_EQ(-EINVAL, BuildFinalInput(nullptr, nullptr, nullptr));
}

// The packed bytes of a usual token: the requests' tests.
TEST_F(Inputs, VerifyAuthorizationNeedsATokenThatFits) {
  constexpr int32_t kNoMemory = KM_ERROR_MEMORY_ALLOCATION_FAILED,
                    kCopyFailed = KM_ERROR_UNKNOWN_ERROR;
  const uint64_t challenge = 0x0102030405060708;
  const std::pair<keymaster_blob_t, int32_t> kRows[] = {
      {{&kByte, 0}, 0},
      {{nullptr, 5}, kCopyFailed},
      {{&kByte, kFourGiB}, kCopyFailed},
      {{&kByte, kFourGiB + 3}, kCopyFailed},
      {{&kByte, 0xFFFFFFF7}, kNoMemory},
      {{&kByte, 0xFFFFFFFC}, kCopyFailed}};  // no room for the challenge
  for (const auto& [token, result] : kRows) {
    EXPECT_EQ(result == 0 ? Bytes({8, 7, 6, 5, 4, 3, 2, 1}) : Bytes(),
              Built(result, [&, &blob = token](auto* built) {
                return BuildVerifyAuthInput(&challenge, &blob, built);
              }));
    EXPECT_EQ(result == 0 ? 0u : 1u, Log().size());
  }
  platform().ClearRecords();
  const keymaster_blob_t token{&kByte, 1};
  keymaster_blob_t built;
  EXPECT_EQ(-32, BuildVerifyAuthInput(nullptr, &token, &built));
  EXPECT_EQ(-32, BuildVerifyAuthInput(&challenge, nullptr, &built));
  EXPECT_EQ(-32, BuildVerifyAuthInput(&challenge, &token, nullptr));
  EXPECT_EQ(Lines(3, "E KeyMaster_Ts: null pointer.\n"), Log());
}

TEST_F(Inputs, SecureIdFollowsTheFirstTokensAuthenticator) {
  const auto token = [](uint32_t type, size_t length = 69) {
    Bytes bytes = AuthToken(0, 0, type);
    bytes.resize(length);
    return Param(KM_TAG_AUTH_TOKEN, bytes);
  };
  const Param id(KM_TAG_USER_SECURE_ID, 7), second(KM_TAG_USER_SECURE_ID, 8);
  const std::pair<Params, uint64_t> kRows[] = {{{id, token(1)}, 1000},
                                               {{token(2), id, second}, 2000},
                                               {{id, token(3)}, 7},
                                               {{id, token(0x01000000)}, 7},
                                               {{id, token(1), token(2)}, 1000},
                                               {{id, token(0), token(2)}, 7},
                                               {{id, {KM_TAG_NONCE, Bytes(69, 1)}}, 7},
                                               {{id, token(1, 29)}, 1000},
                                               {{id, token(1, 28)}, 7},
                                               {{{KM_TAG_USER_ID, 7}, token(1)}, 7},
                                               {{id}, 7}};
  for (const auto& [params, first_id] : kRows) {
    ParamSet set(params), expected(params);
    UpdateParamsForSecureid(set.get(), 1000, 2000);
    expected[expected[0].tag == KM_TAG_AUTH_TOKEN].long_integer = first_id;
    EXPECT_EQ(Describe(*expected.get()), Describe(*set.get()));
  }
  ParamSet set({id, token(1)});
  set[1].blob.data = nullptr;
  keymaster_key_param_set_t none = {&set[0], 0}, no_array = {nullptr, 2};
  for (keymaster_key_param_set_t* params : {set.get(), &none, &no_array}) {
    UpdateParamsForSecureid(params, 1000, 2000);
  }
  UpdateParamsForSecureid(nullptr, 1000, 2000);
  EXPECT_EQ(7u, set[0].long_integer);
}

TEST_F(Inputs, UpdateArgumentsAreChecked) {
  const size_t consumed = 0;
  for (const uint64_t length : {0ul, 0xFFFFFFEFul, 0xFFFFFFF0ul, 0xFFFFFFFFul, kFourGiB}) {
    const keymaster_blob_t input{nullptr, length};
    const bool rejected = length == 0xFFFFFFF0 || length == 0xFFFFFFFF;
    EXPECT_EQ(rejected ? -32 : 0, ParamsCheck(&input, &consumed)) << length;
    EXPECT_EQ(rejected ? -32 : -27, ParamsCheck(&input, nullptr)) << length;
  }
  EXPECT_EQ(-32, ParamsCheck(nullptr, nullptr));
}

}  // namespace
}  // namespace test
