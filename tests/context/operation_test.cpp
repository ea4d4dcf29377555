// Operations: begin, update, abort and finish.
#include "tests/context/request_test.h"

namespace test {
namespace {

constexpr unsigned long kHandle = 0x0123456789ABCDEF;
constexpr uint32_t kChunk = 524288;
const Bytes kMark = {9, 9}, kInput = Ramp(1, 2 * kChunk + 1);
const keymaster_blob_t kSignature = Blob(kMark);

struct Operation : RequestTest {
  Operation() {
    args.handle = kHandle;
    SetParams({{KM_TAG_AUTH_TOKEN, Bytes{1}}});
    args.signature = nullptr;
  }
  const Bytes sent_set = TwoLists({}, {{KM_TAG_AUTH_TOKEN, Bytes{1}}}),
              nonce = OneList({{KM_TAG_NONCE, Bytes{0xAA}}}), truncated = Le32(1);
};

// ---- Begin

struct Begin : Operation {
  int32_t Run(const Bytes& reply) {
    ReplyTo(kCmdBegin, Reply::Ok().Out(2, reply).Value(3, 0x89ABCDEF, 0x01234567));
    return Call("TivasKmBegin");
  }
};

TEST_F(Begin, NeedsNoParametersAndReturnsTheHandle) {
  args.params = nullptr;
  EXPECT_EQ(0, Run({}));
  EXPECT_EQ((Parts{BlobBytes(*args.key), Le64(KM_PURPOSE_SIGN)}), Sent());
  EXPECT_EQ(kHandle, outputs.number);
}

TEST_F(Begin, ReadsNoReplyThatIsNotAskedFor) {
  args.out_params = nullptr;
  EXPECT_EQ(0, Run(truncated));
  EXPECT_EQ((Lines{"I KmBegin start", "I out_params is NULL", "I out_params_buffer_len = 4",
                   "I KmBegin success"}),
            Logged());
}

// ---- Update and abort

struct Update : Operation {
  int32_t Run(size_t length) {
    const keymaster_blob_t input = {kInput.data(), length};
    args.input = &input;
    return Call("TivasKmUpdate");
  }
};

TEST_F(Update, SendsItsInputInChunks) {
  // The TA gives back what it was given.
  platform().On(kCmdUpdate, [](const Invocation& i) { return Reply::Ok().Out(3, i.params[1].in); });
  const struct {
    size_t length;
    std::vector<std::pair<uint32_t, uint32_t>> chunks;  // length, and room for output
  } kRows[] = {{0, {{0, 16}}},
               {16, {{16, 16}}},
               {17, {{17, 32}}},
               {kChunk + 1, {{kChunk, kChunk}, {1, 16}}},
               {2 * kChunk, {{kChunk, kChunk}, {kChunk, kChunk}}}};
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.length);
    EXPECT_EQ(0, Run(row.length));
    EXPECT_EQ(row.length, outputs.number);
    EXPECT_TRUE(Bytes(kInput.begin(), kInput.begin() + static_cast<ptrdiff_t>(row.length)) ==
                BlobBytes(outputs.data));
    EXPECT_EQ(row.length == 0, outputs.data.data == nullptr);
    const std::vector<Invocation>& sent = platform().invocations;
    ASSERT_EQ(row.chunks.size(), sent.size());
    const auto* first_output = static_cast<uint8_t*>(sent[0].params[3].buffer);
    for (size_t i = 0; i < sent.size(); ++i) {
      const SeenParam(&seen)[4] = sent[i].params;
      EXPECT_EQ(sent_set, seen[0].in);
      EXPECT_EQ(row.chunks[i], std::make_pair(seen[1].size, seen[3].size));
      EXPECT_EQ(kInput.data() + i * kChunk, seen[1].buffer) << "no copy";
      EXPECT_EQ(Le64(kHandle), Sent(i).back());
      EXPECT_EQ(first_output + i * kChunk, seen[3].buffer) << "one output buffer";
    }
  }
  const keymaster_blob_t input = {kInput.data(), 16};
  unsigned long consumed = 0;
  EXPECT_EQ(0, km.TivasKmUpdate(kHandle, nullptr, &input, &consumed, nullptr, nullptr));
  EXPECT_EQ(16u, consumed) << "of an update whose output nobody wants";
}

TEST_F(Update, ReadsTheParametersOfTheLastReplyOnly) {
  platform().Queue(kCmdUpdate, Reply::Ok().Out(2, truncated).Out(3, {3}));
  platform().Queue(kCmdUpdate, Reply::Ok().Out(2, nonce));
  EXPECT_EQ(0, Run(kChunk + 1));
  EXPECT_EQ(Bytes{3}, BlobBytes(outputs.data));
  EXPECT_EQ("900003e9:aa", Describe(outputs.params));
}

TEST_F(Update, AbortsAnOperationWhoseReplyItCannotRead) {
  args.input = &kSignature;
  ReplyTo(kCmdBegin, Reply::Ok().Out(2, truncated).Value(3, 0x89ABCDEF, 0x01234567));
  ReplyTo(kCmdUpdate, Reply::Ok().Out(2, truncated).Out(3, {3}));
  ReplyTo(kCmdAbort, Reply::Fail(0xFFFF0009));  // its result does not matter
  for (const auto& [method, command] :
       {std::pair("TivasKmBegin", kCmdBegin), {"TivasKmUpdate", kCmdUpdate}}) {
    EXPECT_EQ(kNoMemory, Call(method));
    EXPECT_EQ((CommandIds{command, kCmdAbort}), Commands());
    EXPECT_EQ(Parts{Le64(kHandle)}, Sent(1));
  }
}

