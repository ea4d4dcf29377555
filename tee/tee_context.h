// The process-wide TEE context that every session is opened on.
#ifndef TEE_TEE_CONTEXT_H
#define TEE_TEE_CONTEXT_H

#include <tee_client_api.h>

namespace km41 {

// GlobalTeeContext returns the context, null while there is none. Only Ts_Initcontext and
// Ts_Finishcontext change it, and they do not run beside a command.
TEEC_Context* GlobalTeeContext();

}  // namespace km41

#endif  // TEE_TEE_CONTEXT_H
