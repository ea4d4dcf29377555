// The TEE context, the open of a session, and the TA's error record.
#include <keymaster_ts.h>
#include <keymaster_ts_session.h>
#include <string.h>

#include "tests/platform/keymaster_test.h"
#include "tests/requests/commands.h"
#include "tests/requests/wire.h"

namespace test {
namespace {

using namespace km41;
using Session = KeymasterTest;

TEST_F(Session, OpensToTheKeymasterTaAndOutlastsAnOverrun) {
  platform().On(kCmdAbort, [](const Invocation&) {
    const Bracket bracket = platform().brackets.back();
    bracket.callback(bracket.arg);
    return Reply::Fail(0xFFFF0005);
  });
  EXPECT_EQ(0xFFFF0005, TeeAbort(1));
  EXPECT_EQ(Lines{"35b43313 #0=teeos sent"}, Events());
  const Opened& opened = platform().opens.at(0);
  const Bytes uuid(16, 7);
  EXPECT_EQ(0, memcmp(uuid.data(), &opened.uuid, 16));
  EXPECT_EQ(7u, opened.method);
  EXPECT_EQ(nullptr, opened.connection_data);
  TEEC_Operation operation;
  memset(&operation, 0, sizeof(operation));
  operation.started = 1;
  operation.paramTypes = 0x5512;
  EXPECT_EQ(0, memcmp(&operation, &opened.operation, sizeof(operation)));
}

// An attestation that fails, and what the TA answers when it is asked for its error record.
struct Record : KeymasterTest {
  void Fail(uint32_t result, const Reply& record) {
    platform().ClearRecords();
    platform().On(kCmdAttestKey, [=](const Invocation&) { return Reply::Fail(result); });
    platform().On(kCmdGetErrorRecord, [=](const Invocation& seen) {
      const auto* buffer = static_cast<const uint8_t*>(seen.params[0].buffer);
      EXPECT_EQ(TypesOf(*FindCommand(kCmdGetErrorRecord)), seen.param_types);
      EXPECT_EQ(Bytes(1024), Bytes(buffer, buffer + seen.params[0].size));
      EXPECT_EQ(0u, seen.session) << "the failed command's";
      return record;
    });
    const uint8_t bytes[4] = {};
    uint8_t out[8];
    uint32_t out_len = 8;
    EXPECT_EQ(result, TeeAttestKey(bytes, 4, bytes, 4, out, &out_len));
  }
  const Reply longest = Reply::Ok().Out(0, Cat({ErrorRecord(7, 8, "fn"), Bytes(1010)}));
};

// It is fetched without a watchdog, and a session that is the TA's first stays open.
TEST_F(Record, ComesBeforeTheSessionIsClosed) {
  for (const uint32_t first : {0u, 1u, 2u}) {
    platform().first_session = first;
    Fail(5, longest);
    EXPECT_EQ(Lines{"3808d171 RET=7 CMD_ID=6 LINE=8 FUNC=fn TAINFO= CAINFO=KEYMASTER_TS sent"},
              Events());
    EXPECT_EQ(std::string("zubrel_init, [OpenKmSession, open, OpenKmSession], "
                          "[TeeAttestKey, invoke 6, TeeAttestKey], invoke 66, event") +
                  (first == 1 ? "" : ", [CloseKmSession, close, CloseKmSession]"),
              Journal());
    const Lines log = Log();
    EXPECT_EQ(first == 1, log.at(2) == "I KeyMaster: open first km session");
    EXPECT_EQ("E KeyMaster: invoke km command failed, cmd = 6, ret = 0x5, retOrigin = 4",
              log.at(first == 1 ? 3 : 2));
    if (first == 1) free(platform().opens[0].block);
  }
}

TEST_F(Record, IsNotMadeUp) {
  Fail(5, Reply(longest).Size(0, 1025));
  EXPECT_EQ("E -:  error_len is to long -- len = 1025 ", Log().at(4));
  EXPECT_EQ(Lines(), Events());
  Fail(5, Reply::Fail(0xFFFF0008).Out(0, Bytes(14)));
  EXPECT_EQ("E KeyMaster: ObtainTaErrorCode return failed error code = -65528", Log().back());
  EXPECT_EQ(Lines(), Events());
}

TEST_F(Record, IsNotAskedForWhenTheResultSaysAll) {
  Fail(0xFFFF3024, longest);
  EXPECT_EQ(1u, Commands().size());
  EXPECT_EQ(Lines{"38074f1c RET=-53212 CMD_ID=6 LINE=0 FUNC= TAINFO= CAINFO=KEYMASTER_TS sent"},
            Events());
}

TEST_F(Record, NeedsASession) {
  ObtainTaErrorCode(nullptr, 2, 5);
  EXPECT_EQ((Lines{"I KeyMaster: ObtainTaErrorCode begin!!!",
                   "I KeyMaster: ObtainTaErrorCode kmSession is NULL!!!"}),
            Log());
  EXPECT_EQ("", Journal());
}

}  // namespace
}  // namespace test
