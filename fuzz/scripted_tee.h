// A TEE client whose every answer a target makes up.
#ifndef FUZZ_SCRIPTED_TEE_H
#define FUZZ_SCRIPTED_TEE_H

#include <tee_client_api.h>

#include <functional>
#include <set>

#include "fuzz/input.h"

namespace fuzz {

// TeeScript answers for the TEE; an empty function is a plain success.
struct TeeScript {
  std::function<TEEC_Result()> initialize;
  std::function<TEEC_Result(TEEC_Operation*)> open;
  std::function<TEEC_Result(uint32_t command, TEEC_Operation*)> invoke;
};
TeeScript& tee();

// TeeRecord is what a request has met since it was last cleared.
struct TeeRecord {
  std::set<uint32_t> failures;  // codes, without those of commands whose results nobody gets
  int answers = 0;              // commands that succeeded
  int aborts = 0;               // operations that the TA was told to end
};
TeeRecord& tee_record();

// Sessions that were opened and are not closed.
size_t OpenSessions();
// Frees what the library keeps of the sessions that the TA marked as its first, and forgets them.
void DropFirstSessions();

// Write writes as many of the bytes as there is room for and reports their number.
void Write(const Bytes& bytes, TEEC_TempMemoryReference* output);
// AnswerWith answers one command with these bytes in params[index], and has all others succeed.
void AnswerWith(uint32_t command, unsigned index, Bytes bytes);
// EnsureTeeContext makes the TEE context once.
void EnsureTeeContext();

inline bool IsOutput(uint32_t types, unsigned index) {
  return TEEC_PARAM_TYPE_GET(types, index) >= TEEC_MEMREF_TEMP_OUTPUT;
}

}  // namespace fuzz

#endif  // FUZZ_SCRIPTED_TEE_H
