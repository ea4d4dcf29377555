// Sessions of the TA, and requests that are not what they claim.
#include "tests/ta/descriptions.h"

namespace {

TEST_F(TaTest, NeedsToBeConfiguredForKeys) {
  Instance fresh(false);
  EXPECT_EQ(fresh.Generate(kAes), Km(KM_ERROR_KEYMASTER_NOT_CONFIGURED));
  EXPECT_EQ(fresh.Run(kCmdEarlyBootEnded), 0u);
  EXPECT_EQ(fresh.Configure(kOsVersion, kPatchlevel), 0u);
  EXPECT_EQ(fresh.Generate(kAes), 0u);
}

TEST_F(TaTest, RemembersASessionsLastFailure) {
  const auto record = [](Ta* session) {
    EXPECT_EQ(session->Run(kCmdGetErrorRecord, Out(1024)), 0u);
    return session->slots[0].out;
  };
  EXPECT_EQ(record(&ta), Str(12, 0));
  Str lines;
  for (const auto& [description, error] :
       {std::pair{Ps(), KM_ERROR_UNSUPPORTED_ALGORITHM},
        {With(kAes, {KM_TAG_PURPOSE, kSign}), KM_ERROR_UNSUPPORTED_PURPOSE}}) {
    EXPECT_EQ(ta.Generate(description), Km(error));
    const Str kept = record(&ta);
    lines += kept.substr(4, 4);
    const Str function = "CheckKeyDescription";
    EXPECT_EQ(kept, Le(Km(error), 4) + kept.substr(4, 4) + Le(function.size(), 4) + function);
    ASSERT_EQ(ta.Generate(kAes), 0u);
    EXPECT_EQ(record(&ta), kept);
  }
  EXPECT_LT(UnLe(lines, 0, 4), UnLe(lines, 4, 4));
  Ta other;
  EXPECT_EQ(record(&other), Str(12, 0));
  EXPECT_EQ(other.Run(kCmdGetErrorRecord, Out(11)), TEEC_ERROR_SHORT_BUFFER);
}

TEST_F(TaTest, IsNoFirstSessionOfItsOwn) {
  for (const uint32_t type : {TEEC_VALUE_OUTPUT, TEEC_VALUE_INOUT, TEEC_VALUE_INPUT}) {
    TaParam params[4];
    params[0].a = 5;
    void* session = nullptr;
    EXPECT_EQ(kKeymasterTrustedApp.open_session(kKeymasterLoginMethod, type, params, &session), 0u);
    EXPECT_EQ(params[0].a, type == TEEC_VALUE_INPUT ? 5u : 0u);
    kKeymasterTrustedApp.close_session(session);
  }
}

TEST_F(TaTest, SurvivesRequestsCutShortAndTypesOfAnyKind) {
  const Str request = Wire(kAes + P(KM_TAG_APPLICATION_ID, "id"));
  for (size_t size = 0; size < request.size(); ++size) {
    EXPECT_EQ(ta.Run(kCmdGenerateKey, In(request.substr(0, size)), {}, Out(4096), Out(4096)),
              Km(KM_ERROR_INVALID_ARGUMENT))
        << size;
  }
  ASSERT_EQ(ta.Generate(kAes), 0u);
  const Str finish = Str(1, 0) + Le(16, 4) + Str(16, 'p') + Str(1, 1) + Le(0, 4);
  for (size_t size = 1; size <= finish.size(); ++size) {
    ASSERT_EQ(ta.Begin(kEncrypt, kEcb), 0u);
    EXPECT_EQ(
        ta.Run(kCmdFinish, {}, In(finish.substr(0, size)), InOut(Le(ta.handle, 8)), Out(4096)),
        size == finish.size() ? 0u : Km(KM_ERROR_INVALID_ARGUMENT));
  }
  for (const uint32_t command :
       {kCmdGenerateKey, kCmdGetKeyCharacteristics, kCmdImportKey, kCmdExportKey, kCmdAttestKey,
        kCmdUpgrade, kCmdBegin, kCmdUpdate, kCmdFinish, kCmdAbort, kCmdDeleteKey}) {
    for (uint32_t types = 0; types < 0x8000; ++types) {
      TaParam params[4];
      EXPECT_NE(kKeymasterTrustedApp.invoke(ta.session, command, types, params), 0u);
    }
  }
  // Neither values that share their bytes nor output that nobody takes use up the memory.
  Str shared = Wire(kAes + P(KM_TAG_APPLICATION_ID, "id") + P(KM_TAG_APPLICATION_DATA, "da"));
  shared.resize(shared.size() - 2);
  shared.replace(shared.size() - 2 - 8, 4, Le(0, 4));
  EXPECT_EQ(ta.Run(kCmdGenerateKey, In(shared), {}, Out(4096), Out(4096)),
            Km(KM_ERROR_INVALID_ARGUMENT));
  ASSERT_EQ(ta.Begin(kEncrypt, kEcb), 0u);
  const auto update = [&] {
    return ta.Run(kCmdUpdate, {}, In(Str((1 << 20) + 16, 'p')), InOut(Le(ta.handle, 8)), Out(0));
  };
  EXPECT_EQ(update(), 0u);
  EXPECT_EQ(update(), Km(KM_ERROR_INSUFFICIENT_BUFFER_SPACE));
  EXPECT_EQ(ta.Run(kCmdAbort, In(Le(ta.handle, 8)), In("more")), TEEC_ERROR_BAD_PARAMETERS);
  EXPECT_EQ(ta.Run(kCmdAbort + 1), TEEC_ERROR_NOT_SUPPORTED);
  EXPECT_EQ(ta.Run(kCmdGenerateKey, In(request), {}, Out(20), {}), TEEC_ERROR_SHORT_BUFFER);
}

}  // namespace
