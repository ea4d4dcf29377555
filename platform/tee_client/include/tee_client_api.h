// The GlobalPlatform TEE Client API as the keymaster library is built against it: standard names
// and codes, with 32-bit reference sizes.
//
// On the host environment variables help to watch and to test a caller (docs/developing-a-hal.md):
//   TEE_HOST=process   runs the TAs in a process of their own, so that one that crashes is a
//                      TEEC_ERROR_TARGET_DEAD; in the caller's with TEE_HOST=caller, and without
//   TEE_WORKER         the program that is this process, else the tee-worker built with the library
//   TEE_TIMEOUT_MS     after so long without an answer that process is given up, and killed
//   TEE_TRACE=1|params|secrets|full   prints every command on standard error
//   TEE_FAULT="cmd=2,code=0xFFFF000C"   has commands fail as planned
// A word in TEE_HOST, TEE_TRACE or TEE_FAULT that is not understood ends the process, status 2.
#ifndef TEE_CLIENT_API_H
#define TEE_CLIENT_API_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef uint32_t TEEC_Result;

#define TEEC_SUCCESS 0x00000000u
#define TEEC_ERROR_GENERIC 0xFFFF0000u
#define TEEC_ERROR_BAD_PARAMETERS 0xFFFF0006u
#define TEEC_ERROR_BAD_STATE 0xFFFF0007u
#define TEEC_ERROR_ITEM_NOT_FOUND 0xFFFF0008u
#define TEEC_ERROR_NOT_SUPPORTED 0xFFFF000Au
#define TEEC_ERROR_OUT_OF_MEMORY 0xFFFF000Cu
#define TEEC_ERROR_BUSY 0xFFFF000Du
#define TEEC_ERROR_COMMUNICATION 0xFFFF000Eu
#define TEEC_ERROR_SECURITY 0xFFFF000Fu
#define TEEC_ERROR_SHORT_BUFFER 0xFFFF0010u
#define TEEC_ERROR_TARGET_DEAD 0xFFFF3024u

#define TEEC_ORIGIN_API 1u
#define TEEC_ORIGIN_COMMS 2u
#define TEEC_ORIGIN_TEE 3u
#define TEEC_ORIGIN_TRUSTED_APP 4u

#define TEEC_NONE 0x0u
#define TEEC_VALUE_INPUT 0x1u
#define TEEC_VALUE_OUTPUT 0x2u
#define TEEC_VALUE_INOUT 0x3u
#define TEEC_MEMREF_TEMP_INPUT 0x5u
#define TEEC_MEMREF_TEMP_OUTPUT 0x6u
#define TEEC_MEMREF_TEMP_INOUT 0x7u

#define TEEC_PARAM_TYPES(p0, p1, p2, p3) \
  ((uint32_t)(p0) | ((uint32_t)(p1) << 4) | ((uint32_t)(p2) << 8) | ((uint32_t)(p3) << 12))
#define TEEC_PARAM_TYPE_GET(types, index) (((types) >> (4u * (index))) & 0xFu)

typedef struct {
  uint32_t timeLow;
  uint16_t timeMid;
  uint16_t timeHiAndVersion;
  uint8_t clockSeqAndNode[8];
} TEEC_UUID;

typedef struct {
  void* imp;
} TEEC_Context;

typedef struct {
  void* imp;
} TEEC_Session;

typedef struct {
  void* buffer;
  uint32_t size;
} TEEC_TempMemoryReference;

typedef struct {
  uint32_t a;
  uint32_t b;
} TEEC_Value;

typedef union {
  TEEC_TempMemoryReference tmpref;
  TEEC_Value value;
} TEEC_Parameter;

typedef struct {
  uint32_t started;  // not 0: the record is filled and may be used
  uint32_t paramTypes;
  TEEC_Parameter params[4];
  // The client library's own.
  TEEC_Session* session;
  uint32_t cancel_flag;
} TEEC_Operation;

// Connects to the TEE. A null name is the default TEE, the only one here.
TEEC_Result TEEC_InitializeContext(const char* name, TEEC_Context* context);
// Releases a context and closes what is still open in it. Its sessions must not be used afterwards.
void TEEC_FinalizeContext(TEEC_Context* context);
// Opens a session to the TA of that UUID. connection_method is 0 (public) or 7 (the platform's
// own). operation and return_origin may be null; return_origin tells who made the result.
TEEC_Result TEEC_OpenSession(TEEC_Context* context, TEEC_Session* session,
                             const TEEC_UUID* destination, uint32_t connection_method,
                             const void* connection_data, TEEC_Operation* operation,
                             uint32_t* return_origin);
void TEEC_CloseSession(TEEC_Session* session);
// Runs one command of the session's TA. Output references come back with the size produced, or,
// with TEEC_ERROR_SHORT_BUFFER, with the size needed.
TEEC_Result TEEC_InvokeCommand(TEEC_Session* session, uint32_t command, TEEC_Operation* operation,
                               uint32_t* return_origin);

#ifdef __cplusplus
}
#endif

#endif  // TEE_CLIENT_API_H
