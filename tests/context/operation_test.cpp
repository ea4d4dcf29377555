// Operations: begin, update and abort.
#include "tests/context/request.h"

namespace test {
namespace {

using Operation = RequestTest;

constexpr unsigned long kHandle = 0x0123456789ABCDEF;
const Bytes kKey = Ramp(0x40, 21);
const Bytes kNonceReply = Cat({WireList({BytesEntry(KM_TAG_NONCE, 0, 2)}), {0xAA, 0xBB}});
constexpr char kNonce[] = "900003e9:aabb";
const Bytes kBadSet = Le32(1);  // announces an entry that is not there

TEST_F(Operation, BeginSendsPurposeKeyAndParameters) {
  const keymaster_key_blob_t key = KeyBlob(kKey);
  ParamSet params({{KM_TAG_NONCE, Bytes{1}}, {KM_TAG_PADDING, 64}});
  platform().On(8, [](const Invocation&) {
    return Reply::Ok().Out(2, kNonceReply).Value(3, 0x89ABCDEF, 0x01234567);
  });
  unsigned long handle = 0;
  OutSet out;
  EXPECT_EQ(0, km.TivasKmBegin(KM_PURPOSE_SIGN, &key, params.get(), &out, &handle));
  EXPECT_EQ(kHandle, handle);
  EXPECT_EQ(kNonce, out.Take());
  EXPECT_EQ("I KmBegin start; I out_params_buffer_len = 22; I KmBegin success", RequestLog());
  const Invocation& sent = Sent();
  EXPECT_EQ(0x3655u, sent.param_types);
  EXPECT_EQ(kKey, sent.params[0].in);
  EXPECT_EQ(
      Cat({WireList({Entry(KM_TAG_PADDING, 64)}), WireList({BytesEntry(KM_TAG_NONCE, 0, 1)}), {1}}),
      sent.params[1].in);
  EXPECT_EQ(4096u, sent.params[2].size);
  EXPECT_EQ(2u, sent.params[3].value.a);
  EXPECT_EQ(0u, sent.params[3].value.b);
  platform().ClearRecords();
  EXPECT_EQ(0, km.TivasKmBegin(KM_PURPOSE_ENCRYPT, &key, nullptr, nullptr, &handle));
  EXPECT_EQ(0x3605u, Sent().param_types);
  EXPECT_EQ(
      "I KmBegin start; I out_params is NULL; I out_params_buffer_len = 22; I KmBegin success",
      RequestLog());
}

TEST_F(Operation, BeginFailures) {
  const keymaster_key_blob_t key = KeyBlob(kKey), none = {nullptr, 1};
  const keymaster_key_param_set_t hollow = {nullptr, 1};
  unsigned long handle = 5;
  OutSet out;
  EXPECT_EQ(-32, km.TivasKmBegin(KM_PURPOSE_SIGN, nullptr, nullptr, &out, &handle));
  EXPECT_EQ(-32, km.TivasKmBegin(KM_PURPOSE_SIGN, &none, nullptr, &out, &handle));
  EXPECT_EQ(-41, km.TivasKmBegin(KM_PURPOSE_SIGN, &key, nullptr, &out, nullptr));
  EXPECT_EQ("kept", out.Take());
  EXPECT_EQ(-41, km.TivasKmBegin(KM_PURPOSE_SIGN, &key, &hollow, &out, &handle));
  EXPECT_EQ("empty", out.Take());
  EXPECT_EQ("", Journal());
  struct Row {
    Reply reply;
    int32_t result;
    uint32_t after;  // the command behind the begin
    std::string last;
  };
  const std::string kUndecoded = "E build key parame fail";
  const auto reply = [](const Bytes& set) {
    return Reply::Ok().Out(2, set).Value(3, 0x89ABCDEF, 0x01234567);
  };
  const Row kRows[] = {{Reply::Fail(kTaError).Out(2, kNonceReply).Value(3, 1, 2), kTaFailed, 66,
                        "E! TeeBegin failed, ret=0xffff0009"},
                       {reply(kBadSet), -41, 11, kUndecoded},
                       {reply({1, 2}), -41, 11, kUndecoded},
                       {Reply::Ok().Value(3, 9, 0), 0, 0, "I KmBegin success"}};
  for (const Row& row : kRows) {
    Answer(8, row.reply);
    platform().Queue(11, Reply::Fail(kTaError));  // its result does not matter
    EXPECT_EQ(row.result, km.TivasKmBegin(KM_PURPOSE_SIGN, &key, nullptr, &out, &handle));
    EXPECT_EQ("empty", out.Take());
    EXPECT_EQ(row.after, Commands().size() < 2 ? 0 : Commands().at(1));
    EXPECT_EQ(row.last, LastLine());
    EXPECT_EQ(row.result == 0 ? 9u : 5u, handle);
    if (row.result != -41) continue;
    EXPECT_EQ(Le64(kHandle), platform().invocations.at(1).params[0].in);
  }
}

// Echo is a TA that answers an update with what it was given.
Reply Echo(const Invocation& invocation) { return Reply::Ok().Out(3, invocation.params[1].in); }

TEST_F(Operation, UpdateCutsItsInputIntoPieces) {
  struct Row {
    size_t length;
    std::vector<std::pair<uint32_t, uint32_t>> pieces;  // length, capacity
  };
  const Row kRows[] = {{0, {{0, 16}}},
                       {1, {{1, 16}}},
                       {16, {{16, 16}}},
                       {17, {{17, 32}}},
                       {524288, {{524288, 524288}}},
                       {524289, {{524288, 524288}, {1, 16}}},
                       {1048577, {{524288, 524288}, {524288, 524288}, {1, 16}}}};
  platform().On(9, Echo);
  ParamSet params({{KM_TAG_AUTH_TOKEN, Bytes{1}}});
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.length);
    platform().ClearRecords();
    const Bytes data = Ramp(1, row.length);
    const keymaster_blob_t input = {data.empty() ? &g_callers_own : data.data(), data.size()};
    unsigned long consumed = 99;
    OutSet out_params;
    OutBlob output;
    EXPECT_EQ(0, km.TivasKmUpdate(kHandle, params.get(), &input, &consumed, &out_params, &output));
    EXPECT_EQ(row.length, consumed);
    EXPECT_TRUE(row.length == 0 ? output.data == nullptr : BlobBytes(output) == data);
    EXPECT_EQ("empty", out_params.Take());
    EXPECT_EQ("I KmUpdate start; I KmUpdate success", RequestLog());
    ASSERT_EQ(row.pieces.size(), platform().invocations.size());
    const uint8_t* out_at = static_cast<uint8_t*>(platform().invocations[0].params[3].buffer);
    for (size_t i = 0; i < row.pieces.size(); ++i) {
      const Invocation& sent = platform().invocations[i];
      EXPECT_EQ(0x6755u, sent.param_types);
      EXPECT_EQ(SecondList({{KM_TAG_AUTH_TOKEN, Bytes{1}}}), sent.params[0].in);
      EXPECT_EQ(row.pieces[i].first, sent.params[1].size);
      EXPECT_EQ(input.data + i * 524288, sent.params[1].buffer) << "no copy";
      EXPECT_EQ(4096u, sent.params[2].size);
      EXPECT_EQ(Le64(kHandle), Bytes(sent.params[2].in.begin(), sent.params[2].in.begin() + 8));
      EXPECT_EQ(row.pieces[i].second, sent.params[3].size);
      EXPECT_EQ(out_at + i * 524288, sent.params[3].buffer) << "one output buffer";
    }
  }
}

