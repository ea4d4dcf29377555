// The ends of operations: finish, and the finish of inputs that need an update first.
#include "tests/context/request.h"

namespace test {
namespace {

constexpr unsigned long kHandle = 0xFEDCBA9876543210;
const Bytes kNonceReply = Cat({WireList({BytesEntry(KM_TAG_NONCE, 0, 1)}), {0xAA}});

struct Finish : RequestTest {
  using Method = int32_t (keymaster::KeymasterTivasContext::*)(
      unsigned long, const keymaster_key_param_set_t*, const keymaster_blob_t*,
      const keymaster_blob_t*, keymaster_key_param_set_t*, keymaster_blob_t*);
  static constexpr Method kFinish = &keymaster::KeymasterTivasContext::TivasKmFinish;
  static constexpr Method kNew = &keymaster::KeymasterTivasContext::TivasKmFinishNew;
  static constexpr Method kLarge = &keymaster::KeymasterTivasContext::TivasKmFinishLarge;

  int32_t Run(Method method, const keymaster_blob_t* input, const keymaster_blob_t* signature) {
    platform().ClearRecords();
    return (km.*method)(kHandle, params_.get(), input, signature, &out_params_, &output_);
  }
  ParamSet params_{{KM_TAG_AUTH_TOKEN, Bytes{1}}};
  OutSet out_params_;
  OutBlob output_;
};

// The finish input: both items are always there.
Bytes FinalInput(const Bytes& input, const Bytes& signature) {
  return Cat({{0},
              Le32(static_cast<uint32_t>(input.size())),
              input,
              {1},
              Le32(static_cast<uint32_t>(signature.size())),
              signature});
}

TEST_F(Finish, PacksInputAndSignature) {
  const Bytes data = Ramp(5, 4096), mark = {9, 9};
  const keymaster_blob_t none = {nullptr, 7}, empty = {mark.data(), 0}, full = Blob(data),
                         one = {data.data(), 1}, signature = Blob(mark);
  struct Row {
    const keymaster_blob_t *input, *signature;
    Bytes sent;
  };
  const Row kRows[] = {{nullptr, nullptr, {}},
                       {&none, &none, {}},
                       {&full, nullptr, FinalInput(data, {})},
                       {&one, &signature, FinalInput({5}, mark)},
                       {nullptr, &signature, FinalInput({}, mark)},
                       {&empty, nullptr, FinalInput({}, {})}};
  for (const Row& row : kRows) {
    platform().Queue(10, Reply::Ok().Out(2, kNonceReply).Out(3, {1, 2}));
    EXPECT_EQ(0, Run(kFinish, row.input, row.signature));
    EXPECT_EQ("900003e9:aa", out_params_.Take());
    EXPECT_EQ("0102", output_.Take());
    const Invocation& sent = Sent();
    EXPECT_EQ(row.sent.empty() ? 0x6705u : 0x6755u, sent.param_types);
    EXPECT_EQ(SecondList({{KM_TAG_AUTH_TOKEN, Bytes{1}}}), sent.params[0].in);
    EXPECT_EQ(row.sent, sent.params[1].in);
    EXPECT_EQ(4096u, sent.params[2].size);
    EXPECT_EQ(Le64(kHandle), Bytes(sent.params[2].in.begin(), sent.params[2].in.begin() + 8));
    EXPECT_EQ(4096u, sent.params[3].size);
    EXPECT_EQ("I KmFinish start; I output data size=2; I KmFinish success", RequestLog());
  }
  platform().ClearRecords();
  EXPECT_EQ(0, km.TivasKmFinish(1, nullptr, nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(0x6700u, Sent().param_types);
}

TEST_F(Finish, RepliesAndLimits) {
  const Bytes data(4097), whole = Ramp(2, 4096);
  const keymaster_blob_t limit = {data.data(), 4096}, above = {data.data(), 4097},
                         huge = {data.data(), size_t{1} << 32};
  const std::string k4K = "E! finish input data length invalid,bigger than 4K\n";
  struct Row {
    const keymaster_blob_t* input;
    Reply reply;
    int32_t result;
    std::string output, last;
  };
  const Row kRows[] = {
      {&limit, Reply::Ok().Out(3, whole), 0, Hex(whole), "I KmFinish success"},
      {&above, Reply::Ok(), -21, "kept", k4K},
      {&huge, Reply::Ok(), -21, "kept", k4K},
      {nullptr, Reply::Ok(), 0, "empty", "I KmFinish success"},
      {nullptr, Reply::Fail(kTaError).Out(2, kNonceReply).Out(3, {1}), kTaFailed, "empty",
       "E! TeeFinish failed, ret=0xffff0009"},
      {nullptr, Reply::Ok().Out(2, Le32(1)).Out(3, {1}), -41, "empty", "E invalid copy size, 1-4"},
      {nullptr, Reply::Ok().Size(3, 4097), -1000, "empty", "E! too large outDataLen:4097\n"}};
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.last);
    Answer(10, row.reply);
    EXPECT_EQ(row.result, Run(kFinish, row.input, nullptr));
    EXPECT_EQ(row.output, output_.Take());
    EXPECT_EQ("empty", out_params_.Take());
    EXPECT_EQ(row.last, LastLine());
    EXPECT_EQ(row.result == -21 ? 0u : 1u, Commands().size()) << "never an abort";
  }
  // Nothing partly built stays: output parameters came, the output could not be taken.
  platform().Queue(10, Reply::Ok().Out(2, kNonceReply).Size(3, 0xFFFFFFFF));
  EXPECT_EQ(-1000, Run(kFinish, nullptr, nullptr));
  EXPECT_EQ("empty", output_.Take());
}

TEST_F(Finish, NewSplitsLongInputs) {
  const Bytes data = Ramp(1, 530000), mark = {9, 9};
  const keymaster_blob_t signature = Blob(mark);
  // The TA answers an update with its length and a finish with a mark.
  platform().On(9, [](const Invocation& i) {
    return Reply::Ok().Out(2, kNonceReply).Out(3, Le32(i.params[1].size));
  });
  platform().On(10, [](const Invocation&) {
    return Reply::Ok().Out(2, kNonceReply).Out(3, {0xF1, 0xF2});
  });
  struct Row {
    size_t length;
    std::vector<uint32_t> updates;  // sizes
    std::string output;
  };
  const Row kRows[] = {{0, {}, "f1f2"},
                       {4032, {}, "f1f2"},
                       {4033, {1}, "01000000f1f2"},
                       {10000, {5968}, "50170000f1f2"},
                       {530000, {524288, 1680}, "0000080090060000f1f2"}};
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.length);
    const keymaster_blob_t input = {data.data(), row.length};
    EXPECT_EQ(0, Run(kNew, &input, &signature));
    EXPECT_EQ(row.output, output_.Take());
    EXPECT_EQ("900003e9:aa", out_params_.Take());
    std::vector<uint32_t> expected(row.updates.size(), 9);
    expected.push_back(10);
    ASSERT_EQ(expected, Commands());
    Bytes fed;
    for (size_t i = 0; i < row.updates.size(); ++i) {
      const Bytes& piece = platform().invocations[i].params[1].in;
      EXPECT_EQ(row.updates[i], piece.size());
      fed = Cat({fed, piece});
    }
    const auto at = data.begin() + static_cast<long>(fed.size());
    EXPECT_TRUE(std::equal(fed.begin(), fed.end(), data.begin()));
    EXPECT_TRUE(FinalInput(Bytes(at, data.begin() + static_cast<long>(row.length)), mark) ==
                platform().invocations.back().params[1].in);
    for (const Invocation& sent : platform().invocations) {
      EXPECT_EQ(SecondList({{KM_TAG_AUTH_TOKEN, Bytes{1}}}), sent.params[0].in);
    }
  }
  EXPECT_EQ(0, Run(kNew, nullptr, &signature));
}

