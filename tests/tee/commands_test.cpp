// Every TA command against one table: what it sends, what it brings back, how it fails.
#include <keymaster_ts.h>
#include <string.h>

#include <algorithm>
#include <iomanip>
#include <sstream>

#include "tests/platform/keymaster_test.h"

namespace test {
namespace {

using TaCommand = KeymasterTest;

enum Arg { kParams, kKey, kInput, kInputLen, kOut, kOutLen, kOut2, kOut2Len, kHandle };

// The arguments of all commands: each takes those it knows. out2 is the second output.
struct Args {
  Args() = default;
  Args(const Args&) = delete;
  Args& operator=(const Args&) = delete;
  void Null(Arg arg) {
    if (arg == kParams) params = nullptr;
    if (arg == kKey) key = nullptr;
    if (arg == kInput) input = nullptr;
    if (arg == kInputLen) input_len = nullptr;
    if (arg == kOut) out = nullptr;
    if (arg == kOutLen) out_len = nullptr;
    if (arg == kOut2) out2 = nullptr;
    if (arg == kOut2Len) out2_len = nullptr;
    if (arg == kHandle) handle = nullptr;
  }
  const Bytes params_bytes = Ramp(1, 20), key_bytes = Ramp(40, 30), input_bytes = Ramp(90, 10);
  Bytes out_bytes = Bytes(64, 0xCC), out2_bytes = Bytes(48, 0xDD);
  uint32_t input_size = 10, out_size = 64, out2_size = 48;
  uint64_t handle_value = 0x1122334455667788;
  const uint8_t *params = params_bytes.data(), *key = key_bytes.data(), *input = input_bytes.data();
  const uint32_t* input_len = &input_size;
  uint8_t *out = out_bytes.data(), *out2 = out2_bytes.data();
  uint32_t *out_len = &out_size, *out2_len = &out2_size;
  uint64_t* handle = &handle_value;
};

uint32_t Configure(Args&) { return TeeKmConfigure(0x1111, 0x2222); }
uint32_t Generate(Args& a) {
  return TeeGenerateKey(a.params, 20, a.out, a.out_len, a.out2, a.out2_len);
}
uint32_t Characteristics(Args& a) {
  return TeeGetKeyCharacteristics(a.params, 20, a.key, 30, a.out, a.out_len);
}
uint32_t Import(Args& a) {
  return TeeImportKey(a.params, 20, a.key, 30, a.out, a.out_len, a.out2, a.out2_len, 2);
}
uint32_t Export(Args& a) { return TeeExportKey(a.params, 20, a.key, 30, a.out, a.out_len); }
uint32_t Attest(Args& a) { return TeeAttestKey(a.key, 30, a.params, 20, a.out, a.out_len); }
uint32_t Upgrade(Args& a) { return TeeUpgrade(a.key, 30, a.params, 20, a.out, a.out_len); }
uint32_t Begin(Args& a) { return TeeBegin(3, a.params, 20, a.key, 30, a.out, a.out_len, a.handle); }
uint32_t Update(Args& a) {
  return TeeUpdate(0x0102030405060708, a.params, 20, a.input, a.input_len, a.out, a.out_len, a.out2,
                   a.out2_len);
}
uint32_t Finish(Args& a) {
  const uint32_t input_len = a.input_len == nullptr ? 0 : *a.input_len;
  return TeeFinish(0x0102030405060708, a.params, 20, a.input, input_len, a.out, a.out_len, a.out2,
                   a.out2_len);
}
uint32_t Abort(Args&) { return TeeAbort(0x0102030405060708); }
uint32_t Delete(Args& a) { return TeeDeleteKey(a.key, 30); }
// The token's length is 64 bits wide; its upper half is not the TA's.
uint32_t Verify(Args& a) {
  const uint64_t before = uint64_t{5} << 32 | a.out2_size;
  uint64_t length = before;
  const uint32_t result =
      TeeVerifyAuthorization(a.params, 20, a.input, a.input_len, a.out, a.out_len, a.out2,
                             a.out2_len == nullptr ? nullptr : &length);
  EXPECT_TRUE(length == before || length >> 32 == 0);
  a.out2_size = static_cast<uint32_t>(length);
  return result;
}
uint32_t EarlyBoot(Args&) { return TeeEarlyBootEnded(); }
uint32_t Locked(Args&) { return TeeDeviceLocked(1); }
uint32_t GetHmac(Args& a) { return TeegetHmacSharingParameters(a.out, 64, a.out2, 48); }
uint32_t SharedHmac(Args& a) { return TeecomputeSharedHmac(a.params, 20, a.out, a.out_len); }
uint32_t DestroyIds(Args&) { return TeeDestroyAttestationIds(); }

enum Back { kNothing, kAsReported, kCapped, kZero };
using List = std::vector<Arg>;

struct Row {
  Row(const char* n, uint32_t i, uint32_t (*c)(Args&), List left_out, std::string s, List needed,
      Back o = kNothing, Back o2 = kNothing, bool fetches = false)
      : name(n),
        id(i),
        call(c),
        nulls(left_out),
        sent(s),
        required(needed),
        out(o),
        out2(o2),
        fetches_record(fetches) {}
  const char* name;
  uint32_t id;  // 0: no command
  uint32_t (*call)(Args&);
  List nulls;        // optional arguments left out
  std::string sent;  // see Sent below
  List required;
  Back out, out2;
  bool fetches_record;
};

std::vector<Row> Rows() {
  const std::string key_params_out = "0655 key:30 params:20 out:64 -";
  const List attest = {kOutLen, kOut, kParams, kKey};
  const Back as_is = kAsReported, none = kNothing;
  std::vector<Row> rows = {
      Row("TeeKmConfigure", 1, Configure, {}, "0001 v:1111,2222 - - -", {}),
      Row("TeeGenerateKey", 2, Generate, {}, "6605 params:20 - out:64 out2:48",
          {kOutLen, kOut, kOut2Len, kParams}, as_is, as_is, true),
      Row("TeeGenerateKey", 2, Generate, {kOut2}, "0605 params:20 - out:64 -", {kOut2Len}, as_is,
          kZero, true),
      Row("TeeGetKeyCharacteristics", 3, Characteristics, {}, key_params_out, {kOutLen, kOut, kKey},
          as_is),
      Row("TeeGetKeyCharacteristics", 3, Characteristics, {kParams}, "0605 key:30 - out:64 -", {},
          as_is),
      Row("TeeImportKey", 4, Import, {}, "7655 params:20 key:30 out:64 out2:48=02dddddddddddddd",
          {kOutLen, kOut, kOut2Len, kKey, kParams}, as_is, kCapped, true),
      Row("TeeImportKey", 4, Import, {kOut2}, "7655 params:20 key:30 out:64 null:0", {}, as_is,
          kCapped, true),
      Row("TeeExportKey", 5, Export, {}, key_params_out, {kKey}, as_is),
      Row("TeeExportKey", 5, Export, {kParams}, "0605 key:30 - out:64 -", {}, as_is),
      Row("TeeAttestKey", 6, Attest, {}, key_params_out, attest, as_is, none, true),
      Row("TeeUpgrade", 7, Upgrade, {}, key_params_out, attest, as_is, none, true),
      Row("TeeBegin", 8, Begin, {}, "3655 key:30 params:20 out:64 v:3,0",
          {kHandle, kOutLen, kOut, kKey}, as_is, none, true),
      Row("TeeBegin", 8, Begin, {kParams}, "3605 key:30 - out:64 v:3,0", {}, as_is, none, true),
      Row("TeeAbort", 11, Abort, {}, "0005 other:8=0807060504030201 - - -", {}),
      Row("TeeDeleteKey", 31, Delete, {}, "0005 key:30 - - -", {kKey}),
      Row("TeeEarlyBootEnded", 40, EarlyBoot, {}, "0000 - - - -", {}),
      Row("TeeDeviceLocked", 41, Locked, {}, "0001 v:1,0 - - -", {}),
      Row("TeegetHmacSharingParameters", 64, GetHmac, {}, "0066 out:64 out2:48 - -", {kOut, kOut2}),
      Row("TeecomputeSharedHmac", 65, SharedHmac, {}, "0065 params:20 out:64 - -",
          {kParams, kOut, kOutLen}, as_is),
      Row("TeeDestroyAttestationIds", 0, DestroyIds, {}, "", {}),
  };
  // Commands 9, 10 and 39 take the same two optional inputs and differ in what out carries.
  for (const uint32_t id : {9u, 10u, 39u}) {
    const char* name = id == 9 ? "TeeUpdate" : id == 10 ? "TeeFinish" : "TeeVerifyAuthorization";
    const auto call = id == 9 ? Update : id == 10 ? Finish : Verify;
    const std::string outputs =
        std::string(" out:64=") + (id == 39 ? "cccccccccccccccc" : "0807060504030201") + " out2:48";
    const std::pair<List, const char*> variants[] = {
        {{}, "6755 params:20 input:10"},
        {{kParams}, "6750 - input:10"},
        {{kInput}, "6705 params:20 -"},
        {{kParams, kInput}, "6700 - -"},
        {{kInputLen}, id == 10 ? "6705 params:20 -" : "6755 params:20 null:0"}};
    for (const auto& [nulls, inputs] : variants) {
      rows.push_back(Row(name, id, call, nulls, inputs + outputs, {kOut2Len, kOut2, kOutLen, kOut},
                         kCapped, as_is));
    }
  }
  return rows;
}

// Sent prints an invocation: its types, then each parameter as "-", "v:a,b" or "buffer:size"; of
// an in/out or unknown buffer also its first 8 bytes.
std::string Sent(const Invocation& seen, const Args& args) {
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
    const char* name = p.buffer == nullptr       ? "null"
                       : p.buffer == args.params ? "params"
                       : p.buffer == args.key    ? "key"
                       : p.buffer == args.input  ? "input"
                       : p.buffer == args.out    ? "out"
                       : p.buffer == args.out2   ? "out2"
                                                 : "other";
    out << " " << name << ":" << std::dec << p.size << std::hex;
    if (p.in.size() < 8 || (type != TEEC_MEMREF_TEMP_INOUT && strcmp(name, "other") != 0)) continue;
    out << "=";
    for (size_t b = 0; b < 8; ++b) out << std::setw(2) << unsigned{p.in[b]};
  }
  return out.str();
}

constexpr char kOpen[] = "zubrel_init, [OpenKmSession, open, OpenKmSession]";
constexpr char kClose[] = ", [CloseKmSession, close, CloseKmSession]";
constexpr char kDisable[] = "I KeyMaster: Disable the enhanced crypto!\n";

std::string Calls(const Row& row) {
  if (row.id == 0) return kOpen;
  const std::string invoke = "invoke " + std::to_string(row.id), name = row.name;
  if (row.id == 31) return std::string(kOpen) + ", " + invoke;
  return std::string(kOpen) + ", [" + name + ", " + invoke + ", " + name + "]";
}

std::string Error(const std::string& text) { return "E KeyMaster: " + text; }

std::string NoParams(const Row& row) {
  const bool short_form = row.id == 9 || row.id == 10 || row.id == 39;
  return Error(short_form ? "[error] : invalid params" : "[error] : invalid parameters");
}

// The lines of a call of row: command 6 says that it begins, and, where it gets there, its end.
Lines Expected(const Row& row, Lines lines, bool success = false) {
  if (row.id == 6) lines.insert(lines.begin(), "I KeyMaster: TEE_AttestKey entered.\n");
  if (row.id == 6 && success) lines.push_back("I KeyMaster: TEE_AttestKey success.\n");
  return lines;
}

uint32_t After(Back back, uint32_t before, uint32_t reported) {
  if (back == kNothing) return before;
  if (back == kZero) return 0;
  return back == kCapped ? std::min(reported, 4096u) : reported;
}

// Runs body(row, args) on a clean slate for every row.
template <typename Body>
void ForEachRow(Body body) {
  for (const Row& row : Rows()) {
    SCOPED_TRACE(std::string(row.name) + " " + row.sent);
    platform().ClearRecords();
    Args args;
    for (const Arg arg : row.nulls) args.Null(arg);
    body(row, args);
    ClearFaults();
  }
}

// After a failure nothing has come back, and all that was opened is closed.
void ExpectUntouched(const Args& args) {
  EXPECT_EQ(64u, args.out_size);
  EXPECT_EQ(48u, args.out2_size);
  EXPECT_EQ(0x1122334455667788u, args.handle_value);
  for (const Opened& opened : platform().opens) EXPECT_FALSE(opened.open && !opened.first);
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
      EXPECT_EQ(After(row.out, 64, reported), args.out_size);
      EXPECT_EQ(After(row.out2, 48, reported), args.out2_size);
      EXPECT_EQ(row.id == 8 ? 0x0123456789ABCDEF : 0x1122334455667788, args.handle_value);
      ASSERT_EQ(row.id == 0 ? 0u : 1u, platform().invocations.size());
      EXPECT_EQ(row.sent, row.id == 0 ? "" : Sent(platform().invocations[0], args));
    });
  }
}

