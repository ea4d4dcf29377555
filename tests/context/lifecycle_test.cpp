// Start-up, configuration and the requests that need no TA.
#include "tests/context/request.h"

namespace test {
namespace {

using Lifecycle = RequestTest;
using keymaster::KmVersion;

TEST_F(Lifecycle, InitializeConfiguresTheTa) {
  struct Row {
    TEEC_Result init, configure, result;
    std::string log;
  };
  const std::string
      kStart = "E Initializing TsKeymaster as KmVersion: 41; ",
      kConfigure = kStart +
                   "E Start call system api to get OS version\n; E os version is 120000\n; "
                   "E Start call system api to get patch lever\n; E os patchlevel is 202211\n; "
                   "E KmConfigure start; ";
  const Row kRows[] = {{0, 0, 0, kConfigure + "E KmConfigure success"},
                       {0xFFFF000C, 0, 0xFFFF000C, kStart + "E Failed to connect to  keymaster TA"},
                       {0, kTaError, kTaError,
                        kConfigure + "E! TeeKmConfigure failed, ret=0xffff0009; E call keymaster "
                                     "configure api failed, ret=-65527\n"}};
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.log);
    platform().ClearRecords();
    platform().queued.clear();
    platform().init_result = row.init;
    platform().Queue(1, row.configure == 0 ? Reply::Ok() : Reply::Fail(row.configure));
    EXPECT_EQ(Code(row.result), km.Initialize(KmVersion::KEYMASTER_4_1));
    EXPECT_EQ(row.log, RequestLog());
    EXPECT_EQ(row.init == 0 ? 1u : 0u, platform().live_contexts) << "stays up";
    ASSERT_EQ(row.init == 0 ? 1u : 0u, Commands().size());
    if (row.init != 0) continue;
    EXPECT_EQ(120000u, Sent().params[0].value.a);
    EXPECT_EQ(202211u, Sent().params[0].value.b);
  }
  unsigned version = 1, patch = 1;
  km.GetSystemVersion(&version, &patch);
  EXPECT_EQ(0u, version + patch) << "Initialize stores nothing in the object";
}

TEST_F(Lifecycle, ContextGoesUpAndDown) {
  platform().init_result = 0xFFFF0001;
  EXPECT_EQ(Code(0xFFFF0001), km.InitTeeContext());
  EXPECT_EQ(Code(0xFFFF0006), km.FinishTeeContext());
  platform().init_result = 0;
  EXPECT_EQ(0, km.InitTeeContext());
  { keymaster::KeymasterTivasContext other; }
  EXPECT_EQ(1u, platform().live_contexts) << "a destructor leaves the context";
  EXPECT_EQ(0, km.FinishTeeContext());
  EXPECT_EQ("", RequestLog());
}

TEST_F(Lifecycle, ConfigureWalksTheSet) {
  constexpr int64_t kOs = KM_TAG_OS_VERSION, kPatch = KM_TAG_OS_PATCHLEVEL;
  struct Row {
    std::vector<Param> params;
    int32_t result;
    uint32_t os, patch;  // sent
  };
  const Row kRows[] = {{{{kOs, 1}, {kOs, 2}, {kPatch, 3}}, 0, 2, 3},
                       {{{kPatch, 3}, {kOs, 1}, {kOs, 2}}, 0, 1, 3},
                       {{{kPatch, 3}, {kPatch, 4}, {kOs, 1}, {kPatch, 5}}, 0, 1, 4},
                       {{{KM_TAG_KEY_SIZE, 9}, {kOs, 0xFFFFFFFF}, {kPatch, 0}}, 0, 0xFFFFFFFF, 0},
                       {{{kOs, 1}}, -38, 0, 0},
                       {{{kPatch, 1}, {KM_TAG_BOOT_PATCHLEVEL, 1}}, -38, 0, 0},
                       {{}, -38, 0, 0}};
  for (const Row& row : kRows) {
    platform().ClearRecords();
    ParamSet set({});
    for (const Param& param : row.params) set.Add(param);
    EXPECT_EQ(row.result, km.TivasKmConfigure(set.get()));
    EXPECT_EQ(row.result == 0 ? "E KmConfigure start; E KmConfigure success"
                              : "E KmConfigure start; E! Configuration parameters must contain OS "
                                "version and patch level",
              RequestLog());
    ASSERT_EQ(row.result == 0 ? 1u : 0u, Commands().size());
    if (row.result != 0) continue;
    EXPECT_EQ(row.os, Sent().params[0].value.a);
    EXPECT_EQ(row.patch, Sent().params[0].value.b);
  }
  platform().ClearRecords();
  const keymaster_key_param_set_t hollow = {nullptr, 1};
  EXPECT_EQ(-32, km.TivasKmConfigure(nullptr));
  EXPECT_EQ(-32, km.TivasKmConfigure(&hollow));
  EXPECT_EQ("E KmConfigure start; E KmConfigure start", RequestLog());
}

TEST_F(Lifecycle, SystemVersionIsKept) {
  unsigned version = 7, patch = 8;
  EXPECT_EQ(0, km.SetSystemVersion(110000, 202101));
  EXPECT_EQ("", RequestLog());
  km.GetSystemVersion(nullptr, &patch);
  km.GetSystemVersion(&version, nullptr);
  EXPECT_EQ("I os_version or os_patchlevel is NULL; I os_version or os_patchlevel is NULL",
            RequestLog());
  EXPECT_EQ(15u, version + patch);
  km.GetSystemVersion(&version, &patch);
  EXPECT_EQ(110000u, version);
  EXPECT_EQ(202101u, patch);
  EXPECT_EQ("E debug  GetSystemVersion\n", LastLine());
}

TEST_F(Lifecycle, SomeRequestsNeverReachTheTa) {
  EXPECT_EQ(0, km.FinishTeeContext());
  platform().ClearRecords();
  EXPECT_EQ(0, km.TivasKmAddRngEntropy(nullptr, 1));
  EXPECT_EQ(0, km.TivasKmDeleteAllKeys());
  EXPECT_EQ("", RequestLog());
  EXPECT_EQ(0, km.TivasKmDestroyAttestationIds());
  EXPECT_EQ("I km_destroy_identifiers start; I km_destroy_identifiers success", RequestLog());
  EXPECT_FALSE(IsGlobalVersion() || SupportEnhanceKeymaster());
  EXPECT_EQ("", Journal());
}

}  // namespace
}  // namespace test