TEST_F(Operation, UpdateReplies) {
  struct Row {
    Reply first, second;
    int32_t result;
    std::vector<uint32_t> commands;
    std::string params, last;
  };
  const Reply ok = Reply::Ok().Out(3, {1}), fail = Reply::Fail(kTaError).Out(3, {2}),
              bad = Reply::Ok().Out(2, kBadSet).Out(3, {3}), good = Reply::Ok().Out(2, kNonceReply);
  const Row kRows[] = {
      {ok, fail, kTaFailed, {9, 9}, "empty", "E! TeeUpdate failed, ret=0xffff0009"},
      {ok, bad, -41, {9, 9, 11}, "empty", "E update build key parame fail"},
      // Only the last reply's parameters are looked at.
      {bad, good, 0, {9, 9}, kNonce, "I KmUpdate success"}};
  const Bytes data(524289);
  const keymaster_blob_t input = Blob(data);
  for (const Row& row : kRows) {
    Answer(9, row.first);
    platform().Queue(9, row.second);
    unsigned long consumed = 99;
    OutSet out_params;
    OutBlob output;
    EXPECT_EQ(row.result,
              km.TivasKmUpdate(kHandle, nullptr, &input, &consumed, &out_params, &output));
    EXPECT_EQ(row.params, out_params.Take());
    EXPECT_EQ(row.result == 0 ? "03" : "empty", output.Take());
    EXPECT_EQ(row.result == 0 ? data.size() : 99u, consumed);
    EXPECT_EQ(row.commands, Commands());
    EXPECT_EQ(row.last, LastLine());
    EXPECT_EQ(0x6750u, platform().invocations[0].param_types);
  }
}

