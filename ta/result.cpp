#include "result.h"

#include <string.h>

namespace ta {

Session*& CurrentSession() {
  thread_local Session* session = nullptr;
  return session;
}

TEEC_Result Fail(TEEC_Result code, const char* function, uint32_t line) {
  if (Session* session = CurrentSession(); session != nullptr) {
    session->last_error = {code, line, function};
  }
  return code;
}

TEEC_Result Fail(keymaster_error_t code, const char* function, uint32_t line) {
  return Fail(KmResult(code), function, line);
}

TEEC_Result Reply(ByteView bytes, TaParam* output, const char* function, uint32_t line) {
  const uint32_t capacity = output->size;
  output->size = static_cast<uint32_t>(bytes.size);
  if (bytes.size > capacity) return Fail(TEEC_ERROR_SHORT_BUFFER, function, line);
  if (bytes.size != 0) memcpy(output->buffer, bytes.data, bytes.size);
  return TEEC_SUCCESS;
}

}  // namespace ta