TEST_F(TaCommand, AFailureIsReportedAndBringsNothingBack) {
  const std::string record_begin = "I KeyMaster: ObtainTaErrorCode begin!!!";
  const Bytes record = Cat({Le32(7), Le32(120), Le32(3), Text("gen")});
  for (const uint32_t first : {0u, 1u, 2u}) {
    platform().first_session = first;
    ForEachRow([&](const Row& row, Args& args) {
      if (row.id == 0) return;
      Reply reply = Reply::Fail(0xFFFF0010, 4).Value(3, 1, 2);
      for (int i = 0; i < 4; ++i) reply.Size(i, 9000);
      platform().Queue(row.id, reply);
      platform().Queue(66, Reply::Ok().Out(0, record));
      EXPECT_EQ(0xFFFF0010, row.call(args));
      ExpectUntouched(args);
      EXPECT_EQ(Calls(row) + (row.fetches_record ? ", invoke 66, event" : "") +
                    (first == 1 ? "" : kClose),
                Journal());
      Lines log = {kDisable, Error("invoke km command failed, cmd = " + std::to_string(row.id) +
                                   ", ret = 0xffff0010, retOrigin = 4")};
      if (first == 1) log.insert(log.begin() + 1, "I KeyMaster: open first km session");
      if (row.fetches_record) {
        log.insert(log.end(), {record_begin, "I -: KeyMaster Dfx uploadBigdata success."});
        const std::string event = "3808d171 RET=7 CMD_ID=" + std::to_string(row.id);
        EXPECT_EQ(Lines{event + " LINE=120 FUNC=gen TAINFO= CAINFO=KEYMASTER_TS sent"}, Events());
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
    for (const Arg missing : row.required) {
      SCOPED_TRACE(missing);
      platform().ClearRecords();
      Args args;
      for (const Arg arg : row.nulls) args.Null(arg);
      args.Null(missing);
      EXPECT_EQ(0xFFFF0006, row.call(args));
      ExpectUntouched(args);
      EXPECT_EQ("", Journal());
      EXPECT_EQ(Expected(row, {NoParams(row)}), Log());
    }
  });
  ASSERT_EQ(0u, Ts_Finishcontext());
  ForEachRow([](const Row& row, Args& args) {
    EXPECT_EQ(0xFFFF0006, row.call(args));
    ExpectUntouched(args);
    EXPECT_EQ("", Journal());
    EXPECT_EQ(Expected(row, {NoParams(row)}), Log());
    // The check of lengths, and export's of its output, come after that of the context.
    args.out_size = 0;
    if (row.id == 5) args.Null(kOut);
    EXPECT_EQ(0xFFFF0006, row.call(args));
    EXPECT_EQ(NoParams(row), Log().back());
  });
}

TEST_F(TaCommand, ChecksEmptyOutputs) {
  ForEachRow([](const Row& row, Args& args) {
    const std::string message = row.id == 2   ? "invalid keyblob len"
                                : row.id == 3 ? "invalid keyCharacter len"
                                : row.id == 4 ? "invalid keyBlobLen\n"
                                : row.id == 5 ? "pub key out is NULL\n"
                                              : "";
    args.out_size = 0;
    if (row.id == 5) args.Null(args.params == nullptr ? kOut : kOutLen);
    const bool copies_handle = row.id == 9 || row.id == 10;
    const uint32_t expected = !message.empty() ? 0xFFFF0006 : copies_handle ? 0xFFFF0000 : 0;
    EXPECT_EQ(expected, row.call(args));
    EXPECT_EQ(message.empty() || copies_handle, !platform().opens.empty());
    EXPECT_EQ(expected == 0 && row.id != 0, !platform().invocations.empty());
    EXPECT_EQ(message.empty() ? Expected(row, {kDisable}, expected == 0)
                              : Lines{Error("[error] : " + message)},
              Log());
  });
}

TEST_F(TaCommand, TheHandleNeedsEightBytes) {
  for (const uint32_t capacity : {0u, 4u, 7u, 8u}) {
    ForEachRow([&](const Row& row, Args& args) {
      if (row.id != 9 && row.id != 10) return;
      args.out_size = capacity;
      EXPECT_EQ(capacity < 8 ? 0xFFFF0000 : 0, row.call(args));
      EXPECT_EQ(capacity < 8 ? kOpen + std::string(kClose) : Calls(row) + kClose, Journal());
      EXPECT_EQ(Lines{kDisable}, Log());
    });
  }
}

TEST_F(TaCommand, StepsBeforeTheInvocationFail) {
  const struct {
    Call call;
    int nth;
    uint32_t result;
    std::string calls;
    Lines log;
  } cases[] = {
      {Call::kMalloc, 1, 0xFFFF000C, "", {}},
      {Call::kMemsetS, 1, 0xFFFF0000, "", {}},
      {Call::kMemsetS, 2, 0xFFFF0000, kOpen + std::string(kClose), {kDisable}},
      {Call::kOpenSession,
       1,
       kInjectedTeeError,
       kOpen,
       {kDisable, Error("open km session failed, ret=0xffff000e, origin=3")}},
  };
  for (const auto& c : cases) {
    ForEachRow([&](const Row& row, Args& args) {
      SCOPED_TRACE(static_cast<int>(c.call));
      FailCall(c.call, c.nth);
      EXPECT_EQ(c.result, row.call(args));
      ExpectUntouched(args);
      EXPECT_EQ(c.calls, Journal());
      Lines log = c.log;
      const bool cleared_failed = c.call == Call::kMemsetS && c.nth == 2;
      std::ostringstream open_failed;
      open_failed << "[error] : OpenKmSession failed, ret = 0x" << std::hex << c.result << "\n";
      if (row.id == 31 && !cleared_failed) log.push_back(Error(open_failed.str()));
      if (row.id == 31 && cleared_failed) log.push_back(Error("operation initialize failed"));
      if (row.id >= 64 && cleared_failed) {
        log.push_back(Error(std::string(row.name) + " memset_s failed\n"));
      }
      EXPECT_EQ(Expected(row, log), Log());
    });
  }
}

}  // namespace
}  // namespace test
