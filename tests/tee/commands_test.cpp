// Every TA command on its own: what it rejects, what may be left out, which lengths come back, and
// the session that it runs on. What it sends is in the requests' tests.
#include "tests/requests/commands.h"

#include <keymaster_ts.h>
#include <keymaster_ts_session.h>
#include <string.h>

#include <algorithm>

#include "tests/platform/keymaster_test.h"
#include "tests/requests/wire.h"

namespace test {
namespace {

using namespace km41;
using TaCommand = KeymasterTest;

// The arguments of all commands by bit; output2 is the second output.
using Arg = uint32_t;
constexpr Arg kParams = 1, kKey = 2, kInput = 4, kInputLength = 8, kOutput = 16, kLength = 32,
              kOutput2 = 64, kLength2 = 128, kHandle = 256, kEnd = 512, kRoom = kOutput | kLength,
              kRoom2 = kOutput2 | kLength2;
constexpr uint64_t kCallersHandle = 0x1122334455667788;
uint8_t g_params[20], g_key[30], g_input[10], g_output[64], g_output2[48];

// Each command takes those arguments that it knows.
struct Args {
  explicit Args(Arg missing) : left_out(missing) {}
  Args(const Args&) = delete;
  template <typename T>
  T* Unless(Arg arg, T* pointer) const {
    return (left_out & arg) != 0 ? nullptr : pointer;
  }
  const Arg left_out;
  uint32_t input_size = sizeof(g_input), size = sizeof(g_output), size2 = sizeof(g_output2);
  uint64_t handle_value = kCallersHandle;
  const uint8_t *params = Unless(kParams, g_params), *key = Unless(kKey, g_key),
                *input = Unless(kInput, g_input);
  const uint32_t* input_length = Unless(kInputLength, &input_size);
  uint8_t *output = Unless(kOutput, g_output), *output2 = Unless(kOutput2, g_output2);
  uint32_t *length = Unless(kLength, &size), *length2 = Unless(kLength2, &size2);
  uint64_t* handle = Unless(kHandle, &handle_value);
};

// The token's length is 64 bits wide; its upper half is not the TA's.
uint32_t Verify(Args& a) {
  uint64_t wide = uint64_t{5} << 32 | a.size2;
  const uint32_t result =
      TeeVerifyAuthorization(a.params, 20, a.input, a.input_length, a.output, a.length, a.output2,
                             a.length2 == nullptr ? nullptr : &wide);
  EXPECT_EQ(result == 0 ? 0u : 5u, wide >> 32);
  a.size2 = static_cast<uint32_t>(wide);
  return result;
}

// The most that a length comes back as: 0 for one that stays.
constexpr uint32_t kAsIs = ~0u, kCapped = 4096;

struct Row {
  const char* name;
  uint32_t id;  // 0: no command
  uint32_t (*call)(Args&);
  Arg required = 0, optional = 0;
  uint32_t most = 0, most2 = 0;
  const char* no_room = "";  // what it says without room for an output