TEST_F(Update, RejectsOutputBeyondItsChunk) {
  ReplyTo(kCmdUpdate, Reply::Ok().Size(3, 17));
  EXPECT_EQ(KM_ERROR_UNKNOWN_ERROR, Run(1));
}

TEST_F(Update, MayCarryAssociatedDataAlone) {
  SetParams({{KM_TAG_ASSOCIATED_DATA, Bytes{2}}});
  args.input = nullptr;
  args.number = nullptr;
  args.out_params = nullptr;
  ReplyTo(kCmdUpdate, Reply::Ok().Out(3, {1}));
  EXPECT_EQ(0, Call("TivasKmUpdate"));
  EXPECT_EQ(16u, platform().invocations[0].params[3].size);
  EXPECT_EQ(kEmpty, StateOf(kData)) << "what it produces is dropped";
  args.data = nullptr;
  EXPECT_EQ(0, Call("TivasKmUpdate"));
}

// ---- Finish, and the finish of inputs that need an update first

struct Finish : Operation {
  int32_t Run(const char* method, const keymaster_blob_t* input,
              const keymaster_blob_t* signature = nullptr) {
    args.input = input;
    args.signature = signature;
    return Call(method);
  }
};

TEST_F(Finish, PacksInputAndSignature) {
  const Bytes longest(kInput.begin(), kInput.begin() + 4096);
  const keymaster_blob_t empty = {kInput.data(), 0}, full = Blob(longest), one = {kInput.data(), 1};
  const struct {
    const keymaster_blob_t *input, *signature;
    Bytes packed;
  } kRows[] = {{nullptr, nullptr, {}},
               {&kHollowBlob, &kHollowBlob, {}},
               {&full, nullptr, FinishInput(longest, {})},
               {&one, &kSignature, FinishInput({1}, kMark)},
               {nullptr, &kSignature, FinishInput({}, kMark)},
               {&empty, nullptr, FinishInput({}, {})}};
  ReplyTo(kCmdFinish, Reply::Ok().Out(2, nonce).Out(3, {1, 2}));
  for (const auto& row : kRows) {
    EXPECT_EQ(0, Run("TivasKmFinish", row.input, row.signature));
    EXPECT_EQ(row.packed.empty() ? Parts({sent_set, Le64(kHandle)})
                                 : Parts({sent_set, row.packed, Le64(kHandle)}),
              Sent());
    EXPECT_EQ((Bytes{1, 2}), BlobBytes(outputs.data));
    EXPECT_EQ("900003e9:aa", Describe(outputs.params));
  }
  args.params = nullptr;
  args.out_params = nullptr;
  args.data = nullptr;
  EXPECT_EQ(0, Run("TivasKmFinish", nullptr));
  EXPECT_EQ(Parts{Le64(kHandle)}, Sent());
}

TEST_F(Finish, NewSendsAnUpdateBeforeItsLast4032Bytes) {
  // The TA answers an update with its length and a finish with a mark.
  platform().On(kCmdUpdate, [this](const Invocation& i) {
    return Reply::Ok().Out(2, nonce).Out(3, Le32(i.params[1].size));
  });
  ReplyTo(kCmdFinish, Reply::Ok().Out(2, nonce).Out(3, kMark));
  const struct {
    size_t length;
    std::vector<uint32_t> updates;
  } kRows[] = {{0, {}}, {4032, {}}, {4033, {1}}, {10000, {5968}}, {530000, {kChunk, 1680}}};
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.length);
    const keymaster_blob_t input = {kInput.data(), row.length};
    EXPECT_EQ(0, Run("TivasKmFinishNew", &input, &kSignature));
    Bytes output;
    auto at = kInput.begin();
    for (size_t i = 0; i < row.updates.size(); ++i) {
      const auto end = at + row.updates[i];
      EXPECT_TRUE((Parts{sent_set, Bytes(at, end), Le64(kHandle)}) == Sent(i));
      output = Cat({output, Le32(row.updates[i])});
      at = end;
    }
    const Bytes rest(at, kInput.begin() + static_cast<ptrdiff_t>(row.length));
    EXPECT_EQ((Parts{sent_set, FinishInput(rest, kMark), Le64(kHandle)}), Sent(row.updates.size()));
    EXPECT_EQ(row.updates.size() + 1, Commands().size());
    EXPECT_EQ(Cat({output, kMark}), BlobBytes(outputs.data));
    EXPECT_EQ("900003e9:aa", Describe(outputs.params));
  }
  EXPECT_EQ(0, Run("TivasKmFinishNew", nullptr, &kSignature));
  EXPECT_EQ(kMark, BlobBytes(outputs.data));
}

TEST_F(Finish, LargeNeedsOutputOfEitherPart) {
  const keymaster_blob_t input = {kInput.data(), 6000};
  const Reply nothing = Reply::Ok(), some = Reply::Ok().Out(3, {1});
  const struct {
    Reply update, finish;
    int32_t result;
  } kRows[] = {
      {some, nothing, 0}, {nothing, some, 0}, {nothing, Reply(nothing).Out(2, nonce), kNoMemory}};
  for (const auto& row : kRows) {
    ReplyTo(kCmdUpdate, row.update);
    ReplyTo(kCmdFinish, row.finish);
    EXPECT_EQ(row.result, Run("TivasKmFinishLarge", &input));
    EXPECT_EQ(row.result == 0 ? Bytes{1} : Bytes(), BlobBytes(outputs.data));
    EXPECT_EQ(row.result == 0 ? "I KmFinish success" : "E length invalid, update 0, finish 0\n",
              Logged().back());
    EXPECT_EQ(kEmpty, StateOf(kParams));
  }
}

}  // namespace
}  // namespace test
