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

bool IsZero(const void* data, size_t length) {
  const uint8_t* bytes = static_cast<const uint8_t*>(data);
  return std::all_of(bytes, bytes + length, [](uint8_t byte) { return byte == 0; });
}

// NoteDirt looks for what no operation may carry: fields that its types do not name, the
// client library's own part, or a missing start.
void NoteDirt(const TEEC_Operation& operation) {
  bool clean = operation.started == 1 && operation.session == nullptr && !operation.cancel_flag;
  for (unsigned i = 0; i < 4; ++i) {
    if (TEEC_PARAM_TYPE_GET(operation.paramTypes, i) == TEEC_NONE) {
      clean = clean && IsZero(&operation.params[i], sizeof(operation.params[i]));
    }
  }
  if (!clean) platform().problems.push_back("operation not cleared or not started");
}

SeenParam See(const TEEC_Operation& operation, unsigned index) {
  SeenParam seen;
  const TEEC_Parameter& param = operation.params[index];
  const uint32_t type = TEEC_PARAM_TYPE_GET(operation.paramTypes, index);
  if (type >= TEEC_VALUE_INPUT && type <= TEEC_VALUE_INOUT) seen.value = param.value;
  if (type < TEEC_MEMREF_TEMP_INPUT) return seen;
  seen.buffer = param.tmpref.buffer;
  seen.size = param.tmpref.size;
  const uint8_t* bytes = static_cast<const uint8_t*>(seen.buffer);
  if (type != TEEC_MEMREF_TEMP_OUTPUT && bytes != nullptr) seen.in.assign(bytes, bytes + seen.size);
  return seen;
}

// SessionIndex finds the open record of a session that is open; opens.size() if there is none.
size_t SessionIndex(const TEEC_Session* session) {
  Platform& p = platform();
  const size_t index = reinterpret_cast<uintptr_t>(session->imp) - kSessionToken;
  if (index < p.opens.size() && p.opens[index].open) return index;
  p.problems.push_back("call on a session that is not open");
  return p.opens.size();
}

Reply NextReply(const Invocation& invocation) {
  Platform& p = platform();
  Handler handler;
  {
    const std::lock_guard<std::mutex> lock(p.mutex);
    const auto queued = p.queued.find(invocation.command);
    if (queued != p.queued.end() && !queued->second.empty()) {
      Reply reply = queued->second.front();
      queued->second.pop_front();
      return reply;
    }
    const auto found = p.handlers.find(invocation.command);
    if (found != p.handlers.end()) handler = found->second;
  }
  return handler ? handler(invocation) : Reply::Ok();
}

}  // namespace
}  // namespace test

using test::platform;

extern "C" TEEC_Result TEEC_InitializeContext(const char* name, TEEC_Context* context) {
  test::Platform& p = platform();
  const std::lock_guard<std::mutex> lock(p.mutex);
  p.journal.push_back(name == nullptr ? "init" : "init of a named TEE");
  if (test::TakeFault(test::Call::kInitContext)) return test::kInjectedTeeError;
  if (p.init_result != 0) return p.init_result;
  context->imp = test::Token(test::kContextToken);
  ++p.live_contexts;
  return 0;
}

extern "C" void TEEC_FinalizeContext(TEEC_Context* context) {
  test::Platform& p = platform();
  const std::lock_guard<std::mutex> lock(p.mutex);
  p.journal.push_back("finalize");
  if (context->imp != test::Token(test::kContextToken)) p.problems.push_back("unknown context");
  context->imp = nullptr;
  --p.live_contexts;
}

extern "C" TEEC_Result TEEC_OpenSession(TEEC_Context* context, TEEC_Session* session,
                                        const TEEC_UUID* destination, uint32_t connection_method,
                                        const void* connection_data, TEEC_Operation* operation,
                                        uint32_t* return_origin) {
  test::Platform& p = platform();
  const std::lock_guard<std::mutex> lock(p.mutex);
  p.journal.push_back("open");
  if (context->imp != test::Token(test::kContextToken)) p.problems.push_back("unknown context");
  if (operation->started != 1) p.problems.push_back("open operation not started");
  test::Opened opened;
  opened.operation = *operation;
  opened.uuid = *destination;
  opened.method = connection_method;
  opened.connection_data = connection_data;
  if (return_origin != nullptr) *return_origin = p.open_origin;
  TEEC_Result result = p.open_result;
  if (test::TakeFault(test::Call::kOpenSession)) result = test::kInjectedTeeError;
  if (result == 0) {
    opened.block = session;
    opened.open = true;
    opened.first = p.first_session == 1;
    session->imp = test::Token(test::kSessionToken + p.opens.size());
    operation->params[0].value.a = p.first_session;
  }
  p.opens.push_back(opened);
  return result;
}

extern "C" void TEEC_CloseSession(TEEC_Session* session) {
  test::Platform& p = platform();
  const std::lock_guard<std::mutex> lock(p.mutex);
  p.journal.push_back("close");
  const size_t index = test::SessionIndex(session);
  if (index == p.opens.size()) return;
  if (p.opens[index].first) p.problems.push_back("first session closed");
  p.opens[index].open = false;
  session->imp = nullptr;
}

extern "C" TEEC_Result TEEC_InvokeCommand(TEEC_Session* session, uint32_t command,
                                          TEEC_Operation* operation, uint32_t* return_origin) {
  test::Platform& p = platform();
  test::Invocation invocation;
  invocation.command = command;
  invocation.param_types = operation->paramTypes;
  for (unsigned i = 0; i < 4; ++i) invocation.params[i] = test::See(*operation, i);
  {
    const std::lock_guard<std::mutex> lock(p.mutex);
    p.journal.push_back("invoke " + std::to_string(command));
    test::NoteDirt(*operation);
    invocation.session = test::SessionIndex(session);
    p.invocations.push_back(invocation);
  }
  const test::Reply reply = test::TakeFault(test::Call::kInvoke)
                                ? test::Reply::Fail(test::kInjectedTeeError, TEEC_ORIGIN_COMMS)
                                : test::NextReply(invocation);
  test::Apply(reply, operation);
  if (return_origin != nullptr) *return_origin = reply.origin;
  return reply.result;
}
