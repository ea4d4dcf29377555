// What of libkeymaster41_ts needs the TEE client's header, apart from the rest, which does not.
#ifndef KEYMASTER_TS_SESSION_H
#define KEYMASTER_TS_SESSION_H

#include <stdint.h>
#include <tee_client_api.h>

#if defined(__GNUC__)
#pragma GCC visibility push(default)
#endif

#ifdef __cplusplus
extern "C" {
#endif

// ObtainTaErrorCode asks the TA, on the open session of a failed command, for its error record and
// reports it as a fault event. cmd is the command's id, ret its TEE result. The session stays open
// and the caller's; a null one is logged. Failures are logged and go no further.
void ObtainTaErrorCode(TEEC_Session* session, uint32_t cmd, uint32_t ret);

#ifdef __cplusplus
}
#endif

#if defined(__GNUC__)
#pragma GCC visibility pop
#endif

#endif  // KEYMASTER_TS_SESSION_H
