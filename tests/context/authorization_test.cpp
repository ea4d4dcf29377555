// Authorization, device state and the sharing of the HMAC key.
#include "tests/context/request_test.h"

namespace test {
namespace {

struct VerifyAuthorization : RequestTest {
  int32_t Run(const Reply& reply) {
    ReplyTo(kCmdVerifyAuthorization, reply);
    Renew();
    outputs.params = {};
    return FindMethod("TivasVerifyAuthorization").call(args);
  }
  const Bytes token = VerificationToken(0x1122334455667788, 0x99AABBCCDDEEFF00, 2, Ramp(0x50, 32)),
              nonce = OneList({{KM_TAG_NONCE, Bytes{0xAA}}});
};

TEST_F(VerifyAuthorization, FillsTheTokenFromTheReply) {
  EXPECT_EQ(0, Run(Reply::Ok().Out(2, nonce).Out(3, token)));
  EXPECT_EQ(0x1122334455667788u, outputs.token.challenge);
  EXPECT_EQ(0x99AABBCCDDEEFF00u, outputs.token.timestamp);
  EXPECT_EQ(2u, outputs.token.security_level);
  EXPECT_EQ(Ramp(0x50, 32), Bytes(outputs.token.mac, outputs.token.mac + 32));
  EXPECT_EQ(&outputs.params, outputs.token.parameters_verified);
  EXPECT_EQ("900003e9:aa", Describe(outputs.params));
  EXPECT_EQ(0, Run(Reply::Ok().Out(3, token)));
  EXPECT_EQ(kEmpty, StateOf(kParams)) << "nothing was verified";
}

TEST_F(VerifyAuthorization, RejectsATokenOfAnotherLengthAndKeepsWhatWasVerified) {
  for (const size_t length : {0u, 63u, 65u}) {
    Bytes other = token;
    other.resize(length);
    EXPECT_EQ(KM_ERROR_VERIFICATION_FAILED, Run(Reply::Ok().Out(2, nonce).Out(3, other)));
    EXPECT_EQ("900003e9:aa", Describe(outputs.params));
  }
}

TEST_F(VerifyAuthorization, ReadsVerifiedParametersOnlyIfAskedTo) {
  const Reply truncated = Reply::Ok().Out(2, Le32(1)).Out(3, token);
  EXPECT_EQ(kNoMemory, Run(truncated));
  TsVerificationToken wanted = {1, 2, nullptr, 3, {4}};
  args.token = &wanted;
  EXPECT_EQ(0, Run(truncated));
  EXPECT_EQ(2u, wanted.security_level);
  EXPECT_EQ(nullptr, wanted.parameters_verified);
}

using Device = RequestTest;

TEST_F(Device, MayBeLockedToMoreThanAPassword) {
  args.password_only = false;
  EXPECT_EQ(0, Call("TivasKmDeviceLocked"));
  EXPECT_EQ(Parts{Bytes(8)}, Sent());
}

using SharedHmac = RequestTest;

TEST_F(SharedHmac, ParametersGoStraightToTheCaller) {
  ReplyTo(kCmdGetHmacSharingParameters, Reply::Ok().Out(0, Ramp(1, 32)).Out(1, Ramp(60, 16)));
  EXPECT_EQ(0, km.TivasgetHmacSharingParameters(outputs.hmac[0], 32, outputs.hmac[1], 16));
  EXPECT_EQ(Ramp(1, 32), Bytes(outputs.hmac[0], outputs.hmac[0] + 32));
  EXPECT_EQ(Ramp(60, 16), Bytes(outputs.hmac[1], outputs.hmac[1] + 16));
  EXPECT_EQ(16u, platform().invocations[0].params[1].size);
}

}  // namespace
}  // namespace test
