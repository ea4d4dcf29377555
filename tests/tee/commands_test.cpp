// Every TA command against one table: what it sends, what it brings back, what it rejects.
#include "tests/requests/commands.h"

#include <keymaster_ts.h>

#include <algorithm>
#include <map>

#include "tests/platform/keymaster_test.h"
#include "tests/requests/wire.h"

namespace test {
namespace {

using namespace km41;
using TaCommand = KeymasterTest;

// The arguments of all commands by bit; output2 is the second output.
using Arg = uint32_t;
constexpr Arg kParams = 1, kKey = 2, kInput = 4, kInputLength = 8, kOutput = 16, kLength = 32,
              kOutput2 = 64, kLength2 = 128, kHandle = 256, kEnd = 512, kOwn = 1024,
              kRoom = kOutput | kLength, kRoom2 = kOutput2 | kLength2;
constexpr uint64_t kSentHandle = 0x0102030405060708, kCallersHandle = 0x1122334455667788;

using Reference = std::pair<const void*, uint32_t>;

// Each command takes those arguments that it knows.
struct Args {
  explicit Args(Arg missing) : left_out(missing) {}
  Args(const Args&) = delete;
  template <typename T>
  T* Unless(Arg arg, T* pointer) const {
    return (left_out & arg) != 0 ? nullptr : pointer;
  }
  const Arg left_out;
  const Bytes params_bytes = Ramp(1, 20), key_bytes = Ramp(40, 30), input_bytes = Ramp(90, 10);
  Bytes output_bytes = Bytes(64, 0xCC), output2_bytes = Bytes(48, 0xDD);
  uint32_t input_size = 10, size = 64, size2 = 48;
  uint64_t handle_value = kCallersHandle;
  const uint8_t* params = Unless(kParams, params_bytes.data());
  const uint8_t* key = Unless(kKey, key_bytes.data());
  const uint8_t* input = Unless(kInput, input_bytes.data());
  const uint32_t* input_length = Unless(kInputLength, &input_size);
  uint8_t* output = Unless(kOutput, output_bytes.data());
  uint8_t* output2 = Unless(kOutput2, output2_bytes.data());
  uint32_t *length = Unless(kLength, &size), *length2 = Unless(kLength2, &size2);
  uint64_t* handle = Unless(kHandle, &handle_value);

  // The reference that an argument becomes.
  Reference ReferenceTo(Arg arg) const {
    return arg == kParams   ? Reference(params, 20)
           : arg == kKey    ? Reference(key, 30)
           : arg == kInput  ? Reference(input, 10)
           : arg == kOutput ? Reference(output, 64)
                            : Reference(output2, 48);
  }
};

uint32_t Configure(Args&) { return TeeKmConfigure(0x1111, 0x2222); }
uint32_t Generate(Args& a) {
  return TeeGenerateKey(a.params, 20, a.output, a.length, a.output2, a.length2);
}
uint32_t Characteristics(Args& a) {
  return TeeGetKeyCharacteristics(a.params, 20, a.key, 30, a.output, a.length);
}
uint32_t Import(Args& a) {
  return TeeImportKey(a.params, 20, a.key, 30, a.output, a.length, a.output2, a.length2, 2);
}
uint32_t Export(Args& a) { return TeeExportKey(a.params, 20, a.key, 30, a.output, a.length); }
uint32_t Attest(Args& a) { return TeeAttestKey(a.key, 30, a.params, 20, a.output, a.length); }
uint32_t Upgrade(Args& a) { return TeeUpgrade(a.key, 30, a.params, 20, a.output, a.length); }
uint32_t Begin(Args& a) {
  return TeeBegin(3, a.params, 20, a.key, 30, a.output, a.length, a.handle);
}
uint32_t Update(Args& a) {
  return TeeUpdate(kSentHandle, a.params, 20, a.input, a.input_length, a.output, a.length,
                   a.output2, a.length2);
}
uint32_t Finish(Args& a) {
  return TeeFinish(kSentHandle, a.params, 20, a.input, a.input_length == nullptr ? 0 : 10, a.output,
                   a.length, a.output2, a.length2);
}
uint32_t Abort(Args&) { return TeeAbort(kSentHandle); }
uint32_t Delete(Args& a) { return TeeDeleteKey(a.key, 30); }
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
uint32_t EarlyBoot(Args&) { return TeeEarlyBootEnded(); }
uint32_t Locked(Args&) { return TeeDeviceLocked(1); }
uint32_t GetHmac(Args& a) { return TeegetHmacSharingParameters(a.output, 64, a.output2, 48); }
uint32_t SharedHmac(Args& a) { return TeecomputeSharedHmac(a.params, 20, a.output, a.length); }
uint32_t DestroyIds(Args&) { return TeeDestroyAttestationIds(); }

enum Back { kUnchanged, kAsReported, kCapped };

struct Row {
  const char* name;
  uint32_t id;  // 0: no command
  uint32_t (*call)(Args&);
  Arg sent[4];    // what each parameter is made of; kOwn is not of the caller
  Bytes carried;  // with kOwn, or what an output that is an input too begins with
  Arg required = 0, optional = 0;
  Back out = kUnchanged, out2 = kUnchanged;

