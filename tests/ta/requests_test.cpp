// Sessions of the TA, and requests that are not what they claim.
#include "tests/requests/commands.h"
#include "tests/ta/ta_client.h"

namespace {

TEST_F(TaTest, NeedsToBeConfiguredForKeys) {
  Instance fresh(false);
  EXPECT_EQ(fresh.Generate(kAes), Km(KM_ERROR_KEYMASTER_NOT_CONFIGURED));
  EXPECT_EQ(fresh.Run(kCmdEarlyBootEnded), 0u);
}

TEST_F(TaTest, RemembersASessionsLastFailure) {
  const auto record = [](Ta* session) {
    EXPECT_EQ(session->Run(kCmdGetErrorRecord, Out(1024)), 0u);
    return session->slots[0].out;
  };
  Ta other;
  EXPECT_EQ(record(&ta), Str(12, 0));
  EXPECT_EQ(ta.Generate({}), Km(KM_ERROR_UNSUPPORTED_ALGORITHM));
  ASSERT_EQ(ta.Generate(kAes), 0u);
  const Str kept = record(&ta), function = "CheckKeyDescription";
  EXPECT_EQ(kept, Le(Km(KM_ERROR_UNSUPPORTED_ALGORITHM), 4) + kept.substr(4, 4) +
                      Le(function.size(), 4) + function);
  EXPECT_EQ(record(&other), Str(12, 0));
  EXPECT_EQ(other.Run(kCmdGetErrorRecord, Out(11)), TEEC_ERROR_SHORT_BUFFER);
}

TEST_F(TaTest, RejectsRequestsCutShort) {
  const Str request = Wire(kAes + P(KM_TAG_APPLICATION_ID, "id"));
  for (size_t size = 0; size < request.size(); ++size) {
    EXPECT_EQ(ta.Run(kCmdGenerateKey, In(request.substr(0, size)), {}, Out(4096), Out(4096)),
              Km(KM_ERROR_INVALID_ARGUMENT))
        << size;
  }
  ASSERT_EQ(ta.Generate(kAes), 0u);
  const Str finish = ToStr(test::FinishInput(test::Bytes(16, 'p'), {}));
  for (size_t size = 1; size <= finish.size(); ++size) {
    ASSERT_EQ(ta.Begin(kEncrypt, kEcb), 0u);
    EXPECT_EQ(
        ta.Run(kCmdFinish, {}, In(finish.substr(0, size)), InOut(Le(ta.handle, 8)), Out(4096)),
        size == finish.size() ? 0u : Km(KM_ERROR_INVALID_ARGUMENT));
  }
}

TEST_F(TaTest, RejectsParametersOfOtherTypes) {
  for (const test::Command& command : test::kCommands) {
    const uint32_t own = test::TypesOf(command);
    for (uint32_t bit = 0; bit < 32; ++bit) {
      TaParam params[4];
      EXPECT_EQ(kKeymasterTrustedApp.invoke(ta.session, command.id, own ^ (1u << bit), params),
                TEEC_ERROR_BAD_PARAMETERS)
          << command.name << " bit " << bit;
    }
    TaParam empty[4];
    EXPECT_TRUE(command.types[0] != test::kIn ||
                kKeymasterTrustedApp.invoke(ta.session, command.id, own, empty) != 0)
        << command.name;
  }
  EXPECT_EQ(ta.Run(1000), TEEC_ERROR_NOT_SUPPORTED);
}

TEST_F(TaTest, BoundsTheMemoryThatARequestMayTake) {
  // Values that share their bytes, or end beyond them.
  for (const uint32_t offset : {0u, 3u, 5u}) {
    Str request = Wire(kAes + P(KM_TAG_APPLICATION_ID, "id") + P(KM_TAG_APPLICATION_DATA, "da"));
    request.replace(request.size() - 4 - 8, 4, Le(offset, 4));
    if (offset == 0) request.resize(request.size() - 2);
    EXPECT_EQ(ta.Run(kCmdGenerateKey, In(request), {}, Out(4096), Out(4096)),
              Km(KM_ERROR_INVALID_ARGUMENT));
  }
  // Output that nobody takes.
  ASSERT_EQ(ta.Generate(kAes), 0u);
  ASSERT_EQ(ta.Begin(kEncrypt, kEcb), 0u);
  const auto update = [&] {
    return ta.Run(kCmdUpdate, {}, In(Str((1 << 20) + 16, 'p')), InOut(Le(ta.handle, 8)), Out(0));
  };
  EXPECT_EQ(update(), 0u);
  EXPECT_EQ(update(), Km(KM_ERROR_INSUFFICIENT_BUFFER_SPACE));
}

TEST_F(TaTest, RejectsWhatNoCommandIs) {
  EXPECT_EQ(ta.Run(kCmdGenerateKey, In(Wire(kAes)), {}, Out(4096), In("more")),
            TEEC_ERROR_BAD_PARAMETERS);
  EXPECT_EQ(ta.Run(kCmdAbort, In(Str(9, 0))), TEEC_ERROR_BAD_PARAMETERS);
  EXPECT_EQ(ta.Run(kCmdAbort + 1), TEEC_ERROR_NOT_SUPPORTED);
  EXPECT_EQ(ta.Run(kCmdGenerateKey, In(Wire(kAes)), {}, Out(20), {}), TEEC_ERROR_SHORT_BUFFER);
}

}  // namespace
