#include "fuzz/scripted_tee.h"

#include <keymaster_ts.h>
#include <string.h>

#include <utility>

#include "wire/ta_protocol.h"

namespace fuzz {
namespace {

std::set<TEEC_Session*> g_open;
std::set<TEEC_Session*> g_first;
bool g_context = false;

// Reads what the TA is given. A reference may be empty but not null, or the other way about.
void CheckReferences(const TEEC_Operation& operation) {
  for (unsigned i = 0; i < 4; ++i) {
    const TEEC_TempMemoryReference& ref = operation.params[i].tmpref;
    if (TEEC_PARAM_TYPE_GET(operation.paramTypes, i) >= TEEC_MEMREF_TEMP_INPUT &&
        ref.buffer != nullptr && ref.size != 0) {
      CheckReadable(ref.buffer, ref.size);
    }
  }
}

TEEC_Result Recorded(TEEC_Result result) {
  if (result != TEEC_SUCCESS) tee_record().failures.insert(result);
  return result;
}

}  // namespace

TeeScript& tee() {
  static TeeScript script;
  return script;
}

TeeRecord& tee_record() {
  static TeeRecord record;
  return record;
}

size_t OpenSessions() { return g_open.size(); }

void DropFirstSessions() {
  for (TEEC_Session* session : g_first) {
    free(session);
  }
  g_first.clear();
}

void Write(const Bytes& bytes, TEEC_TempMemoryReference* output) {
  const size_t count = std::min<size_t>(bytes.size(), output->size);
  if (count != 0 && output->buffer != nullptr) memcpy(output->buffer, bytes.data(), count);
  output->size = static_cast<uint32_t>(count);
}

void AnswerWith(uint32_t command, unsigned index, Bytes bytes) {
  tee().invoke = [command, index, bytes = std::move(bytes)](uint32_t id,
                                                            TEEC_Operation* operation) {
    for (unsigned i = 0; i < 4; ++i) {
      if (IsOutput(operation->paramTypes, i)) {
        Write(id == command && i == index ? bytes : Bytes(), &operation->params[i].tmpref);
      }
    }
    return TEEC_SUCCESS;
  };
}

void EnsureTeeContext() {
  if (!g_context) Check(Ts_Initcontext() == TEEC_SUCCESS, "a TEE context");
}

}  // namespace fuzz

using fuzz::Check;

extern "C" {

TEEC_Result TEEC_InitializeContext(const char*, TEEC_Context*) {
  const TEEC_Result result = fuzz::tee().initialize ? fuzz::tee().initialize() : TEEC_SUCCESS;
  fuzz::g_context |= result == TEEC_SUCCESS;
  return fuzz::Recorded(result);
}

void TEEC_FinalizeContext(TEEC_Context*) {
  Check(fuzz::g_context, "only a context that exists is finalised");
  fuzz::g_context = false;
}

TEEC_Result TEEC_OpenSession(TEEC_Context*, TEEC_Session* session, const TEEC_UUID*, uint32_t,
                             const void*, TEEC_Operation* operation, uint32_t* origin) {
  Check(fuzz::g_context, "sessions need a context");
  *origin = TEEC_ORIGIN_TRUSTED_APP;
  const TEEC_Result result = fuzz::tee().open ? fuzz::tee().open(operation) : TEEC_SUCCESS;
  if (result == TEEC_SUCCESS) {
    const bool first = operation->params[0].value.a == km41::kFirstSession;
    auto& sessions = first ? fuzz::g_first : fuzz::g_open;
    Check(sessions.insert(session).second, "a session block is used once");
  }
  return fuzz::Recorded(result);
}

void TEEC_CloseSession(TEEC_Session* session) {
  Check(fuzz::g_open.erase(session) == 1, "only an open session is closed");
}

TEEC_Result TEEC_InvokeCommand(TEEC_Session* session, uint32_t command, TEEC_Operation* operation,
                               uint32_t* origin) {
  Check(fuzz::g_open.count(session) + fuzz::g_first.count(session) == 1, "the session is open");
  fuzz::CheckReferences(*operation);
  *origin = TEEC_ORIGIN_TRUSTED_APP;
  const TEEC_Result result =
      fuzz::tee().invoke ? fuzz::tee().invoke(command, operation) : TEEC_SUCCESS;
  const bool nobody_asks = command == km41::kCmdGetErrorRecord || command == km41::kCmdAbort;
  fuzz::tee_record().aborts += command == km41::kCmdAbort;
  fuzz::tee_record().answers += result == TEEC_SUCCESS && command != km41::kCmdGetErrorRecord;
  return nobody_asks ? result : fuzz::Recorded(result);
}

}  // extern "C"
