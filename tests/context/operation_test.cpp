// Operations: begin, update, abort and finish.
#include "tests/context/request.h"

namespace test {
namespace {

constexpr unsigned long kHandle = 0x0123456789ABCDEF;
constexpr uint32_t kPiece = 524288;
const Bytes kKey = Ramp(0x40, 21);
const keymaster_key_blob_t kKeyBlob = KeyBlob(kKey);
const Bytes kToken = SecondList({{KM_TAG_AUTH_TOKEN, Bytes{1}}});

struct Operation : RequestTest {
  std::string Begin(const Reply& reply, const keymaster_key_param_set_t* in_params,
                    keymaster_key_param_set_t* out_params) {
    start = "I KmBegin start";
    Answer(8, reply);
    return Outcome(km.TivasKmBegin(KM_PURPOSE_SIGN, &kKeyBlob, in_params, out_params, &number));
  }
  std::string Update(const keymaster_key_param_set_t* in_params, const keymaster_blob_t* input) {
    start = "I KmUpdate start";
    number = 99;
    return Outcome(km.TivasKmUpdate(kHandle, in_params, input, &number, &params, &data));
  }
  unsigned long number = 5;  // a handle, or what was consumed
};

TEST_F(Operation, Begin) {
  const auto reply = [](const Bytes& set) {
    return Reply::Ok().Out(2, set).Value(3, 0x89ABCDEF, 0x01234567);
  };
  const auto length = [](int bytes) {
    return ": I out_params_buffer_len = " + std::to_string(bytes) + "; ";
  };
  ParamSet set({{KM_TAG_NONCE, Bytes{1}}, {KM_TAG_PADDING, 64}});
  const std::string kBad = "E build key parame fail";
  Answer(11, TaFails());  // its result does not matter
  EXPECT_EQ("ffff0009 [8 66] params=empty" + Failed("TeeBegin"),
            Begin(Reply(TaFails()).Value(3, 1, 2), set.get(), &params));
  EXPECT_EQ("-41 [8 11] params=empty" + length(4) + "E invalid copy size, 1-4; " + kBad,
            Begin(reply(BadReply()), set.get(), &params));
  EXPECT_EQ(Parts{Le64(kHandle)}, Inputs(1));
  EXPECT_EQ("-41 [8 11] params=empty" + length(4097) + kBad,
            Begin(reply({}).Size(2, 4097), set.get(), &params));
  EXPECT_EQ("-41 params=empty", Begin(reply({}), &kHollowSet, &params));
  EXPECT_EQ(5u, number);
  EXPECT_EQ("0 [8]" + (kNonce + length(21)) + "I KmBegin success",
            Begin(reply(NonceReply()), set.get(), &params));
  EXPECT_EQ(kHandle, number);
  const Bytes nonce = WireList({BytesEntry(KM_TAG_NONCE, 0, 1)});
  EXPECT_EQ((Parts{kKey, Cat({WireList({Entry(KM_TAG_PADDING, 64)}), nonce, {1}}), Le64(2)}),
            Inputs());
  EXPECT_EQ("0 [8] params=empty" + length(0) + "I KmBegin success",
            Begin(reply({}), nullptr, &params));
  EXPECT_EQ("0 [8]: I out_params is NULL; I out_params_buffer_len = 4; I KmBegin success",
            Begin(reply(BadReply()), nullptr, nullptr));
  EXPECT_EQ((Parts{kKey, Le64(2)}), Inputs());
  for (const keymaster_key_blob_t* bad :
       {static_cast<const keymaster_key_blob_t*>(nullptr), &kHollowKey}) {
    EXPECT_EQ("-32", Outcome(km.TivasKmBegin(KM_PURPOSE_SIGN, bad, nullptr, &params, nullptr)));
  }
  EXPECT_EQ("-41", Outcome(km.TivasKmBegin(KM_PURPOSE_SIGN, &kKeyBlob, nullptr, &params, nullptr)));
}

TEST_F(Operation, UpdateCutsItsInputIntoPieces) {
  const std::tuple<size_t, const char*, std::vector<std::pair<uint32_t, uint32_t>>> kRows[] = {
      {0, "0 [9] data=empty", {{0, 16}}},  // outcome, and each piece's length and room for output
      {16, "0 [9] data=", {{16, 16}}},
      {17, "0 [9] data=", {{17, 32}}},
      {kPiece + 1, "0 [9 9] data=", {{kPiece, kPiece}, {1, 16}}},
      {2 * kPiece, "0 [9 9] data=", {{kPiece, kPiece}, {kPiece, kPiece}}}};
  // The TA gives back what it was given.
  platform().On(9, [](const Invocation& i) { return Reply::Ok().Out(3, i.params[1].in); });
  ParamSet set({{KM_TAG_AUTH_TOKEN, Bytes{1}}});
  const Bytes bytes = Ramp(1, 2 * kPiece + 1);
  for (const auto& [length, outcome, pieces] : kRows) {
    const keymaster_blob_t input = {bytes.data(), length};
    EXPECT_TRUE(outcome + Hex(BlobBytes(input)) + " params=empty: I KmUpdate success" ==
                Update(set.get(), &input));
    EXPECT_EQ(length, number);
    ASSERT_EQ(pieces.size(), sent.size());
    const auto* out_at = static_cast<uint8_t*>(sent[0].params[3].buffer);
    for (size_t i = 0; i < pieces.size(); ++i) {
      const SeenParam(&seen)[4] = sent[i].params;
      EXPECT_EQ(kToken, seen[0].in);
      EXPECT_EQ(pieces[i], std::make_pair(seen[1].size, seen[3].size));
      EXPECT_EQ(bytes.data() + i * kPiece, seen[1].buffer) << "no copy";
      EXPECT_EQ(Le64(kHandle), Inputs(i).back());
      EXPECT_EQ(out_at + i * kPiece, seen[3].buffer) << "one output buffer";
    }
  }
}

TEST_F(Operation, UpdateReplies) {
  const Bytes bytes(kPiece + 1);
  const keymaster_blob_t input = Blob(bytes);
  const auto run = [&](const Reply& first, const Reply& second) {
    platform().Queue(9, first);
    platform().Queue(9, second);
    return Update(nullptr, &input);
  };
  const Reply ok = Reply::Ok().Out(3, {1}), bad = Reply::Ok().Out(2, BadReply()).Out(3, {3}),
              good = Reply::Ok().Out(2, NonceReply());
  const std::string kEmpty = " data=empty params=empty: ", kBad = "E update build key parame fail";
  EXPECT_EQ("ffff0009 [9 9]" + kEmpty + "E! TeeUpdate failed, ret=0xffff0009", run(ok, TaFails()));
  EXPECT_EQ("-41 [9 9 11]" + kEmpty + "E invalid copy size, 1-4; " + kBad, run(ok, bad));
  EXPECT_EQ("-1000 [9 9]" + kEmpty + "E! too large outDataLen:17\n",
            run(ok, Reply(ok).Size(3, 17)));
  EXPECT_EQ(99u, number);
  // Only the last reply's parameters are looked at.
  EXPECT_EQ(std::string("0 [9 9] data=03") + kNonce + ": I KmUpdate success", run(bad, good));
}

TEST_F(Operation, UpdateRefusesInputsItCannotSend) {
  const std::pair<uint64_t, const char*> kRows[] = {
      {0xFFFFFFF0, "-32: E! ParamsCheck failed, km_error=0xffffffe0"},
      {0xFFFFFFFF, "-32: E! ParamsCheck failed, km_error=0xffffffe0"},
      {0x100000000, "-21: E! ParamsCheck failed, km_error=0xffffffeb"},
      {UINT64_MAX, "-21: E! ParamsCheck failed, km_error=0xffffffeb"}};
  for (const auto& [length, outcome] : kRows) {
    const keymaster_blob_t input = {g_callers_own, length};
    EXPECT_EQ(outcome, Update(nullptr, &input));
    EXPECT_EQ(99u, number);
  }
  const keymaster_blob_t input = {g_callers_own, 1};
  EXPECT_EQ("-27: E! ParamsCheck failed, km_error=0xffffffe5",
            Outcome(km.TivasKmUpdate(1, nullptr, &input, nullptr, &params, &data)));
}

TEST_F(Operation, UpdateWithoutInputNeedsAssociatedData) {
  ParamSet other({{KM_TAG_NONCE, Bytes{1}}}), with({{KM_TAG_ASSOCIATED_DATA, Bytes{2}}});
  const std::string kNoTag = "-32: E! not contain gcm tag but input is null, km_error=0xffffffe0";
  EXPECT_EQ("-32: E! invalid in_params", Update(nullptr, nullptr));
  EXPECT_EQ(kNoTag, Update(&kEmptySet, nullptr));
  EXPECT_EQ("-32: E! invalid inParams->params", Update(&kHollowSet, nullptr));
  EXPECT_EQ(kNoTag, Update(other.get(), nullptr));
  Answer(9, Reply::Ok().Out(2, NonceReply()).Out(3, {1}));
  EXPECT_EQ("0 [9] data=empty params=empty", Update(with.get(), nullptr));
  EXPECT_EQ((Parts{SecondList({{KM_TAG_ASSOCIATED_DATA, Bytes{2}}}), Le64(kHandle)}), Inputs());
  EXPECT_EQ(16u, sent[0].params[3].size);
  EXPECT_EQ(99u, number);
  EXPECT_EQ("0 [9]", Outcome(km.TivasKmUpdate(1, with.get(), nullptr, nullptr, nullptr, nullptr)));
  Answer(9, TaFails());
  EXPECT_EQ("ffff0009 [9] data=empty params=empty" + Failed("TeeUpdate"),
            Update(with.get(), nullptr));
}

TEST_F(Operation, Abort) {
  start = "I KmAbort start";
  EXPECT_EQ("0 [11]: I KmAbort success", Outcome(km.TivasKmAbort(kHandle)));
  EXPECT_EQ(Parts{Le64(kHandle)}, Inputs());
  Answer(11, TaFails());
  EXPECT_EQ("ffff0009 [11]" + Failed("TeeAbort"), Outcome(km.TivasKmAbort(1)));
}

// ---- Finish, and the finish of inputs that need an update first

const Bytes kMark = {9, 9};
const keymaster_blob_t kSignature = Blob(kMark);

struct Finish : RequestTest {
  using Method = int32_t (keymaster::KeymasterTivasContext::*)(
      unsigned long, const keymaster_key_param_set_t*, const keymaster_blob_t*,
      const keymaster_blob_t*, keymaster_key_param_set_t*, keymaster_blob_t*);
  static constexpr Method kFinish = &keymaster::KeymasterTivasContext::TivasKmFinish;
  static constexpr Method kNew = &keymaster::KeymasterTivasContext::TivasKmFinishNew;
  static constexpr Method kLarge = &keymaster::KeymasterTivasContext::TivasKmFinishLarge;