  bool FetchesRecord() const {
    return id == kCmdGenerateKey || id == kCmdImportKey || (id >= kCmdAttestKey && id <= kCmdBegin);
  }
  bool CopiesHandle() const { return id == kCmdUpdate || id == kCmdFinish; }
};

const Back kAsIs = kAsReported;
constexpr Arg kAnyInput = kParams | kInput | kInputLength;
// clang-format off
const Row kRows[] = {
    {"TeeKmConfigure", kCmdConfigure, Configure, {kOwn}, Cat({Le32(0x1111), Le32(0x2222)})},
    {"TeeGenerateKey", kCmdGenerateKey, Generate, {kParams, 0, kOutput, kOutput2}, {},
     kRoom | kLength2 | kParams, kOutput2, kAsIs, kAsIs},
    {"TeeGetKeyCharacteristics", kCmdGetKeyCharacteristics, Characteristics,
     {kKey, kParams, kOutput}, {}, kRoom | kKey, kParams, kAsIs},
    {"TeeImportKey", kCmdImportKey, Import, {kParams, kKey, kOutput, kOutput2}, {2, 0xDD},
     kRoom | kLength2 | kParams | kKey, kOutput2, kAsIs, kCapped},
    {"TeeExportKey", kCmdExportKey, Export, {kKey, kParams, kOutput}, {}, kKey, kParams, kAsIs},
    {"TeeAttestKey", kCmdAttestKey, Attest, {kKey, kParams, kOutput}, {},
     kRoom | kKey | kParams, 0, kAsIs},
    {"TeeUpgrade", kCmdUpgrade, Upgrade, {kKey, kParams, kOutput}, {},
     kRoom | kKey | kParams, 0, kAsIs},
    {"TeeBegin", kCmdBegin, Begin, {kKey, kParams, kOutput, kOwn}, Cat({Le32(3), Le32(0)}),
     kRoom | kKey | kHandle, kParams, kAsIs},
    {"TeeUpdate", kCmdUpdate, Update, {kParams, kInput, kOutput, kOutput2}, Le64(kSentHandle),
     kRoom | kRoom2, kAnyInput, kCapped, kAsIs},
    {"TeeFinish", kCmdFinish, Finish, {kParams, kInput, kOutput, kOutput2}, Le64(kSentHandle),
     kRoom | kRoom2, kAnyInput, kCapped, kAsIs},
    {"TeeAbort", kCmdAbort, Abort, {kOwn}, Le64(kSentHandle)},
    {"TeeDeleteKey", kCmdDeleteKey, Delete, {kKey}, {}, kKey},
    {"TeeVerifyAuthorization", kCmdVerifyAuthorization, Verify,
     {kParams, kInput, kOutput, kOutput2}, Bytes(8, 0xCC), kRoom | kRoom2, kAnyInput,
     kCapped, kAsIs},
    {"TeeEarlyBootEnded", kCmdEarlyBootEnded, EarlyBoot, {}, {}},
    {"TeeDeviceLocked", kCmdDeviceLocked, Locked, {kOwn}, Cat({Le32(1), Le32(0)})},
    {"TeegetHmacSharingParameters", kCmdGetHmacSharingParameters, GetHmac,
     {kOutput, kOutput2}, {}, kOutput | kOutput2},
    {"TeecomputeSharedHmac", kCmdComputeSharedHmac, SharedHmac, {kParams, kOutput}, {},
     kRoom | kParams, 0, kAsIs},
    {"TeeDestroyAttestationIds", 0, DestroyIds, {}, {}},
};
// clang-format on

const std::string kOpen = "zubrel_init, [OpenKmSession, open, OpenKmSession]";
const std::string kClose = ", [CloseKmSession, close, CloseKmSession]";
const Lines kOpened = {"I KeyMaster: Disable the enhanced crypto!\n"};

std::string Calls(const Row& row) {
  const std::string invoke = "invoke " + std::to_string(row.id);
  if (row.id == 0 || row.id == kCmdDeleteKey) return row.id == 0 ? kOpen : kOpen + ", " + invoke;
  return kOpen + ", [" + row.name + ", " + invoke + ", " + row.name + "]";
}

// The lines of a call of row: an attestation says that it begins, and, where it gets there, its
// end.
Lines Expected(const Row& row, Lines lines, bool success = false) {
  if (row.id == kCmdAttestKey) {
    lines.insert(lines.begin(), "I KeyMaster: TEE_AttestKey entered.\n");
    if (success) lines.push_back("I KeyMaster: TEE_AttestKey success.\n");
  }
  return lines;
}

std::string BadParameters(const Row& row) {
  const bool short_form = row.CopiesHandle() || row.id == kCmdVerifyAuthorization;
  return short_form ? "E KeyMaster: [error] : invalid params"
                    : "E KeyMaster: [error] : invalid parameters";
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

void ExpectSent(const Row& row, const Args& args, const Invocation& seen) {
  for (unsigned i = 0; i < 4; ++i) {
    SCOPED_TRACE(i);
    const Arg arg = row.sent[i];
    const SeenParam& param = seen.params[i];
    uint32_t type = FindCommand(row.id)->types[i];
    auto reference = args.ReferenceTo(arg);
    const bool no_length = arg == kInput && args.input_length == nullptr;
    // Characteristics, and an input whose length is missing, stay as references to nothing.
    if ((no_length && args.input != nullptr && row.id != kCmdFinish) ||
        (row.id == kCmdImportKey && reference.first == nullptr)) {
      reference = {nullptr, 0};
    } else if (no_length || reference.first == nullptr) {
      type = TEEC_NONE;
    }
    if (arg == kOwn) type = FindCommand(row.id)->types[i];
    EXPECT_EQ(type, TEEC_PARAM_TYPE_GET(seen.param_types, i));
    if (type >= TEEC_MEMREF_TEMP_INPUT && arg != kOwn) {
      EXPECT_EQ(reference, Reference(param.buffer, param.size));
    }
    const bool value = type == TEEC_VALUE_INPUT || type == TEEC_VALUE_INOUT;
    const Bytes content = value ? Cat({Le32(param.value.a), Le32(param.value.b)}) : param.in;
    if ((arg == kOwn || type == TEEC_MEMREF_TEMP_INOUT) && !content.empty()) {
      EXPECT_TRUE(std::equal(row.carried.begin(), row.carried.end(), content.begin()));
    }
    EXPECT_TRUE(arg != kOwn || content.size() == row.carried.size());
  }
}

uint32_t After(Back back, uint32_t before, uint32_t reported) {
  return back == kUnchanged ? before : back == kCapped ? std::min(reported, 4096u) : reported;
}

TEST_F(TaCommand, SendsItsParametersAndBringsBackItsLengths) {
  for (const uint32_t reported : {0u, 3u, 4095u, 4096u, 4097u, 0xFFFFFFFFu}) {
    ForEachRow([&](const Row& row, Args& args) {
      Reply reply = Reply::Ok().Value(3, 0x89ABCDEF, 0x01234567);
      for (int i = 0; i < 4; ++i) {
        reply.Size(i, reported);
      }
      platform().On(row.id, [&](const Invocation&) { return reply; });
      EXPECT_EQ(0u, row.call(args));
      EXPECT_EQ(Calls(row) + kClose, Journal());
      EXPECT_EQ(Expected(row, kOpened, true), Log());
      const bool dropped = row.id == kCmdGenerateKey && args.output2 == nullptr;
      EXPECT_EQ(After(row.out, 64, reported), args.size);
      EXPECT_EQ(dropped ? 0 : After(row.out2, 48, reported), args.size2);
      EXPECT_EQ(row.id == kCmdBegin ? 0x0123456789ABCDEF : kCallersHandle, args.handle_value);
      if (row.id != 0) ExpectSent(row, args, platform().invocations.at(0));
    });
  }
}

// A call that fails with result brings nothing back.
void ExpectFailure(uint32_t result, const Row& row, Args& args) {
  EXPECT_EQ(result, row.call(args));
  EXPECT_TRUE(args.size == 64 && args.size2 == 48 && args.handle_value == kCallersHandle);
}

TEST_F(TaCommand, AFailureIsReportedAndBringsNothingBack) {
  for (const uint32_t first : {0u, 1u, 2u}) {
    platform().first_session = first;
    platform().On(kCmdGetErrorRecord,
                  [](const Invocation&) { return Reply::Ok().Out(0, ErrorRecord(7, 120, "gen")); });
    ForEachRow([&](const Row& row, Args& args) {
      if (row.id == 0) return;
      Reply reply = Reply::Fail(0xFFFF0010, 4).Value(3, 1, 2);
      for (int i = 0; i < 4; ++i) {
        reply.Size(i, 9000);
      }
      platform().Queue(row.id, reply);
      ExpectFailure(0xFFFF0010, row, args);
      EXPECT_EQ(Calls(row) + (row.FetchesRecord() ? ", invoke 66, event" : "") +
                    (first == 1 ? "" : kClose),
                Journal());
      const std::string id = std::to_string(row.id);
      EXPECT_EQ(
          Lines(row.FetchesRecord(), "3808d171 RET=7 CMD_ID=" + id +
                                         " LINE=120 FUNC=gen TAINFO= CAINFO=KEYMASTER_TS sent"),
          Events());
      const Lines log = Log();
      EXPECT_EQ(first == 1,
                std::count(log.begin(), log.end(), "I KeyMaster: open first km session"));
      EXPECT_EQ(1, std::count(log.begin(), log.end(),
                              "E KeyMaster: invoke km command failed, cmd = " + id +
                                  ", ret = 0xffff0010, retOrigin = 4"));
      for (Opened& opened : platform().opens) {
        if (opened.first) free(opened.block);
      }
    });
    platform().ClearRecords();
  }
}

void ExpectRejection(const Row& row, Args& args) {
  platform().ClearRecords();
  ExpectFailure(TEEC_ERROR_BAD_PARAMETERS, row, args);
  EXPECT_EQ("", Journal());
  EXPECT_EQ(Expected(row, {BadParameters(row)}), Log());
}

TEST_F(TaCommand, ChecksItsArgumentsBeforeItOpensASession) {
  ForEachRow([](const Row& row, Args& optional) {
    for (Arg missing = 1; missing != kEnd; missing *= 2) {
      if ((row.required & missing) != 0) {
        SCOPED_TRACE(missing);
        Args args(optional.left_out | missing);
        ExpectRejection(row, args);
      }
    }
  });
}

TEST_F(TaCommand, NeedsAContext) {
  ASSERT_EQ(0u, Ts_Finishcontext());
  ForEachRow([](const Row& row, Args& args) {
    ExpectRejection(row, args);
    // The check of lengths, and export's of its output, come after that of the context.
    args.size = 0;
    if (row.id == kCmdExportKey) args.output = nullptr;
    EXPECT_EQ(TEEC_ERROR_BAD_PARAMETERS, row.call(args));
    EXPECT_EQ(BadParameters(row), Log().back());
  });
}

TEST_F(TaCommand, ChecksTheRoomForItsOutputs) {
  const std::map<uint32_t, std::string> kNoRoom = {
      {kCmdGenerateKey, "invalid keyblob len"},
      {kCmdGetKeyCharacteristics, "invalid keyCharacter len"},
      {kCmdImportKey, "invalid keyBlobLen\n"},
      {kCmdExportKey, "pub key out is NULL\n"}};
  for (const uint32_t room : {0u, 4u, 7u, 8u}) {
    ForEachRow([&](const Row& row, Args& args) {
      args.size = room;
      if (row.id == kCmdExportKey && room == 0) {
        if (args.params == nullptr) {
          args.output = nullptr;
        } else {
          args.length = nullptr;
        }
      }
      const bool rejected = room == 0 && kNoRoom.count(row.id) != 0;
      const bool copy_failed = row.CopiesHandle() && room < 8;
      EXPECT_EQ(rejected      ? TEEC_ERROR_BAD_PARAMETERS
                : copy_failed ? TEEC_ERROR_GENERIC
                              : TEEC_SUCCESS,
                row.call(args));
      EXPECT_EQ(rejected ? "" : (copy_failed ? kOpen : Calls(row)) + kClose, Journal());
      EXPECT_EQ(rejected ? Lines{"E KeyMaster: [error] : " + kNoRoom.at(row.id)}
                         : Expected(row, kOpened, true),
                Log());
    });
  }
}

}  // namespace
}  // namespace test
