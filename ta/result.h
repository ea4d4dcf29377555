// Results of the TA's commands, and the session that keeps a record of its last failure.
#ifndef TA_RESULT_H
#define TA_RESULT_H

#include <hardware/keymaster_defs.h>
#include <tee_client_api.h>
#include <trusted_app.h>

#include "ta/bytes.h"

namespace ta {

// A Failure is thrown to end the command that runs, with that result.
struct Failure {
  TEEC_Result code;
};

// One open session of the TA: where and with which code it last failed; code 0 while it has not.
struct Session {
  uint32_t code = 0;
  uint32_t line = 0;
  const char* function = "";  // a string literal
};

// CurrentSession is the session whose command runs on this thread; null outside of commands.
// NoteFailure records there.
Session*& CurrentSession();

// NoteFailure returns the code after noting it, with the caller's name and line, in the current
// session.
TEEC_Result NoteFailure(TEEC_Result code, const char* function = __builtin_FUNCTION(),
                        uint32_t line = static_cast<uint32_t>(__builtin_LINE()));
// Fail notes a failure and throws it. A keymaster error travels as the TA's result code: its 32
// bits, unchanged.
template <typename Code>
[[noreturn]] void Fail(Code code, const char* function = __builtin_FUNCTION(),
                       uint32_t line = static_cast<uint32_t>(__builtin_LINE())) {
  throw Failure{NoteFailure(static_cast<TEEC_Result>(code), function, line)};
}
// FailIf fails if the condition holds.
template <typename Code>
void FailIf(bool condition, Code code, const char* function = __builtin_FUNCTION(),
            uint32_t line = static_cast<uint32_t>(__builtin_LINE())) {
  if (condition) Fail(code, function, line);
}

// InputOf views an input reference's bytes.
inline ByteView InputOf(const TaParam& param) { return ByteView(param.buffer, param.size); }
// Reply copies bytes into an output reference and sets its length. A reference too small gets the
// length needed and fails with TEEC_ERROR_SHORT_BUFFER.
void Reply(ByteView bytes, TaParam* output, const char* function = __builtin_FUNCTION(),
           uint32_t line = static_cast<uint32_t>(__builtin_LINE()));

}  // namespace ta

#endif  // TA_RESULT_H
