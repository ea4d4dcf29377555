#include "commands.h"

#include <string.h>

#include <algorithm>
#include <exception>
#include <new>

#include "state.h"
#include "tee/ta_protocol.h"

namespace ta {
namespace {

using Handler = TEEC_Result (*)(uint32_t types, TaParam params[4]);

// A command and the parameter types that it may come with; unused places hold kNoTypes.
struct Command {
  uint32_t id;
  Handler handler;
  bool needs_configuration;
  uint32_t types[4];
};

constexpr uint32_t kNoTypes = 0xFFFFFFFFu;

constexpr uint32_t Types(uint32_t p0, uint32_t p1 = TEEC_NONE, uint32_t p2 = TEEC_NONE,
                         uint32_t p3 = TEEC_NONE) {
  return TEEC_PARAM_TYPES(p0, p1, p2, p3);
}

constexpr uint32_t kIn = TEEC_MEMREF_TEMP_INPUT;
constexpr uint32_t kOut = TEEC_MEMREF_TEMP_OUTPUT;
constexpr uint32_t kInOut = TEEC_MEMREF_TEMP_INOUT;
constexpr uint32_t kNone = TEEC_NONE;

constexpr Command kCommands[] = {
    {kCmdConfigure, Configure, false, {Types(TEEC_VALUE_INPUT), kNoTypes, kNoTypes, kNoTypes}},
    {kCmdGenerateKey,
     GenerateKey,
     true,
     {Types(kIn, kNone, kOut, kOut), Types(kIn, kNone, kOut), kNoTypes, kNoTypes}},
    {kCmdGetKeyCharacteristics,
     GetKeyCharacteristics,
     true,
     {Types(kIn, kIn, kOut), Types(kIn, kNone, kOut), kNoTypes, kNoTypes}},
    {kCmdImportKey, ImportKey, true, {Types(kIn, kIn, kOut, kInOut), kNoTypes, kNoTypes, kNoTypes}},
    {kCmdExportKey,
     ExportKey,
     true,
     {Types(kIn, kIn, kOut), Types(kIn, kNone, kOut), kNoTypes, kNoTypes}},
    {kCmdAttestKey, AttestKey, true, {Types(kIn, kIn, kOut), kNoTypes, kNoTypes, kNoTypes}},
    {kCmdUpgrade, UpgradeKey, true, {Types(kIn, kIn, kOut), kNoTypes, kNoTypes, kNoTypes}},
    {kCmdBegin,
     BeginOperation,
     true,
     {Types(kIn, kIn, kOut, TEEC_VALUE_INOUT), Types(kIn, kNone, kOut, TEEC_VALUE_INOUT), kNoTypes,
      kNoTypes}},
    {kCmdUpdate,
     UpdateOperation,
     true,
     {Types(kIn, kIn, kInOut, kOut), Types(kNone, kIn, kInOut, kOut),
      Types(kIn, kNone, kInOut, kOut), Types(kNone, kNone, kInOut, kOut)}},
    {kCmdFinish,
     FinishOperation,
     true,
     {Types(kIn, kIn, kInOut, kOut), Types(kNone, kIn, kInOut, kOut),
      Types(kIn, kNone, kInOut, kOut), Types(kNone, kNone, kInOut, kOut)}},
    {kCmdAbort, AbortOperation, true, {Types(kIn), kNoTypes, kNoTypes, kNoTypes}},
    {kCmdDeleteKey, DeleteKey, false, {Types(kIn), kNoTypes, kNoTypes, kNoTypes}},
    {kCmdVerifyAuthorization,
     VerifyAuthorization,
     false,
     {Types(kIn, kIn, kInOut, kOut), Types(kNone, kIn, kInOut, kOut),
      Types(kIn, kNone, kInOut, kOut), Types(kNone, kNone, kInOut, kOut)}},
    {kCmdEarlyBootEnded, EarlyBootEnded, false, {Types(kNone), kNoTypes, kNoTypes, kNoTypes}},
    {kCmdDeviceLocked,
     DeviceLocked,
     false,
     {Types(TEEC_VALUE_INPUT), kNoTypes, kNoTypes, kNoTypes}},
    {kCmdGetHmacSharingParameters,
     GetHmacSharingParameters,
     false,
     {Types(kOut, kOut), kNoTypes, kNoTypes, kNoTypes}},
    {kCmdComputeSharedHmac,
     ComputeSharedHmac,
     false,
     {Types(kIn, kOut), kNoTypes, kNoTypes, kNoTypes}},
    {kCmdGetErrorRecord, GetErrorRecord, false, {Types(kOut), kNoTypes, kNoTypes, kNoTypes}},
};

TEEC_Result Dispatch(uint32_t id, uint32_t types, TaParam params[4]) {
  const Command* const end = std::end(kCommands);
  const Command* command =
      std::find_if(std::begin(kCommands), end, [id](const Command& c) { return c.id == id; });
  if (command == end) return Fail(TEEC_ERROR_NOT_SUPPORTED);
  if (std::find(std::begin(command->types), std::end(command->types), types) ==
      std::end(command->types)) {
    return Fail(TEEC_ERROR_BAD_PARAMETERS);
  }
  SystemVersion version;
  if (command->needs_configuration && !GetSystemVersion(&version)) {
    return Fail(KM_ERROR_KEYMASTER_NOT_CONFIGURED);
  }
  return command->handler(types, params);
}

// Makes the session current while one of its commands runs.
class SessionScope {
 public:
  explicit SessionScope(Session* session) { CurrentSession() = session; }
  ~SessionScope() { CurrentSession() = nullptr; }
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
    return Dispatch(command, types, params);
  } catch (const std::bad_alloc&) {
    return Fail(TEEC_ERROR_OUT_OF_MEMORY);
  } catch (...) {
    return Fail(TEEC_ERROR_GENERIC);
  }
}

}  // namespace

TEEC_Result GetErrorRecord(uint32_t, TaParam params[4]) {
  const ErrorRecord& record = CurrentSession()->last_error;
  const ByteView name(reinterpret_cast<const uint8_t*>(record.function), strlen(record.function));
  Bytes reply;
  AppendU32(&reply, record.code);
  AppendU32(&reply, record.line);
  AppendU32(&reply, static_cast<uint32_t>(name.size));
  AppendBytes(&reply, name);
  return Reply(reply, &params[0]);
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
