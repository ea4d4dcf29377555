#include <string.h>

#include <algorithm>
#include <atomic>
#include <climits>

#include "tests/platform/doubles.h"

namespace test {
namespace {

struct Fault {
  std::atomic<int> calls{0}, first{0}, last{0};
};

Fault& FaultOf(Call call) {
  static Fault faults[static_cast<size_t>(Call::kEnd)];
  return faults[static_cast<size_t>(call)];
}

}  // namespace

void FailCall(Call call, int nth, bool and_later) {
  FaultOf(call).calls = 0;
  FaultOf(call).first = nth;
  FaultOf(call).last = and_later ? INT_MAX : nth;
}

int CallCount(Call call) { return FaultOf(call).calls; }

void ClearFaults() {
  for (size_t i = 0; i < static_cast<size_t>(Call::kEnd); ++i) {
    FailCall(static_cast<Call>(i), 0);
  }
}

bool TakeFault(Call call) {
  Fault& fault = FaultOf(call);
  const int now = ++fault.calls;
  return fault.first <= now && now <= fault.last;
}

Platform& platform() {
  static Platform instance;
  return instance;
}

void Platform::Reset() {
  ClearFaults();
  ClearRecords();
  static_cast<Script&>(*this) = Script();
}

std::unique_lock<std::mutex> Note(const std::string& entry) {
  std::unique_lock<std::mutex> lock(platform().mutex);
  if (!entry.empty()) platform().journal.push_back(entry);
  return lock;
}

void Apply(const Reply& reply, TEEC_Operation* operation) {
  static const Bytes kNothing;
  for (unsigned i = 0; i < 4; ++i) {
    const uint32_t type = TEEC_PARAM_TYPE_GET(operation->paramTypes, i);
    TEEC_TempMemoryReference& ref = operation->params[i].tmpref;
    if (type == TEEC_MEMREF_TEMP_OUTPUT || type == TEEC_MEMREF_TEMP_INOUT) {
      const auto output = reply.outputs.find(i);
      const Bytes& bytes = output == reply.outputs.end() ? kNothing : output->second;
      const size_t fits = std::min<size_t>(bytes.size(), ref.size);
      if (fits > 0) memcpy(ref.buffer, bytes.data(), fits);
      const auto size = reply.sizes.find(i);
      ref.size = size == reply.sizes.end() ? static_cast<uint32_t>(bytes.size()) : size->second;
    } else if ((type == TEEC_VALUE_OUTPUT || type == TEEC_VALUE_INOUT) && reply.values.count(i)) {
      operation->params[i].value = reply.values.at(i);
    }
  }
}

namespace {

// The sessions' values are tokens that no other code can make up by chance.
constexpr uintptr_t kSessionToken = 0x5E55000;
constexpr uintptr_t kContextToken = 0xC0117;

void* Token(uintptr_t value) { return reinterpret_cast<void*>(value); }

void Expect(bool good, const char* problem) {
  if (!good) platform().problems.push_back(problem);
}

// ExpectClean looks for what no operation may carry: fields that its types do not name, the
// client library's own part, or a missing start.
void ExpectClean(const TEEC_Operation& operation) {
  bool clean = operation.started == 1 && operation.session == nullptr && !operation.cancel_flag;
  for (unsigned i = 0; i < 4; ++i) {
    const TEEC_TempMemoryReference& ref = operation.params[i].tmpref;  // covers a value, too
    clean = clean && (TEEC_PARAM_TYPE_GET(operation.paramTypes, i) != TEEC_NONE ||
                      (ref.buffer == nullptr && ref.size == 0));
  }
  Expect(clean, "operation not cleared or not started");
}

SeenParam See(const TEEC_Operation& operation, unsigned index) {
  SeenParam seen;
  const TEEC_Parameter& param = operation.params[index];
  const uint32_t type = TEEC_PARAM_TYPE_GET(operation.paramTypes, index);
  if (type >= TEEC_VALUE_INPUT && type <= TEEC_VALUE_INOUT) seen.value = param.value;
  if (type < TEEC_MEMREF_TEMP_INPUT) return seen;
  seen.buffer = param.tmpref.buffer;
  seen.size = param.tmpref.size;
  platform().CheckBound(seen.buffer, seen.size);
  const uint8_t* bytes = static_cast<const uint8_t*>(seen.buffer);
  if (type != TEEC_MEMREF_TEMP_OUTPUT && bytes != nullptr) seen.in.assign(bytes, bytes + seen.size);
  return seen;
}

// SessionIndex finds the open record of a session that is open; opens.size() if there is none.
size_t SessionIndex(const TEEC_Session* session) {
  const std::vector<Opened>& opens = platform().opens;
  const size_t index = reinterpret_cast<uintptr_t>(session->imp) - kSessionToken;
  const bool open = index < opens.size() && opens[index].open;
  Expect(open, "call on a session that is not open");
  return open ? index : opens.size();
}

TEEC_Result Answered(uint32_t command, TEEC_Result result) {
  platform().answers.emplace_back(command, result);
  return result;
}

Reply NextReply(const Invocation& invocation) {
  std::unique_lock<std::mutex> lock(platform().mutex);
  const auto queued = platform().queued.find(invocation.command);
  if (queued != platform().queued.end() && !queued->second.empty()) {
    Reply reply = std::move(queued->second.front());
    queued->second.pop_front();
    return reply;
  }
  const auto found = platform().handlers.find(invocation.command);
  const Handler handler = found != platform().handlers.end() ? found->second : platform().any;
  lock.unlock();
  return handler ? handler(invocation) : Reply::Ok();
}

}  // namespace

extern "C" {

TEEC_Result TEEC_InitializeContext(const char* name, TEEC_Context* context) {
  const auto lock = Note(name == nullptr ? "init" : "init of a named TEE");
  Reply reply = platform().init ? platform().init() : Reply::Ok();
  if (TakeFault(Call::kInitContext)) reply.result = kInjectedTeeError;
  if (Answered(0, reply.result) != 0) return reply.result;
  context->imp = Token(kContextToken);
  ++platform().live_contexts;
  return 0;
}

void TEEC_FinalizeContext(TEEC_Context* context) {
  const auto lock = Note("finalize");
  Expect(context->imp == Token(kContextToken), "unknown context");
  context->imp = nullptr;
  --platform().live_contexts;
}

TEEC_Result TEEC_OpenSession(TEEC_Context* context, TEEC_Session* session,
                             const TEEC_UUID* destination, uint32_t connection_method,
                             const void* connection_data, TEEC_Operation* operation,
                             uint32_t* return_origin) {
  const auto lock = Note("open");
  Platform& p = platform();
  Expect(context->imp == Token(kContextToken), "unknown context");
  TEEC_Operation usual;
  memset(&usual, 0, sizeof(usual));
  usual.started = 1;
  usual.paramTypes = TEEC_PARAM_TYPES(TEEC_VALUE_OUTPUT, TEEC_VALUE_INPUT, TEEC_MEMREF_TEMP_INPUT,
                                      TEEC_MEMREF_TEMP_INPUT);
  Expect(memcmp(operation, &usual, sizeof(usual)) == 0, "open operation not as usual");
  Expect(memcmp(destination, Bytes(16, 7).data(), 16) == 0, "session of another TA");
  Expect(connection_method == 7 && connection_data == nullptr, "session opened by another method");
  if (return_origin != nullptr) *return_origin = TEEC_ORIGIN_TEE;
  p.opens.push_back({session});
  Reply reply = p.open ? p.open() : Reply::Ok();
  if (TakeFault(Call::kOpenSession)) reply.result = kInjectedTeeError;
  Apply(reply, operation);
  if (Answered(0, reply.result) != 0) return reply.result;
  p.opens.back().open = true;
  p.opens.back().first = operation->params[0].value.a == 1;
  session->imp = Token(kSessionToken + p.opens.size() - 1);
  return 0;
}

void TEEC_CloseSession(TEEC_Session* session) {
  const auto lock = Note("close");
  const size_t index = SessionIndex(session);
  if (index == platform().opens.size()) return;
  Expect(!platform().opens[index].first, "first session closed");
  platform().opens[index].open = false;
  session->imp = nullptr;
}

TEEC_Result TEEC_InvokeCommand(TEEC_Session* session, uint32_t command, TEEC_Operation* operation,
                               uint32_t* return_origin) {
  Invocation seen{command, operation->paramTypes, {}, 0, operation};
  for (unsigned i = 0; i < 4; ++i) {
    seen.params[i] = See(*operation, i);
  }
  std::unique_lock<std::mutex> lock = Note("invoke " + std::to_string(command));
  ExpectClean(*operation);
  seen.session = SessionIndex(session);
  lock.unlock();
  const Reply reply = TakeFault(Call::kInvoke) ? Reply::Fail(kInjectedTeeError, TEEC_ORIGIN_COMMS)
                                               : NextReply(seen);
  Apply(reply, operation);
  if (return_origin != nullptr) *return_origin = reply.origin;
  lock.lock();
  platform().invocations.push_back(std::move(seen));
  return Answered(command, reply.result);
}

}  // extern "C"
}  // namespace test
