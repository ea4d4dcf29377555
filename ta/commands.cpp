#include "ta/commands.h"

#include <openssl/err.h>
#include <string.h>

#include <algorithm>
#include <exception>
#include <new>

#include "ta/state.h"
#include "wire/ta_protocol.h"

using namespace km41;  // the protocol's constants

namespace ta {

Session*& CurrentSession() {
  thread_local Session* session = nullptr;
  return session;
}

TEEC_Result NoteFailure(TEEC_Result code, const char* function, uint32_t line) {
  if (Session* session = CurrentSession(); session != nullptr) {
    *session = {code, line, function};
  }
  return code;
}

void Reply(ByteView bytes, TaParam* output, const char* function, uint32_t line) {
  const uint32_t capacity = output->size;
  output->size = static_cast<uint32_t>(bytes.size);
  FailIf(bytes.size > capacity, TEEC_ERROR_SHORT_BUFFER, function, line);
  if (bytes.size != 0) memcpy(output->buffer, bytes.data, bytes.size);
}

namespace {

// A command, and the types of its parameters.
struct Command {
  uint32_t id;
  Handler* handler;
  bool needs_configuration;
  uint32_t types[4];
};

// Marks a parameter that may be left out.
constexpr uint32_t kOptional = 0x10;

constexpr uint32_t kNone = TEEC_NONE;
constexpr uint32_t kValueIn = TEEC_VALUE_INPUT;
constexpr uint32_t kValueInOut = TEEC_VALUE_INOUT;
constexpr uint32_t kIn = TEEC_MEMREF_TEMP_INPUT;
constexpr uint32_t kOut = TEEC_MEMREF_TEMP_OUTPUT;
constexpr uint32_t kInOut = TEEC_MEMREF_TEMP_INOUT;
constexpr uint32_t kMayIn = kIn | kOptional;
constexpr uint32_t kMayOut = kOut | kOptional;

constexpr Command kCommands[] = {
    {kCmdConfigure, Configure, false, {kValueIn, kNone, kNone, kNone}},
    {kCmdGenerateKey, GenerateKey, true, {kIn, kNone, kOut, kMayOut}},
    {kCmdGetKeyCharacteristics, GetKeyCharacteristics, true, {kIn, kMayIn, kOut, kNone}},
    {kCmdImportKey, ImportKey, true, {kIn, kIn, kOut, kInOut}},
    {kCmdExportKey, ExportKey, true, {kIn, kMayIn, kOut, kNone}},
    {kCmdAttestKey, AttestKey, true, {kIn, kIn, kOut, kNone}},
    {kCmdUpgrade, UpgradeKey, true, {kIn, kIn, kOut, kNone}},
    {kCmdBegin, BeginOperation, true, {kIn, kMayIn, kOut, kValueInOut}},
    {kCmdUpdate, UpdateOperation, true, {kMayIn, kMayIn, kInOut, kOut}},
    {kCmdFinish, FinishOperation, true, {kMayIn, kMayIn, kInOut, kOut}},
    {kCmdAbort, AbortOperation, true, {kIn, kNone, kNone, kNone}},
    {kCmdDeleteKey, DeleteKey, false, {kIn, kNone, kNone, kNone}},
    {kCmdVerifyAuthorization, VerifyAuthorization, false, {kMayIn, kMayIn, kInOut, kOut}},
    {kCmdEarlyBootEnded, EarlyBootEnded, false, {kNone, kNone, kNone, kNone}},
    {kCmdDeviceLocked, DeviceLocked, false, {kValueIn, kNone, kNone, kNone}},
    {kCmdGetHmacSharingParameters, GetHmacSharingParameters, false, {kOut, kOut, kNone, kNone}},
    {kCmdComputeSharedHmac, ComputeSharedHmac, false, {kIn, kOut, kNone, kNone}},
    {kCmdGetErrorRecord, GetErrorRecord, false, {kOut, kNone, kNone, kNone}},
};

bool AcceptsTypes(const Command& command, uint32_t types) {
  for (uint32_t i = 0; i < 4; ++i) {
    const uint32_t given = TEEC_PARAM_TYPE_GET(types, i);
    const bool left_out = given == TEEC_NONE && (command.types[i] & kOptional) != 0;
    if (given != (command.types[i] & ~kOptional) && !left_out) return false;
  }
  return types >> 16 == 0;
}

void Dispatch(uint32_t id, uint32_t types, TaParam params[4]) {
  const Command* const end = std::end(kCommands);
  const Command* command =
      std::find_if(std::begin(kCommands), end, [id](const Command& c) { return c.id == id; });
  FailIf(command == end, TEEC_ERROR_NOT_SUPPORTED);
  FailIf(!AcceptsTypes(*command, types), TEEC_ERROR_BAD_PARAMETERS);
  SystemVersion version;
  FailIf(command->needs_configuration && !GetSystemVersion(&version),
         KM_ERROR_KEYMASTER_NOT_CONFIGURED);
  command->handler(types, params);
}

// Makes the session current while one of its commands runs, and leaves the libcrypto errors of this
// thread, which may be the caller's, as they were.
class SessionScope {
 public:
  explicit SessionScope(Session* session) {
    CurrentSession() = session;
    ERR_set_mark();
  }
  ~SessionScope() {
    ERR_pop_to_mark();
    CurrentSession() = nullptr;
  }
  SessionScope(const SessionScope&) = delete;
  SessionScope& operator=(const SessionScope&) = delete;
};

// An ordinary session is 0; a TA that keeps its first one would say so here.
constexpr uint32_t kOrdinarySession = 0;

TEEC_Result OpenSession(uint32_t, uint32_t param_types, TaParam params[4], void** session) {
  if (TEEC_PARAM_TYPE_GET(param_types, 0) == TEEC_VALUE_OUTPUT ||
      TEEC_PARAM_TYPE_GET(param_types, 0) == TEEC_VALUE_INOUT) {
    params[0].a = kOrdinarySession;
  }
  *session = new (std::nothrow) Session();
  return *session == nullptr ? TEEC_ERROR_OUT_OF_MEMORY : TEEC_SUCCESS;
}

void CloseSession(void* session) { delete static_cast<Session*>(session); }

TEEC_Result Invoke(void* session, uint32_t command, uint32_t types, TaParam params[4]) {
  const SessionScope scope(static_cast<Session*>(session));
  try {
    Dispatch(command, types, params);
    return TEEC_SUCCESS;
  } catch (const Failure& failure) {
    return failure.code;
  } catch (const std::bad_alloc&) {
    return NoteFailure(TEEC_ERROR_OUT_OF_MEMORY);
  } catch (...) {
    return NoteFailure(TEEC_ERROR_GENERIC);
  }
}

}  // namespace

ParamSet RequestOf(uint32_t types, const TaParam params[4], uint32_t index) {
  ParamSet request;
  FailIf(TEEC_PARAM_TYPE_GET(types, index) != TEEC_NONE &&
             !ParseTwoLists(InputOf(params[index]), &request, &request),
         KM_ERROR_INVALID_ARGUMENT);
  return request;
}

void GetErrorRecord(uint32_t, TaParam params[4]) {
  const Session& record = *CurrentSession();
  const ByteView name(std::string_view(record.function));
  Bytes reply;
  AppendInteger<uint32_t>(&reply, record.code);
  AppendInteger<uint32_t>(&reply, record.line);
  AppendInteger<uint32_t>(&reply, static_cast<uint32_t>(name.size));
  AppendBytes(&reply, name);
  Reply(reply, &params[0]);
}

}  // namespace ta

const TrustedApp kKeymasterTrustedApp = {
    {0x07070707,
     0x0707,
     0x0707,
     {kKeymasterTaUuidByte, kKeymasterTaUuidByte, kKeymasterTaUuidByte, kKeymasterTaUuidByte,
      kKeymasterTaUuidByte, kKeymasterTaUuidByte, kKeymasterTaUuidByte, kKeymasterTaUuidByte}},
    ta::OpenSession,
    ta::CloseSession,
    ta::Invoke,
};
