// Requests to a TA that answers well: what they send, for which arguments, and what they return.
#include "tests/context/request_test.h"

namespace test {
namespace {

using Requests = RequestTest;

struct Row {
  const char* request;
  Parts sent;                         // with the first command
  void (*set)(Args* args) = nullptr;  // what differs from the request's arguments, and
  Params params = {};                 // its parameters, when there are any here
  uint32_t room = 4096;               // for each output but an update's data
};

const Bytes kKey = BlobBytes(fixture().blob.key), kInput = BlobBytes(fixture().input.blob),
            kSecret = fixture().secrets.at("parameter"),
            kEc = TwoLists({{KM_TAG_ALGORITHM, 3}, {KM_TAG_KEY_SIZE, 256}},
                           {{KM_TAG_APPLICATION_ID, kSecret}}),
            kOperation =
                TwoLists({}, {{KM_TAG_NONCE, Ramp(9, 12)}, {KM_TAG_ASSOCIATED_DATA, kSecret}});
const Param kClient(KM_TAG_APPLICATION_ID, kSecret), kApp(KM_TAG_APPLICATION_DATA, kSecret);
const Bytes kBoth = TwoLists({}, {kClient, kApp}), kAppOnly = TwoLists({}, {kApp}),
            kEmptyId = TwoLists({}, {{KM_TAG_APPLICATION_ID, Bytes()}, kApp});
constexpr keymaster_blob_t kEmptyBlob = {nullptr, 0};
constexpr int64_t kOs = KM_TAG_OS_VERSION, kPatch = KM_TAG_OS_PATCHLEVEL;

Bytes Versions(uint32_t os, uint32_t patch) { return Cat({Le32(os), Le32(patch)}); }

void EmptyClient(Args* a) { a->client_id = &kEmptyBlob; }

Bytes Begin(const Fenced& bytes, size_t length) { return {bytes.data(), bytes.data() + length}; }

// clang-format off
const Row kRows[] = {
    {"Initialize", {Versions(120000, 202211)}},
    {"Configure", {Versions(130000, 202211)}},
    // The walk over the parameters ends where both are found.
    {"Configure", {Versions(2, 3)}, nullptr, {{kOs, 1}, {kOs, 2}, {kPatch, 3}}},
    {"Configure", {Versions(1, 3)}, nullptr, {{kPatch, 3}, {kOs, 1}, {kOs, 2}}},
    {"Configure", {Versions(1, 3)}, nullptr, {{kOs, 1}, {kPatch, 3}, {kPatch, 4}}},
    {"Configure", {Versions(1, 4)}, nullptr, {{kPatch, 3}, {kPatch, 4}, {kOs, 1}, {kPatch, 5}}},
    {"Configure", {Versions(~0u, 0)}, nullptr, {{KM_TAG_KEY_SIZE, 9}, {kOs, ~0u}, {kPatch, 0}}},
    {"GenerateEc", {kEc}},
    {"ImportRaw", {kEc, BlobBytes(fixture().mask.blob), Le64(1)}},
    {"ExportRsa", {kKey, kBoth}},
    {"ExportRsa", {kKey, kAppOnly}, No<&Args::client_id>},
    {"ExportRsa", {kKey}, No<&Args::client_id, &Args::app_data>},
    {"ExportRsa", {kKey, kEmptyId}, EmptyClient},
    {"ExportEc", {Text("an EC key"), kBoth}},
    {"GetKeyCharacteristics", {kKey, kBoth}},
    {"GetKeyCharacteristics", {kKey, kAppOnly}, No<&Args::client_id>},
    {"UpgradeKey", {kKey, kOperation}},
    {"Deletekey", {kKey}},
    {"AttestKey", {kKey, kOperation}, nullptr, {}, 8192},
    {"Begin", {kKey, kOperation, Le64(KM_PURPOSE_SIGN)}},
    {"Begin", {kKey, Le64(KM_PURPOSE_SIGN)}, No<&Args::params>},
    {"Update", {kOperation, Begin(fixture().long_input, 0x80000), Le64(7)}},
    {"UpdateAssociatedData", {kOperation, Le64(7)}},
    {"Finish", {kOperation, FinishInput(kInput, kInput), Le64(7)}},
    {"Finish", {FinishInput(kInput, kInput), Le64(7)}, No<&Args::params>},
    {"Finish", {kOperation, FinishInput(kInput, {}), Le64(7)}, No<&Args::signature>},
    {"Finish", {kOperation, FinishInput(Begin(fixture().long_input, 4096), kInput), Le64(7)},
     InputOf<4096>},
    {"Finish", {kOperation, FinishInput({}, kInput), Le64(7)}, No<&Args::input>},
    {"Finish", {kOperation, FinishInput({}, {}), Le64(7)},
     [](Args* a) { InputOf<0>(a); a->signature = nullptr; }},
    {"Finish", {kOperation, Le64(7)}, No<&Args::input, &Args::signature>},
    {"Finish", {kOperation, Le64(7)}, [](Args* a) { Hollow<&Args::input>(a); a->signature = a->input; }},
    {"Abort", {Le64(0x0123456789ABCDEF)}, [](Args* a) { a->handle = 0x0123456789ABCDEF; }},
    {"VerifyAuthorization", {kOperation, Cat({Le64(5), AuthToken(5, 7, 2)}), Bytes(8)}},
    {"EarlyBootEnded", {}},
    {"DeviceLocked", {Le64(1)}},
    {"DeviceLocked", {Bytes(8)}, [](Args* a) { a->password_only = false; }},
    {"GetHmacSharingParameters", {}, nullptr, {}, 32},
    {"ComputeSharedHmac", {kInput}},
};
// clang-format on

TEST_F(Requests, SendTheirInputs) {
  for (const Row& row : kRows) {
    SCOPED_TRACE(std::string(row.request) + ", row " + std::to_string(&row - kRows));
    const ParamSet params(row.params);
    EXPECT_EQ(0, Make(row.request, [&](Args* args) {
                if (row.set != nullptr) row.set(args);
                if (!row.params.empty()) args->params = params.get();
              }));
    EXPECT_TRUE(row.sent == Sent());
    const Invocation& seen = platform().invocations[0];
    for (unsigned i = 0; i < 4; ++i) {
      const uint32_t type = TEEC_PARAM_TYPE_GET(seen.param_types, i);
      const bool is_data = seen.command == kCmdUpdate && i == 3;
      const bool is_output = type == kOut || type == kInOut;
      EXPECT_TRUE(is_data || !is_output || seen.params[i].size == row.room) << i;
    }
  }
}

TEST_F(Requests, ReturnWhatTheTaWrote) {
  for (const char* name : {"GenerateEc", "GenerateRsa", "ImportRaw", "GetKeyCharacteristics"}) {
    EXPECT_EQ(0, Make(name));
    EXPECT_EQ("20000001=5 90000259:61707064", Describe(outputs.characteristics.hw_enforced));
    EXPECT_EQ("600002bd=9 900002bc:617461", Describe(outputs.characteristics.sw_enforced));
  }
  for (const char* name : {"Begin", "Update", "Finish", "FinishLarge", "VerifyAuthorization"}) {
    EXPECT_EQ(0, Make(name));
    EXPECT_EQ("900003e9:28292a2b2c2d2e2f30313233 300003eb=80", Describe(outputs.params));
  }
  for (const char* name : {"GenerateEc", "GenerateRsa", "ImportRaw", "UpgradeKey"}) {
    EXPECT_EQ(0, Make(name, [](Args* args) { args->characteristics = nullptr; }));
    EXPECT_EQ(kKey, BlobBytes(outputs.key_blob));
  }
  EXPECT_EQ(0, Make("Begin"));
  EXPECT_EQ(0x5566778811223344u, outputs.number);
  EXPECT_EQ(0, Make("Finish"));
  EXPECT_EQ(fixture().secrets.at("finish output, unwrapped key"), BlobBytes(outputs.data));
}

TEST_F(Requests, NeedNoPlaceForWhatNobodyWants) {
  for (const char* name : {"Begin", "Update", "UpdateAssociatedData", "Finish", "FinishNew"}) {
    EXPECT_EQ(0, Make(name, [](Args* args) { args->out_params = nullptr, args->data = nullptr; }));
  }
}

}  // namespace
}  // namespace test