TEST_F(Operation, UpdateRefusesInputsItCannotSend) {
  struct Row {
    uint64_t length;
    bool consumed;
    int32_t result;  // 0: any failure
  };
  const Row kRows[] = {{0xFFFFFFF0, true, -32},  {0xFFFFFFFF, true, -32}, {0x100000000, true, 0},
                       {0x100000001, true, 0},   {0x1FFFFFFF0, true, 0},  {UINT64_MAX, true, 0},
                       {0xFFFFFFEF, false, -27}, {1, false, -27}};
  const uint8_t byte = 0;
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.length);
    const keymaster_blob_t input = {&byte, row.length};
    unsigned long consumed = 99;
    OutBlob output;
    const int32_t result =
        km.TivasKmUpdate(1, nullptr, &input, row.consumed ? &consumed : nullptr, nullptr, &output);
    if (row.result == 0) {
      EXPECT_NE(0, result);
    } else {
      EXPECT_EQ(row.result, result);
      EXPECT_EQ("E! ParamsCheck failed, km_error=0x" +
                    std::string(row.result == -32 ? "ffffffe0" : "ffffffe5"),
                LastLine());
    }
    EXPECT_EQ(99u, consumed);
    EXPECT_EQ("", Journal());
  }
}

TEST_F(Operation, UpdateWithoutInputNeedsAssociatedData) {
  ParamSet none({}), other({{KM_TAG_NONCE, Bytes{1}}}),
      both({{KM_TAG_NONCE, Bytes{1}}, {KM_TAG_ASSOCIATED_DATA, Bytes{2}}});
  keymaster_key_param_set_t hollow = {nullptr, 1};
  const std::string kNoTag = "E! not contain gcm tag but input is null, km_error=0xffffffe0";
  const std::pair<const keymaster_key_param_set_t*, std::string> kRefused[] = {
      {nullptr, "E! invalid in_params"},
      {none.get(), kNoTag},
      {&hollow, "E! invalid inParams->params"},
      {other.get(), kNoTag}};
  unsigned long consumed = 99;
  for (const auto& [params, line] : kRefused) {
    EXPECT_EQ(-32, km.TivasKmUpdate(1, params, nullptr, &consumed, nullptr, nullptr));
    EXPECT_EQ(line, LastLine());
    EXPECT_EQ("", Journal());
  }
  for (const TEEC_Result result : {0u, kTaError}) {
    Answer(9, (result == 0 ? Reply::Ok() : Reply::Fail(result)).Out(2, kNonceReply).Out(3, {1}));
    OutSet out_params;
    OutBlob output;
    EXPECT_EQ(Code(result),
              km.TivasKmUpdate(kHandle, both.get(), nullptr, result == 0 ? &consumed : nullptr,
                               &out_params, &output));
    EXPECT_EQ("empty", out_params.Take());
    EXPECT_EQ("empty", output.Take());
    const Invocation& sent = Sent();
    EXPECT_EQ(0x6705u, sent.param_types);
    EXPECT_EQ(Le64(kHandle), Bytes(sent.params[2].in.begin(), sent.params[2].in.begin() + 8));
    EXPECT_EQ(4096u, sent.params[2].size);
    EXPECT_EQ(16u, sent.params[3].size);
    EXPECT_EQ(std::vector<uint32_t>{9}, Commands());
  }
  EXPECT_EQ(99u, consumed);
  EXPECT_EQ("E! TeeUpdate failed, ret=0xffff0009", LastLine());
  EXPECT_EQ(0, km.TivasKmUpdate(1, both.get(), nullptr, nullptr, nullptr, nullptr));
}

TEST_F(Operation, Abort) {
  EXPECT_EQ(0, km.TivasKmAbort(kHandle));
  EXPECT_EQ("I KmAbort start; I KmAbort success", RequestLog());
  EXPECT_EQ(Le64(kHandle), Sent().params[0].in);
  platform().Queue(11, Reply::Fail(kTaError));
  EXPECT_EQ(kTaFailed, km.TivasKmAbort(kHandle));
  EXPECT_EQ("E! TeeAbort failed, ret=0xffff0009", LastLine());
}

}  // namespace
}  // namespace test
