// Authorization, device state and the sharing of the HMAC key.
#include "tests/context/request.h"

namespace test {
namespace {

using Authorization = RequestTest;

// A token reply: challenge, timestamp, 8 unread bytes, level, 4 unread bytes, MAC; cut or
// lengthened.
Bytes TokenReply(size_t length) {
  Bytes out = Cat({Le64(0x1122334455667788), Le64(0x99AABBCCDDEEFF00), Bytes(8, 0xEE), Le32(2),
                   Bytes(4, 0xEE), Ramp(0x50, 32)});
  out.resize(length, 0xEE);
  return out;
}

TEST_F(Authorization, VerifyFillsTheTokenOnlyFromExactly64Bytes) {
  ParamSet params({{KM_TAG_USER_SECURE_ID, 5}});
  const Bytes token = Ramp(7, 69);
  const keymaster_blob_t auth = Blob(token);
  for (const size_t length : {0u, 63u, 64u, 65u, 4096u}) {
    SCOPED_TRACE(length);
    Answer(39, Reply::Ok().Out(3, TokenReply(length)));
    TsVerificationToken out{1, 2, nullptr, 3, {4}};
    const bool ok = length == 64;
    EXPECT_EQ(ok ? 0 : -30,
              km.TivasVerifyAuthorization(0x0102030405060708, params.get(), &auth, &out));
    EXPECT_EQ(ok ? 0x1122334455667788u : 1u, out.challenge);
    EXPECT_EQ(ok ? 0x99AABBCCDDEEFF00u : 2u, out.timestamp);
    EXPECT_EQ(ok ? 2u : 3u, out.security_level);
    EXPECT_EQ(ok ? Ramp(0x50, 32) : Cat({{4}, Bytes(31)}), Bytes(out.mac, out.mac + 32));
    EXPECT_EQ(nullptr, out.parameters_verified);
    EXPECT_EQ(ok ? "I TivasVerifyAuthorization start; I TivasVerifyAuthorization success"
                 : "I TivasVerifyAuthorization start",
              RequestLog());
    const Invocation& sent = Sent();
    EXPECT_EQ(0x6755u, sent.param_types);
    EXPECT_EQ(Cat({Le32(0), WireList({Entry(KM_TAG_USER_SECURE_ID, 5)})}), sent.params[0].in);
    EXPECT_EQ(Cat({{8, 7, 6, 5, 4, 3, 2, 1}, token}), sent.params[1].in);
    EXPECT_EQ(4096u, sent.params[2].size);
    EXPECT_EQ(4096u, sent.params[3].size);
  }
}

TEST_F(Authorization, VerifyParametersAndFailures) {
  ParamSet params({});
  const Bytes token = {1};
  const keymaster_blob_t auth = Blob(token), unreadable = {nullptr, 69};
  const Bytes set = Cat({WireList({BytesEntry(KM_TAG_NONCE, 0, 1)}), {0xAA}});
  keymaster_key_param_set_t verified{};
  struct Row {
    keymaster_key_param_set_t* verified;
    Reply reply;
    int32_t result;
    std::string set, last;
  };
  const std::string kSuccess = "I TivasVerifyAuthorization success";
  const Row kRows[] = {
      {&verified, Reply::Ok().Out(2, set).Out(3, TokenReply(64)), 0, "900003e9:aa", kSuccess},
      {&verified, Reply::Ok().Out(3, TokenReply(64)), 0, "empty", kSuccess},
      {&verified, Reply::Ok().Out(2, Le32(1)).Out(3, TokenReply(64)), -41, "empty",
       "E invalid copy size, 1-4"},
      {nullptr, Reply::Ok().Out(2, Le32(1)).Out(3, TokenReply(64)), 0, "empty", kSuccess},
      {&verified, Reply::Fail(kTaError).Out(2, set).Out(3, TokenReply(64)), kTaFailed, "empty",
       "E! TeeVerifyAuthorization failed, ret=0xffff0009"}};
  for (const Row& row : kRows) {
    platform().Queue(39, row.reply);
    TsVerificationToken out{1, 2, row.verified, 3, {4}};
    EXPECT_EQ(row.result, km.TivasVerifyAuthorization(9, params.get(), &auth, &out));
    EXPECT_EQ(row.verified, out.parameters_verified);
    EXPECT_EQ(row.result == 0 ? 0x1122334455667788u : 1u, out.challenge);
    EXPECT_EQ(row.set, TakeSet(&verified));
    verified = {};
    EXPECT_EQ(row.last, LastLine());
  }
  platform().ClearRecords();
  TsVerificationToken out{};
  EXPECT_EQ(-32, km.TivasVerifyAuthorization(1, nullptr, &auth, &out));
  EXPECT_EQ(-32, km.TivasVerifyAuthorization(1, params.get(), nullptr, &out));
  EXPECT_EQ(-32, km.TivasVerifyAuthorization(1, params.get(), &auth, nullptr));
  EXPECT_EQ("I TivasVerifyAuthorization start", LastLine());
  EXPECT_EQ(-41, km.TivasVerifyAuthorization(1, params.get(), &unreadable, &out));
  EXPECT_EQ("", Journal());
}

TEST_F(Authorization, DeviceState) {
  struct Row {
    int locked;  // -1: early boot ended
    TEEC_Result result;
    std::string log;
  };
  const Row kRows[] = {
      {-1, 0, "E TivasKmEarlyBootEnded success"},
      {-1, kTaError, "E! TeeEarlyBootEnded failed, ret=0xffff0009"},
      {0, 0, "I TivasKmDeviceLocked enter, passwordOnly[0]; E TivasKmDeviceLocked success"},
      {1, 0, "I TivasKmDeviceLocked enter, passwordOnly[1]; E TivasKmDeviceLocked success"},
      {1, kTaError,
       "I TivasKmDeviceLocked enter, passwordOnly[1]; E! TeeDeviceLocked failed, passwordOnly[1] "
       "ret=0xffff0009"}};
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.log);
    Answer(row.locked < 0 ? 40 : 41, row.result == 0 ? Reply::Ok() : Reply::Fail(row.result));
    EXPECT_EQ(Code(row.result), row.locked < 0 ? km.TivasKmEarlyBootEnded()
                                               : km.TivasKmDeviceLocked(row.locked == 1));
    EXPECT_EQ(row.log, RequestLog());
    const Invocation& sent = Sent();
    EXPECT_EQ(row.locked == 1 ? 1u : 0u, sent.params[0].value.a);
    EXPECT_EQ(0u, sent.params[0].value.b);
  }
}