  std::string Run(Method method, const keymaster_blob_t* input, const keymaster_blob_t* signature,
                  size_t last_lines = SIZE_MAX) {
    return Outcome((km.*method)(kHandle, set.get(), input, signature, &params, &data), last_lines);
  }
  std::string Run(const keymaster_blob_t* input, const Reply& reply) {
    Answer(10, reply);
    return Run(kFinish, input, nullptr);
  }
  ParamSet set{{KM_TAG_AUTH_TOKEN, Bytes{1}}};
  const Bytes bytes = Ramp(1, 530000);
};

TEST_F(Finish, PacksInputAndSignature) {
  start = "I KmFinish start";
  const Bytes most(bytes.begin(), bytes.begin() + 4096);
  const keymaster_blob_t empty = {g_callers_own, 0}, full = Blob(most), one = {bytes.data(), 1};
  const std::tuple<const keymaster_blob_t*, const keymaster_blob_t*, Bytes> kRows[] = {
      {nullptr, nullptr, {}},
      {&kHollowBlob, &kHollowBlob, {}},
      {&full, nullptr, FinishInput(most, {})},
      {&one, &kSignature, FinishInput({1}, kMark)},
      {nullptr, &kSignature, FinishInput({}, kMark)},
      {&empty, nullptr, FinishInput({}, {})}};
  Answer(10, Reply::Ok().Out(2, NonceReply()).Out(3, {1, 2}));
  for (const auto& [input, signature, packed] : kRows) {
    EXPECT_EQ("0 [10] data=0102 params=900003e9:aa: I output data size=2; I KmFinish success",
              Run(kFinish, input, signature));
    EXPECT_EQ(
        packed.empty() ? Parts({kToken, Le64(kHandle)}) : Parts({kToken, packed, Le64(kHandle)}),
        Inputs());
  }
  EXPECT_EQ("0 [10]: I KmFinish success",
            Outcome(km.TivasKmFinish(1, nullptr, nullptr, nullptr, nullptr, nullptr)));
}

TEST_F(Finish, RepliesAndLimits) {
  start = "I KmFinish start";
  const keymaster_blob_t limit = {bytes.data(), 4096}, above = {bytes.data(), 4097},
                         huge = {bytes.data(), size_t{1} << 32};
  const Bytes whole = Ramp(2, 4096);
  const std::string k4K = "-21 params=empty: E! finish input data length invalid,bigger than 4K\n",
                    kEmpty = " [10] data=empty params=empty: ";
  EXPECT_EQ(k4K, Run(&above, Reply::Ok()));
  EXPECT_EQ(k4K, Run(&huge, Reply::Ok()));
  EXPECT_EQ(
      "0 [10] data=" + Hex(whole) + " params=empty: I output data size=4096; I KmFinish success",
      Run(&limit, Reply::Ok().Out(3, whole)));
  EXPECT_EQ("0" + kEmpty + "I output data size=0; I KmFinish success", Run(&limit, Reply::Ok()));
  EXPECT_EQ("ffff0009" + kEmpty + "E! TeeFinish failed, ret=0xffff0009", Run(&limit, TaFails()));
  EXPECT_EQ("-41" + kEmpty + "E invalid copy size, 1-4",
            Run(&limit, Reply::Ok().Out(2, BadReply()).Out(3, {1})));
  // Nothing partly built stays: output parameters came, the output could not be taken.
  EXPECT_EQ("-1000" + kEmpty + "E! too large outDataLen:4097\n",
            Run(&limit, Reply::Ok().Out(2, NonceReply()).Size(3, 4097)));
}

TEST_F(Finish, NewSplitsLongInputs) {
  // The TA answers an update with its length and a finish with a mark.
  platform().On(9, [](const Invocation& i) {
    return Reply::Ok().Out(2, NonceReply()).Out(3, Le32(i.params[1].size));
  });
  Answer(10, Reply::Ok().Out(2, NonceReply()).Out(3, {0xF1, 0xF2}));
  const std::tuple<size_t, std::vector<uint32_t>, std::string> kRows[] = {
      {0, {}, "0 [10] data="},  // length, those of the updates, commands
      {4032, {}, "0 [10] data="},
      {4033, {1}, "0 [9 10] data=01000000"},
      {10000, {5968}, "0 [9 10] data=50170000"},
      {530000, {524288, 1680}, "0 [9 9 10] data=0000080090060000"}};
  for (const auto& [length, updates, outcome] : kRows) {
    const keymaster_blob_t input = {bytes.data(), length};
    EXPECT_EQ(outcome + "f1f2" + kNonce + ": I KmFinish success",
              Run(kNew, &input, &kSignature, 1));
    auto at = bytes.begin();
    for (size_t i = 0; i < updates.size(); ++i) {
      const auto end = at + updates[i];
      EXPECT_TRUE((Parts{kToken, Bytes(at, end), Le64(kHandle)}) == Inputs(i));
      at = end;
    }
    const Bytes rest(at, bytes.begin() + static_cast<long>(length));
    EXPECT_EQ((Parts{kToken, FinishInput(rest, kMark), Le64(kHandle)}), Inputs(updates.size()));
  }
  EXPECT_EQ(std::string("0 [10] data=f1f2") + kNonce + ": I KmFinish success",
            Run(kNew, nullptr, &kSignature, 1));
}

TEST_F(Finish, LargeFailures) {
  const keymaster_blob_t input = {bytes.data(), 6000};
  const auto run = [&](const Reply& update, const Reply& finish) {
    Answer(9, update);
    Answer(10, finish);
    return Run(kNew, &input, nullptr, 1);
  };
  const Reply ok = Reply::Ok(), some = Reply::Ok().Out(3, {1});
  const std::string kEmpty = " data=empty params=empty: ";
  EXPECT_EQ("ffff0009 [9]" + kEmpty + "E KmUpdate failed, ffff0009\n", run(TaFails(), ok));
  EXPECT_EQ("ffff0009 [9 10]" + kEmpty + "E KmFinish failed, ffff0009\n", run(some, TaFails()));
  EXPECT_EQ("-41 [9 10]" + kEmpty + "E KmFinish failed, ffffffd7\n",
            run(some, Reply::Ok().Out(2, BadReply())));
  EXPECT_EQ("-41 [9 10]" + kEmpty + "E length invalid, update 0, finish 0\n",
            run(ok, Reply::Ok().Out(2, NonceReply())));
  EXPECT_EQ("0 [9 10] data=01 params=empty: I KmFinish success", run(some, ok));
  EXPECT_EQ("0 [9 10] data=01 params=empty: I KmFinish success", run(ok, some));
  EXPECT_EQ("-32 [9 10]: I KmFinish success",
            Outcome(km.TivasKmFinishNew(1, nullptr, &input, nullptr, nullptr, nullptr), 1));
}

TEST_F(Finish, LargeRefusesWhatItCannotSplit) {
  const keymaster_blob_t short_input = {bytes.data(), 4032},
                         huge = {bytes.data(), (size_t{1} << 32) + 4032};
  EXPECT_EQ("-32 data=empty params=empty", Run(kLarge, nullptr, nullptr));
  EXPECT_EQ("-32 data=empty params=empty", Run(kLarge, &kHollowBlob, nullptr));
  EXPECT_EQ("-21 data=empty params=empty", Run(kLarge, &short_input, nullptr));
  EXPECT_EQ("-21 data=empty params=empty: E KmUpdate failed, ffffffeb\n",
            Run(kNew, &huge, nullptr, 1));
}

}  // namespace
}  // namespace test
