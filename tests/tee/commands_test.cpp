// Every TA command against one table: what it sends, what it brings back, how it fails.
#include <keymaster_ts.h>

#include <algorithm>
#include <iomanip>
#include <map>
#include <sstream>

#include "tests/platform/keymaster_test.h"

namespace test {
namespace {

using TaCommand = KeymasterTest;

// The arguments of all commands by bit; out2 is the second output.
using Arg = uint32_t;
constexpr Arg kParams = 1, kKey = 2, kInput = 4, kInputLen = 8, kOut = 16, kLen = 32, kOut2 = 64,
              kLen2 = 128, kHandle = 256, kEnd = 512, kRoom = kOut | kLen, kRoom2 = kOut2 | kLen2;
constexpr uint64_t kSentHandle = 0x0102030405060708, kOwnHandle = 0x1122334455667788;

// Each command takes those arguments that it knows.
struct Args {
  explicit Args(Arg missing) : left_out(missing) {}
  Args(const Args&) = delete;
  template <typename T>
  T* Give(Arg arg, T* pointer) const {
    return (left_out & arg) != 0 ? nullptr : pointer;
  }
  const Arg left_out;
  const Bytes params_bytes = Ramp(1, 20), key_bytes = Ramp(40, 30), input_bytes = Ramp(90, 10);
  Bytes out_bytes = Bytes(64, 0xCC), out2_bytes = Bytes(48, 0xDD);
  uint32_t input_size = 10, size = 64, size2 = 48;
  uint64_t handle_value = kOwnHandle;
  const uint8_t* params = Give(kParams, params_bytes.data());
  const uint8_t* key = Give(kKey, key_bytes.data());
  const uint8_t* input = Give(kInput, input_bytes.data());
  const uint32_t* input_len = Give(kInputLen, &input_size);
  uint8_t *out = Give(kOut, out_bytes.data()), *out2 = Give(kOut2, out2_bytes.data());
  uint32_t *len = Give(kLen, &size), *len2 = Give(kLen2, &size2);
  uint64_t* handle = Give(kHandle, &handle_value);
};

uint32_t Configure(Args&) { return TeeKmConfigure(0x1111, 0x2222); }
uint32_t Generate(Args& a) { return TeeGenerateKey(a.params, 20, a.out, a.len, a.out2, a.len2); }
uint32_t Traits(Args& a) { return TeeGetKeyCharacteristics(a.params, 20, a.key, 30, a.out, a.len); }
uint32_t Import(Args& a) {
  return TeeImportKey(a.params, 20, a.key, 30, a.out, a.len, a.out2, a.len2, 2);
}
uint32_t Export(Args& a) { return TeeExportKey(a.params, 20, a.key, 30, a.out, a.len); }
uint32_t Attest(Args& a) { return TeeAttestKey(a.key, 30, a.params, 20, a.out, a.len); }
uint32_t Upgrade(Args& a) { return TeeUpgrade(a.key, 30, a.params, 20, a.out, a.len); }
uint32_t Begin(Args& a) { return TeeBegin(3, a.params, 20, a.key, 30, a.out, a.len, a.handle); }
uint32_t Update(Args& a) {
  return TeeUpdate(kSentHandle, a.params, 20, a.input, a.input_len, a.out, a.len, a.out2, a.len2);
}
uint32_t Finish(Args& a) {
  const uint32_t length = a.input_len == nullptr ? 0 : *a.input_len;
  return TeeFinish(kSentHandle, a.params, 20, a.input, length, a.out, a.len, a.out2, a.len2);
}
uint32_t Abort(Args&) { return TeeAbort(kSentHandle); }
uint32_t Delete(Args& a) { return TeeDeleteKey(a.key, 30); }
// The token's length is 64 bits wide; its upper half is not the TA's.
uint32_t Verify(Args& a) {
  uint64_t wide = uint64_t{5} << 32 | a.size2;
  const uint32_t result = TeeVerifyAuthorization(a.params, 20, a.input, a.input_len, a.out, a.len,
                                                 a.out2, a.len2 == nullptr ? nullptr : &wide);
  EXPECT_EQ(result == 0 ? 0u : 5u, wide >> 32);
  a.size2 = static_cast<uint32_t>(wide);
  return result;
}
uint32_t EarlyBoot(Args&) { return TeeEarlyBootEnded(); }
uint32_t Locked(Args&) { return TeeDeviceLocked(1); }
uint32_t GetHmac(Args& a) { return TeegetHmacSharingParameters(a.out, 64, a.out2, 48); }
uint32_t SharedHmac(Args& a) { return TeecomputeSharedHmac(a.params, 20, a.out, a.len); }
uint32_t DestroyIds(Args&) { return TeeDestroyAttestationIds(); }

enum Back { kNothing, kAsReported, kCapped, kZero };

struct Row {
  std::string name;
  uint32_t id;  // 0: no command
  uint32_t (*call)(Args&);
  Arg left_out;      // optional arguments
  std::string sent;  // see Sent below
  Arg required;
  Back out = kNothing, out2 = kNothing;
  bool CopiesHandle() const { return id == 9 || id == 10; }
  bool FetchesRecord() const { return id == 2 || id == 4 || (id >= 6 && id <= 8); }
};

std::vector<Row> Rows() {
  const std::string key_params_out = "0655 key:30 params:20 out:64 -";
  const std::string key_out = "0605 key:30 - out:64 -";
  const std::string import = "7655 params:20 key:30 out:64 ";
  const Arg generate = kRoom | kLen2 | kParams, all = kRoom | kKey | kParams, imports = all | kLen2,
            begin = kRoom | kKey | kHandle, hmac = kRoom | kParams;
  const Back as_is = kAsReported;
  std::vector<Row> rows = {
      {"TeeKmConfigure", 1, Configure, 0, "0001 v:1111,2222 - - -", 0},
      {"TeeGenerateKey", 2, Generate, 0, "6605 params:20 - out:64 out2:48", generate, as_is, as_is},
      {"TeeGenerateKey", 2, Generate, kOut2, "0605 params:20 - out:64 -", generate, as_is, kZero},
      {"TeeGetKeyCharacteristics", 3, Traits, 0, key_params_out, kRoom | kKey, as_is},
      {"TeeGetKeyCharacteristics", 3, Traits, kParams, key_out, kRoom | kKey, as_is},
      {"TeeImportKey", 4, Import, 0, import + "out2:48=02dddddddddddddd", imports, as_is, kCapped},
      {"TeeImportKey", 4, Import, kOut2, import + "null:0", imports, as_is, kCapped},
      {"TeeExportKey", 5, Export, 0, key_params_out, kKey, as_is},
      {"TeeExportKey", 5, Export, kParams, key_out, kKey, as_is},
      {"TeeAttestKey", 6, Attest, 0, key_params_out, all, as_is},
      {"TeeUpgrade", 7, Upgrade, 0, key_params_out, all, as_is},
      {"TeeBegin", 8, Begin, 0, "3655 key:30 params:20 out:64 v:3,0", begin, as_is},
      {"TeeBegin", 8, Begin, kParams, "3605 key:30 - out:64 v:3,0", begin, as_is},
      {"TeeAbort", 11, Abort, 0, "0005 other:8=0807060504030201 - - -", 0},
      {"TeeDeleteKey", 31, Delete, 0, "0005 key:30 - - -", kKey},
      {"TeeEarlyBootEnded", 40, EarlyBoot, 0, "0000 - - - -", 0},
      {"TeeDeviceLocked", 41, Locked, 0, "0001 v:1,0 - - -", 0},
      {"TeegetHmacSharingParameters", 64, GetHmac, 0, "0066 out:64 out2:48 - -", kOut | kOut2},
      {"TeecomputeSharedHmac", 65, SharedHmac, 0, "0065 params:20 out:64 - -", hmac, as_is},
      {"TeeDestroyAttestationIds", 0, DestroyIds, 0, "", 0},
  };
  // Commands 9, 10 and 39 take the same two optional inputs and differ in what out carries.
  for (const uint32_t id : {9u, 10u, 39u}) {
    const char* name = id == 9 ? "TeeUpdate" : id == 10 ? "TeeFinish" : "TeeVerifyAuthorization";
    const auto call = id == 9 ? Update : id == 10 ? Finish : Verify;
    const std::string carried = id == 39 ? "cccccccccccccccc" : "0807060504030201";
    const std::pair<Arg, const char*> variants[] = {
        {0, "6755 params:20 input:10"},
        {kParams, "6750 - input:10"},
        {kInput, "6705 params:20 -"},
        {kParams | kInput, "6700 - -"},
        {kInputLen, id == 10 ? "6705 params:20 -" : "6755 params:20 null:0"}};
    for (const auto& [left_out, inputs] : variants) {
      const std::string sent = inputs + (" out:64=" + carried) + " out2:48";
      rows.push_back({name, id, call, left_out, sent, kRoom | kRoom2, kCapped, as_is});
    }
  }
  return rows;
}

// Sent prints an invocation: its types, then each parameter as "-", "v:a,b" or "buffer:size"; of
// an in/out or unknown buffer also its first 8 bytes.
std::string Sent(const Invocation& seen, const Args& args) {
  const std::map<const void*, std::string> names = {{nullptr, "null"}, {args.params, "params"},
                                                    {args.key, "key"}, {args.input, "input"},
                                                    {args.out, "out"}, {args.out2, "out2"}};
  std::ostringstream out;
  out << std::hex << std::setfill('0') << std::setw(4) << seen.param_types;
  for (unsigned i = 0; i < 4; ++i) {
    const SeenParam& p = seen.params[i];
    const uint32_t type = TEEC_PARAM_TYPE_GET(seen.param_types, i);
    if (type == TEEC_NONE) out << " -";
    if (type == TEEC_VALUE_INPUT || type == TEEC_VALUE_INOUT) {
      out << " v:" << p.value.a << "," << p.value.b;
    }
    if (type < TEEC_MEMREF_TEMP_INPUT) continue;
    const bool known = names.count(p.buffer) != 0;
    out << " " << (known ? names.at(p.buffer) : "other") << ":" << std::dec << p.size << std::hex;
    if (p.in.size() < 8 || (known && type != TEEC_MEMREF_TEMP_INOUT)) continue;
    out << "=";
    for (size_t b = 0; b < 8; ++b) out << std::setw(2) << unsigned{p.in[b]};
  }
  return out.str();
}

const std::string kOpen = "zubrel_init, [OpenKmSession, open, OpenKmSession]";
const std::string kClose = ", [CloseKmSession, close, CloseKmSession]";
constexpr char kDisable[] = "I KeyMaster: Disable the enhanced crypto!\n";

std::string Calls(const Row& row) {
  const std::string invoke = "invoke " + std::to_string(row.id);
  if (row.id == 0 || row.id == 31) return row.id == 0 ? kOpen : kOpen + ", " + invoke;
  return kOpen + ", [" + row.name + ", " + invoke + ", " + row.name + "]";
}

std::string Error(const std::string& text) { return "E KeyMaster: " + text; }

std::string NoParams(const Row& row) {
  const bool short_form = row.CopiesHandle() || row.id == 39;
  return Error(short_form ? "[error] : invalid params" : "[error] : invalid parameters");
}

// The lines of a call of row: command 6 says that it begins, and, where it gets there, its end.
Lines Expected(const Row& row, Lines lines, bool success = false) {
  if (row.id == 6) lines.insert(lines.begin(), "I KeyMaster: TEE_AttestKey entered.\n");
  if (row.id == 6 && success) lines.push_back("I KeyMaster: TEE_AttestKey success.\n");
  return lines;
}

uint32_t After(Back back, uint32_t before, uint32_t reported) {
  if (back == kNothing || back == kZero) return back == kZero ? 0 : before;
  return back == kCapped ? std::min(reported, 4096u) : reported;
}

// Runs body(row, args) on a clean slate for every row.
template <typename Body>
void ForEachRow(Body body) {
  for (const Row& row : Rows()) {
    SCOPED_TRACE(row.name + " " + row.sent);
    platform().ClearRecords();
    Args args(row.left_out);
    body(row, args);
    ClearFaults();
  }
}

// A call that fails with result brings nothing back.
void ExpectFailure(uint32_t result, const Row& row, Args& args) {
  EXPECT_EQ(result, row.call(args));
  EXPECT_TRUE(args.size == 64 && args.size2 == 48 && args.handle_value == kOwnHandle);
}

void ExpectRefusal(const Row& row, Args& args) {
  platform().ClearRecords();
  ExpectFailure(0xFFFF0006, row, args);
  EXPECT_EQ("", Journal());
  EXPECT_EQ(Expected(row, {NoParams(row)}), Log());
}

TEST_F(TaCommand, SendsItsParametersAndBringsBackItsLengths) {
  for (const uint32_t reported : {0u, 3u, 4095u, 4096u, 4097u, 0xFFFFFFFFu}) {
    ForEachRow([&](const Row& row, Args& args) {
      Reply reply = Reply::Ok().Value(3, 0x89ABCDEF, 0x01234567);
      for (int i = 0; i < 4; ++i) reply.Size(i, reported);
      if (row.id != 0) platform().Queue(row.id, reply);
      EXPECT_EQ(0u, row.call(args));
      EXPECT_EQ(Calls(row) + kClose, Journal());
      EXPECT_EQ(Expected(row, {kDisable}, true), Log());
      EXPECT_EQ(After(row.out, 64, reported), args.size);
      EXPECT_EQ(After(row.out2, 48, reported), args.size2);
      EXPECT_EQ(row.id == 8 ? 0x0123456789ABCDEF : kOwnHandle, args.handle_value);
      EXPECT_EQ(row.sent, row.id == 0 ? "" : Sent(platform().invocations.at(0), args));
    });
  }
}

TEST_F(TaCommand, AFailureIsReportedAndBringsNothingBack) {
  const Bytes record = Cat({Le32(7), Le32(120), Le32(3), Text("gen")});
  for (const uint32_t first : {0u, 1u, 2u}) {
    platform().first_session = first;
    ForEachRow([&](const Row& row, Args& args) {
      if (row.id == 0) return;
      const std::string id = std::to_string(row.id);
      Reply reply = Reply::Fail(0xFFFF0010, 4).Value(3, 1, 2);
      for (int i = 0; i < 4; ++i) reply.Size(i, 9000);
      platform().Queue(row.id, reply);
      platform().Queue(66, Reply::Ok().Out(0, record));
      ExpectFailure(0xFFFF0010, row, args);
      EXPECT_EQ(Calls(row) + (row.FetchesRecord() ? ", invoke 66, event" : "") +
                    (first == 1 ? "" : kClose),
                Journal());
      Lines log = {kDisable, Error("invoke km command failed, cmd = " + id +
                                   ", ret = 0xffff0010, retOrigin = 4")};
      if (first == 1) log.insert(log.begin() + 1, "I KeyMaster: open first km session");
      if (row.FetchesRecord()) {
        log.insert(log.end(), {"I KeyMaster: ObtainTaErrorCode begin!!!",
                               "I -: KeyMaster Dfx uploadBigdata success."});
        EXPECT_EQ(Lines{"3808d171 RET=7 CMD_ID=" + id +
                        " LINE=120 FUNC=gen TAINFO= CAINFO=KEYMASTER_TS sent"},
                  Events());
      }
      EXPECT_EQ(Expected(row, log), Log());
      platform().queued.clear();
      for (Opened& opened : platform().opens) {
        if (opened.first) free(opened.block);
      }
    });
    platform().ClearRecords();
  }
}

TEST_F(TaCommand, ChecksItsArgumentsBeforeItOpensASession) {
  ForEachRow([](const Row& row, Args&) {
    for (Arg missing = 1; missing != kEnd; missing *= 2) {
      if ((row.required & missing) == 0) continue;
      SCOPED_TRACE(missing);
      Args args(row.left_out | missing);
      ExpectRefusal(row, args);
    }
  });
  ASSERT_EQ(0u, Ts_Finishcontext());
  ForEachRow([](const Row& row, Args& args) {
    ExpectRefusal(row, args);
    // The check of lengths, and export's of its output, come after that of the context.
    args.size = 0;
    if (row.id == 5) args.out = nullptr;
    EXPECT_EQ(0xFFFF0006, row.call(args));
    EXPECT_EQ(NoParams(row), Log().back());
  });
}

TEST_F(TaCommand, ChecksTheRoomForItsOutputs) {
  for (const uint32_t room : {0u, 4u, 7u, 8u}) {
    ForEachRow([&](const Row& row, Args& args) {
      args.size = room;
      if (row.id == 5 && room == 0 && row.left_out == 0) args.out = nullptr;
      if (row.id == 5 && room == 0 && row.left_out != 0) args.len = nullptr;
      const std::string message = room > 0      ? ""
                                  : row.id == 2 ? "invalid keyblob len"
                                  : row.id == 3 ? "invalid keyCharacter len"
                                  : row.id == 4 ? "invalid keyBlobLen\n"
                                  : row.id == 5 ? "pub key out is NULL\n"
                                                : "";
      const bool copy_failed = row.CopiesHandle() && room < 8;
      const bool refused = !message.empty();
      EXPECT_EQ(refused ? 0xFFFF0006 : copy_failed ? 0xFFFF0000 : 0, row.call(args));
      EXPECT_EQ(refused ? "" : (copy_failed ? kOpen : Calls(row)) + kClose, Journal());
      EXPECT_EQ(refused ? Lines{Error("[error] : " + message)} : Expected(row, {kDisable}, true),
                Log());
    });
  }
}

TEST_F(TaCommand, StepsBeforeTheInvocationFail) {
  const std::string no_session = "[error] : OpenKmSession failed, ret = 0x";
  const std::string not_opened = Error("open km session failed, ret=0xffff000e, origin=3");
  const struct {
    Call call;
    int nth;
    uint32_t result;
    std::string calls;
    Lines log;
    std::string deletion;
  } cases[] = {
      {Call::kMalloc, 1, 0xFFFF000C, "", {}, no_session + "ffff000c\n"},
      {Call::kMemsetS, 1, 0xFFFF0000, "", {}, no_session + "ffff0000\n"},
      {Call::kOpenSession, 1, 0xFFFF000E, kOpen, {kDisable, not_opened}, no_session + "ffff000e\n"},
      {Call::kMemsetS, 2, 0xFFFF0000, kOpen + kClose, {kDisable}, "operation initialize failed"}};
  for (const auto& c : cases) {
    ForEachRow([&](const Row& row, Args& args) {
      SCOPED_TRACE(&c - cases);
      FailCall(c.call, c.nth);
      ExpectFailure(c.result, row, args);
      EXPECT_EQ(c.calls, Journal());
      Lines log = c.log;
      if (row.id == 31) log.push_back(Error(c.deletion));
      if (row.id >= 64 && c.nth == 2) log.push_back(Error(row.name + " memset_s failed\n"));
      EXPECT_EQ(Expected(row, log), Log());
    });
  }
}

}  // namespace
}  // namespace test
