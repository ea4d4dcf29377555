// Attestation: what is sent, and the chain at every length of the reply.
#include "tests/context/request.h"

namespace test {
namespace {

const Bytes kKey = Ramp(0x30, 16);
const Bytes kChain = Cat({Le32(2), Le32(3), {1, 2, 3}, Le32(5), {4, 5, 6, 7, 8}});
constexpr char kOutError[] = "; E! ExtractAttestChain out error.\n";

struct Attest : RequestTest {
  std::string TakeChain() { return chain_.Take(); }
  int32_t Run(const Reply& reply, ParamSet* params) {
    Answer(6, reply);
    const keymaster_key_blob_t key = KeyBlob(kKey);
    return km.TivasKmAttestKey(&key, params->get(), &chain_);
  }
  int32_t Run(const Bytes& reply) { return Run(Reply::Ok().Out(2, reply), &params_); }

  OutChain chain_;
  ParamSet params_{{KM_TAG_ATTESTATION_CHALLENGE, {9, 9}}};
};

TEST_F(Attest, ReturnsTheChainInOrder) {
  EXPECT_EQ(0, Run(kChain));
  EXPECT_EQ("010203 0405060708", TakeChain());
  EXPECT_EQ(
      "I KmAttestKey start; I extract attest cert chain success, entry_count=2.\n; I KmAttestKey "
      "success",
      RequestLog());
  const Invocation& sent = Sent();
  EXPECT_EQ(kKey, sent.params[0].in);
  EXPECT_EQ(SecondList({{KM_TAG_ATTESTATION_CHALLENGE, {9, 9}}}), sent.params[1].in);
  EXPECT_EQ(8192u, sent.params[2].size);
  EXPECT_EQ(0, Run(Cat({kChain, Ramp(1, 9)})));
  EXPECT_EQ("010203 0405060708", TakeChain()) << "trailing bytes are dropped";
  // The largest chain there is: 8192 bytes.
  EXPECT_EQ(0, Run(Cat({Le32(2), Le32(8179), Ramp(0, 8179), Le32(1), {1}})));
  EXPECT_EQ(Hex(Ramp(0, 8179)) + " 01", TakeChain());
}

TEST_F(Attest, RefusesEveryCut) {
  for (size_t length = 0; length < kChain.size(); ++length) {
    SCOPED_TRACE(length);
    EXPECT_EQ(-1000, Run(Bytes(kChain.begin(), kChain.begin() + static_cast<long>(length))));
    EXPECT_EQ("empty", TakeChain());
    // The position that the reply ends behind: a length field's start, or its certificate's.
    const char* position = length < 8 ? "4" : length < 11 ? "8" : length < 15 ? "11" : "15";
    const std::string size = std::to_string(length);
    EXPECT_EQ("I KmAttestKey start; " +
                  (length < 4 ? "E! chain_buf_len too small(" + size + ")"
                              : "E 1 invalid out chain size(" + (position + ("-" + size)) + ")") +
                  kOutError,
              RequestLog());
  }
}

TEST_F(Attest, RefusesBadCountsAndLengths) {
  const std::string kCount = "E! out_chain entry_count err", kCut = "E 1 invalid out chain size";
  const Bytes two(kChain.begin() + 4, kChain.end());
  const std::pair<Bytes, std::string> kRows[] = {
      {Cat({Le32(0), two}), kCount},
      {Cat({Le32(1), two}), kCount},
      {Cat({Le32(3), two}), kCut + "(20-20)"},
      {Cat({Le32(0x10000000), two}), kCut + "(20-20)"},
      {Cat({Le32(0xFFFFFFFF), two}), kCut + "(20-20)"},
      {Cat({Le32(2), Le32(3), {1, 2, 3}, Le32(0), {4}}), ""},
      {Cat({Le32(2), Le32(0), Le32(1), {4}}), ""},
      {Cat({Le32(2), Le32(0xFFFFFFFF), {1, 2}}), kCut + "(8-10)"},
      {Cat({Le32(2), Le32(0xFFFFFFF8), {1, 2}}), kCut + "(8-10)"}};
  for (const auto& [reply, log] : kRows) {
    SCOPED_TRACE(Hex(reply));
    EXPECT_EQ(-1000, Run(reply));
    EXPECT_EQ("empty", TakeChain());
    EXPECT_EQ("I KmAttestKey start" + (log.empty() ? "" : "; " + log) + kOutError, RequestLog());
  }
}

TEST_F(Attest, RefusesBeforeTheTa) {
  for (const uint64_t value : {0u, 1u}) {
    ParamSet unique({{KM_TAG_ALGORITHM, 3}, {KM_TAG_DEVICE_UNIQUE_ATTESTATION, value}});
    EXPECT_EQ(-100, Run(Reply::Ok(), &unique));
    EXPECT_EQ("I NonStrongBox must return KM_ERROR_UNIMPLEMENTED", LastLine());
  }
  const keymaster_key_blob_t key = KeyBlob(kKey), none = {nullptr, 1};
  const keymaster_key_param_set_t hollow = {nullptr, 1};
  EXPECT_EQ(-32, km.TivasKmAttestKey(nullptr, params_.get(), &chain_));
  EXPECT_EQ(-32, km.TivasKmAttestKey(&key, nullptr, &chain_));
  EXPECT_EQ(-32, km.TivasKmAttestKey(&key, params_.get(), nullptr));
  EXPECT_EQ(-32, km.TivasKmAttestKey(&key, &hollow, &chain_));
  EXPECT_EQ(Code(0xFFFF0006), km.TivasKmAttestKey(&none, params_.get(), &chain_));
  EXPECT_EQ("", Journal());
  EXPECT_EQ(kTaFailed, Run(Reply::Fail(kTaError).Out(2, kChain), &params_));
  EXPECT_EQ("E! TeeAttestKey failed, ret=0xffff0009", LastLine());
  EXPECT_EQ("kept", TakeChain());
}

}  // namespace
}  // namespace test