TEST_F(Authorization, HmacParametersPassThrough) {
  uint8_t seed[32] = {}, nonce[16] = {};
  platform().Queue(64, Reply::Ok().Out(0, Ramp(1, 32)).Out(1, Ramp(60, 16)));
  EXPECT_EQ(0, km.TivasgetHmacSharingParameters(seed, 32, nonce, 16));
  EXPECT_EQ(Ramp(1, 32), Bytes(seed, seed + 32));
  EXPECT_EQ(Ramp(60, 16), Bytes(nonce, nonce + 16));
  EXPECT_EQ(seed, Sent().params[0].buffer);
  EXPECT_EQ(16u, Sent().params[1].size);
  EXPECT_EQ("I getHmacSharingParameters start", RequestLog());
  EXPECT_EQ(Code(0xFFFF0006), km.TivasgetHmacSharingParameters(nullptr, 32, nonce, 16));
  EXPECT_EQ(Code(0xFFFF0006), km.TivasgetHmacSharingParameters(seed, 32, nullptr, 16));
  platform().Queue(64, Reply::Fail(kTaError));
  EXPECT_EQ(kTaFailed, km.TivasgetHmacSharingParameters(seed, 32, nonce, 16));
  EXPECT_EQ("E! TivasgetHmacSharingParameters failed, res=0xffff0009", LastLine());
}

TEST_F(Authorization, SharedHmac) {
  uint8_t params[3] = {7, 8, 9};
  const Bytes full = Ramp(3, 4096);
  struct Row {
    uint8_t* params;
    Reply reply;
    int32_t result;
    std::string check, last;
  };
  const Row kRows[] = {
      {params, Reply::Ok().Out(1, Ramp(1, 32)), 0, Hex(Ramp(1, 32)), "I output data size=32"},
      {params, Reply::Ok().Out(1, full), 0, Hex(full), "I output data size=4096"},
      {params, Reply::Ok(), 0, "empty", "I output data size=0"},
      {params, Reply::Ok().Size(1, 4097), -1000, "empty", "E! too large outDataLen:4097\n"},
      {params, Reply::Fail(kTaError).Out(1, {1}), kTaFailed, "empty",
       "E! TeecomputeSharedHmac failed, res=0xffff0009"},
      {nullptr, Reply::Ok(), -32, "kept", "I computeSharedHmac start"}};
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.last);
    Answer(65, row.reply);
    OutBlob check;
    EXPECT_EQ(row.result, km.TivascomputeSharedHmac(row.params, 3, &check));
    EXPECT_EQ(row.check, check.Take());
    EXPECT_EQ(row.last, LastLine());
    if (row.params == nullptr) continue;
    EXPECT_EQ((Bytes{7, 8, 9}), Sent().params[0].in);
    EXPECT_EQ(4096u, Sent().params[1].size);
  }
  EXPECT_EQ(-32, km.TivascomputeSharedHmac(params, 3, nullptr));
}

}  // namespace
}  // namespace test
