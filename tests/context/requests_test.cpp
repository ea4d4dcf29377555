// Each request against a TA that answers well: what it sends, logs and returns.
#include "tests/context/request_test.h"

namespace test {
namespace {

using Change = std::function<void(Reply*, const Answer& usual)>;

struct Requests : RequestTest {
  // Makes a request of a TA that answers well, but for what change does to the replies of a
  // command.
  int32_t Make(const char* name, uint32_t changed = 0, const Change& change = {}) {
    Renew();
    args = Args(&outputs);
    const Request& request = FindRequest(name);
    request.Prepare(&args);
    for (uint32_t command = 1; command <= kCmdGetErrorRecord; ++command) {
      platform().On(command, [=](const Invocation& invocation) {
        const Answer answer = AnswerTo(invocation.command, *invocation.operation);
        Reply reply = Reply::Fail(answer.result);
        for (const auto& [param, bytes] : answer.outputs) {
          reply.Out(static_cast<int>(param), bytes);
        }
        if (answer.value) reply.Value(3, answer.value->a, answer.value->b);
        if (command == changed) change(&reply, answer);
        return reply;
      });
    }
    return request.method->call(args);
  }
};

TEST_F(Requests, SendTheirInputs) {
  const Bytes key = BlobBytes(fixture().blob.key), input = BlobBytes(fixture().input.blob),
              secret = fixture().secrets.at("parameter"),
              ec = TwoLists({{KM_TAG_ALGORITHM, 3}, {KM_TAG_KEY_SIZE, 256}},
                            {{KM_TAG_APPLICATION_ID, secret}}),
              client = TwoLists(
                  {}, {{KM_TAG_APPLICATION_ID, secret}, {KM_TAG_APPLICATION_DATA, secret}}),
              operation =
                  TwoLists({}, {{KM_TAG_NONCE, Ramp(9, 12)}, {KM_TAG_ASSOCIATED_DATA, secret}}),
              first_chunk(fixture().long_input.data(), fixture().long_input.data() + 0x80000);
  const struct {
    const char* request;
    Parts sent;  // with the first command
  } kRows[] = {
      {"Initialize", {Cat({Le32(120000), Le32(202211)})}},
      {"Configure", {Cat({Le32(130000), Le32(202211)})}},
      {"GenerateEc", {ec}},
      {"ImportRaw", {ec, BlobBytes(fixture().mask.blob), Le64(1)}},
      {"ExportRsa", {key, client}},
      {"ExportEc", {Text("an EC key"), client}},
      {"GetKeyCharacteristics", {key, client}},
      {"UpgradeKey", {key, operation}},
      {"Deletekey", {key}},
      {"AttestKey", {key, operation}},
      {"Begin", {key, operation, Le64(KM_PURPOSE_SIGN)}},
      {"Update", {operation, first_chunk, Le64(7)}},
      {"UpdateAssociatedData", {operation, Le64(7)}},
      {"Finish", {operation, FinishInput(input, input), Le64(7)}},
      {"Abort", {Le64(7)}},
      {"VerifyAuthorization", {operation, Cat({Le64(5), AuthToken(5, 7, 2)}), Bytes(8)}},
      {"EarlyBootEnded", {}},
      {"DeviceLocked", {Le64(1)}},
      {"GetHmacSharingParameters", {}},
      {"ComputeSharedHmac", {input}},
  };
  for (const auto& row : kRows) {
    EXPECT_EQ(0, Make(row.request));
    EXPECT_TRUE(row.sent == Sent()) << row.request;
  }
}

struct LogOf {
  const char* request;
  Lines lines;
};
// Levels and texts, odd as some are, are what log readers look for.
const LogOf kLogs[] = {
    {"Initialize",
     {"E Initializing TsKeymaster as KmVersion: 41", "E Start call system api to get OS version\n",
      "E os version is 120000\n", "E Start call system api to get patch lever\n",
      "E os patchlevel is 202211\n", "E KmConfigure start", "E KmConfigure success"}},
    {"GenerateEc", {"I KmGenerateKey start", "I KmGenerateKey success"}},
    {"GenerateRsa", {"I KmGenerateKey start", "I TivasKmGenerateKeyExt success"}},
    {"ImportRsa", {"I KmImportKey start", "I KmImportKey success"}},
    {"ImportEc",
     {"I KmImportKey start", "I curve name=415, compressed mode=4\n", "I keysize = 256\n",
      "I X size = 32", "I Y size = 32", "I priv key size = 32", "I KmImportKey success"}},
    {"ExportRsa", {"I KmExportKey start", "I KmExportKey success"}},
    {"ExportEc", {"I KmExportKey start", "I nid = 415", "I KmExportKey success"}},
    {"GetKeyCharacteristics",
     {"I KmGetKeyCharacteristics start", "I KmGetKeyCharacteristics success"}},
    {"UpgradeKey", {"I KmUpgradeKey start", "I KmUpgradeKey success"}},
    {"Deletekey", {"I KmDeletekey start", "I km_delete success"}},
    {"AttestKey",
     {"I KmAttestKey start", "I extract attest cert chain success, entry_count=2.\n",
      "I KmAttestKey success"}},
    {"Begin", {"I KmBegin start", "I out_params_buffer_len = 48", "I KmBegin success"}},
    {"Update", {"I KmUpdate start", "I KmUpdate success"}},
    {"UpdateAssociatedData", {"I KmUpdate start"}},
    {"Finish", {"I KmFinish start", "I output data size=32", "I KmFinish success"}},
    {"Abort", {"I KmAbort start", "I KmAbort success"}},
    {"VerifyAuthorization",
     {"I TivasVerifyAuthorization start", "I TivasVerifyAuthorization success"}},
    {"EarlyBootEnded", {"E TivasKmEarlyBootEnded success"}},
    {"DeviceLocked",
     {"I TivasKmDeviceLocked enter, passwordOnly[1]", "E TivasKmDeviceLocked success"}},
    {"GetHmacSharingParameters", {"I getHmacSharingParameters start"}},
    {"ComputeSharedHmac", {"I computeSharedHmac start", "I output data size=32"}},
};

TEST_F(Requests, LogTheirProgress) {
  for (const LogOf& row : kLogs) {
    EXPECT_EQ(0, Make(row.request));
    EXPECT_EQ(row.lines, Logged()) << row.request;
  }
  EXPECT_EQ(0, Make("ImportWrappedKey"));
  EXPECT_EQ("I km_import_wrapped_key start", Logged().front());
  EXPECT_EQ("I km_import_wrapped_key finish", Logged().back());
}

TEST_F(Requests, ReturnCharacteristicsAndParametersAsTheTaWroteThem) {
  for (const char* name : {"GenerateEc", "GenerateRsa", "ImportRaw", "GetKeyCharacteristics"}) {
    EXPECT_EQ(0, Make(name));
    EXPECT_EQ("20000001=5 90000259:61707064", Describe(outputs.characteristics.hw_enforced));
    EXPECT_EQ("600002bd=9 900002bc:617461", Describe(outputs.characteristics.sw_enforced));
  }
  for (const char* name : {"Begin", "Update", "Finish", "FinishLarge", "VerifyAuthorization"}) {
    EXPECT_EQ(0, Make(name));
    EXPECT_EQ("900003e9:28292a2b2c2d2e2f30313233 300003eb=80", Describe(outputs.params));
  }
}

TEST_F(Requests, AcceptRepliesThatFillTheirBufferAndNoLongerOnes) {
  constexpr int32_t kUnknown = KM_ERROR_UNKNOWN_ERROR;
  const auto key = [](const Outputs& o) { return BlobBytes(o.key_blob); };
  const auto data = [](const Outputs& o) { return BlobBytes(o.data); };
  const struct {
    const char* request;
    uint32_t command;
    int param;
    uint32_t capacity;
    int32_t if_longer;                            // 0 where the TA's length counts as the capacity
    Bytes (*returned)(const Outputs&) = nullptr;  // the reply as it came
  } kRows[] = {
      {"GenerateEc", kCmdGenerateKey, 2, 4096, kUnknown, key},
      {"GenerateEc", kCmdGenerateKey, 3, 4096, kNoMemory},
      {"GenerateRsa", kCmdImportKey, 2, 4096, kUnknown, key},
      {"GenerateRsa", kCmdImportKey, 3, 4096, 0},
      {"ImportRaw", kCmdImportKey, 2, 4096, kUnknown, key},
      {"ImportRaw", kCmdImportKey, 3, 4096, 0},
      {"GetKeyCharacteristics", kCmdGetKeyCharacteristics, 2, 4096, kNoMemory},
      {"UpgradeKey", kCmdUpgrade, 2, 4096, kUnknown, key},
      {"AttestKey", kCmdAttestKey, 2, 8192, kUnknown},
      {"Begin", kCmdBegin, 2, 4096, kNoMemory},
      {"Finish", kCmdFinish, 2, 4096, 0},
      {"Finish", kCmdFinish, 3, 4096, kUnknown, data},
      {"VerifyAuthorization", kCmdVerifyAuthorization, 2, 4096, 0},
      {"ComputeSharedHmac", kCmdComputeSharedHmac, 1, 4096, kUnknown, data},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(std::string(row.request) + ", parameter " + std::to_string(row.param));
    EXPECT_EQ(0, Make(row.request, row.command, [&](Reply* reply, const Answer& usual) {
                Bytes full = usual.outputs.at(static_cast<unsigned>(row.param));
                full.resize(row.capacity);
                reply->Out(row.param, row.returned == nullptr ? full : Ramp(1, row.capacity));
              }));
    if (row.returned != nullptr) {
      EXPECT_EQ(Ramp(1, row.capacity), row.returned(outputs));
    }
    EXPECT_EQ(row.if_longer, Make(row.request, row.command, [&](Reply* reply, const Answer&) {
                reply->Size(row.param, row.capacity + 1);
              }));
  }
}

}  // namespace
}  // namespace test
