// The ends of operations: finish, and the finish of inputs that need an update first.
#include "tests/context/request.h"

namespace test {
namespace {

constexpr unsigned long kHandle = 0xFEDCBA9876543210;
const Bytes kToken = SecondList({{KM_TAG_AUTH_TOKEN, Bytes{1}}}), kMark = {9, 9};
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
