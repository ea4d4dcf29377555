// Each request against a TA that answers well: what it sends and returns.
#include "tests/context/request_test.h"

namespace test {
namespace {

struct Requests : RequestTest {
  // Makes a request of a TA that answers well, but that one output of its replies, if any, is
  // filled up with zeros.
  int32_t Make(const char* name, unsigned filled = 4) {
    Renew();
    args = Args(&outputs);
    const Request& request = FindRequest(name);
    request.Prepare(&args);
    for (const uint32_t command : request.commands) {
      platform().On(command, [filled](const Invocation& invocation) {
        Answer answer = AnswerTo(invocation.command, *invocation.operation);
        Reply reply = Reply::Fail(answer.result);
        for (auto& [param, bytes] : answer.outputs) {
          if (param == filled) bytes.resize(invocation.params[param].size);
          reply.Out(static_cast<int>(param), bytes);
        }
        if (answer.value) reply.Value(3, answer.value->a, answer.value->b);
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
  const std::map<uint32_t, uint32_t> kOtherRooms = {{kCmdAttestKey, 8192},
                                                    {kCmdGetHmacSharingParameters, 32}};
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.request);
    EXPECT_EQ(0, Make(row.request));
    EXPECT_TRUE(row.sent == Sent());
    const Invocation& seen = platform().invocations[0];
    const auto other = kOtherRooms.find(seen.command);
    for (unsigned i = 0; i < 4; ++i) {
      const uint32_t type = TEEC_PARAM_TYPE_GET(seen.param_types, i);
      const bool output = type == TEEC_MEMREF_TEMP_OUTPUT || type == TEEC_MEMREF_TEMP_INOUT;
      // An update's data has room of its own.
      if (output && (seen.command != kCmdUpdate || i == 2)) {
        EXPECT_EQ(other != kOtherRooms.end() ? other->second : 4096, seen.params[i].size) << i;
      }
    }
  }
}

TEST_F(Requests, ReturnWhatTheTaWrote) {
  const Bytes key = BlobBytes(fixture().blob.key);
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
    EXPECT_EQ(0, Make(name));
    EXPECT_EQ(key, BlobBytes(outputs.key_blob));
  }
}

TEST_F(Requests, AcceptRepliesThatFillTheirBuffer) {
  constexpr std::pair<const char*, unsigned> kRows[] = {{"GenerateEc", 2},
                                                        {"GenerateEc", 3},
                                                        {"GenerateRsa", 2},
                                                        {"GenerateRsa", 3},
                                                        {"ImportRaw", 2},
                                                        {"ImportRaw", 3},
                                                        {"GetKeyCharacteristics", 2},
                                                        {"UpgradeKey", 2},
                                                        {"AttestKey", 2},
                                                        {"Begin", 2},
                                                        {"Update", 2},
                                                        {"Finish", 2},
                                                        {"Finish", 3},
                                                        {"VerifyAuthorization", 2},
                                                        {"ComputeSharedHmac", 1}};
  for (const auto& [request, param] : kRows) {
    EXPECT_EQ(0, Make(request, param)) << request << ", parameter " << param;
  }
}

}  // namespace
}  // namespace test
