// The TAs that a build of the TEE client hosts.
#ifndef PLATFORM_TEE_CLIENT_BUILT_IN_APPS_H
#define PLATFORM_TEE_CLIENT_BUILT_IN_APPS_H

#include <trusted_app.h>

// FindBuiltInApp returns the TA of that UUID, null when there is none.
const TrustedApp* FindBuiltInApp(const TEEC_UUID& uuid);

#endif  // PLATFORM_TEE_CLIENT_BUILT_IN_APPS_H
