#include "ta/result.h"

#include <string.h>

namespace ta {

Session*& CurrentSession() {
  thread_local Session* session = nullptr;
  return session;
}

TEEC_Result NoteFailure(TEEC_Result code, const char* function, uint32_t line) {
  if (Session* session = CurrentSession(); session != nullptr) {
    session->last_error = {code, line, function};
  }
  return code;
}

void Fail(TEEC_Result code, const char* function, uint32_t line) {
  throw Failure{NoteFailure(code, function, line)};
}

void Fail(keymaster_error_t code, const char* function, uint32_t line) {
  Fail(static_cast<TEEC_Result>(code), function, line);
}

void Reply(ByteView bytes, TaParam* output, const char* function, uint32_t line) {
  const uint32_t capacity = output->size;
  output->size = static_cast<uint32_t>(bytes.size);
  FailIf(bytes.size > capacity, TEEC_ERROR_SHORT_BUFFER, function, line);
  if (bytes.size != 0) memcpy(output->buffer, bytes.data, bytes.size);
}

}  // namespace ta
