#include <string.h>

#include <algorithm>

#include "tests/platform/doubles.h"
#include "tests/platform/faults.h"

namespace test {

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
  for (unsigned i = 0; i < 4; ++i) {
    const Reply::Answer& answer = reply.answers_[i];
    const uint32_t type = TEEC_PARAM_TYPE_GET(operation->paramTypes, i);
    TEEC_TempMemoryReference& ref = operation->params[i].tmpref;
    if (type == TEEC_MEMREF_TEMP_OUTPUT || type == TEEC_MEMREF_TEMP_INOUT) {
      const Bytes bytes = answer.bytes.value_or(Bytes());
      const size_t fits = std::min<size_t>(bytes.size(), ref.size);
      if (fits > 0) memcpy(ref.buffer, bytes.data(), fits);
      ref.size = answer.size.value_or(static_cast<uint32_t>(bytes.size()));
    }
    if (answer.value && (type == TEEC_VALUE_OUTPUT || type == TEEC_VALUE_INOUT)) {
      operation->params[i].value = *answer.value;
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

Reply NextReply(const Invocation& invocation) {
  std::unique_lock<std::mutex> lock(platform().mutex);
  std::deque<Reply>& queued = platform().queued[invocation.command];
  if (!queued.empty()) {
    const Reply reply = queued.front();
    queued.pop_front();
    return reply;
  }
  const Handler handler = platform().handlers[invocation.command];
  lock.unlock();
  return handler ? handler(invocation) : Reply::Ok();
}

}  // namespace

extern "C" {

TEEC_Result TEEC_InitializeContext(const char* name, TEEC_Context* context) {
  const auto lock = Note(name == nullptr ? "init" : "init of a named TEE");
  if (TakeFault(Call::kInitContext)) return kInjectedTeeError;
  if (platform().init_result != 0) return platform().init_result;
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
  Expect(operation->started == 1, "open operation not started");
  if (return_origin != nullptr) *return_origin = TEEC_ORIGIN_TEE;
  p.opens.push_back({*operation, *destination, connection_method, connection_data, session});
  if (TakeFault(Call::kOpenSession)) return kInjectedTeeError;
  p.opens.back().open = true;
  p.opens.back().first = p.first_session == 1;
  session->imp = Token(kSessionToken + p.opens.size() - 1);
  operation->params[0].value.a = p.first_session;
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
  Invocation invocation{command, operation->paramTypes, {}, 0, operation};
  for (unsigned i = 0; i < 4; ++i) {
    invocation.params[i] = See(*operation, i);
  }
  {
    const auto lock = Note("invoke " + std::to_string(command));
    ExpectClean(*operation);
    invocation.session = SessionIndex(session);
    platform().invocations.push_back(invocation);
    platform().invocations.back().operation = nullptr;
  }
  const Reply reply = TakeFault(Call::kInvoke) ? Reply::Fail(kInjectedTeeError, TEEC_ORIGIN_COMMS)
                                               : NextReply(invocation);
  Apply(reply, operation);
  if (return_origin != nullptr) *return_origin = reply.origin;
  return reply.result;
}

}  // extern "C"
}  // namespace test