TEST_F(Finish, LargeFailures) {
  const Bytes data(6000);
  const keymaster_blob_t input = Blob(data);
  struct Row {
    Reply update, finish;
    int32_t result;
    std::string output, last;
  };
  const Reply ok = Reply::Ok(), some = Reply::Ok().Out(3, {1}),
              fail = Reply::Fail(kTaError).Out(3, {1});
  const Row kRows[] = {
      {fail, ok, kTaFailed, "empty", "E KmUpdate failed, ffff0009\n"},
      {some, fail, kTaFailed, "empty", "E KmFinish failed, ffff0009\n"},
      {some, Reply::Ok().Out(2, Le32(1)), -41, "empty", "E KmFinish failed, ffffffd7\n"},
      {ok, ok, -41, "empty", "E length invalid, update 0, finish 0\n"},
      {some, ok, 0, "01", "I KmFinish success"},
      {ok, some, 0, "01", "I KmFinish success"}};
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.last);
    Answer(9, row.update);
    platform().Queue(10, row.finish);
    EXPECT_EQ(row.result, Run(kNew, &input, nullptr));
    EXPECT_EQ(row.output, output_.Take());
    out_params_.Take();
    EXPECT_EQ(row.last == kRows[0].last ? 1u : 2u, Commands().size()) << "never an abort";
    EXPECT_EQ(row.last, LastLine());
  }
  platform().Queue(9, Reply::Ok().Out(3, {1}));
  platform().Queue(10, Reply::Ok().Out(3, {1}));
  EXPECT_EQ(-32, km.TivasKmFinishNew(1, nullptr, &input, nullptr, nullptr, nullptr));
}

TEST_F(Finish, LargeRefusesWhatItCannotSplit) {
  const Bytes data(4032);
  const keymaster_blob_t kRefused[] = {{data.data(), 0},
                                       {data.data(), 4032},
                                       {nullptr, 5000},
                                       {data.data(), (size_t{1} << 32) + 4032},
                                       {data.data(), SIZE_MAX}};
  EXPECT_NE(0, Run(kLarge, nullptr, nullptr));
  EXPECT_EQ(0u, Commands().size());
  for (const keymaster_blob_t& input : kRefused) {
    SCOPED_TRACE(input.data_length);
    EXPECT_NE(0, Run(kLarge, &input, nullptr));
    EXPECT_EQ(0u, Commands().size());
    EXPECT_TRUE(input.data_length <= 4032 || Run(kNew, &input, nullptr) != 0);
    EXPECT_EQ(0u, Commands().size());
  }
}

}  // namespace
}  // namespace test
