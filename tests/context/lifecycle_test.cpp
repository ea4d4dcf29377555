// Start-up, configuration and the requests that need no TA.
#include "tests/context/request_test.h"

namespace test {
namespace {

using Lifecycle = RequestTest;

Parts Versions(uint32_t os, uint32_t patch) { return {Cat({Le32(os), Le32(patch)})}; }

TEST_F(Lifecycle, InitializeStoresNoVersion) {
  EXPECT_EQ(0, Call("Initialize"));
  unsigned version = 1, patch = 1;
  km.GetSystemVersion(&version, &patch);
  EXPECT_EQ(0u, version + patch);
}

TEST_F(Lifecycle, AFailedConfigurationLeavesTheContext) {
  ReplyTo(kCmdConfigure, Reply::Fail(0xFFFF0009));
  EXPECT_EQ(0xFFFF0009, static_cast<uint32_t>(Call("Initialize")));
  EXPECT_EQ("E call keymaster configure api failed, ret=-65527\n", Logged().back());
  EXPECT_EQ(1u, platform().live_contexts);
}

TEST_F(Lifecycle, ContextGoesUpAndDown) {
  platform().init_result = 0xFFFF0001;
  EXPECT_EQ(0xFFFF0001, static_cast<uint32_t>(km.InitTeeContext()));
  EXPECT_EQ(0u, platform().live_contexts) << "a failed replacement leaves none";
  EXPECT_EQ(kBadParameters, km.FinishTeeContext());
  platform().init_result = 0;
  EXPECT_EQ(0, km.InitTeeContext());
  { keymaster::KeymasterTivasContext other; }
  EXPECT_EQ(1u, platform().live_contexts) << "a destructor leaves the context";
  EXPECT_EQ(0, km.FinishTeeContext());
}

TEST_F(Lifecycle, ConfigurationEndsItsWalkWhereBothVersionsAreFound) {
  constexpr int64_t kOs = KM_TAG_OS_VERSION, kPatch = KM_TAG_OS_PATCHLEVEL;
  const struct {
    Params params;
    uint32_t os, patch;
  } kRows[] = {{{{kOs, 1}, {kOs, 2}, {kPatch, 3}}, 2, 3},
               {{{kPatch, 3}, {kOs, 1}, {kOs, 2}}, 1, 3},
               {{{kOs, 1}, {kPatch, 3}, {kPatch, 4}}, 1, 3},
               {{{kPatch, 3}, {kPatch, 4}, {kOs, 1}, {kPatch, 5}}, 1, 4},
               {{{KM_TAG_KEY_SIZE, 9}, {kOs, ~0u}, {kPatch, 0}}, ~0u, 0}};
  for (const auto& row : kRows) {
    SetParams(row.params);
    EXPECT_EQ(0, Call("TivasKmConfigure"));
    EXPECT_EQ(Versions(row.os, row.patch), Sent());
  }
}

TEST_F(Lifecycle, SystemVersionIsKept) {
  unsigned version = 7, patch = 8;
  EXPECT_EQ(0, km.SetSystemVersion(110000, 202101));
  km.GetSystemVersion(nullptr, &patch);
  km.GetSystemVersion(&version, nullptr);
  EXPECT_EQ(15u, version + patch) << "one pointer is not enough";
  km.GetSystemVersion(&version, &patch);
  EXPECT_EQ(110000u, version);
  EXPECT_EQ(202101u, patch);
  const std::string null = "I os_version or os_patchlevel is NULL";
  EXPECT_EQ((Lines{null, null, "E debug  GetSystemVersion\n"}), Logged());
}

TEST_F(Lifecycle, SomeRequestsNeverReachTheTa) {
  EXPECT_EQ(0, km.FinishTeeContext());
  EXPECT_EQ(0, km.TivasKmAddRngEntropy(nullptr, 1));
  EXPECT_EQ(0, km.TivasKmDeleteAllKeys());
  EXPECT_EQ(0, km.TivasKmDestroyAttestationIds());
  EXPECT_EQ((Lines{"I km_destroy_identifiers start", "I km_destroy_identifiers success"}),
            Logged());
  EXPECT_FALSE(IsGlobalVersion() || SupportEnhanceKeymaster());
}

}  // namespace
}  // namespace test