  bool CopiesHandle() const { return id == kCmdUpdate || id == kCmdFinish; }
};

constexpr Arg kAnyInput = kParams | kInput | kInputLength;
// clang-format off
const Row kRows[] = {
    {"TeeKmConfigure", kCmdConfigure, [](Args&) { return TeeKmConfigure(1, 2); }},
    {"TeeGenerateKey", kCmdGenerateKey,
     [](Args& a) { return TeeGenerateKey(a.params, 20, a.output, a.length, a.output2, a.length2); },
     kRoom | kLength2 | kParams, kOutput2, kAsIs, kAsIs, "invalid keyblob len"},
    {"TeeGetKeyCharacteristics", kCmdGetKeyCharacteristics,
     [](Args& a) { return TeeGetKeyCharacteristics(a.params, 20, a.key, 30, a.output, a.length); },
     kRoom | kKey, kParams, kAsIs, 0, "invalid keyCharacter len"},
    {"TeeImportKey", kCmdImportKey,
     [](Args& a) {
       return TeeImportKey(a.params, 20, a.key, 30, a.output, a.length, a.output2, a.length2, 2);
     },
     kRoom | kLength2 | kParams | kKey, kOutput2, kAsIs, kCapped, "invalid keyBlobLen\n"},
    {"TeeExportKey", kCmdExportKey,
     [](Args& a) { return TeeExportKey(a.params, 20, a.key, 30, a.output, a.length); },
     kKey, kParams, kAsIs},
    {"TeeAttestKey", kCmdAttestKey,
     [](Args& a) { return TeeAttestKey(a.key, 30, a.params, 20, a.output, a.length); },
     kRoom | kKey | kParams, 0, kAsIs},
    {"TeeUpgrade", kCmdUpgrade,
     [](Args& a) { return TeeUpgrade(a.key, 30, a.params, 20, a.output, a.length); },
     kRoom | kKey | kParams, 0, kAsIs},
    {"TeeBegin", kCmdBegin,
     [](Args& a) { return TeeBegin(3, a.params, 20, a.key, 30, a.output, a.length, a.handle); },
     kRoom | kKey | kHandle, kParams, kAsIs},
    {"TeeUpdate", kCmdUpdate,
     [](Args& a) {
       return TeeUpdate(7, a.params, 20, a.input, a.input_length, a.output, a.length, a.output2,
                        a.length2);
     },
     kRoom | kRoom2, kAnyInput, kCapped, kAsIs},
    {"TeeFinish", kCmdFinish,
     [](Args& a) {
       return TeeFinish(7, a.params, 20, a.input, a.input_length == nullptr ? 0 : 10, a.output,
                        a.length, a.output2, a.length2);
     },
     kRoom | kRoom2, kAnyInput, kCapped, kAsIs},
    {"TeeAbort", kCmdAbort, [](Args&) { return TeeAbort(7); }},
    {"TeeDeleteKey", kCmdDeleteKey, [](Args& a) { return TeeDeleteKey(a.key, 30); }, kKey},
    {"TeeVerifyAuthorization", kCmdVerifyAuthorization, Verify, kRoom | kRoom2, kAnyInput, kCapped,
     kAsIs},
    {"TeeEarlyBootEnded", kCmdEarlyBootEnded, [](Args&) { return TeeEarlyBootEnded(); }},
    {"TeeDeviceLocked", kCmdDeviceLocked, [](Args&) { return TeeDeviceLocked(1); }},
    {"TeegetHmacSharingParameters", kCmdGetHmacSharingParameters,
     [](Args& a) { return TeegetHmacSharingParameters(a.output, 64, a.output2, 48); },
     kOutput | kOutput2},
    {"TeecomputeSharedHmac", kCmdComputeSharedHmac,
     [](Args& a) { return TeecomputeSharedHmac(a.params, 20, a.output, a.length); },
     kRoom | kParams, 0, kAsIs},
    {"TeeDestroyAttestationIds", 0, [](Args&) { return TeeDestroyAttestationIds(); }},
};
// clang-format on

const std::string kOpen = "zubrel_init, [OpenKmSession, open, OpenKmSession]";
const std::string kClose = ", [CloseKmSession, close, CloseKmSession]";

std::string Calls(const Row& row) {
  const std::string invoke = "invoke " + std::to_string(row.id);
  if (row.id == 0 || row.id == kCmdDeleteKey) return row.id == 0 ? kOpen : kOpen + ", " + invoke;
  return kOpen + ", [" + row.name + ", " + invoke + ", " + row.name + "]";
}

// Runs body(row, args) on a clean slate for every row and each choice of its optional arguments.
template <typename Body>
void ForEachRow(Body body) {
  for (const Row& row : kRows) {
    for (Arg left_out = 0; left_out < kEnd; ++left_out) {
      if ((left_out & ~row.optional) == 0) {
        SCOPED_TRACE(std::string(row.name) + " without " + std::to_string(left_out));
        platform().ClearRecords();
        Args args(left_out);
        body(row, args);
      }
    }
  }
}

// Compares with the same call of all arguments: what is left out has no parameter, or one of
// nothing.
void ExpectLeftOut(const Row& row, const Invocation& all, Arg left_out, const Invocation& seen) {
  for (unsigned i = 0; i < 4; ++i) {
    const SeenParam &usual = all.params[i], &param = seen.params[i];
    const Arg gone = left_out & (usual.buffer == g_params    ? kParams
                                 : usual.buffer == g_input   ? kInput | kInputLength
                                 : usual.buffer == g_output2 ? kOutput2
                                                             : 0);
    const bool declared = row.id == kCmdImportKey || (gone == kInputLength && row.id != kCmdFinish);
    EXPECT_EQ(gone == 0 || declared ? TEEC_PARAM_TYPE_GET(all.param_types, i) : TEEC_NONE,
              TEEC_PARAM_TYPE_GET(seen.param_types, i));
    EXPECT_EQ(gone == 0 ? usual.buffer : nullptr, param.buffer);
    EXPECT_EQ(gone == 0 ? usual.size : 0, param.size);
  }
}

// A call that fails with result brings nothing back.
void ExpectFailure(uint32_t result, const Row& row, Args& args) {
  const std::pair sizes(args.size, args.size2);
  EXPECT_EQ(result, row.call(args));
  EXPECT_EQ(sizes, std::pair(args.size, args.size2));
  EXPECT_EQ(kCallersHandle, args.handle_value);
}

TEST_F(TaCommand, SendsWhatItIsGivenAndBringsBackItsLengthsOnSuccess) {
  Invocation all;
  for (const uint32_t reported : {0u, 3u, 4095u, 4096u, 4097u, 0xFFFFFFFFu}) {
    ForEachRow([&](const Row& row, Args& args) {
      Reply reply = Reply::Ok().Value(3, 0x89ABCDEF, 0x01234567);
      for (int i = 0; i < 4; ++i) {
        reply.Size(i, reported);
      }
      platform().On(row.id, [&](const Invocation&) { return reply; });
      EXPECT_EQ(0u, row.call(args));
      EXPECT_EQ(Calls(row) + kClose, Journal());
      const bool dropped = row.id == kCmdGenerateKey && args.output2 == nullptr;
      EXPECT_EQ(row.most == 0 ? 64 : std::min(reported, row.most), args.size);
      EXPECT_EQ(dropped ? 0 : row.most2 == 0 ? 48 : std::min(reported, row.most2), args.size2);
      EXPECT_EQ(row.id == kCmdBegin ? 0x0123456789ABCDEF : kCallersHandle, args.handle_value);
      if (row.id == 0) return;
      if (args.left_out == 0) all = platform().invocations.at(0);
      ExpectLeftOut(row, all, args.left_out, platform().invocations.at(0));
      reply.result = 0xFFFF0010;
      Args again(args.left_out);
      ExpectFailure(reply.result, row, again);
    });
  }
}

// Expects what comes before any session.
void ExpectRejection(const Row& row, Args& args, const std::string& message) {
  platform().ClearRecords();
  ExpectFailure(TEEC_ERROR_BAD_PARAMETERS, row, args);
  EXPECT_EQ("", Journal());
  Lines log = {"E KeyMaster: [error] : " + message};
  if (row.id == kCmdAttestKey) log.insert(log.begin(), "I KeyMaster: TEE_AttestKey entered.\n");
  EXPECT_EQ(log, Log());
}

std::string Invalid(const Row& row) {
  return row.CopiesHandle() || row.id == kCmdVerifyAuthorization ? "invalid params"
                                                                 : "invalid parameters";
}

TEST_F(TaCommand, ChecksItsArgumentsBeforeItOpensASession) {
  for (const Row& row : kRows) {
    for (Arg missing = 1; missing != kEnd; missing *= 2) {
      SCOPED_TRACE(std::string(row.name) + " without " + std::to_string(missing));
      Args args(missing);
      if ((row.required & missing) != 0) ExpectRejection(row, args, Invalid(row));
      if (row.id == kCmdExportKey && (kRoom & missing) != 0) {
        ExpectRejection(row, args, "pub key out is NULL\n");
      }
    }
  }
}

TEST_F(TaCommand, NeedsAContextBeforeRoom) {
  ASSERT_EQ(0u, Ts_Finishcontext());
  ForEachRow([](const Row& row, Args& args) {
    ExpectRejection(row, args, Invalid(row));
    args.size = 0;
    if (row.id == kCmdExportKey) args.output = nullptr;
    ExpectRejection(row, args, Invalid(row));
  });
}

TEST_F(TaCommand, ChecksTheRoomForItsOutputs) {
  for (const uint32_t room : {0u, 1u, 7u, 8u}) {
    ForEachRow([&](const Row& row, Args& args) {
      args.size = room;
      if (room == 0 && *row.no_room != 0) return ExpectRejection(row, args, row.no_room);
      const bool copies = !row.CopiesHandle() || room >= 8;
      EXPECT_EQ(copies ? TEEC_SUCCESS : TEEC_ERROR_GENERIC, row.call(args));
      EXPECT_EQ((copies ? Calls(row) : kOpen) + kClose, Journal());
    });
  }
}

// ---- The session that they run on, and the error record fetched on it

using Session = KeymasterTest;

TEST_F(Session, OutlastsAnOverrun) {
  platform().On(kCmdAbort, [](const Invocation&) {
    TeeosLogExceptionArchive(nullptr);
    return Reply::Fail(0xFFFF0005);
  });
  EXPECT_EQ(0xFFFF0005, TeeAbort(1));
  EXPECT_EQ(Lines{"901002003 #0=teeos sent"}, Events());
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
  const Reply longest = Reply::Ok().Out(0, Cat({ErrorRecord(7, 8, 2, Text("fn")), Bytes(1010)}));
};

// It is fetched without a watchdog, and a session that is the TA's first stays open.
TEST_F(Record, ComesBeforeTheSessionIsClosed) {
  for (const uint32_t first : {0u, 1u, 2u}) {
    platform().open = [first] { return Reply::Ok().Value(0, first, 0); };
    Fail(5, longest);
    EXPECT_EQ(Lines{"940102001 RET=7 CMD_ID=6 LINE=8 FUNC=fn TAINFO= CAINFO=KEYMASTER_TS sent"},
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
  EXPECT_EQ(Lines{"940003100 RET=-53212 CMD_ID=6 LINE=0 FUNC= TAINFO= CAINFO=KEYMASTER_TS sent"},
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
