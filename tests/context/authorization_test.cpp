// Authorization, device state and the sharing of the HMAC key.
#include "tests/context/request.h"

namespace test {
namespace {

// A token reply: challenge, timestamp, 8 unread bytes, level, 4 unread bytes, MAC; cut or
// lengthened.
Bytes TokenReply(size_t length) {
  Bytes out = Cat({Le64(0x1122334455667788), Le64(0x99AABBCCDDEEFF00), Bytes(8, 0xEE), Le32(2),
                   Bytes(4, 0xEE), Ramp(0x50, 32)});
  out.resize(length, 0xEE);
  return out;
}

using Authorization = RequestTest;

TEST_F(Authorization, Verify) {
  start = "I TivasVerifyAuthorization start";
  ParamSet set({{KM_TAG_USER_SECURE_ID, 5}});
  const Bytes auth_bytes = Ramp(7, 69);
  const keymaster_blob_t auth = Blob(auth_bytes);
  // Sets out and verified from a reply.
  TsVerificationToken out;
  const auto run = [&](keymaster_key_param_set_t* verified, const Reply& reply) {
    Answer(39, reply);
    if (verified != nullptr) *verified = {};
    out = {1, 2, verified, 3, {4}};
    const int32_t result = km.TivasVerifyAuthorization(0x0102030405060708, set.get(), &auth, &out);
    EXPECT_EQ(verified, out.parameters_verified);
    EXPECT_EQ(result == 0 ? 0x1122334455667788u : 1u, out.challenge);
    EXPECT_EQ(result == 0 ? 0x99AABBCCDDEEFF00u : 2u, out.timestamp);
    EXPECT_EQ(result == 0 ? 2u : 3u, out.security_level);
    EXPECT_EQ(result == 0 ? Ramp(0x50, 32) : Cat({{4}, Bytes(31)}), Bytes(out.mac, out.mac + 32));
    return Outcome(result);
  };
  const Reply good = Reply::Ok().Out(3, TokenReply(64));
  const std::string kSuccess = ": I TivasVerifyAuthorization success";
  EXPECT_EQ("0 [39]" + kSuccess, run(nullptr, good));
  EXPECT_EQ((Parts{Cat({Le32(0), WireList({Entry(KM_TAG_USER_SECURE_ID, 5)})}),
                   Cat({{8, 7, 6, 5, 4, 3, 2, 1}, auth_bytes}), Bytes(8)}),
            Inputs());
  for (const size_t length : {0u, 63u, 65u, 4096u}) {
    EXPECT_EQ("-30 [39]", run(nullptr, Reply::Ok().Out(3, TokenReply(length)))) << length;
  }
  EXPECT_EQ("0 [39] params=900003e9:aa" + kSuccess, run(&params, Reply(good).Out(2, NonceReply())));
  EXPECT_EQ("0 [39] params=empty" + kSuccess, run(&params, good));
  EXPECT_EQ("-30 [39] params=900003e9:aa", run(&params, Reply::Ok().Out(2, NonceReply())));
  EXPECT_EQ("-41 [39] params=empty: E invalid copy size, 1-4",
            run(&params, Reply(good).Out(2, BadReply())));
  EXPECT_EQ("0 [39]" + kSuccess, run(nullptr, Reply(good).Out(2, BadReply())));
  EXPECT_EQ("ffff0009 [39] params=empty" + Failed("TeeVerifyAuthorization"),
            run(&params, TaFails()));
  EXPECT_EQ("-32", Outcome(km.TivasVerifyAuthorization(1, nullptr, &auth, &out)));
  EXPECT_EQ("-32", Outcome(km.TivasVerifyAuthorization(1, set.get(), nullptr, &out)));
  EXPECT_EQ("-32", Outcome(km.TivasVerifyAuthorization(1, set.get(), &auth, nullptr)));
  EXPECT_EQ("-41: E memcpy_s hwAuthToken failed.\n",
            Outcome(km.TivasVerifyAuthorization(1, set.get(), &kHollowBlob, &out)));
}

TEST_F(Authorization, DeviceState) {
  const std::string kEnters = "I TivasKmDeviceLocked enter, passwordOnly[";
  EXPECT_EQ("0 [40]: E TivasKmEarlyBootEnded success", Outcome(km.TivasKmEarlyBootEnded()));
  for (const unsigned only : {0u, 1u}) {
    EXPECT_EQ("0 [41]: " + kEnters + std::to_string(only) + "]; E TivasKmDeviceLocked success",
              Outcome(km.TivasKmDeviceLocked(only == 1)));
    EXPECT_EQ(Parts{Le64(only)}, Inputs());
  }
  Answer(40, TaFails());
  EXPECT_EQ("ffff0009 [40]" + Failed("TeeEarlyBootEnded"), Outcome(km.TivasKmEarlyBootEnded()));
  Answer(41, TaFails());
  EXPECT_EQ(
      "ffff0009 [41]: " + kEnters + "1]; E! TeeDeviceLocked failed, passwordOnly[1] ret=0xffff0009",
      Outcome(km.TivasKmDeviceLocked(true)));
}

TEST_F(Authorization, HmacParametersPassThrough) {
  start = "I getHmacSharingParameters start";
  uint8_t seed[32] = {}, nonce[16] = {};
  Answer(64, Reply::Ok().Out(0, Ramp(1, 32)).Out(1, Ramp(60, 16)));
  EXPECT_EQ("0 [64]", Outcome(km.TivasgetHmacSharingParameters(seed, 32, nonce, 16)));
  EXPECT_EQ(Ramp(1, 32), Bytes(seed, seed + 32));
  EXPECT_EQ(Ramp(60, 16), Bytes(nonce, nonce + 16));
  EXPECT_EQ(16u, sent[0].params[1].size);
  const std::string kFailed = ": E! TivasgetHmacSharingParameters failed, res=0x";
  EXPECT_EQ(kNoTee + kFailed + kNoTee,
            Outcome(km.TivasgetHmacSharingParameters(nullptr, 32, nonce, 16)));
  Answer(64, TaFails());
  EXPECT_EQ("ffff0009 [64]" + kFailed + "ffff0009",
            Outcome(km.TivasgetHmacSharingParameters(seed, 32, nonce, 16)));
}

TEST_F(Authorization, SharedHmac) {
  start = "I computeSharedHmac start";
  uint8_t sharing[3] = {7, 8, 9};
  const auto run = [&](const Reply& reply) {
    Answer(65, reply);
    return Outcome(km.TivascomputeSharedHmac(sharing, 3, &data));
  };
  const Bytes full = Ramp(3, 4096);
  EXPECT_EQ("0 [65] data=" + Hex(full) + ": I output data size=4096",
            run(Reply::Ok().Out(1, full)));
  EXPECT_EQ(Parts{Bytes(sharing, sharing + 3)}, Inputs());
  EXPECT_EQ("0 [65] data=empty: I output data size=0", run(Reply::Ok()));
  EXPECT_EQ("-1000 [65] data=empty: E! too large outDataLen:4097\n",
            run(Reply::Ok().Size(1, 4097)));
  EXPECT_EQ("ffff0009 [65] data=empty: E! TeecomputeSharedHmac failed, res=0xffff0009",
            run(TaFails()));
  EXPECT_EQ("-32", Outcome(km.TivascomputeSharedHmac(nullptr, 3, &data)));
  EXPECT_EQ("-32", Outcome(km.TivascomputeSharedHmac(sharing, 3, nullptr)));
}

}  // namespace
}  // namespace test
