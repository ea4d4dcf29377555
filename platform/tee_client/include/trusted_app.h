// What a TA hosted by the TEE client stand-in provides. A TA sees only the stand-in's copies of
// the caller's memory, never the caller's pointers.
#ifndef TRUSTED_APP_H
#define TRUSTED_APP_H

#include <tee_client_api.h>

// One parameter as the TA sees it. For a memory reference, size is the capacity (output, in/out)
// or the length (input) on entry; the TA stores the length it produced, or the length it needs
// together with TEEC_ERROR_SHORT_BUFFER. buffer is null when size is 0.
struct TaParam {
  uint8_t* buffer = nullptr;
  uint32_t size = 0;
  uint32_t a = 0;
  uint32_t b = 0;
};

// A TA's entry points. They may be called from several threads at once, one call at a time for a
// session. param_types is as TEEC_PARAM_TYPES packs it.
struct TrustedApp {
  TEEC_UUID uuid;
  // Opens a session; *session is the TA's own value for it. A non-zero result opens none.
  TEEC_Result (*open_session)(uint32_t login, uint32_t param_types, TaParam params[4],
                              void** session);
  void (*close_session)(void* session);
  TEEC_Result (*invoke)(void* session, uint32_t command, uint32_t param_types, TaParam params[4]);
};

// The software keymaster TA.
extern const TrustedApp kKeymasterTrustedApp;

#endif  // TRUSTED_APP_H
