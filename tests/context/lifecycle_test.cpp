// Start-up, configuration and the requests that need no TA.
#include "tests/context/request.h"

namespace test {
namespace {

using Lifecycle = RequestTest;

Parts Values(uint32_t a, uint32_t b) { return {Cat({Le32(a), Le32(b)})}; }

TEST_F(Lifecycle, InitializeConfiguresTheTa) {
  start = "E Initializing TsKeymaster as KmVersion: 41";
  const std::string kConfigures =
      " [1]: E Start call system api to get OS version\n; E os version is 120000\n; "
      "E Start call system api to get patch lever\n; E os patchlevel is 202211\n; "
      "E KmConfigure start; ";
  const auto run = [this] { return Outcome(km.Initialize(keymaster::KmVersion::KEYMASTER_4_1)); };
  EXPECT_EQ("0" + kConfigures + "E KmConfigure success", run());
  EXPECT_EQ(Values(120000, 202211), Inputs());
  unsigned version = 1, patch = 1;
  km.GetSystemVersion(&version, &patch);
  EXPECT_EQ(0u, version + patch) << "Initialize stores nothing in the object";
  platform().ClearRecords();
  Answer(1, TaFails());
  EXPECT_EQ("ffff0009" + kConfigures +
                "E! TeeKmConfigure failed, ret=0xffff0009; "
                "E call keymaster configure api failed, ret=-65527\n",
            run());
  EXPECT_EQ(1u, platform().live_contexts) << "stays up";
  platform().init_result = 0xFFFF000C;
  EXPECT_EQ("ffff000c: E Failed to connect to  keymaster TA", run());
}

TEST_F(Lifecycle, ContextGoesUpAndDown) {
  platform().init_result = 0xFFFF0001;
  EXPECT_EQ("ffff0001", Outcome(km.InitTeeContext()));
  EXPECT_EQ(kNoTee, Outcome(km.FinishTeeContext()));
  platform().init_result = 0;
  EXPECT_EQ("0", Outcome(km.InitTeeContext()));
  { keymaster::KeymasterTivasContext other; }
  EXPECT_EQ(1u, platform().live_contexts) << "a destructor leaves the context";
  EXPECT_EQ("0", Outcome(km.FinishTeeContext()));
}

TEST_F(Lifecycle, ConfigureWalksTheSet) {
  start = "E KmConfigure start";
  constexpr int64_t kOs = KM_TAG_OS_VERSION, kPatch = KM_TAG_OS_PATCHLEVEL;
  const auto run = [this](std::initializer_list<Param> list) {
    ParamSet set(list);
    const std::string outcome = Outcome(km.TivasKmConfigure(set.get()));
    return std::make_pair(outcome, sent.empty() ? Parts() : Inputs());
  };
  const auto sends = [](uint32_t os, uint32_t patch) {
    return std::make_pair(std::string("0 [1]: E KmConfigure success"), Values(os, patch));
  };
  const std::pair<std::string, Parts> kRefused = {
      "-38: E! Configuration parameters must contain OS version and patch level", {}};
  EXPECT_EQ(sends(2, 3), run({{kOs, 1}, {kOs, 2}, {kPatch, 3}}));
  EXPECT_EQ(sends(1, 3), run({{kPatch, 3}, {kOs, 1}, {kOs, 2}}));
  EXPECT_EQ(sends(1, 4), run({{kPatch, 3}, {kPatch, 4}, {kOs, 1}, {kPatch, 5}}));
  EXPECT_EQ(sends(~0u, 0), run({{KM_TAG_KEY_SIZE, 9}, {kOs, 0xFFFFFFFF}, {kPatch, 0}}));
  EXPECT_EQ(kRefused, run({{kOs, 1}}));
  EXPECT_EQ(kRefused, run({{kPatch, 1}, {KM_TAG_BOOT_PATCHLEVEL, 1}}));
  EXPECT_EQ(kRefused, run({}));
  EXPECT_EQ("-32", Outcome(km.TivasKmConfigure(nullptr)));
  EXPECT_EQ("-32", Outcome(km.TivasKmConfigure(&kHollowSet)));
}

TEST_F(Lifecycle, SystemVersionIsKept) {
  unsigned version = 7, patch = 8;
  EXPECT_EQ("0", Outcome(km.SetSystemVersion(110000, 202101)));
  km.GetSystemVersion(nullptr, &patch);
  km.GetSystemVersion(&version, nullptr);
  EXPECT_EQ(15u, version + patch);
  km.GetSystemVersion(&version, &patch);
  EXPECT_EQ(110000u, version);
  EXPECT_EQ(202101u, patch);
  EXPECT_EQ(
      "0: I os_version or os_patchlevel is NULL; I os_version or os_patchlevel is NULL; "
      "E debug  GetSystemVersion\n",
      Outcome(0));
}

TEST_F(Lifecycle, SomeRequestsNeverReachTheTa) {
  EXPECT_EQ("0", Outcome(km.FinishTeeContext()));
  EXPECT_EQ("0", Outcome(km.TivasKmAddRngEntropy(nullptr, 1)));
  EXPECT_EQ("0", Outcome(km.TivasKmDeleteAllKeys()));
  EXPECT_EQ("0: I km_destroy_identifiers start; I km_destroy_identifiers success",
            Outcome(km.TivasKmDestroyAttestationIds()));
  EXPECT_FALSE(IsGlobalVersion() || SupportEnhanceKeymaster());
}

}  // namespace
}  // namespace test
