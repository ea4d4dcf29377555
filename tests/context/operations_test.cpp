// Operations, authorization and start-up: what follows from the TA's replies and their order.
#include "tests/context/request_test.h"

namespace test {
namespace {

constexpr uint32_t kChunk = 524288;
const Bytes kMark = {9, 9}, kLong = Ramp(1, 2 * kChunk + 1), kTruncated = Le32(1),
            kNonce = OneList({{KM_TAG_NONCE, Bytes{0xAA}}});
const keymaster_blob_t kSignature = Blob(kMark);

// ---- Update and begin

struct Operation : RequestTest {
  // Makes the request with the set token_set and the first bytes of kLong.
  int32_t MakeWith(const char* request, size_t length) {
    const keymaster_blob_t input = {kLong.data(), length};
    return Make(request, [&](Args* args) {
      args->params = token_set.get();
      args->input = &input;
      args->signature = &kSignature;
    });
  }
  const ParamSet token_set{{KM_TAG_AUTH_TOKEN, Bytes{1}}};
  const Bytes sent_set = TwoLists({}, {{KM_TAG_AUTH_TOKEN, Bytes{1}}});
};

TEST_F(Operation, UpdateSendsItsInputInChunks) {
  using Chunks = std::vector<std::pair<uint32_t, uint32_t>>;  // length, and room for output
  const std::pair<size_t, Chunks> kRows[] = {{0, {{0, 16}}},
                                             {16, {{16, 16}}},
                                             {17, {{17, 32}}},
                                             {kChunk + 1, {{kChunk, kChunk}, {1, 16}}},
                                             {2 * kChunk, {{kChunk, kChunk}, {kChunk, kChunk}}}};
  for (const auto& [length, chunks] : kRows) {
    SCOPED_TRACE(length);
    // The TA gives back what it was given. Only the parameters of the last reply are read.
    platform().On(kCmdUpdate, [&chunks = chunks](const Invocation& seen) {
      const bool last = platform().invocations.size() + 1 == chunks.size();
      return Reply::Ok().Out(2, last ? kNonce : kTruncated).Out(3, seen.params[1].in);
    });
    EXPECT_EQ(0, MakeWith("Update", length));
    EXPECT_EQ(length, outputs.number);
    EXPECT_EQ("900003e9:aa", Describe(outputs.params));
    EXPECT_TRUE(Bytes(kLong.data(), kLong.data() + length) == BlobBytes(outputs.data));
    EXPECT_EQ(length == 0, outputs.data.data == nullptr);
    const std::vector<Invocation>& sent = platform().invocations;
    ASSERT_EQ(chunks.size(), sent.size());
    const auto* first_output = static_cast<uint8_t*>(sent[0].params[3].buffer);
    for (size_t i = 0; i < sent.size(); ++i) {
      const SeenParam(&seen)[4] = sent[i].params;
      EXPECT_EQ(sent_set, seen[0].in);
      EXPECT_EQ(chunks[i], std::make_pair(seen[1].size, seen[3].size));
      EXPECT_EQ(kLong.data() + i * kChunk, seen[1].buffer) << "no copy";
      EXPECT_EQ(Le64(7), Sent(i).back());
      EXPECT_EQ(first_output + i * kChunk, seen[3].buffer) << "one output buffer";
    }
  }
}

TEST_F(Operation, IsAbortedIfItsReplyCannotBeRead) {
  ReplyTo(kCmdBegin, Reply::Ok().Out(2, kTruncated).Value(3, 0x89ABCDEF, 0x01234567));
  ReplyTo(kCmdUpdate, Reply::Ok().Out(2, kTruncated).Out(3, {3}));
  ReplyTo(kCmdAbort, Reply::Fail(0xFFFF0009));  // its result does not matter
  EXPECT_EQ(kNoMemory, Make("Begin"));
  EXPECT_EQ((CommandIds{kCmdBegin, kCmdAbort}), Commands());
  EXPECT_EQ(Parts{Le64(0x0123456789ABCDEF)}, Sent(1));
  EXPECT_EQ(kNoMemory, MakeWith("Update", 1));
  EXPECT_EQ((CommandIds{kCmdUpdate, kCmdAbort}), Commands());
  EXPECT_EQ(Parts{Le64(7)}, Sent(1));
}

TEST_F(Operation, UpdateOfAssociatedDataAloneDropsWhatItProduces) {
  EXPECT_EQ(0, Make("UpdateAssociatedData"));
  EXPECT_EQ(kEmpty, StateOf(kData));
}

// ---- The finish of inputs that need an update first

TEST_F(Operation, FinishNewSendsAnUpdateBeforeItsLast4032Bytes) {
  // The TA answers an update with its length and a finish with a mark.
  platform().On(kCmdUpdate, [](const Invocation& i) {
    return Reply::Ok().Out(2, kNonce).Out(3, Le32(i.params[1].size));
  });
  ReplyTo(kCmdFinish, Reply::Ok().Out(2, kNonce).Out(3, kMark));
  const std::pair<size_t, std::vector<uint32_t>> kRows[] = {
      {0, {}}, {4032, {}}, {4033, {1}}, {10000, {5968}}, {530000, {kChunk, 1680}}};
  for (const auto& [length, updates] : kRows) {
    SCOPED_TRACE(length);
    EXPECT_EQ(0, MakeWith("FinishNew", length));
    Bytes output;
    const uint8_t *at = kLong.data(), *const end = at + length;
    for (size_t i = 0; i < updates.size(); ++i) {
      EXPECT_TRUE((Parts{sent_set, Bytes(at, at + updates[i]), Le64(7)}) == Sent(i));
      output = Cat({output, Le32(updates[i])});
      at += updates[i];
    }
    EXPECT_EQ((Parts{sent_set, FinishInput(Bytes(at, end), kMark), Le64(7)}), Sent(updates.size()));
    EXPECT_EQ(updates.size() + 1, Commands().size());
    EXPECT_EQ(Cat({output, kMark}), BlobBytes(outputs.data));
    EXPECT_EQ("900003e9:aa", Describe(outputs.params));
  }
  EXPECT_EQ(0, Make("FinishNew", [](Args* args) { args->input = nullptr; }));
}

// Output of one alone is enough: the sweep truncates either.
TEST_F(Operation, FinishLargeNeedsOutputOfEitherPart) {
  ReplyTo(kCmdUpdate, Reply::Ok());
  ReplyTo(kCmdFinish, Reply::Ok().Out(2, kNonce));
  EXPECT_EQ(kNoMemory, Make("FinishLarge"));
  EXPECT_EQ("E KeyMaster_Ts: length invalid, update 0, finish 0\n", Log().back());
  EXPECT_EQ(nullptr, outputs.data.data);
  EXPECT_EQ(kEmpty, StateOf(kParams));
}

// ---- Authorization and sharing of the HMAC key

TEST_F(RequestTest, VerifyAuthorizationFillsTheTokenFromTheReply) {
  const Bytes token = VerificationToken(0x1122334455667788, 0x99AABBCCDDEEFF00, 2, Ramp(0x50, 32));
  ReplyTo(kCmdVerifyAuthorization, Reply::Ok().Out(2, kNonce).Out(3, token));
  EXPECT_EQ(0, Make("VerifyAuthorization"));
  EXPECT_EQ(0x1122334455667788u, outputs.token.challenge);
  EXPECT_EQ(0x99AABBCCDDEEFF00u, outputs.token.timestamp);
  EXPECT_EQ(2u, outputs.token.security_level);
  EXPECT_EQ(Ramp(0x50, 32), Bytes(outputs.token.mac, outputs.token.mac + 32));
  EXPECT_EQ("900003e9:aa", Describe(outputs.params));
  ReplyTo(kCmdVerifyAuthorization, Reply::Ok().Out(2, kNonce).Out(3, Cat({token, {0}})));
  EXPECT_EQ(KM_ERROR_VERIFICATION_FAILED, Make("VerifyAuthorization"));
  ReplyTo(kCmdVerifyAuthorization, Reply::Ok().Out(3, token));
  EXPECT_EQ(0, Make("VerifyAuthorization"));
  EXPECT_EQ(kEmpty, StateOf(kParams)) << "nothing was verified";
  // Verified parameters are read only if asked for.
  ReplyTo(kCmdVerifyAuthorization, Reply::Ok().Out(2, kTruncated).Out(3, token));
  TsVerificationToken wanted = {1, 2, nullptr, 3, {4}};
  EXPECT_EQ(0, Make("VerifyAuthorization", [&](Args* args) { args->token = &wanted; }));
  EXPECT_EQ(2u, wanted.security_level);
  EXPECT_EQ(nullptr, wanted.parameters_verified);
}

TEST_F(RequestTest, HmacParametersGoStraightToTheCaller) {
  EXPECT_EQ(0, km.TivasgetHmacSharingParameters(outputs.hmac[0], 32, outputs.hmac[1], 16));
  EXPECT_EQ(Ramp(1, 32), Bytes(outputs.hmac[0], outputs.hmac[0] + 32));
  EXPECT_EQ(Ramp(2, 16), Bytes(outputs.hmac[1], outputs.hmac[1] + 16));
  EXPECT_EQ(16u, platform().invocations[0].params[1].size);
}

// ---- Start-up, and the requests that need no TA

TEST_F(RequestTest, AFailedConfigurationLeavesTheContext) {
  ReplyTo(kCmdConfigure, Reply::Fail(0xFFFF0009));
  EXPECT_EQ(0xFFFF0009, static_cast<uint32_t>(Make("Initialize")));
  EXPECT_EQ("E KeyMaster_Ts: call keymaster configure api failed, ret=-65527\n", Log().back());
  EXPECT_EQ(1u, platform().live_contexts);
}

TEST_F(RequestTest, ContextIsReplacedAndFinishedOnce) {
  EXPECT_EQ(0, km.InitTeeContext());
  platform().init = [] { return Reply::Fail(0xFFFF0001); };
  EXPECT_EQ(0xFFFF0001, static_cast<uint32_t>(km.InitTeeContext()));
  EXPECT_EQ("finalize, init, finalize, init", Journal());
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(0xFFFF0006, static_cast<uint32_t>(km.FinishTeeContext()))
      << "a failed replacement leaves none";
  EXPECT_EQ("unexpected NULL!\n", ::testing::internal::GetCapturedStdout());
  platform().init = {};
  EXPECT_EQ(0, km.InitTeeContext());
  { keymaster::KeymasterTivasContext other; }
  EXPECT_EQ(1u, platform().live_contexts) << "a destructor leaves the context";
  EXPECT_EQ(0, km.FinishTeeContext());
  EXPECT_EQ("finalize, init, finalize, init, init, finalize", Journal());
}

TEST_F(RequestTest, SystemVersionIsTheCallersAlone) {
  unsigned version = 7, patch = 8;
  EXPECT_EQ(0, km.Initialize(keymaster::KmVersion::KEYMASTER_4_1));
  platform().ClearRecords();
  km.GetSystemVersion(nullptr, &patch);
  km.GetSystemVersion(&version, nullptr);
  EXPECT_EQ(15u, version + patch) << "one pointer is not enough";
  km.GetSystemVersion(&version, &patch);
  EXPECT_EQ(0u, version + patch);
  EXPECT_EQ(0, km.SetSystemVersion(110000, 202101));
  km.GetSystemVersion(&version, &patch);
  EXPECT_EQ(110000u, version);
  EXPECT_EQ(202101u, patch);
  const std::string null = "I KeyMaster_Ts: os_version or os_patchlevel is NULL",
                    got = "E KeyMaster_Ts: debug  GetSystemVersion\n";
  EXPECT_EQ((Lines{null, null, got, got}), Log());
}

TEST_F(RequestTest, SomeNeverReachTheTa) {
  EXPECT_EQ(0, km.FinishTeeContext());
  EXPECT_EQ(0, km.TivasKmAddRngEntropy(nullptr, 1));
  EXPECT_EQ(0, km.TivasKmDeleteAllKeys());
  EXPECT_EQ(0, km.TivasKmDestroyAttestationIds());
  EXPECT_EQ((Lines{"I KeyMaster_Ts: km_destroy_identifiers start",
                   "I KeyMaster_Ts: km_destroy_identifiers success"}),
            Log());
  EXPECT_FALSE(IsGlobalVersion() || SupportEnhanceKeymaster());
}

}  // namespace
}  // namespace test
