#include <tee_client_api.h>

#include <exception>
#include <memory>

#include "platform/tee_client/command_parameters.h"
#include "platform/tee_client/sessions.h"

namespace {

constexpr uint32_t kLoginPublic = 0;
// The platform's own login, by which the keymaster HAL is known; it needs no connection data.
constexpr uint32_t kLoginPlatform = 7;

static_assert(sizeof(Handle) == sizeof(void*), "a handle travels in a record's imp pointer");

void* ToImp(Handle handle) { return reinterpret_cast<void*>(handle); }
Handle ToHandle(const void* imp) { return reinterpret_cast<Handle>(imp); }

// Never destroyed: destructors of the host process may still finalise contexts.
SessionTable& Sessions() {
  static auto* const table = new SessionTable;
  return *table;
}

// Answer runs the body of an API function, stores the origin and returns the result. An exception
// is a lack of memory on this side.
template <typename Body>
TEEC_Result Answer(uint32_t* return_origin, Body body) {
  Reply reply = {TEEC_ERROR_OUT_OF_MEMORY, TEEC_ORIGIN_API};
  try {
    reply = body();
  } catch (const std::exception&) {
  }
  if (return_origin != nullptr) *return_origin = reply.origin;
  return reply.result;
}

Reply FromApi(TEEC_Result result) { return {result, TEEC_ORIGIN_API}; }

Reply OpenSession(Handle context, TEEC_Session* session, const TEEC_UUID& destination,
                  uint32_t login, TEEC_Operation* operation) {
  CommandParameters parameters;
  const TEEC_Result read = parameters.Read(operation);
  if (read != TEEC_SUCCESS) return FromApi(read);
  if (login != kLoginPublic && login != kLoginPlatform) {
    return {TEEC_ERROR_NOT_SUPPORTED, TEEC_ORIGIN_TEE};
  }
  const std::shared_ptr<AppHost> host = Sessions().FindHost(context);
  if (host == nullptr) return FromApi(TEEC_ERROR_BAD_STATE);
  std::unique_ptr<AppSession> app;
  Reply reply = host->MakeSession(destination, &app);
  if (reply.result != TEEC_SUCCESS) return reply;

  // In the table before it opens: a context that is finalised meanwhile then takes it along.
  const auto opened = std::make_shared<Session>(std::move(app), context);
  Handle handle = 0;
  reply = Sessions().AddSession(opened, &handle);
  if (reply.result != TEEC_SUCCESS) return reply;
  reply = opened->Open(login, &parameters, operation);
  if (reply.result == TEEC_SUCCESS) {
    session->imp = ToImp(handle);
  } else {
    Sessions().TakeSession(handle);
  }
  return reply;
}

Reply InvokeCommand(Handle handle, uint32_t command, TEEC_Operation* operation) {
  const std::shared_ptr<Session> session = Sessions().FindSession(handle);
  if (session == nullptr) return FromApi(TEEC_ERROR_BAD_STATE);
  CommandParameters parameters;
  const TEEC_Result read = parameters.Read(operation);
  return read == TEEC_SUCCESS ? session->Invoke(command, &parameters, operation) : FromApi(read);
}

}  // namespace

TEEC_Result TEEC_InitializeContext(const char* name, TEEC_Context* context) {
  return Answer(nullptr, [&] {
    if (context == nullptr) return FromApi(TEEC_ERROR_BAD_PARAMETERS);
    context->imp = nullptr;
    if (name != nullptr) return FromApi(TEEC_ERROR_ITEM_NOT_FOUND);
    context->imp = ToImp(Sessions().AddContext());
    return FromApi(TEEC_SUCCESS);
  });
}

void TEEC_FinalizeContext(TEEC_Context* context) {
  if (context == nullptr) return;
  Answer(nullptr, [&] {
    for (const auto& session : Sessions().TakeContext(ToHandle(context->imp))) {
      session->Close();
    }
    return FromApi(TEEC_SUCCESS);
  });
  context->imp = nullptr;
}

TEEC_Result TEEC_OpenSession(TEEC_Context* context, TEEC_Session* session,
                             const TEEC_UUID* destination, uint32_t connection_method,
                             const void* /*connection_data*/, TEEC_Operation* operation,
                             uint32_t* return_origin) {
  return Answer(return_origin, [&] {
    if (context == nullptr || session == nullptr || destination == nullptr) {
      return FromApi(TEEC_ERROR_BAD_PARAMETERS);
    }
    session->imp = nullptr;
    return OpenSession(ToHandle(context->imp), session, *destination, connection_method, operation);
  });
}

void TEEC_CloseSession(TEEC_Session* session) {
  if (session == nullptr) return;
  Answer(nullptr, [&] {
    const auto taken = Sessions().TakeSession(ToHandle(session->imp));
    if (taken != nullptr) taken->Close();
    return FromApi(TEEC_SUCCESS);
  });
  session->imp = nullptr;
}

TEEC_Result TEEC_InvokeCommand(TEEC_Session* session, uint32_t command, TEEC_Operation* operation,
                               uint32_t* return_origin) {
  return Answer(return_origin, [&] {
    if (session == nullptr) return FromApi(TEEC_ERROR_BAD_PARAMETERS);
    return InvokeCommand(ToHandle(session->imp), command, operation);
  });
}
